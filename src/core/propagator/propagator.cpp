#include "propagator.h"

#include "modlocker.h"

Propagator::Propagator(Propagator::PropagatorType type, QObject *parent)
    : QObject(parent)
    , type(type)
    , child(nullptr)
{ }

Propagator::~Propagator() = default;

Propagator::PropagatorType Propagator::getType() const
{
    return type;
}

Propagator *Propagator::getChild() const
{
    return child;
}

void Propagator::appendLocker(ModLocker *locker)
{
    lockers.append(locker);
}

QList<ModLocker *> Propagator::getLockers() const
{
    return lockers;
}

ChannelCounters &Propagator::counters()
{
    return m_counters;
}

ChannelStats Propagator::stats() const
{
    ChannelStats s;
    const auto load
        = [](const std::atomic<quint64> &c) { return c.load(std::memory_order_relaxed); };
    s.lists = load(m_counters.lists);
    s.arrays = load(m_counters.arrays);
    s.deliveries = load(m_counters.deliveries);
    s.dropped = load(m_counters.dropped);
    s.requests = load(m_counters.requests);
    s.answers = load(m_counters.answers);
    s.timeouts = load(m_counters.timeouts);
    s.refused = load(m_counters.refused);
    return s;
}

QString Propagator::channelName() const
{
    const QString name = objectName();
    return name.isEmpty() ? QString::fromLatin1(metaObject()->className()) : name;
}
