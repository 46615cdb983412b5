#pragma once

#include "ztcore_export.h"
#include "propagator.h"
#include "ztdataarray.h"

#include <QByteArray>
#include <QVariantList>

#include <atomic>

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

protected:
    // How many slot calls (deliveries) one emission of each consumer signal makes.
    struct Fanout
    {
        quint64 bytes = 0; // trySend
        quint64 lists = 0; // trySendList
        quint64 stream = 0; // streamSendList
    };
    // Refreshed after a connection to this propagator changed. Only with the propagator's mutex
    // held (every emission holds it), so that the refresh is not raced by another sender.
    const Fanout &fanout();

    void connectNotify(const QMetaMethod &signal) override;
    void disconnectNotify(const QMetaMethod &signal) override;

private:
    // Set from connect and disconnect (any thread, possibly under Qt's connection lock, where
    // receivers() may not be called); the next emission counts afresh.
    std::atomic<bool> m_fanoutStale {true};
    Fanout m_fanout;
};
