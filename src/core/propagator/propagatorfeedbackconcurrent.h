#pragma once

#include "ztcore_export.h"
#include "propagatorfeedback.h"

#include <QMutex>
#include <QPointer>
#include <QSemaphore>
#include <QThread>

#include <atomic>
#include <deque>

class QEvent;
class TsanMutexLocker;
class FeedbackRelay;
class RequestEvent;

// Requester and server in different threads. The kernel moves the propagator to the thread
// launcher's propagator thread, which belongs to neither module: a request is posted to the
// propagator as an event (types 1001 read, 1002 list read, 1003 write, 1004 list write), that
// thread's event loop emits the matching try* signal (reaching the server in its own thread
// through a queued connection), and the requester blocks on readSem or writeSem until the server
// calls a return operation, from any thread.
//
// Answers belong to their request. Every request gets a serial number, and the event carries it
// together with the position or the data to write, so the server side never reads the
// requester's buffers. Reads (read, readList, readLater, readListLater) and writes (write,
// writeList) are two directions with one request at a time each. The server is expected to
// answer every request it receives once, in the order received; an answer is matched to its
// request by that order and dropped - no buffer touched, no permit released - when its request
// was given up: a deferred read whose waitLaterRead/waitLaterReadList timed out, or any request
// followed by a newer one in the same direction. A request given up before its event was
// delivered never reaches the server. An answer that arrives while no request of its direction
// waits (a server pushing data) is kept as uncollected: readLater refuses until it has been
// collected, and a blocking read or write discards it.
//
// Once the kernel names the server's thread (setServerThread), requests are posted to a small
// relay object living there instead, and the try* signals are emitted in the server's thread:
// a server connected with an automatic connection then runs inside that emission, and an
// answer given there (from that thread, during its slot) belongs to that very request, whatever
// happened to earlier ones. This keeps a server that never answers one request from shifting
// the matching of every later answer. Answers given outside the slot keep the order rule.
//
// The buffers and the bookkeeping are guarded by a lock of their own, never held while the
// propagator emits. A blocking operation called from the propagator's own thread or from the
// server's thread could never be answered: it is refused at once with the error answer (empty
// data, -1), counted as refused and warned about (warning()). A blocking operation waits until
// its answer comes, until the request time-out (setRequestTimeout) passes, until close(), or
// until the server's thread has ended; in all but the first case it returns the error answer.
// waitLaterRead/waitLaterReadList keep their own time-out.
class ZTCORE_EXPORT PropagatorFeedbackConcurrent : public PropagatorFeedback
{
    Q_OBJECT

public:
    explicit PropagatorFeedbackConcurrent(QObject *parent = nullptr);
    ~PropagatorFeedbackConcurrent() override;

    QByteArray read(qlonglong pos) override;
    QVariantList readList(qlonglong pos) override;
    // Refused (false, nothing posted) while an earlier answer is still waiting to be collected.
    bool readLater(qlonglong pos) override;
    bool readListLater(qlonglong pos) override;
    qlonglong write(const QByteArray &data) override;
    qlonglong writeList(const QVariantList &list) override;
    void readReturn(const QByteArray &data) override;
    void readListReturn(const QVariantList &list) override;
    void writeReturn(qlonglong result) override;
    void writeListReturn(qlonglong result) override;
    bool waitForBytesWritten(int msecs) override;
    // *ok tells whether the answer arrived within msecs (negative: no limit); the buffer is
    // returned either way. After a time-out the deferred read is given up.
    QByteArray waitLaterRead(int msecs, bool *ok) override;
    QVariantList waitLaterReadList(int msecs, bool *ok) override;

    bool event(QEvent *e) override;

    // A blocking request that is not answered within `msecs` (> 0) returns the error answer
    // (empty data, -1), is counted and warned about; its late answer is dropped. 0: no limit.
    void setRequestTimeout(int msecs);
    // The thread of the server (the receiver of the try* signals), so that a blocking request
    // from there is refused at once instead of waiting for ever. Set while wiring.
    void setServerThread(QThread *thread);
    // Releases every blocked requester with the error answer and refuses later blocking
    // requests (shutdown, or a server that hung).
    void close();

protected:
    QSemaphore readSem; // one permit per read answer not yet collected
    QSemaphore writeSem; // one permit per write answer not yet collected

private:
    // One direction of traffic: the request that waits for its answer, and how many of the
    // requests handed to the server have been answered.
    struct Channel
    {
        quint64 waiting = 0; // serial of the request waiting for its answer; 0: none
        // Requests handed to the server whose answers are expected in order, oldest first.
        std::deque<quint64> outstanding;
        quint64 serving = 0; // request being emitted in the server's thread; 0: none
        bool servingAnswered = false;
        bool blocking = false; // the waiting request is a blocking one (not a deferred read)
        int wake = 0; // why a blocked requester was woken without an answer; 0: it was not
    };

    friend class FeedbackRelay;
    // The server's side of a request, in the thread whose event loop delivered it.
    void serve(const RequestEvent &request);
    bool refuse(const char *what);
    quint64 open(Channel &channel, QSemaphore &answers, bool blocking);
    void releaseWaiters(int reason);
    QObject *requestTarget() const;
    bool await(TsanMutexLocker &lock, Channel &channel, QSemaphore &answers, const char *what);
    bool settleDeferred(bool answered);
    bool dispatch(Channel &channel, quint64 serial, bool served, bool inServerThread);
    bool accept(Channel &channel);

    QMutex m_lock; // guards the buffers and the channels
    Channel m_reads;
    Channel m_writes;
    quint64 m_serial = 0;
    QThread *m_servingThread = nullptr; // the thread emitting a request now; m_lock held

    std::atomic<int> m_timeoutMs {0};
    std::atomic<bool> m_closed {false}; // changed with m_lock held
    bool m_serverGone = false; // the server's thread has ended; m_lock held
    QPointer<QThread> m_serverThread; // set while wiring
    QMetaObject::Connection m_serverWatch; // its finished() signal
    FeedbackRelay *m_relay = nullptr; // lives in the server's thread; set while wiring
};
