#pragma once

#include "ztcore_export.h"
#include "propagatorfeedback.h"

#include <QSemaphore>

class QEvent;

// Requester and server in different threads. The propagator object lives in the server's
// thread: a request is posted to it as an event (types 1001 read, 1002 list read, 1003 write,
// 1004 list write), that thread's event loop emits the matching try* signal there, and the
// requester blocks on readSem or writeSem until the server calls a return operation, from any
// thread. The semaphore hand-off orders the server's writes to the buffers before the
// requester's reads, which is why the buffers carry no lock.
//
// Never call a blocking operation from the propagator's own thread: the request event could not
// be delivered and the call would wait for ever. The blocking operations have no time-out; only
// waitLaterRead/waitLaterReadList have one.
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
    // *ok tells whether an answer arrived within msecs (negative: no limit); the buffer is
    // returned either way.
    QByteArray waitLaterRead(int msecs, bool *ok) override;
    QVariantList waitLaterReadList(int msecs, bool *ok) override;

    bool event(QEvent *e) override;

protected:
    QSemaphore readSem; // one permit per read answer not yet collected
    QSemaphore writeSem; // one permit per write answer not yet collected
};
