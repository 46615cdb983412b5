#pragma once

#include "ztcore_export.h"
#include "propagatorstream.h"

// Emits in the producer's thread, so consumers connected directly run inside the producer's
// call. It may forward what the producer sends to one child propagator, which lets one producer
// feed a chain; relayed data (recvSend*) is never forwarded.
class ZTCORE_EXPORT PropagatorStreamDirect : public PropagatorStream
{
    Q_OBJECT

public:
    explicit PropagatorStreamDirect(QObject *parent = nullptr);

    using PropagatorStream::sendList;
    // Set once; a second call fails and keeps the first child. A concurrent child is also wired
    // signal-to-signal on streamSendList, so its stream consumers see every list twice (once
    // from its own sendList, once relayed). That double delivery is intended; keep it.
    bool setChild(Propagator *child) override;

signals:
    void childSend(QByteArray byteArray);
    void childSendList(QVariantList list);

public slots:
    void send(const QByteArray &byteArray) override;
    void sendList(const QVariantList &list) override;

protected slots:
    void recvSend(const QByteArray &byteArray) override;
    void recvSendList(const QVariantList &list) override;

private:
    void count(std::atomic<quint64> &sent, quint64 deliveries);
};
