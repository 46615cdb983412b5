#include "pgfbcontainer.h"

#include "propagatorfeedbacknull.h"

PGFBContainer::PGFBContainer()
    : nullPropagator(new PropagatorFeedbackNull)
{ }

PGFBContainer::~PGFBContainer()
{
    delete nullPropagator;
}

PropagatorFeedback *PGFBContainer::value(QString name) const
{
    PropagatorFeedback *p = hash.value(name, nullptr);
    return p ? p : nullPropagator;
}

bool PGFBContainer::isNull(QString name) const
{
    return hash.value(name, nullptr) == nullptr;
}
