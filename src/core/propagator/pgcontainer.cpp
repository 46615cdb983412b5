#include "pgcontainer.h"

#include "propagatorstreamnull.h"

PGContainer::PGContainer()
    : nullPropagator(new PropagatorStreamNull)
{ }

PGContainer::~PGContainer()
{
    delete nullPropagator;
}

PropagatorStream *PGContainer::value(QString name) const
{
    PropagatorStream *p = hash.value(name, nullptr);
    return p ? p : nullPropagator;
}

bool PGContainer::isNull(QString name) const
{
    return hash.value(name, nullptr) == nullptr;
}
