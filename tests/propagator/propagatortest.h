#pragma once

#include "propagatorfeedback.h"
#include "ztdataarray.h"
#include "ztdatawrapper.h"

#include <QList>
#include <QObject>
#include <QThread>

// A worker thread with an event loop; adopted objects are deleted only after it has stopped.
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

private:
    QThread thread;
    QList<QObject *> owned;
};

inline ZtDataArray sampleArray()
{
    ZtDataArray a, nested;
    nested.items.append(QVariant::fromValue(ZtDataY(-4)));
    a.items << QVariant::fromValue(ZtDataY(1.5, "y"))
            << QVariant::fromValue(ZtDataXY(2.0, 3.25, "xy")) << QVariant::fromValue(nested);
    return a;
}

inline QVariantList flatSample()
{
    return ZtDataWrapper::convArrayToList(sampleArray());
}

// The server side of a feedback propagator: every answer is derived from its request so that a
// requester can tell its own answer from a stale one; a negative list read asks for the sample.
// A child of the propagator, so it follows it into its thread and dies with it.
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
