#include "propagatorstreambatched.h"

#include "channelgauge_p.h"
#include "modlockset_p.h"
#include "tsanhandoff_p.h"

#include <QMetaMethod>

#include <atomic>
#include <thread>

namespace {

constexpr quint64 DefaultCapacity = 65536; // lists, when no queue limit is set
constexpr quint64 Chunk = 256; // lists delivered before the producers are told of the room made
constexpr quint64 Turn = 16384; // lists delivered before the thread's other events get a turn
constexpr int BlockSize = 128; // slots per block of the queue
// Before the consumer goes idle it gives a producer that is still sending this many yields to
// put more lists in: a wake-up (an event posted across threads) costs the producer far more
// than a list, so a consumer that went idle after every list or two would halve the rate.
constexpr int IdleYields = 16;

} // namespace

// The queue shared by the producers and the consumer's thread: a chain of blocks of slots,
// written at the tail by one producer at a time (the channel's mutex serialises them) and read
// at the head by the consumer's thread alone, without a lock on either side. A slot is handed
// over by `pushed` (release by the producer, acquire by the consumer); `popped` counts the lists
// delivered, for the bound and the figures. A block the consumer is done with goes back to the
// producers through `spares` (which hands its slots over as well), so that a stream does not
// allocate per list or per block; the lists it still holds are released as releaseDelivered()
// says.
//
// `idle` says that no wake-up is posted or running. The consumer sets it and then looks at
// `pushed` once more; a producer publishes `pushed` and then looks at `idle`; both sequentially
// consistent, so that either the consumer sees the list or the producer sees it idle and posts
// the one wake-up (whoever clears `idle` owns the wake-up).
//
// Lock order: the channel's mutex, the module locks, then `lock` (only to wait for room and to
// announce it). The consumer's thread holds `gate` while it delivers, so that the channel is not
// deleted under it from another thread.
struct BatchQueue : std::enable_shared_from_this<BatchQueue>
{
    struct Slot
    {
        QVariantList list;
        QByteArray bytes;
        qint64 sentNs = 0; // 0: not a latency sample
        quint32 deliveries = 0; // slot calls its emission makes
        quint8 kind = 0;

        void clear()
        {
            list = QVariantList();
            bytes = QByteArray();
        }
    };
    struct Block
    {
        Slot entries[BlockSize];
        Block *next = nullptr;
    };

    BatchQueue(PropagatorStreamBatched *owner, ChannelCounters *counters, QObject *consumer)
        : head(new Block)
        , tail(head)
        , owner(owner)
        , counters(counters)
        , consumer(consumer)
    { }
    ~BatchQueue()
    {
        while (head) {
            Block *next = head->next;
            delete head;
            head = next;
        }
        for (auto &block : spares)
            delete block.load(std::memory_order_acquire);
    }
    BatchQueue(const BatchQueue &) = delete;
    BatchQueue &operator=(const BatchQueue &) = delete;

    // Whether lists put in now can still be delivered. The end of the consumer's thread is
    // learnt from its finished() signal, so that a producer need not take the thread's lock.
    bool reachable() const
    {
        return !threadEnded.load(std::memory_order_acquire) && !consumer.context.isNull();
    }
    quint64 pending() const
    {
        const quint64 in = pushed.load(std::memory_order_acquire);
        const quint64 out = popped.load(std::memory_order_acquire);
        return in > out ? in - out : 0;
    }

    // Producer, with the channel's mutex held: lists waiting, as far as the producer needs to
    // know. `popped` is read again only when the figure it has would reach `bound`, so that the
    // producer mostly leaves the consumer's cache line alone.
    quint64 backlog(quint64 bound)
    {
        if (count - poppedSeen >= bound)
            poppedSeen = popped.load(std::memory_order_acquire);
        return count - poppedSeen;
    }

    // Producer, with the channel's mutex held.
    Slot &tailSlot() { return tail->entries[tailIndex]; }
    void push()
    {
        if (++tailIndex == BlockSize) {
            Block *next = nullptr;
            for (auto &block : spares) {
                if (block.load(std::memory_order_relaxed)
                    && (next = block.exchange(nullptr, std::memory_order_acquire)))
                    break;
            }
            if (next) {
                // Lists delivered from it and not yet released (the consumer was busy).
                for (Slot &slot : next->entries)
                    slot.clear();
                next->next = nullptr;
            } else {
                next = new Block;
            }
            tail->next = next; // published with the slot below
            tail = next;
            tailIndex = 0;
        }
        pushed.store(++count, std::memory_order_seq_cst);
        if (backlog(quint64(pendingHighSeen) + 1) > quint64(pendingHighSeen)) {
            pendingHighSeen = qint64(count - poppedSeen);
            pendingHigh.store(pendingHighSeen, std::memory_order_relaxed);
        }
        if (idle.load(std::memory_order_seq_cst) && idle.exchange(false, std::memory_order_acq_rel))
            post();
    }
    void post()
    {
        auto self = shared_from_this();
        if (QObject *context = consumer.context.data())
            postQueuedCall(context, [self] { self->pump(); });
    }

    // In the consumer's thread.
    void pump()
    {
        std::unique_lock<std::mutex> entry(gate);
        PropagatorStreamBatched *const channel = owner.load(std::memory_order_relaxed);
        if (!channel)
            return;
        quint64 done = 0;
        bool lingered = false;
        for (;;) {
            const quint64 available = pushed.load(std::memory_order_acquire) - taken;
            if (available == 0) {
                if (!lingered) {
                    lingered = true;
                    for (int i = 0;
                         i < IdleYields && pushed.load(std::memory_order_relaxed) == taken; ++i)
                        std::this_thread::yield();
                    continue;
                }
                releaseDelivered();
                idle.store(true, std::memory_order_seq_cst);
                if (pushed.load(std::memory_order_seq_cst) == taken
                    || !idle.exchange(false, std::memory_order_acq_rel))
                    return; // idle, or a producer has just posted the next wake-up
                continue;
            }
            lingered = false;
            const quint64 n = qMin(available, Chunk);
            const quint64 delivered = deliver(channel, n);
            advance(delivered);
            if (delivered < n)
                return; // the channel was deleted by a consumer's slot
            done += n;
            if (done >= Turn) {
                // Still not idle: the next wake-up is this one, behind the thread's other
                // events.
                releaseDelivered();
                post();
                return;
            }
        }
    }
    // The channel's signals take their argument by value, so emitting them through their
    // functions would copy the list, and touch its shared count (which the producer touches as
    // well) twice more per list and signal. emitWith() does what those functions do, with the
    // queued list itself as the argument: receivers in this thread get it as a const argument,
    // queued connections copy it.
    struct Signals
    {
        int trySend;
        int trySendList;
        int streamSendList;
    };
    static const Signals &signalIndices()
    {
        static const Signals indices = [] {
            // A class's signals come first among its methods: the local method index of a
            // signal is its signal index.
            const int offset = PropagatorStream::staticMetaObject.methodOffset();
            auto local
                = [offset](const QMetaMethod &signal) { return signal.methodIndex() - offset; };
            return Signals {local(QMetaMethod::fromSignal(&PropagatorStream::trySend)),
                            local(QMetaMethod::fromSignal(&PropagatorStream::trySendList)),
                            local(QMetaMethod::fromSignal(&PropagatorStream::streamSendList))};
        }();
        return indices;
    }
    static void emitWith(PropagatorStreamBatched *channel, int signal, const void *argument)
    {
        void *arguments[] = {nullptr, const_cast<void *>(argument)};
        QMetaObject::activate(channel, &PropagatorStream::staticMetaObject, signal, arguments);
    }

    // Emits the next n lists in order and tells the producers and the counters; returns how
    // many, fewer when a consumer's slot deleted the channel.
    quint64 deliver(PropagatorStreamBatched *channel, quint64 n)
    {
        const Signals &signal = signalIndices();
        Block *block = head;
        int index = headIndex;
        quint64 deliveries = 0;
        quint64 done = 0;
        for (; done < n; ++done) {
            if (owner.load(std::memory_order_relaxed) != channel)
                break;
            const Slot &slot = block->entries[index];
            switch (slot.kind) {
            case PropagatorStreamBatched::Bytes:
                emitWith(channel, signal.trySend, &slot.bytes);
                break;
            case PropagatorStreamBatched::Fresh:
                emitWith(channel, signal.trySendList, &slot.list);
                emitWith(channel, signal.streamSendList, &slot.list);
                break;
            default:
                emitWith(channel, signal.trySendList, &slot.list);
                break;
            }
            deliveries += slot.deliveries;
            if (slot.sentNs)
                latency.add(ChannelClock::nowNs() - slot.sentNs);
            if (++index == BlockSize) {
                block = block->next;
                index = 0;
            }
        }
        // Room is made once delivered: a slot is written again only after its block came back
        // through `spares`.
        popped.store(taken + done, std::memory_order_seq_cst);
        counters.add(&ChannelCounters::deliveries, deliveries);
        if (waiters.load(std::memory_order_seq_cst) > 0) {
            {
                std::lock_guard<std::mutex> guard(lock);
            }
            room.notify_all();
        }
        return done;
    }
    // Moves the head past n delivered slots; a block passed goes back to the producers with
    // its lists still in it.
    void advance(quint64 n)
    {
        for (quint64 i = 0; i < n; ++i) {
            if (++headIndex == BlockSize) {
                Block *done = head;
                head = head->next;
                headIndex = 0;
                cleared = 0;
                recycle(done);
            }
        }
        taken += n;
    }
    // Releases the lists delivered and still held: those behind the head in its block, and
    // those of the spare blocks. While lists flow they are released by the producer as it takes
    // a spare block; a consumer dropping them one by one would fight the producer for the count
    // of a list sent again and again, between every two slot calls. Once it has caught up, the
    // consumer lets them go itself (the producer is quiet then), so that no list outlives its
    // delivery for long.
    void releaseDelivered()
    {
        for (; cleared < headIndex; ++cleared)
            head->entries[cleared].clear();
        for (auto &spare : spares) {
            if (Block *block = spare.exchange(nullptr, std::memory_order_acq_rel)) {
                for (Slot &slot : block->entries)
                    slot.clear();
                recycle(block);
            }
        }
    }
    // A block passed by the consumer, for the producer to take again (or freed when enough wait).
    void recycle(Block *block)
    {
        for (auto &spare : spares) {
            Block *empty = nullptr;
            if (spare.compare_exchange_strong(empty, block, std::memory_order_acq_rel))
                return;
        }
        delete block;
    }

    // Each side's own fields, the counters the other side reads, and the flags apart, each on
    // cache lines of their own: a producer writing next to what the consumer reads (or the
    // reverse) would move the line between the cores for every list.

    // The consumer's side: pump() only.
    alignas(64) Block *head;
    int headIndex = 0;
    int cleared = 0; // slots of the head block whose lists are released
    quint64 taken = 0;

    // The producers' side: the channel's mutex held.
    alignas(64) Block *tail;
    int tailIndex = 0;
    quint64 count = 0; // lists put in
    quint64 poppedSeen = 0;
    qint64 pendingHighSeen = 0;

    alignas(64) std::atomic<quint64> pushed {0};
    alignas(64) std::atomic<quint64> popped {0};
    alignas(64) std::atomic<bool> idle {true};
    std::atomic<int> waiters {0}; // producers waiting for room
    std::atomic<Block *> spares[4] {}; // blocks passed by the consumer, for the producer
    std::atomic<bool> threadEnded {false};
    std::atomic<qint64> pendingHigh {0};

    std::mutex lock; // waiting for room
    std::condition_variable room; // the queue shrank, the channel closed or the thread ended
    // Null once the channel is deleted: with `gate` held, or from a consumer's slot (in the
    // consumer's thread, within a chunk), which the chunk checks after every list.
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
    q.owner.store(nullptr, std::memory_order_relaxed);
    q.counters.cut();
    {
        std::lock_guard<std::mutex> guard(q.lock);
    }
    q.room.notify_all();
    // The lists still waiting go with the queue: now, or after a wake-up already posted ran.
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
    const quint64 capacity = m_limit > 0 ? quint64(m_limit) : DefaultCapacity;
    const bool dropping = m_limit > 0 && m_policy == Drop;
    enum { Queued, Dropped, Lost, Full } outcome = Queued;
    for (;;) {
        {
            TsanMutexLocker guard(&mutex);
            BatchQueue &q = queue();
            const Fanout &out = fanout();
            ModLockSet::Guard locks(lockers,
                                    kind == Relayed ? ModLockSet::ExtendedOnly : ModLockSet::All);
            if (!q.reachable()) {
                outcome = Lost;
            } else if (q.backlog(capacity) >= capacity) {
                // A closed channel, or a producer in the consumer's own thread (which would wait
                // for itself), queues beyond the bound.
                if (dropping)
                    outcome = Dropped;
                else if (!q.consumer.reachable())
                    outcome = Lost;
                else if (!isClosed() && q.consumer.thread != QThread::currentThread())
                    outcome = Full;
            }
            if (outcome == Queued) {
                BatchQueue::Slot &slot = q.tailSlot();
                slot.kind = quint8(kind);
                slot.sentNs = 0;
                if (kind == Bytes) {
                    slot.bytes = *bytes;
                    slot.deliveries = quint32(out.bytes);
                } else {
                    slot.list = *list;
                    slot.deliveries = quint32(kind == Fresh ? out.lists + out.stream : out.lists);
                }
#ifndef ZTCORE_NO_CHANNEL_STATS
                if (kind != Bytes && ++m_sinceSample >= ChannelClock::SampleEvery) {
                    m_sinceSample = 0;
                    const qint64 now = ChannelClock::nowNs();
                    if (now - m_lastSampleNs >= ChannelClock::SampleGapNs)
                        slot.sentNs = m_lastSampleNs = now;
                }
#endif
                q.push();
                ChannelCounters::addSerialised(kind == Bytes ? m_counters.arrays
                                                             : m_counters.lists);
                return;
            }
            if (outcome != Full)
                ChannelCounters::add(m_counters.dropped);
        }
        if (outcome == Full) {
            waitForRoom(capacity); // with no lock held
            outcome = Queued;
            continue;
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
        if (QThread *thread = m_queue->consumer.thread.data()) {
            // Run in the consumer's thread as it starts and ends; they hold the queue until
            // the channel is gone. Connected before the thread's state is read, so that an end
            // in between is not missed.
            std::shared_ptr<BatchQueue> q = m_queue;
            connectDirect(thread, &QThread::started, this,
                          [q] { q->threadEnded.store(false, std::memory_order_release); });
            connectDirect(thread, &QThread::finished, this, [q] {
                q->threadEnded.store(true, std::memory_order_release);
                {
                    std::lock_guard<std::mutex> guard(q->lock);
                }
                q->room.notify_all();
            });
            if (thread->isFinished())
                m_queue->threadEnded.store(true, std::memory_order_release);
        }
        m_ready.store(m_queue.get(), std::memory_order_release);
    }
    return *m_queue;
}

// No lock held on entry or exit. Returns when the queue has room, or when waiting could never
// end: the channel closed, the consumer gone or its thread ended.
void PropagatorStreamBatched::waitForRoom(quint64 capacity)
{
    BatchQueue *q = m_ready.load(std::memory_order_acquire);
    if (!q)
        return;
    auto mayWait = [&] {
        return q->pending() >= capacity && !isClosed() && q->reachable() && q->consumer.reachable();
    };
    if (!mayWait())
        return;
    warnLimitReached(tr("the producer waits for the consumer (policy=block)"));
    std::unique_lock<std::mutex> lock(q->lock);
    q->waiters.fetch_add(1, std::memory_order_seq_cst);
    while (mayWait())
        q->room.wait_for(lock, std::chrono::milliseconds(ChannelClock::WaitSliceMs));
    q->waiters.fetch_sub(1, std::memory_order_relaxed);
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
        s.pending = qint64(q->pending());
        s.pendingHigh = qMax(q->pendingHigh.load(std::memory_order_relaxed), s.pending);
        q->latency.percentiles(s.latencyMedianNs, s.latencyP99Ns);
    }
    return s;
}
