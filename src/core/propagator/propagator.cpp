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
