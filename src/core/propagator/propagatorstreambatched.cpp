#include "propagatorstreambatched.h"

PropagatorStreamBatched::PropagatorStreamBatched(QObject *parent)
    : PropagatorStreamConcurrent(parent)
{ }
