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

signals:
    // Something the channel's users should know about and that its caller cannot be told
    // through a return value: a queue limit reached, a request timed out or refused. The text
    // names the channel (objectName(), which the kernel sets to the connection entry) and is
    // meant for the log, at warning level. Emitted from the thread that ran into the condition,
    // never with a lock of the channel held.
    void warning(const QString &message);

protected:
    // The channel's name for messages: its objectName, or its class when it has none.
    QString channelName() const;

    Propagator::PropagatorType type;
    Propagator *child; // not owned
    QMutex mutex;
    QList<ModLocker *> lockers; // not owned
    ChannelCounters m_counters;
};
