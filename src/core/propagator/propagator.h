#pragma once

#include "ztcore_export.h"
#include "channelcounters.h"

#include <QList>
#include <QMutex>
#include <QObject>

class ModLocker;

// Common base of every channel between two modules, one-way (PropagatorStream) or request and
// answer (PropagatorFeedback). The kernel creates propagators, owns them and fills the lock list
// while it wires the modules; modules and child links only point to them.
//
// Lock order wherever a propagator emits: its own mutex first, then the module locks in the
// order in which they were appended. The mutex is deliberately non-recursive: a consumer that
// calls back into the same propagator from a direct connection deadlocks, and that is a wiring
// error to be fixed in the modules, not here.
class ZTCORE_EXPORT Propagator : public QObject
{
    Q_OBJECT

public:
    // The numbers are compared by the kernel; keep them.
    enum PropagatorType { Direct = 0, Concurrent = 1, Null = 2 };

    explicit Propagator(Propagator::PropagatorType type, QObject *parent = nullptr);
    ~Propagator() override;

    virtual bool setChild(Propagator *child) = 0;

    Propagator::PropagatorType getType() const;
    Propagator *getChild() const;
    // Only while the modules are wired, before any thread sends through this propagator: the
    // list is read without a lock afterwards.
    void appendLocker(ModLocker *locker);
    QList<ModLocker *> getLockers() const;

    // The channel's counters, updated by the threads that use it. stats() copies them; the
    // concurrent stream propagators add their queue and latency figures.
    ChannelCounters &counters();
    virtual ChannelStats stats() const;

protected:
    Propagator::PropagatorType type;
    Propagator *child; // not owned
    QMutex mutex;
    QList<ModLocker *> lockers; // not owned
    ChannelCounters m_counters;
};
