#pragma once

#include "propagatorfeedback.h"
#include "ztdataarray.h"
#include "ztdatawrapper.h"

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

inline ZtDataArray sampleArray()
{
    ZtDataArray a;
    a.items.append(QVariant::fromValue(ZtDataY(1.5, "y")));
    a.items.append(QVariant::fromValue(ZtDataXY(2.0, 3.25, "xy")));
    ZtDataArray nested;
    nested.items.append(QVariant::fromValue(ZtDataY(-4)));
    a.items.append(QVariant::fromValue(nested));
    return a;
}

inline QVariantList flatSample()
{
    return ZtDataWrapper::convArrayToList(sampleArray());
}

// A server module's side of a feedback propagator. Every answer is derived from its request,
// so a requester can tell its own answer from a stale or mixed-up one; a negative list-read
// position asks for the flattened sample array. A child of the propagator: it moves to the
// propagator's thread and dies with it.
class Server : public QObject
{
public:
    explicit Server(PropagatorFeedback *p)
        : QObject(p)
    {
        connect(p, &PropagatorFeedback::tryRead, this,
                [p](qlonglong pos) { p->readReturn(QByteArray::number(pos)); });
        connect(p, &PropagatorFeedback::tryReadList, this, [p](qlonglong pos) {
            p->readListReturn(pos < 0 ? flatSample() : QVariantList {pos, pos + 1});
        });
        connect(p, &PropagatorFeedback::tryWrite, this,
                [p](const QByteArray &data) { p->writeReturn(data.toLongLong() * 2); });
        connect(p, &PropagatorFeedback::tryWriteList, this, [p](const QVariantList &list) {
            p->writeListReturn(list.value(0).toLongLong() * 3);
        });
    }
};
