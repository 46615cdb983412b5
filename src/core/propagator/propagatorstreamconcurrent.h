#pragma once

#include "ztcore_export.h"
#include "propagatorstream.h"

#include <atomic>
#include <memory>

struct DeliveryGauge;

// Emits under its own mutex and under the locks of the modules it was given, so that consumers
// reached by direct connections run with their module locked, and consumers in other threads
// (reached by queued connections) at least never see two enqueued calls interleave. Lock order:
// own mutex, then the module locks in list order; released in list order before the mutex.
//
// Counting (see stats()): a queued delivery cannot be watched without a queued call of its own,
// so the channel posts, now and then, a delivery marker into each consumer's thread; a thread
// runs its posted events in order, so a marker that runs tells that every delivery posted before
// it has run. Markers go out every 64 lists at most once a millisecond (with a latency sample),
// more often when a queue limit is set, and when stats() finds deliveries unconfirmed; so the
// figures are exact once the channel is quiet and has been read twice, and pending may lag
// behind while traffic flows (it never understates what the consumer has yet to run). The
// consumers' threads are those of the owners of the module locks, and of the objects given to
// addConsumer(); a channel that knows none counts deliveries when it emits.
class ZTCORE_EXPORT PropagatorStreamConcurrent : public PropagatorStream
{
    Q_OBJECT

public:
    explicit PropagatorStreamConcurrent(QObject *parent = nullptr);
    ~PropagatorStreamConcurrent() override;

    using PropagatorStream::sendList;
    // A concurrent propagator never has a child.
    bool setChild(Propagator *child) override;

    enum QueuePolicy { Block, Drop };
    // Bounds the deliveries posted and not yet run in the consumers' threads (0: no bound, as
    // before). Block: the producer waits, before it takes any lock, until the consumer caught
    // up; the wait ends on close(), when a consumer's thread has ended, and is never entered
    // from a consumer's own thread (there it could never end). Drop: the newest list or array
    // is dropped and counted. The first time the limit is hit, and at most once a second while
    // it lasts, warning() names the channel. Set while wiring, before traffic flows.
    void setQueueLimit(int limit, QueuePolicy policy);
    // A consumer that the channel cannot find through its module locks (a connection made
    // without them): an object living in the thread the consumer's slots run in. Set while
    // wiring, before traffic flows.
    void addConsumer(QObject *consumer);
    // Ends every wait of a producer for good (shutdown); later sends are delivered or dropped
    // according to the policy but never wait.
    virtual void close();

    // Adds the queue figures: pending and pendingHigh (deliveries), latency.
    ChannelStats stats() const override;

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

protected:
    int queueLimit() const { return m_limit; }
    QueuePolicy queuePolicy() const { return m_policy; }
    bool isClosed() const { return m_closed.load(std::memory_order_acquire); }
    // The objects that stand for the consumers' threads: the module locks' owners, then those
    // given to addConsumer, in that order, one per thread.
    QList<QObject *> consumerContexts() const;
    // warning() for a limit reached, rate-limited; `what` says what the producer does about it.
    void warnLimitReached(const QString &what);

    int m_limit = 0;
    QueuePolicy m_policy = Block;
    std::atomic<bool> m_closed {false};

private:
    enum Kind { Bytes, Fresh, Relayed };
    void deliver(Kind kind, const QByteArray *bytes, const QVariantList *list);
    void emitUnderLocks(Kind kind, const QByteArray *bytes, const QVariantList *list);
    DeliveryGauge &gauge();
    void waitForRoom(quint64 needed);

    QList<QObject *> m_consumers;
    std::atomic<qint64> m_lastLimitWarning {0};
    std::shared_ptr<DeliveryGauge> m_gauge; // made at the first send, with the mutex held
    std::atomic<DeliveryGauge *> m_ready {nullptr}; // m_gauge once made, for the other threads
    quint64 m_sinceMarker = 0; // mutex held
    qint64 m_lastMarkerNs = 0; // mutex held
};
