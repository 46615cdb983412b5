#include "propagatorstreamnull.h"

PropagatorStreamNull::PropagatorStreamNull(QObject *parent)
    : PropagatorStream(Propagator::Null, parent)
{ }

bool PropagatorStreamNull::setChild(Propagator *child)
{
    Q_UNUSED(child)
    return false;
}

void PropagatorStreamNull::send(const QByteArray &byteArray)
{
    Q_UNUSED(byteArray)
}

void PropagatorStreamNull::sendList(const QVariantList &list)
{
    Q_UNUSED(list)
}

void PropagatorStreamNull::recvSend(const QByteArray &byteArray)
{
    Q_UNUSED(byteArray)
}

void PropagatorStreamNull::recvSendList(const QVariantList &list)
{
    Q_UNUSED(list)
}
