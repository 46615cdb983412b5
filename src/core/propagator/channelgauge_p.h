#pragma once

#include "channelcounters.h"

#include <QPointer>
#include <QThread>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

// Bookkeeping shared by a cross-thread stream channel, its producers and the work it leaves in
// the consumers' threads. It is held through a shared_ptr by every queued call the channel
// posts, so a call that runs after the channel was deleted finds it still there (and finds the
// counters gone, see `counters`).

namespace ChannelClock {

inline qint64 nowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

constexpr qint64 SampleGapNs = 1000000; // at most one latency sample a millisecond
constexpr quint64 SampleEvery = 64; // and at most one list in this many
constexpr qint64 WarningGapNs = 1000000000; // a recurring warning at most once a second
constexpr int WaitSliceMs = 50; // how often a waiting producer looks for a way out

} // namespace ChannelClock

// The last samples of the time from sendList to delivery.
class LatencySamples
{
public:
    void add(qint64 ns)
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_ring[m_next++ % m_ring.size()] = ns;
    }
    // Median and 99th percentile of the samples kept; -1 when there are none.
    void percentiles(qint64 &median, qint64 &p99) const
    {
        std::vector<qint64> sorted;
        {
            std::lock_guard<std::mutex> lock(m_lock);
            sorted.assign(m_ring.begin(), m_ring.begin() + qMin<quint64>(m_next, m_ring.size()));
        }
        if (sorted.empty()) {
            median = p99 = -1;
            return;
        }
        std::sort(sorted.begin(), sorted.end());
        median = sorted[sorted.size() / 2];
        p99 = sorted[qMin(sorted.size() - 1, sorted.size() * 99 / 100)];
    }

private:
    mutable std::mutex m_lock;
    std::vector<qint64> m_ring = std::vector<qint64>(1024);
    quint64 m_next = 0;
};

// The counters of a channel as seen from work queued into a consumer's thread: they belong to
// the propagator and go with it, so that work reaches them only under this lock.
class CountersLink
{
public:
    explicit CountersLink(ChannelCounters *counters)
        : m_counters(counters)
    { }
    void add(std::atomic<quint64> ChannelCounters::*counter, quint64 n)
    {
        std::lock_guard<std::mutex> lock(m_lock);
        if (m_counters)
            ChannelCounters::add(m_counters->*counter, n);
    }
    void cut()
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_counters = nullptr;
    }

private:
    std::mutex m_lock;
    ChannelCounters *m_counters;
};

// A thread a channel delivers into, reached through an object living there (the consumer
// module, or what the kernel named as consumer).
struct ConsumerSide
{
    explicit ConsumerSide(QObject *context)
        : context(context)
        , thread(context ? context->thread() : nullptr)
    { }

    // Whether work posted into this thread can still run: the object is there and its thread
    // has not ended.
    bool reachable() const { return !context.isNull() && !(thread && thread->isFinished()); }

    QPointer<QObject> context;
    QPointer<QThread> thread;
};
