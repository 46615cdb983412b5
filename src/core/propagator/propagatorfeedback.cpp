#include "propagatorfeedback.h"

#include "ztdatawrapper.h"

PropagatorFeedback::PropagatorFeedback(Propagator::PropagatorType type, QObject *parent)
    : Propagator(type, parent)
    , tag(0)
    , pos(0)
{ }

PropagatorFeedback::PropagatorFeedback(Propagator::PropagatorType type,
                                       const PropagatorFeedback &other, QObject *parent)
    : Propagator(type, parent)
    , tag(other.tag)
    , pos(other.pos)
    , data(other.data)
    , listData(other.listData)
{ }

PropagatorFeedback::~PropagatorFeedback() = default;

bool PropagatorFeedback::setChild(Propagator *child)
{
    Q_UNUSED(child)
    return false;
}

ZtDataArray PropagatorFeedback::readArray(qlonglong p)
{
    return ZtDataWrapper::convListToArray(readList(p));
}

ZtDataArray PropagatorFeedback::waitLaterReadArray(int msecs, bool *ok)
{
    return ZtDataWrapper::convListToArray(waitLaterReadList(msecs, ok));
}

qlonglong PropagatorFeedback::writeArray(const ZtDataArray &array)
{
    ZtDataArray copy(array);
    return writeList(ZtDataWrapper::convArrayToList(copy));
}

void PropagatorFeedback::readArrayReturn(const ZtDataArray &array)
{
    ZtDataArray copy(array);
    readListReturn(ZtDataWrapper::convArrayToList(copy));
}
