#include "propagatorstreamconcurrent.h"

#include "channelgauge_p.h"
#include "modlocker.h"
#include "modlockset_p.h"
#include "tsanhandoff_p.h"

#include <QObject>
#include <QVariant>

// What a concurrent channel knows about the deliveries it posted into its consumers' threads.
// `posted` counts deliveries (one per slot call an emission queues); a marker posted into a
// consumer's thread carries the value `posted` had then, and when it runs that value is
// confirmed for the thread. Deliveries confirmed for every thread are done.
struct DeliveryGauge : std::enable_shared_from_this<DeliveryGauge>
{
    struct Probe : ConsumerSide
    {
        using ConsumerSide::ConsumerSide;
        std::atomic<bool> inFlight {false}; // a marker of this probe is posted and has not run
        std::atomic<quint64> confirmed {0};
    };

    explicit DeliveryGauge(ChannelCounters *counters)
        : counters(counters)
    { }

    quint64 confirmed() const
    {
        quint64 done = ~quint64(0);
        for (const auto &probe : probes)
            done = qMin(done, probe->confirmed.load(std::memory_order_acquire));
        return done;
    }
    quint64 pending() const
    {
        const quint64 done = confirmed();
        const quint64 all = posted.load(std::memory_order_acquire);
        return all > done ? all - done : 0;
    }
    void raiseHigh(qint64 seen)
    {
        qint64 high = pendingHigh.load(std::memory_order_relaxed);
        while (seen > high
               && !pendingHigh.compare_exchange_weak(high, seen, std::memory_order_relaxed)) { }
    }

    // Any thread. At most one marker per probe is on its way; `sentNs` (0: none) is the time
    // the last list counted in `count` was sent, for a latency sample.
    void post(Probe &probe, quint64 count, qint64 sentNs)
    {
        if (probe.inFlight.exchange(true, std::memory_order_acq_rel))
            return;
        QObject *context = probe.context.data();
        if (!context) {
            probe.inFlight.store(false, std::memory_order_release);
            return;
        }
        auto self = shared_from_this();
        postQueuedCall(context,
                       [self, &probe, count, sentNs] { self->markerRan(probe, count, sentNs); });
    }
    // Markers for every probe whose deliveries are not all confirmed.
    void postMissing()
    {
        const quint64 all = posted.load(std::memory_order_acquire);
        for (const auto &probe : probes) {
            if (probe->confirmed.load(std::memory_order_acquire) < all)
                post(*probe, all, 0);
        }
    }

    // In the consumer's thread, after every delivery posted before the marker.
    void markerRan(Probe &probe, quint64 count, qint64 sentNs)
    {
        if (sentNs)
            latency.add(ChannelClock::nowNs() - sentNs);
        if (count > probe.confirmed.load(std::memory_order_relaxed))
            probe.confirmed.store(count, std::memory_order_release);
        const quint64 done = confirmed();
        quint64 old = accounted.load(std::memory_order_relaxed);
        while (done > old
               && !accounted.compare_exchange_weak(old, done, std::memory_order_relaxed)) { }
        if (done > old)
            counters.add(&ChannelCounters::deliveries, done - old);
        const quint64 all = posted.load(std::memory_order_acquire);
        raiseHigh(qint64(all > count ? all - count : 0));
        probe.inFlight.store(false, std::memory_order_release);
        {
            std::lock_guard<std::mutex> lock(waitLock);
        }
        roomFreed.notify_all();
    }

    std::vector<std::unique_ptr<Probe>> probes; // fixed when the gauge is made
    std::atomic<quint64> posted {0};
    std::atomic<quint64> accounted {0}; // confirmed deliveries already added to the counters
    std::atomic<qint64> pendingHigh {0};
    CountersLink counters;
    LatencySamples latency;
    std::mutex waitLock; // producers waiting for room, and the markers that make it
    std::condition_variable roomFreed;
};

PropagatorStreamConcurrent::PropagatorStreamConcurrent(QObject *parent)
    : PropagatorStream(Propagator::Concurrent, parent)
{ }

PropagatorStreamConcurrent::~PropagatorStreamConcurrent()
{
    if (m_gauge)
        m_gauge->counters.cut();
}

bool PropagatorStreamConcurrent::setChild(Propagator *child)
{
    Q_UNUSED(child)
    return false;
}

void PropagatorStreamConcurrent::send(const QByteArray &byteArray)
{
    deliver(Bytes, &byteArray, nullptr);
}

void PropagatorStreamConcurrent::sendList(const QVariantList &list)
{
    deliver(Fresh, nullptr, &list);
}

void PropagatorStreamConcurrent::recvSend(const QByteArray &byteArray)
{
    send(byteArray);
}

void PropagatorStreamConcurrent::recvSendList(const QVariantList &list)
{
    deliver(Relayed, nullptr, &list);
}

void PropagatorStreamConcurrent::deliver(Kind kind, const QByteArray *bytes,
                                         const QVariantList *list)
{
    const bool guarded = m_limit > 0;
    quint64 needed = 1; // deliveries one send makes, as last seen under the mutex
    for (;;) {
        if (guarded && m_policy == Block)
            waitForRoom(needed);
        bool dropped = false;
        {
            TsanMutexLocker guard(&mutex);
            const Fanout &out = fanout();
            const quint64 n = kind == Bytes ? out.bytes
                : kind == Fresh             ? out.lists + out.stream
                                            : out.lists;
#ifdef ZTCORE_NO_CHANNEL_STATS
            if (!guarded) {
                emitUnderLocks(kind, bytes, list);
                return;
            }
#endif
            DeliveryGauge &g = gauge();
            const bool known = !g.probes.empty();
            if (guarded && known) {
                const quint64 pending = g.pending();
                if (pending > 0 && pending + n > quint64(m_limit)) {
                    g.postMissing();
                    bool mayWait = !isClosed();
                    for (const auto &probe : g.probes)
                        mayWait = mayWait && probe->reachable()
                            && probe->thread != QThread::currentThread();
                    if (m_policy == Block && mayWait) {
                        needed = n;
                        continue; // wait again, with no lock held
                    }
                    if (m_policy == Drop) {
                        ChannelCounters::add(m_counters.dropped);
                        dropped = true;
                    }
                }
            }
            if (!dropped) {
                emitUnderLocks(kind, bytes, list);
                // Sent and posted change only here, with the mutex held.
                ChannelCounters::addSerialised(kind == Bytes ? m_counters.arrays
                                                             : m_counters.lists);
                if (!known) {
                    ChannelCounters::add(m_counters.deliveries, n);
                    return;
                }
                // Deliveries are counted once their marker ran.
                const quint64 all = g.posted.load(std::memory_order_relaxed) + n;
                g.posted.store(all, std::memory_order_release);
                // A bounded queue refreshes its length more often; a full one asks at once.
                const quint64 every = guarded
                    ? quint64(qBound(8, m_limit / 2, int(ChannelClock::SampleEvery)))
                    : ChannelClock::SampleEvery;
                if (++m_sinceMarker < every)
                    return;
                m_sinceMarker = 0;
                qint64 sentNs = 0;
#ifndef ZTCORE_NO_CHANNEL_STATS
                const qint64 now = ChannelClock::nowNs();
                if (kind != Bytes && now - m_lastMarkerNs >= ChannelClock::SampleGapNs) {
                    m_lastMarkerNs = now;
                    sentNs = now;
                }
#endif
                if (!guarded && !sentNs)
                    return;
                for (const auto &probe : g.probes)
                    g.post(*probe, all, sentNs);
                return;
            }
        }
        warnLimitReached(tr("lists dropped (policy=drop), %1 so far")
                             .arg(m_counters.dropped.load(std::memory_order_relaxed)));
        return;
    }
}

// Mutex held.
void PropagatorStreamConcurrent::emitUnderLocks(Kind kind, const QByteArray *bytes,
                                                const QVariantList *list)
{
    ModLockSet::Guard locks(lockers, kind == Relayed ? ModLockSet::ExtendedOnly : ModLockSet::All);
    if (kind == Bytes) {
        emit trySend(*bytes);
    } else {
        emit trySendList(*list);
        if (kind == Fresh)
            emit streamSendList(*list);
    }
}

// Mutex held.
DeliveryGauge &PropagatorStreamConcurrent::gauge()
{
    if (!m_gauge) {
        m_gauge = std::make_shared<DeliveryGauge>(&m_counters);
        for (QObject *context : consumerContexts())
            m_gauge->probes.push_back(std::make_unique<DeliveryGauge::Probe>(context));
        m_ready.store(m_gauge.get(), std::memory_order_release);
    }
    return *m_gauge;
}

// No lock held on entry or exit. Returns when `needed` more deliveries fit, or when waiting
// could never end: the channel closed, a consumer gone or its thread ended, or the caller is a
// consumer's thread itself.
void PropagatorStreamConcurrent::waitForRoom(quint64 needed)
{
    DeliveryGauge *g = m_ready.load(std::memory_order_acquire);
    if (!g || g->probes.empty())
        return;
    const auto full = [&] {
        const quint64 pending = g->pending();
        return pending > 0 && pending + needed > quint64(m_limit);
    };
    bool warned = false;
    std::unique_lock<std::mutex> lock(g->waitLock);
    while (full()) {
        if (isClosed())
            return;
        for (const auto &probe : g->probes) {
            if (probe->thread == QThread::currentThread())
                return;
            if (!probe->reachable()) {
                lock.unlock();
                warnLimitReached(tr("the consumer's thread has ended, the producer does not wait"));
                return;
            }
        }
        if (!warned) {
            warned = true;
            lock.unlock();
            warnLimitReached(tr("the producer waits for the consumer (policy=block)"));
            lock.lock();
            continue;
        }
        g->postMissing();
        g->roomFreed.wait_for(lock, std::chrono::milliseconds(ChannelClock::WaitSliceMs));
    }
}

void PropagatorStreamConcurrent::warnLimitReached(const QString &what)
{
    const qint64 now = ChannelClock::nowNs();
    qint64 last = m_lastLimitWarning.load(std::memory_order_relaxed);
    if (last != 0 && now - last < ChannelClock::WarningGapNs)
        return;
    if (!m_lastLimitWarning.compare_exchange_strong(last, now, std::memory_order_relaxed))
        return;
    emit warning(
        tr("channel \"%1\": queue limit %2 reached, %3").arg(channelName()).arg(m_limit).arg(what));
}

QList<QObject *> PropagatorStreamConcurrent::consumerContexts() const
{
    QList<QObject *> contexts;
    QList<QThread *> threads;
    const auto take = [&](QObject *context) {
        if (context && !threads.contains(context->thread())) {
            threads.append(context->thread());
            contexts.append(context);
        }
    };
    for (ModLocker *locker : lockers)
        take(locker->getOwner());
    for (QObject *consumer : m_consumers)
        take(consumer);
    return contexts;
}

void PropagatorStreamConcurrent::setQueueLimit(int limit, QueuePolicy policy)
{
    m_limit = qMax(0, limit);
    m_policy = policy;
}

void PropagatorStreamConcurrent::addConsumer(QObject *consumer)
{
    if (consumer && !m_consumers.contains(consumer))
        m_consumers.append(consumer);
}

void PropagatorStreamConcurrent::close()
{
    m_closed.store(true, std::memory_order_release);
    if (DeliveryGauge *g = m_ready.load(std::memory_order_acquire)) {
        {
            std::lock_guard<std::mutex> lock(g->waitLock);
        }
        g->roomFreed.notify_all();
    }
}

ChannelStats PropagatorStreamConcurrent::stats() const
{
    ChannelStats s = PropagatorStream::stats();
    DeliveryGauge *g = m_ready.load(std::memory_order_acquire);
    if (!g || g->probes.empty())
        return s;
    const quint64 pending = g->pending();
    if (pending > 0)
        g->postMissing(); // so that a quiet channel reads exact from the next reading on
    g->raiseHigh(qint64(pending));
    s.pending = qint64(pending);
    s.pendingHigh = g->pendingHigh.load(std::memory_order_relaxed);
    g->latency.percentiles(s.latencyMedianNs, s.latencyP99Ns);
    return s;
}
