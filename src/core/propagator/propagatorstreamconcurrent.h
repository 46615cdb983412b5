#pragma once

#include "ztcore_export.h"
#include "propagatorstream.h"

// Emits under its own mutex and under the locks of the modules it was given, so that consumers
// reached by direct connections run with their module locked, and consumers in other threads
// (reached by queued connections) at least never see two enqueued calls interleave. Lock order:
// own mutex, then the module locks in list order; released in list order before the mutex.
class ZTCORE_EXPORT PropagatorStreamConcurrent : public PropagatorStream
{
    Q_OBJECT

public:
    explicit PropagatorStreamConcurrent(QObject *parent = nullptr);

    using PropagatorStream::sendList;
    // A concurrent propagator never has a child.
    bool setChild(Propagator *child) override;

    enum QueuePolicy { Block, Drop };
    // Bounds the deliveries posted and not yet run in the consumers' threads (0: no bound, as
    // before). Block: the producer waits, before it takes any lock, until the consumer caught
    // up (the wait ends on close()); Drop: the newest list or array is dropped and counted.
    // Set while wiring, before traffic flows.
    void setQueueLimit(int limit, QueuePolicy policy);
    // Ends every wait of a producer for good (shutdown); later sends are delivered or dropped
    // according to the policy but never wait.
    virtual void close();

public slots:
    void send(const QByteArray &byteArray) override;
    void sendList(const QVariantList &list) override;

protected slots:
    // When another propagator relays into this one (its try* signals connected directly to
    // these slots), this propagator, the receiving one, takes the locks in its own list, inside
    // the relaying propagator's emission; the relaying one takes only the locks in its list.
    void recvSend(const QByteArray &byteArray) override;
    // Relayed lists lock only the extended modules in the list (mt == 1), unlike send and
    // sendList which lock every module. The asymmetry is intended.
    void recvSendList(const QVariantList &list) override;
};
