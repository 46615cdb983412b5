#include "propagatorstreamdirect.h"

#include "tsanhandoff_p.h"

// Mutex held. The consumers ran inside the emission, so what was sent is also delivered.
void PropagatorStreamDirect::count(std::atomic<quint64> &sent, quint64 deliveries)
{
#ifndef ZTCORE_NO_CHANNEL_STATS
    ChannelCounters::addSerialised(sent);
    ChannelCounters::addSerialised(m_counters.deliveries, deliveries);
#else
    Q_UNUSED(sent)
    Q_UNUSED(deliveries)
#endif
}

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
    count(m_counters.arrays, fanout().bytes);
}

void PropagatorStreamDirect::sendList(const QVariantList &list)
{
    TsanMutexLocker guard(&mutex);
    emit trySendList(list);
    emit streamSendList(list);
    if (child)
        emit childSendList(list);
    count(m_counters.lists, fanout().lists + fanout().stream);
}

void PropagatorStreamDirect::recvSend(const QByteArray &byteArray)
{
    TsanMutexLocker guard(&mutex);
    emit trySend(byteArray);
    count(m_counters.arrays, fanout().bytes);
}

void PropagatorStreamDirect::recvSendList(const QVariantList &list)
{
    TsanMutexLocker guard(&mutex);
    emit trySendList(list);
    count(m_counters.lists, fanout().lists);
}
