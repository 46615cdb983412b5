#pragma once

#include <QList>
#include <QObject>
#include <QThread>

// A worker thread running an event loop for the length of a test. Objects handed to adopt()
// live in that thread and are deleted after it has stopped, so no event can reach a dead object.
class TestThread
{
public:
    TestThread() { thread.start(); }
    ~TestThread()
    {
        thread.quit();
        thread.wait();
        qDeleteAll(owned);
    }

    template<typename T>
    T *adopt(T *object)
    {
        object->moveToThread(&thread);
        owned.append(object);
        return object;
    }

    QThread *get() { return &thread; }

private:
    QThread thread;
    QList<QObject *> owned;
};
