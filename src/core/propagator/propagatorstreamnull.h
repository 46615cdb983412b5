#pragma once

#include "ztcore_export.h"
#include "propagatorstream.h"

// Swallows everything. Containers hand it out for names that have no real propagator plugged
// in, so that module code can always send without testing.
class ZTCORE_EXPORT PropagatorStreamNull : public PropagatorStream
{
    Q_OBJECT

public:
    explicit PropagatorStreamNull(QObject *parent = nullptr);

    using PropagatorStream::sendList;
    bool setChild(Propagator *child) override;

public slots:
    void send(const QByteArray &byteArray) override;
    void sendList(const QVariantList &list) override;

protected slots:
    void recvSend(const QByteArray &byteArray) override;
    void recvSendList(const QVariantList &list) override;
};
