#include "propagatorfeedbackconcurrent.h"

#include <QCoreApplication>
#include <QEvent>

namespace {

enum RequestEvent {
    ReadRequest = 1001,
    ReadListRequest = 1002,
    WriteRequest = 1003,
    WriteListRequest = 1004,
};

} // namespace

PropagatorFeedbackConcurrent::PropagatorFeedbackConcurrent(QObject *parent)
    : PropagatorFeedback(Propagator::Concurrent, parent)
{ }

QByteArray PropagatorFeedbackConcurrent::read(qlonglong p)
{
    data.clear();
    pos = p;
    QCoreApplication::postEvent(this, new QEvent(QEvent::Type(ReadRequest)));
    readSem.acquire();
    return data;
}

// Clears the byte buffer, not the list buffer: a list read starts from whatever listData held
// until the answer replaces it.
QVariantList PropagatorFeedbackConcurrent::readList(qlonglong p)
{
    data.clear();
    pos = p;
    QCoreApplication::postEvent(this, new QEvent(QEvent::Type(ReadListRequest)));
    readSem.acquire();
    return listData;
}

bool PropagatorFeedbackConcurrent::readLater(qlonglong p)
{
    data.clear();
    pos = p;
    if (readSem.available() > 0)
        return false;
    QCoreApplication::postEvent(this, new QEvent(QEvent::Type(ReadRequest)));
    return true;
}

bool PropagatorFeedbackConcurrent::readListLater(qlonglong p)
{
    listData.clear();
    pos = p;
    if (readSem.available() > 0)
        return false;
    QCoreApplication::postEvent(this, new QEvent(QEvent::Type(ReadListRequest)));
    return true;
}

qlonglong PropagatorFeedbackConcurrent::write(const QByteArray &bytes)
{
    data = bytes;
    QCoreApplication::postEvent(this, new QEvent(QEvent::Type(WriteRequest)));
    writeSem.acquire();
    return pos;
}

qlonglong PropagatorFeedbackConcurrent::writeList(const QVariantList &list)
{
    listData = list;
    QCoreApplication::postEvent(this, new QEvent(QEvent::Type(WriteListRequest)));
    writeSem.acquire();
    return pos;
}

void PropagatorFeedbackConcurrent::readReturn(const QByteArray &bytes)
{
    data = bytes;
    readSem.release();
}

void PropagatorFeedbackConcurrent::readListReturn(const QVariantList &list)
{
    listData = list;
    readSem.release();
}

void PropagatorFeedbackConcurrent::writeReturn(qlonglong result)
{
    pos = result;
    writeSem.release();
}

void PropagatorFeedbackConcurrent::writeListReturn(qlonglong result)
{
    writeReturn(result);
}

bool PropagatorFeedbackConcurrent::waitForBytesWritten(int)
{
    return true;
}

QByteArray PropagatorFeedbackConcurrent::waitLaterRead(int msecs, bool *ok)
{
    if (ok)
        *ok = false;
    if (readSem.tryAcquire(1, msecs) && ok)
        *ok = true;
    return data;
}

QVariantList PropagatorFeedbackConcurrent::waitLaterReadList(int msecs, bool *ok)
{
    if (ok)
        *ok = false;
    if (readSem.tryAcquire(1, msecs) && ok)
        *ok = true;
    return listData;
}

bool PropagatorFeedbackConcurrent::event(QEvent *e)
{
    switch (static_cast<int>(e->type())) {
    case ReadRequest:
        emit tryRead(pos);
        break;
    case ReadListRequest:
        emit tryReadList(pos);
        break;
    case WriteRequest:
        emit tryWrite(data);
        break;
    case WriteListRequest:
        emit tryWriteList(listData);
        break;
    default:
        return PropagatorFeedback::event(e);
    }
    e->accept();
    return true;
}
