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

const PropagatorStream::Fanout &PropagatorStream::fanout()
{
    if (m_fanoutStale.load(std::memory_order_relaxed)
        && m_fanoutStale.exchange(false, std::memory_order_acquire)) {
        m_fanout.bytes = quint64(receivers(SIGNAL(trySend(QByteArray))));
        m_fanout.lists = quint64(receivers(SIGNAL(trySendList(QVariantList))));
        m_fanout.stream = quint64(receivers(SIGNAL(streamSendList(QVariantList))));
    }
    return m_fanout;
}

void PropagatorStream::connectNotify(const QMetaMethod &)
{
    m_fanoutStale.store(true, std::memory_order_release);
}

void PropagatorStream::disconnectNotify(const QMetaMethod &)
{
    m_fanoutStale.store(true, std::memory_order_release);
}
