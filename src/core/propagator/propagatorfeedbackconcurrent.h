#pragma once

#include "ztcore_export.h"
#include "propagatorfeedback.h"

#include <QMutex>
#include <QSemaphore>

class QEvent;
class QThread;
class TsanMutexLocker;

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
// The buffers and the bookkeeping are guarded by a lock of their own, never held while the
// propagator emits. Never call a blocking operation from the propagator's own thread: the
// request event could not be delivered and the call would wait for ever. The blocking operations
// have no time-out; only waitLaterRead/waitLaterReadList have one.
class ZTCORE_EXPORT PropagatorFeedbackConcurrent : public PropagatorFeedback
{
    Q_OBJECT

public:
    explicit PropagatorFeedbackConcurrent(QObject *parent = nullptr);

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
        quint64 ticket = 0; // its place among the requests handed to the server; 0: not yet
        quint64 dispatched = 0; // requests handed to the server
        quint64 answered = 0; // answers received for them
    };

    quint64 open(Channel &channel, QSemaphore &answers);
    void await(TsanMutexLocker &lock, Channel &channel, QSemaphore &answers);
    bool settleDeferred(bool answered);
    bool dispatch(Channel &channel, quint64 serial, bool served);
    bool accept(Channel &channel);

    QMutex m_lock; // guards the buffers and the channels
    Channel m_reads;
    Channel m_writes;
    quint64 m_serial = 0;
};
