#include "propagatorstreamconcurrent.h"

#include "modlocker.h"
#include "tsanhandoff_p.h"

#include <QObject>
#include <QVariant>

namespace {

void lockAll(const QList<ModLocker *> &lockers)
{
    for (ModLocker *locker : lockers)
        locker->lock();
}

void unlockAll(const QList<ModLocker *> &lockers)
{
    for (ModLocker *locker : lockers)
        locker->unlock();
}

// Extended modules carry 1 in their "mt" property.
bool ownedByExtended(const ModLocker *locker)
{
    const QObject *owner = locker->getOwner();
    return owner && owner->property("mt").toInt() == 1;
}

void lockExtended(const QList<ModLocker *> &lockers)
{
    for (ModLocker *locker : lockers) {
        if (ownedByExtended(locker))
            locker->lock();
    }
}

void unlockExtended(const QList<ModLocker *> &lockers)
{
    for (ModLocker *locker : lockers) {
        if (ownedByExtended(locker))
            locker->unlock();
    }
}

} // namespace

PropagatorStreamConcurrent::PropagatorStreamConcurrent(QObject *parent)
    : PropagatorStream(Propagator::Concurrent, parent)
{ }

bool PropagatorStreamConcurrent::setChild(Propagator *child)
{
    Q_UNUSED(child)
    return false;
}

void PropagatorStreamConcurrent::send(const QByteArray &byteArray)
{
    TsanMutexLocker guard(&mutex);
    lockAll(lockers);
    emit trySend(byteArray);
    unlockAll(lockers);
}

void PropagatorStreamConcurrent::sendList(const QVariantList &list)
{
    TsanMutexLocker guard(&mutex);
    lockAll(lockers);
    emit trySendList(list);
    emit streamSendList(list);
    unlockAll(lockers);
}

void PropagatorStreamConcurrent::recvSend(const QByteArray &byteArray)
{
    send(byteArray);
}

void PropagatorStreamConcurrent::recvSendList(const QVariantList &list)
{
    TsanMutexLocker guard(&mutex);
    lockExtended(lockers);
    emit trySendList(list);
    unlockExtended(lockers);
}

void PropagatorStreamConcurrent::setQueueLimit(int limit, QueuePolicy policy)
{
    Q_UNUSED(limit)
    Q_UNUSED(policy)
}

void PropagatorStreamConcurrent::close() { }
