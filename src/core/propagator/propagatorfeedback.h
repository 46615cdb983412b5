#pragma once

#include "ztcore_export.h"
#include "propagator.h"
#include "ztdataarray.h"

#include <QByteArray>
#include <QVariantList>

// Request-and-answer channel between a requester module and a server module.
//
// The requester calls read/readList/write/writeList (answer awaited) or readLater/readListLater
// followed by waitLaterRead/waitLaterReadList (answer collected later). The server, connected to
// the try* signals, performs the request and answers through readReturn/readListReturn/
// writeReturn/writeListReturn. The read operations return the byte or list buffer, the write
// operations return pos as the server set it.
//
// The buffers are shared between requester and server; each variant orders the hand-off
// itself (Direct: one thread; Concurrent: a lock and semaphores). One request at a time per
// propagator.
//
// Plug-ins are compiled against the order of the members, signals and virtual operations below.
class ZTCORE_EXPORT PropagatorFeedback : public Propagator
{
    Q_OBJECT

public:
    explicit PropagatorFeedback(Propagator::PropagatorType type, QObject *parent = nullptr);
    // Copies the request state (tag, pos and both buffers) of other, not its type, child or
    // locks.
    PropagatorFeedback(Propagator::PropagatorType type, const PropagatorFeedback &other,
                       QObject *parent = nullptr);
    ~PropagatorFeedback() override;

    // A feedback propagator never has a child.
    bool setChild(Propagator *child) override;

    virtual QByteArray read(qlonglong pos) = 0;
    virtual QVariantList readList(qlonglong pos) = 0;
    virtual bool readLater(qlonglong pos) = 0;
    virtual bool readListLater(qlonglong pos) = 0;
    virtual qlonglong write(const QByteArray &data) = 0;
    virtual qlonglong writeList(const QVariantList &list) = 0;
    virtual void readReturn(const QByteArray &data) = 0;
    virtual void readListReturn(const QVariantList &list) = 0;
    virtual void writeReturn(qlonglong result) = 0;
    virtual void writeListReturn(qlonglong result) = 0;
    virtual bool waitForBytesWritten(int msecs) = 0;
    virtual QByteArray waitLaterRead(int msecs, bool *ok) = 0;
    virtual QVariantList waitLaterReadList(int msecs, bool *ok) = 0;

    // The same requests and answers for data arrays, flattened to and from lists on the way.
    ZtDataArray readArray(qlonglong pos);
    ZtDataArray waitLaterReadArray(int msecs, bool *ok);
    qlonglong writeArray(const ZtDataArray &array);
    void readArrayReturn(const ZtDataArray &array);

signals:
    void tryRead(qlonglong pos);
    void tryReadList(qlonglong pos);
    void tryWrite(QByteArray data);
    void tryWriteList(QVariantList list);

protected:
    int tag; // carried along by the copying constructor only
    qlonglong pos; // position or size of the last read request, or result of the last write
    QByteArray data;
    QVariantList listData;
};
