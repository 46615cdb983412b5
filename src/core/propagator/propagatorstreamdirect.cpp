#include "propagatorstreamdirect.h"

#include "tsanhandoff_p.h"

PropagatorStreamDirect::PropagatorStreamDirect(QObject *parent)
    : PropagatorStream(Propagator::Direct, parent)
{ }

bool PropagatorStreamDirect::setChild(Propagator *newChild)
{
    if (child)
        return false;
    child = newChild;
    if (!child)
        return false;

    // By signature, not by member pointer: the child is only known as a Propagator, and a child
    // without these slots (a feedback propagator) must make the call fail, not the build.
    bool ok = static_cast<bool>(connect(this, SIGNAL(childSend(QByteArray)), child,
                                        SLOT(send(QByteArray)), Qt::DirectConnection));
    ok = static_cast<bool>(connect(this, SIGNAL(childSendList(QVariantList)), child,
                                   SLOT(sendList(QVariantList)), Qt::DirectConnection))
        && ok;
    if (child->getType() == Propagator::Concurrent)
        ok = static_cast<bool>(connect(this, SIGNAL(childSendList(QVariantList)), child,
                                       SIGNAL(streamSendList(QVariantList)), Qt::DirectConnection))
            && ok;
    return ok;
}

void PropagatorStreamDirect::send(const QByteArray &byteArray)
{
    TsanMutexLocker guard(&mutex);
    emit trySend(byteArray);
    if (child)
        emit childSend(byteArray);
}

void PropagatorStreamDirect::sendList(const QVariantList &list)
{
    TsanMutexLocker guard(&mutex);
    emit trySendList(list);
    emit streamSendList(list);
    if (child)
        emit childSendList(list);
}

void PropagatorStreamDirect::recvSend(const QByteArray &byteArray)
{
    TsanMutexLocker guard(&mutex);
    emit trySend(byteArray);
}

void PropagatorStreamDirect::recvSendList(const QVariantList &list)
{
    TsanMutexLocker guard(&mutex);
    emit trySendList(list);
}
