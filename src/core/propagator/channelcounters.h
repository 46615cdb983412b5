#pragma once

#include "ztcore_export.h"

#include <QtGlobal>

#include <atomic>

// A consistent-enough copy of a channel's counters, for tables and tests. Counters are read one
// by one with relaxed loads, so a copy taken while traffic flows may be off by the lists in
// flight between two loads; once the channel is quiet it is exact.
struct ZTCORE_EXPORT ChannelStats
{
    quint64 lists = 0; // lists sent (sendList and relayed lists)
    quint64 arrays = 0; // byte arrays sent
    quint64 deliveries = 0; // deliveries made to consumers (slot calls run)
    quint64 dropped = 0; // lists or arrays dropped by policy=drop
    quint64 requests = 0; // feedback requests made
    quint64 answers = 0; // feedback answers handed to requesters
    quint64 timeouts = 0; // requests that ended with the error answer on their time-out
    quint64 refused = 0; // blocking requests refused because they could never be answered
    qint64 pending = -1; // deliveries posted, not yet run in the consumer's thread; -1: n/a
    qint64 pendingHigh = -1; // highest pending seen; -1: n/a
    qint64 latencyMedianNs = -1; // sendList to delivery, sampled; -1: no sample yet
    qint64 latencyP99Ns = -1;
};

// The counters of one channel (propagator). Updated with relaxed atomics by whichever thread
// does the counted work; never guarded by a lock. Owned by its propagator.
struct ZTCORE_EXPORT ChannelCounters
{
    std::atomic<quint64> lists {0};
    std::atomic<quint64> arrays {0};
    std::atomic<quint64> deliveries {0};
    std::atomic<quint64> dropped {0};
    std::atomic<quint64> requests {0};
    std::atomic<quint64> answers {0};
    std::atomic<quint64> timeouts {0};
    std::atomic<quint64> refused {0};

    static void add(std::atomic<quint64> &counter, quint64 n = 1)
    {
#ifndef ZTCORE_NO_CHANNEL_STATS
        counter.fetch_add(n, std::memory_order_relaxed);
#else
        Q_UNUSED(counter)
        Q_UNUSED(n)
#endif
    }
    // The same for a counter that only one thread at a time changes (under a lock of its
    // channel): a plain load and store, no read-modify-write.
    static void addSerialised(std::atomic<quint64> &counter, quint64 n = 1)
    {
#ifndef ZTCORE_NO_CHANNEL_STATS
        counter.store(counter.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
#else
        Q_UNUSED(counter)
        Q_UNUSED(n)
#endif
    }
};
