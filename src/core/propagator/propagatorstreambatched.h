#pragma once

#include "ztcore_export.h"
#include "propagatorstreamconcurrent.h"

#include <memory>

struct BatchQueue;

// A cross-thread stream channel that hands lists to its consumer in batches. The producer puts
// each list (or byte array) into a bounded queue shared with the consumer, under the same locks
// as PropagatorStreamConcurrent (its own mutex, then the module locks) around the enqueueing
// only, and posts one wake-up only when the consumer was idle. The queue itself takes no lock:
// one producer at a time writes it (the mutex sees to that) and only the consumer's thread reads
// it. In the consumer's thread that wake-up emits the signals for every waiting list in order,
// handing the thread back to its other events after 16,384; neither the channel's mutex nor a
// module lock is held around the consumer's slots. Nothing is lost, repeated or reordered,
// except what policy=drop drops (counted).
//
// The consumer's thread is that of the first module lock's owner (the kernel gives the channel
// its target's lock), else of the first object given to addConsumer(), else the channel's own.
// Consumers there must be connected with an automatic or direct connection: the signals are
// emitted in that thread. Consumers in other threads are still reached, by Qt's queued calls.
//
// The queue holds at most the queue limit, or 65,536 lists without one, counting those not yet
// delivered; a full queue makes the producer wait as policy=block does (never in the consumer's
// own thread, where it queues beyond the bound instead). Lists sent when the consumer is gone or
// its thread has ended are dropped and counted. stats(): pending and pendingHigh count lists
// not yet delivered.
class ZTCORE_EXPORT PropagatorStreamBatched : public PropagatorStreamConcurrent
{
    Q_OBJECT

public:
    explicit PropagatorStreamBatched(QObject *parent = nullptr);
    // Lists still waiting are never delivered. Deleting the channel from a thread other than the
    // consumer's waits for a batch being delivered to finish.
    ~PropagatorStreamBatched() override;

    using PropagatorStream::sendList;
    void close() override;
    ChannelStats stats() const override;

public slots:
    void send(const QByteArray &byteArray) override;
    void sendList(const QVariantList &list) override;

protected slots:
    void recvSend(const QByteArray &byteArray) override;
    void recvSendList(const QVariantList &list) override;

private:
    enum Kind { Bytes, Fresh, Relayed };
    void enqueue(Kind kind, const QByteArray *bytes, const QVariantList *list);
    BatchQueue &queue();
    void waitForRoom(quint64 capacity);

    std::shared_ptr<BatchQueue> m_queue; // made at the first send, with the mutex held
    std::atomic<BatchQueue *> m_ready {nullptr}; // m_queue once made, for the other threads
    quint64 m_sinceSample = 0; // mutex held
    qint64 m_lastSampleNs = 0; // mutex held

    friend struct BatchQueue;
};
