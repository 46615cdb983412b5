#include "propagatorfeedbackconcurrent.h"

#include "channelgauge_p.h"
#include "tsanhandoff_p.h"

#include <QCoreApplication>
#include <QEvent>
#include <QMetaMethod>

#include <mutex>

namespace {

// Why a blocking request ended without its answer (Channel::wake, await).
enum WakeReason { Answered = 0, Closed, ServerGone, TimedOut };

enum RequestType {
    ReadRequest = 1001,
    ReadListRequest = 1002,
    WriteRequest = 1003,
    WriteListRequest = 1004,
};

} // namespace

// A request on its way to the thread that hands it to the server, carrying everything the
// server is asked.
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

// Hands requests to the server in the server's own thread (see the class comment). Deleted by
// its propagator; `owner` is cleared under `gate` first, and the relay holds `gate` while the
// server handles a request, so a request delivered late finds no propagator instead of a
// deleted one.
class FeedbackRelay : public QObject
{
public:
    explicit FeedbackRelay(PropagatorFeedbackConcurrent *owner)
        : owner(owner)
    { }

    bool event(QEvent *e) override
    {
        tsanAcquire(e);
        const auto *request = dynamic_cast<const RequestEvent *>(e);
        if (!request)
            return QObject::event(e);
        e->accept();
        std::lock_guard<std::mutex> lock(gate);
        if (owner)
            owner->serve(*request);
        return true;
    }

    std::mutex gate;
    PropagatorFeedbackConcurrent *owner;
};

namespace {

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

PropagatorFeedbackConcurrent::~PropagatorFeedbackConcurrent()
{
    setServerThread(nullptr);
}

QByteArray PropagatorFeedbackConcurrent::read(qlonglong p)
{
    if (refuse("read"))
        return QByteArray();
    TsanMutexLocker lock(&m_lock);
    data.clear();
    pos = p;
    const quint64 serial = open(m_reads, readSem, true);
    lock.unlock();
    post(requestTarget(), new RequestEvent(ReadRequest, serial, p));
    if (!await(lock, m_reads, readSem, "read"))
        return QByteArray();
    return data;
}

// Clears the byte buffer, not the list buffer: a list read starts from whatever listData held
// until the answer replaces it.
QVariantList PropagatorFeedbackConcurrent::readList(qlonglong p)
{
    if (refuse("readList"))
        return QVariantList();
    TsanMutexLocker lock(&m_lock);
    data.clear();
    pos = p;
    const quint64 serial = open(m_reads, readSem, true);
    lock.unlock();
    post(requestTarget(), new RequestEvent(ReadListRequest, serial, p));
    if (!await(lock, m_reads, readSem, "readList"))
        return QVariantList();
    return listData;
}

bool PropagatorFeedbackConcurrent::readLater(qlonglong p)
{
    TsanMutexLocker lock(&m_lock);
    data.clear();
    pos = p;
    if (readSem.available() > 0)
        return false;
    const quint64 serial = open(m_reads, readSem, false);
    lock.unlock();
    post(requestTarget(), new RequestEvent(ReadRequest, serial, p));
    return true;
}

bool PropagatorFeedbackConcurrent::readListLater(qlonglong p)
{
    TsanMutexLocker lock(&m_lock);
    listData.clear();
    pos = p;
    if (readSem.available() > 0)
        return false;
    const quint64 serial = open(m_reads, readSem, false);
    lock.unlock();
    post(requestTarget(), new RequestEvent(ReadListRequest, serial, p));
    return true;
}

qlonglong PropagatorFeedbackConcurrent::write(const QByteArray &bytes)
{
    if (refuse("write"))
        return -1;
    TsanMutexLocker lock(&m_lock);
    data = bytes;
    const quint64 serial = open(m_writes, writeSem, true);
    lock.unlock();
    post(requestTarget(), new RequestEvent(serial, bytes));
    if (!await(lock, m_writes, writeSem, "write"))
        return -1;
    return pos;
}

qlonglong PropagatorFeedbackConcurrent::writeList(const QVariantList &list)
{
    if (refuse("writeList"))
        return -1;
    TsanMutexLocker lock(&m_lock);
    listData = list;
    const quint64 serial = open(m_writes, writeSem, true);
    lock.unlock();
    post(requestTarget(), new RequestEvent(serial, list));
    if (!await(lock, m_writes, writeSem, "writeList"))
        return -1;
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
    if (collected)
        ChannelCounters::add(m_counters.answers);
    if (ok)
        *ok = collected;
    return data;
}

QVariantList PropagatorFeedbackConcurrent::waitLaterReadList(int msecs, bool *ok)
{
    const bool answered = readSem.tryAcquire(1, msecs);
    TsanMutexLocker lock(&m_lock);
    const bool collected = settleDeferred(answered);
    if (collected)
        ChannelCounters::add(m_counters.answers);
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
    serve(*request);
    return true;
}

void PropagatorFeedbackConcurrent::serve(const RequestEvent &request)
{
    const int type = request.type();
    const bool reading = type == ReadRequest || type == ReadListRequest;
    Channel &channel = reading ? m_reads : m_writes;
    const bool inServerThread = m_relay && QThread::currentThread() == m_relay->thread();
    {
        TsanMutexLocker lock(&m_lock);
        if (!dispatch(channel, request.serial, isSignalConnected(signalFor(type)), inServerThread))
            return;
    }
    switch (type) {
    case ReadRequest:
        emit tryRead(request.pos);
        break;
    case ReadListRequest:
        emit tryReadList(request.pos);
        break;
    case WriteRequest:
        emit tryWrite(request.bytes);
        break;
    default:
        emit tryWriteList(request.list);
        break;
    }
    if (inServerThread) {
        // Not answered during the slot: the server may still answer later, in order.
        TsanMutexLocker lock(&m_lock);
        if (!channel.servingAnswered)
            channel.outstanding.push_back(channel.serving);
        channel.serving = 0;
        m_servingThread = nullptr;
    }
}

// A blocking request that could never be answered: from the thread that would have to deliver
// it, or after close().
bool PropagatorFeedbackConcurrent::refuse(const char *what)
{
    QThread *here = QThread::currentThread();
    QString which;
    if (here == thread())
        which = tr("the channel's own thread");
    else if (here == m_serverThread.data())
        which = tr("the server's thread");
    else if (m_closed.load(std::memory_order_acquire))
        which = QString(); // shutdown: counted, not worth a warning
    else
        return false;
    ChannelCounters::add(m_counters.refused);
    if (which.isEmpty())
        return true;
    const QString name = here->objectName();
    emit warning(
        tr("channel \"%1\": blocking %2 from thread \"%3\" (%4) refused: it could "
           "never be answered")
            .arg(channelName(), QLatin1String(what), name.isEmpty() ? tr("unnamed") : name, which));
    return true;
}

QObject *PropagatorFeedbackConcurrent::requestTarget() const
{
    return m_relay ? static_cast<QObject *>(m_relay)
                   : const_cast<PropagatorFeedbackConcurrent *>(this);
}

// Lock held. A new request replaces whatever its direction had open, so answers still
// uncollected there are stale: their permits go.
quint64 PropagatorFeedbackConcurrent::open(Channel &channel, QSemaphore &answers, bool blocking)
{
    answers.tryAcquire(answers.available());
    channel.waiting = ++m_serial;
    channel.blocking = blocking;
    channel.wake = 0;
    ChannelCounters::add(m_counters.requests);
    // A way out that was taken before this request: it must not wait for a wake-up that came.
    if (blocking && (m_closed.load(std::memory_order_relaxed) || m_serverGone)) {
        channel.wake = m_serverGone ? ServerGone : Closed;
        answers.release();
    }
    return channel.waiting;
}

// Called with the lock released; returns with it held and the request closed. True with the
// answer in the buffers; false when the wait ended without it (time-out, close(), the server's
// thread ended), counted and warned about: the caller returns the error answer, and the late
// answer, should it come, finds no request waiting and is dropped. Without a time-out the wait
// has no timer of its own: close() and the end of the server's thread wake it (releaseWaiters).
bool PropagatorFeedbackConcurrent::await(TsanMutexLocker &lock, Channel &channel,
                                         QSemaphore &answers, const char *what)
{
    const int timeout = m_timeoutMs.load(std::memory_order_relaxed);
    bool answered = true;
    if (timeout > 0)
        answered = answers.tryAcquire(1, timeout);
    else
        answers.acquire();
    lock.relock();
    if (!answered)
        answered = answers.tryAcquire(); // the answer came while the wait gave up
    const int why = answered ? channel.wake : TimedOut;
    channel.waiting = 0;
    channel.wake = 0;
    if (why == 0) {
        ChannelCounters::add(m_counters.answers);
        return true;
    }
    QString text;
    if (why == TimedOut) {
        ChannelCounters::add(m_counters.timeouts);
        text = tr("not answered within %1 ms").arg(timeout);
    } else if (why == ServerGone) {
        text = tr("not answered: the server's thread has ended");
    }
    if (!text.isEmpty()) { // a closed channel (shutdown) returns quietly
        lock.unlock();
        emit warning(tr("channel \"%1\": %2 %3; the error answer is returned")
                         .arg(channelName(), QLatin1String(what), text));
        lock.relock();
    }
    return false;
}

// Lock held. Wakes every requester blocked without a time-out of its own, with the reason.
void PropagatorFeedbackConcurrent::releaseWaiters(int reason)
{
    const auto release = [reason](Channel &channel, QSemaphore &answers) {
        if (channel.waiting && channel.blocking && !channel.wake) {
            channel.wake = reason;
            answers.release();
        }
    };
    release(m_reads, readSem);
    release(m_writes, writeSem);
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
// nobody serves: an answer that never comes would shift the matching of every later one. In the
// server's thread the request is being served until its emission returns; elsewhere its answer
// is expected in order.
bool PropagatorFeedbackConcurrent::dispatch(Channel &channel, quint64 serial, bool served,
                                            bool inServerThread)
{
    if (channel.waiting != serial || !served)
        return false;
    if (inServerThread) {
        channel.serving = serial;
        channel.servingAnswered = false;
        m_servingThread = QThread::currentThread();
    } else {
        channel.outstanding.push_back(serial);
    }
    return true;
}

// Lock held. Matches an arriving answer to its request; true when that request is the one
// waiting. An answer given by the server's thread while it is being served a request belongs
// to that request (so does any answer while nothing older is outstanding); other answers belong
// to the oldest outstanding request. An answer when nothing is outstanding is pushed by the
// server and kept only while no request waits.
bool PropagatorFeedbackConcurrent::accept(Channel &channel)
{
    quint64 matched = 0;
    if (channel.serving && !channel.servingAnswered
        && (channel.outstanding.empty() || QThread::currentThread() == m_servingThread)) {
        matched = channel.serving;
        channel.servingAnswered = true;
    } else if (!channel.outstanding.empty()) {
        matched = channel.outstanding.front();
        channel.outstanding.pop_front();
    } else {
        return channel.waiting == 0;
    }
    return channel.waiting != 0 && matched == channel.waiting;
}

void PropagatorFeedbackConcurrent::setRequestTimeout(int msecs)
{
    m_timeoutMs.store(qMax(0, msecs), std::memory_order_relaxed);
}

void PropagatorFeedbackConcurrent::setServerThread(QThread *thread)
{
    if (m_relay) {
        QThread *home = m_relay->thread();
        {
            std::unique_lock<std::mutex> gate(m_relay->gate, std::defer_lock);
            if (home != QThread::currentThread())
                gate.lock();
            m_relay->owner = nullptr;
        }
        if (home && home != QThread::currentThread() && home->isRunning())
            m_relay->deleteLater();
        else
            delete m_relay;
        m_relay = nullptr;
    }
    QObject::disconnect(m_serverWatch);
    m_serverThread = thread;
    {
        TsanMutexLocker lock(&m_lock);
        m_serverGone = thread && thread->isFinished();
    }
    if (thread) {
        m_relay = new FeedbackRelay(this);
        m_relay->moveToThread(thread);
        // In the ending thread, after its event loop: no request will be delivered there.
        m_serverWatch = connect(
            thread, &QThread::finished, this,
            [this] {
                TsanMutexLocker lock(&m_lock);
                m_serverGone = true;
                releaseWaiters(ServerGone);
            },
            Qt::DirectConnection);
    }
}

void PropagatorFeedbackConcurrent::close()
{
    TsanMutexLocker lock(&m_lock);
    m_closed.store(true, std::memory_order_release);
    releaseWaiters(Closed);
}
