#include "propagatorstream.h"

#include "ztdatawrapper.h"

PropagatorStream::PropagatorStream(Propagator::PropagatorType type, QObject *parent)
    : Propagator(type, parent)
{ }

PropagatorStream::~PropagatorStream() = default;

void PropagatorStream::sendArray(const ZtDataArray &array)
{
    ZtDataArray copy(array);
    sendList(ZtDataWrapper::convArrayToList(copy));
}

void PropagatorStream::sendList(const ZtDataArray &array)
{
    sendArray(array);
}
