#include "propagatorfeedbackconcurrent.h"

#include "tsanhandoff_p.h"

#include <QCoreApplication>
#include <QEvent>
#include <QMetaMethod>

namespace {

enum RequestType {
    ReadRequest = 1001,
    ReadListRequest = 1002,
    WriteRequest = 1003,
    WriteListRequest = 1004,
};

// A request on its way to the propagator's thread, carrying everything the server is asked.
class RequestEvent : public QEvent
{
public:
    RequestEvent(RequestType type, quint64 serial, qlonglong pos)
        : QEvent(QEvent::Type(type))
        , serial(serial)
        , pos(pos)
    { }
    RequestEvent(quint64 serial, const QByteArray &bytes)
        : QEvent(QEvent::Type(WriteRequest))
        , serial(serial)
        , bytes(bytes)
    { }
    RequestEvent(quint64 serial, const QVariantList &list)
        : QEvent(QEvent::Type(WriteListRequest))
        , serial(serial)
        , list(list)
    { }

    const quint64 serial;
    const qlonglong pos = 0;
    const QByteArray bytes;
    const QVariantList list;
};

// The event is built in the requester's thread and read in the propagator's.
void post(QObject *receiver, RequestEvent *request)
{
    tsanRelease(request);
    QCoreApplication::postEvent(receiver, request);
}

QMetaMethod signalFor(int type)
{
    switch (type) {
    case ReadRequest:
        return QMetaMethod::fromSignal(&PropagatorFeedback::tryRead);
    case ReadListRequest:
        return QMetaMethod::fromSignal(&PropagatorFeedback::tryReadList);
    case WriteRequest:
        return QMetaMethod::fromSignal(&PropagatorFeedback::tryWrite);
    default:
        return QMetaMethod::fromSignal(&PropagatorFeedback::tryWriteList);
    }
}

} // namespace

PropagatorFeedbackConcurrent::PropagatorFeedbackConcurrent(QObject *parent)
    : PropagatorFeedback(Propagator::Concurrent, parent)
{ }

QByteArray PropagatorFeedbackConcurrent::read(qlonglong p)
{
    TsanMutexLocker lock(&m_lock);
    data.clear();
    pos = p;
    const quint64 serial = open(m_reads, readSem);
    lock.unlock();
    post(this, new RequestEvent(ReadRequest, serial, p));
    await(lock, m_reads, readSem);
    return data;
}

// Clears the byte buffer, not the list buffer: a list read starts from whatever listData held
// until the answer replaces it.
QVariantList PropagatorFeedbackConcurrent::readList(qlonglong p)
{
    TsanMutexLocker lock(&m_lock);
    data.clear();
    pos = p;
    const quint64 serial = open(m_reads, readSem);
    lock.unlock();
    post(this, new RequestEvent(ReadListRequest, serial, p));
    await(lock, m_reads, readSem);
    return listData;
}

bool PropagatorFeedbackConcurrent::readLater(qlonglong p)
{
    TsanMutexLocker lock(&m_lock);
    data.clear();
    pos = p;
    if (readSem.available() > 0)
        return false;
    const quint64 serial = open(m_reads, readSem);
    lock.unlock();
    post(this, new RequestEvent(ReadRequest, serial, p));
    return true;
}

bool PropagatorFeedbackConcurrent::readListLater(qlonglong p)
{
    TsanMutexLocker lock(&m_lock);
    listData.clear();
    pos = p;
    if (readSem.available() > 0)
        return false;
    const quint64 serial = open(m_reads, readSem);
    lock.unlock();
    post(this, new RequestEvent(ReadListRequest, serial, p));
    return true;
}

qlonglong PropagatorFeedbackConcurrent::write(const QByteArray &bytes)
{
    TsanMutexLocker lock(&m_lock);
    data = bytes;
    const quint64 serial = open(m_writes, writeSem);
    lock.unlock();
    post(this, new RequestEvent(serial, bytes));
    await(lock, m_writes, writeSem);
    return pos;
}

qlonglong PropagatorFeedbackConcurrent::writeList(const QVariantList &list)
{
    TsanMutexLocker lock(&m_lock);
    listData = list;
    const quint64 serial = open(m_writes, writeSem);
    lock.unlock();
    post(this, new RequestEvent(serial, list));
    await(lock, m_writes, writeSem);
    return pos;
}

void PropagatorFeedbackConcurrent::readReturn(const QByteArray &bytes)
{
    TsanMutexLocker lock(&m_lock);
    if (!accept(m_reads))
        return;
    data = bytes;
    readSem.release();
}

void PropagatorFeedbackConcurrent::readListReturn(const QVariantList &list)
{
    TsanMutexLocker lock(&m_lock);
    if (!accept(m_reads))
        return;
    listData = list;
    readSem.release();
}

void PropagatorFeedbackConcurrent::writeReturn(qlonglong result)
{
    TsanMutexLocker lock(&m_lock);
    if (!accept(m_writes))
        return;
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
    const bool answered = readSem.tryAcquire(1, msecs);
    TsanMutexLocker lock(&m_lock);
    const bool collected = settleDeferred(answered);
    if (ok)
        *ok = collected;
    return data;
}

QVariantList PropagatorFeedbackConcurrent::waitLaterReadList(int msecs, bool *ok)
{
    const bool answered = readSem.tryAcquire(1, msecs);
    TsanMutexLocker lock(&m_lock);
    const bool collected = settleDeferred(answered);
    if (ok)
        *ok = collected;
    return listData;
}

bool PropagatorFeedbackConcurrent::event(QEvent *e)
{
    tsanAcquire(e);
    const auto *request = dynamic_cast<const RequestEvent *>(e);
    if (!request)
        return PropagatorFeedback::event(e);
    e->accept();

    const int type = request->type();
    const bool reading = type == ReadRequest || type == ReadListRequest;
    {
        TsanMutexLocker lock(&m_lock);
        if (!dispatch(reading ? m_reads : m_writes, request->serial,
                      isSignalConnected(signalFor(type))))
            return true;
    }
    switch (type) {
    case ReadRequest:
        emit tryRead(request->pos);
        break;
    case ReadListRequest:
        emit tryReadList(request->pos);
        break;
    case WriteRequest:
        emit tryWrite(request->bytes);
        break;
    default:
        emit tryWriteList(request->list);
        break;
    }
    return true;
}

// Lock held. A new request replaces whatever its direction had open, so answers still
// uncollected there are stale: their permits go.
quint64 PropagatorFeedbackConcurrent::open(Channel &channel, QSemaphore &answers)
{
    answers.tryAcquire(answers.available());
    channel.waiting = ++m_serial;
    channel.ticket = 0;
    return channel.waiting;
}

// Called with the lock released; returns with it held, the request closed and its answer in
// the buffers.
void PropagatorFeedbackConcurrent::await(TsanMutexLocker &lock, Channel &channel,
                                         QSemaphore &answers)
{
    answers.acquire();
    lock.relock();
    channel.waiting = 0;
}

// Lock held. Closes the deferred read, collected or given up; an answer that came in between
// the time-out and taking the lock still counts as collected.
bool PropagatorFeedbackConcurrent::settleDeferred(bool answered)
{
    if (!answered)
        answered = readSem.tryAcquire();
    m_reads.waiting = 0;
    return answered;
}

// Lock held. Hands the request to the server unless it was given up meanwhile, or unless
// nobody serves: an answer that never comes would shift the matching of every later one.
bool PropagatorFeedbackConcurrent::dispatch(Channel &channel, quint64 serial, bool served)
{
    if (channel.waiting != serial || !served)
        return false;
    channel.ticket = ++channel.dispatched;
    return true;
}

// Lock held. Matches an arriving answer to the oldest request handed to the server and not yet
// answered; true when that request is the one waiting. An answer when nothing is outstanding is
// pushed by the server and kept only while no request waits.
bool PropagatorFeedbackConcurrent::accept(Channel &channel)
{
    if (channel.answered == channel.dispatched)
        return channel.waiting == 0;
    ++channel.answered;
    return channel.waiting != 0 && channel.answered == channel.ticket;
}

void PropagatorFeedbackConcurrent::setRequestTimeout(int msecs)
{
    Q_UNUSED(msecs)
}

void PropagatorFeedbackConcurrent::setServerThread(QThread *thread)
{
    Q_UNUSED(thread)
}

void PropagatorFeedbackConcurrent::close() { }
