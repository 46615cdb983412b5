#include "propagatorstreambatched.h"

#include "channelgauge_p.h"
#include "modlockset_p.h"
#include "tsanhandoff_p.h"

#include <atomic>
#include <deque>
#include <thread>

namespace {

constexpr size_t DefaultCapacity = 65536; // lists, when no queue limit is set
constexpr size_t Chunk = 256; // lists taken from the queue at a time
constexpr size_t Turn = 16384; // lists delivered before the thread's other events get a turn
// Before the consumer goes idle it gives a producer that is still sending this many yields to
// put more lists in: a wake-up (an event posted across threads) costs the producer far more
// than a list, so a consumer that went idle after every list or two would halve the rate.
constexpr int IdleYields = 16;

} // namespace

// The queue shared by the producers and the consumer's thread. Lock order: the channel's mutex,
// the module locks, then `lock`; the consumer's thread takes `gate`, then `lock`, and holds
// `gate` (only) while it emits a chunk, so that the channel is not deleted under it.
struct BatchQueue : std::enable_shared_from_this<BatchQueue>
{
    struct Item
    {
        QVariantList list;
        QByteArray bytes;
        qint64 sentNs = 0; // 0: not a latency sample
        quint64 deliveries = 0; // slot calls its emission makes
        int kind = 0;
    };

    BatchQueue(PropagatorStreamBatched *owner, ChannelCounters *counters, QObject *consumer)
        : owner(owner)
        , counters(counters)
        , consumer(consumer)
    { }

    // `lock` held. The one wake-up for an idle consumer.
    void wake()
    {
        if (!idle)
            return;
        idle = false;
        repost();
    }
    void repost()
    {
        auto self = shared_from_this();
        if (QObject *context = consumer.context.data())
            postQueuedCall(context, [self] { self->pump(); });
    }

    // In the consumer's thread.
    void pump()
    {
        std::unique_lock<std::mutex> entry(gate);
        std::vector<Item> chunk;
        chunk.reserve(Chunk);
        size_t done = 0;
        bool lingered = false;
        for (;;) {
            PropagatorStreamBatched *channel = nullptr;
            if (lingered) {
                for (int i = 0; i < IdleYields && size.load(std::memory_order_relaxed) == 0; ++i)
                    std::this_thread::yield();
            }
            {
                std::lock_guard<std::mutex> guard(lock);
                channel = owner.load(std::memory_order_relaxed);
                if (channel && items.empty() && !lingered) {
                    lingered = true;
                    continue; // looked at again after the yields below
                }
                if (!channel || items.empty()) {
                    idle = true;
                    return;
                }
                const size_t n = qMin(Chunk, items.size());
                std::move(items.begin(), items.begin() + n, std::back_inserter(chunk));
                items.erase(items.begin(), items.begin() + n);
                size.store(items.size(), std::memory_order_relaxed);
                lingered = false;
            }
            room.notify_all();
            quint64 deliveries = 0;
            for (const Item &item : chunk) {
                if (owner.load(std::memory_order_relaxed) != channel)
                    break; // deleted by a consumer's slot
                switch (item.kind) {
                case PropagatorStreamBatched::Bytes:
                    emit channel->trySend(item.bytes);
                    break;
                case PropagatorStreamBatched::Fresh:
                    emit channel->trySendList(item.list);
                    emit channel->streamSendList(item.list);
                    break;
                default:
                    emit channel->trySendList(item.list);
                    break;
                }
                deliveries += item.deliveries;
                if (item.sentNs)
                    latency.add(ChannelClock::nowNs() - item.sentNs);
            }
            counters.add(&ChannelCounters::deliveries, deliveries);
            done += chunk.size();
            chunk.clear();
            if (done >= Turn) {
                // Still not idle: the next wake-up is this one, behind the thread's other
                // events.
                repost();
                return;
            }
        }
    }

    std::mutex lock; // guards everything below up to `gate`
    std::condition_variable room; // the queue shrank, or the channel closed
    std::deque<Item> items;
    // items.size(), for a producer's look without the lock; written with `lock` held.
    std::atomic<size_t> size {0};
    bool idle = true; // no wake-up posted or running
    qint64 pendingHigh = 0;
    // Null once the channel is deleted: with `gate` and `lock` held, or from a consumer's slot
    // (in the consumer's thread, within the chunk), which the chunk checks after every list.
    std::atomic<PropagatorStreamBatched *> owner;

    std::mutex gate;
    CountersLink counters;
    LatencySamples latency;
    const ConsumerSide consumer;
};

PropagatorStreamBatched::PropagatorStreamBatched(QObject *parent)
    : PropagatorStreamConcurrent(parent)
{ }

PropagatorStreamBatched::~PropagatorStreamBatched()
{
    if (!m_queue)
        return;
    BatchQueue &q = *m_queue;
    std::unique_lock<std::mutex> gate(q.gate, std::defer_lock);
    if (q.consumer.thread != QThread::currentThread())
        gate.lock();
    {
        std::lock_guard<std::mutex> guard(q.lock);
        q.owner.store(nullptr, std::memory_order_relaxed);
        q.items.clear();
        q.size.store(0, std::memory_order_relaxed);
    }
    q.counters.cut();
    q.room.notify_all();
}

void PropagatorStreamBatched::send(const QByteArray &byteArray)
{
    enqueue(Bytes, &byteArray, nullptr);
}

void PropagatorStreamBatched::sendList(const QVariantList &list)
{
    enqueue(Fresh, nullptr, &list);
}

void PropagatorStreamBatched::recvSend(const QByteArray &byteArray)
{
    send(byteArray);
}

void PropagatorStreamBatched::recvSendList(const QVariantList &list)
{
    enqueue(Relayed, nullptr, &list);
}

void PropagatorStreamBatched::enqueue(Kind kind, const QByteArray *bytes, const QVariantList *list)
{
    const size_t capacity = m_limit > 0 ? size_t(m_limit) : DefaultCapacity;
    const bool dropping = m_limit > 0 && m_policy == Drop;
    enum { Queued, Dropped, Lost, Full } outcome = Queued;
    for (;;) {
        if (!dropping)
            waitForRoom(capacity);
        {
            TsanMutexLocker guard(&mutex);
            BatchQueue &q = queue();
            const Fanout &out = fanout();
            ModLockSet::Guard locks(lockers,
                                    kind == Relayed ? ModLockSet::ExtendedOnly : ModLockSet::All);
            std::lock_guard<std::mutex> queued(q.lock);
            if (!q.consumer.reachable()) {
                outcome = Lost;
            } else if (q.items.size() >= capacity) {
                if (dropping)
                    outcome = Dropped;
                else if (!isClosed() && q.consumer.thread != QThread::currentThread())
                    outcome = Full;
            }
            if (outcome == Queued) {
                BatchQueue::Item item;
                item.kind = kind;
                if (kind == Bytes) {
                    item.bytes = *bytes;
                    item.deliveries = out.bytes;
                } else {
                    item.list = *list;
                    item.deliveries = kind == Fresh ? out.lists + out.stream : out.lists;
                }
#ifndef ZTCORE_NO_CHANNEL_STATS
                if (kind != Bytes && ++m_sinceSample >= ChannelClock::SampleEvery) {
                    m_sinceSample = 0;
                    const qint64 now = ChannelClock::nowNs();
                    if (now - m_lastSampleNs >= ChannelClock::SampleGapNs)
                        item.sentNs = m_lastSampleNs = now;
                }
#endif
                q.items.push_back(std::move(item));
                q.size.store(q.items.size(), std::memory_order_relaxed);
                q.pendingHigh = qMax(q.pendingHigh, qint64(q.items.size()));
                q.wake();
                ChannelCounters::addSerialised(kind == Bytes ? m_counters.arrays
                                                             : m_counters.lists);
                return;
            }
            if (outcome != Full)
                ChannelCounters::add(m_counters.dropped);
        }
        if (outcome == Full) {
            outcome = Queued;
            continue; // wait again, with no lock held
        }
        warnLimitReached(outcome == Lost
                             ? tr("the consumer is gone or its thread has ended, lists dropped")
                             : tr("lists dropped (policy=drop), %1 so far")
                                   .arg(m_counters.dropped.load(std::memory_order_relaxed)));
        return;
    }
}

// Mutex held.
BatchQueue &PropagatorStreamBatched::queue()
{
    if (!m_queue) {
        const QList<QObject *> consumers = consumerContexts();
        QObject *context = consumers.isEmpty() ? this : consumers.first();
        m_queue = std::make_shared<BatchQueue>(this, &m_counters, context);
        m_ready.store(m_queue.get(), std::memory_order_release);
    }
    return *m_queue;
}

// No lock held on entry or exit. Returns when the queue has room, or when waiting could never
// end: the channel closed, the consumer gone or its thread ended, or the caller is the
// consumer's thread itself.
void PropagatorStreamBatched::waitForRoom(size_t capacity)
{
    BatchQueue *q = m_ready.load(std::memory_order_acquire);
    if (!q || q->consumer.thread == QThread::currentThread())
        return;
    // Mostly there is room: no lock for that. The enqueueing looks again under the lock.
    if (q->size.load(std::memory_order_relaxed) < capacity)
        return;
    bool warned = false;
    std::unique_lock<std::mutex> lock(q->lock);
    while (q->items.size() >= capacity && !isClosed() && q->consumer.reachable()) {
        if (!warned) {
            warned = true;
            lock.unlock();
            warnLimitReached(tr("the producer waits for the consumer (policy=block)"));
            lock.lock();
            continue;
        }
        q->room.wait_for(lock, std::chrono::milliseconds(ChannelClock::WaitSliceMs));
    }
}

void PropagatorStreamBatched::close()
{
    PropagatorStreamConcurrent::close();
    if (BatchQueue *q = m_ready.load(std::memory_order_acquire)) {
        {
            std::lock_guard<std::mutex> guard(q->lock);
        }
        q->room.notify_all();
    }
}

ChannelStats PropagatorStreamBatched::stats() const
{
    ChannelStats s = PropagatorStream::stats();
    s.pending = 0;
    s.pendingHigh = 0;
    if (BatchQueue *q = m_ready.load(std::memory_order_acquire)) {
        {
            std::lock_guard<std::mutex> guard(q->lock);
            s.pending = qint64(q->items.size());
            s.pendingHigh = q->pendingHigh;
        }
        q->latency.percentiles(s.latencyMedianNs, s.latencyP99Ns);
    }
    return s;
}
