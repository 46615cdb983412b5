#pragma once

#include "ztcore_export.h"
#include "propagator.h"
#include "ztdataarray.h"

#include <QByteArray>
#include <QVariantList>

// One-way channel from a producing module to its consumers. The producer calls the send slots;
// consumers connect to the try* signals. streamSendList is emitted only for lists that entered
// through sendList, never for lists relayed through recvSendList, so that a consumer can tell a
// fresh stream from relayed data.
//
// Plug-ins are compiled against the order of the signals, slots and virtual operations below.
class ZTCORE_EXPORT PropagatorStream : public Propagator
{
    Q_OBJECT

public:
    explicit PropagatorStream(Propagator::PropagatorType type, QObject *parent = nullptr);
    ~PropagatorStream() override;

signals:
    void trySend(QByteArray byteArray);
    void trySendList(QVariantList list);
    void streamSendList(QVariantList list);

public slots:
    virtual void send(const QByteArray &byteArray) = 0;
    virtual void sendList(const QVariantList &list) = 0;
    // Both flatten the array and go through the virtual sendList(QVariantList).
    void sendArray(const ZtDataArray &array);
    void sendList(const ZtDataArray &array);

protected slots:
    // Entry points for an upstream propagator or module in a chain.
    virtual void recvSend(const QByteArray &byteArray) = 0;
    virtual void recvSendList(const QVariantList &list) = 0;
};
