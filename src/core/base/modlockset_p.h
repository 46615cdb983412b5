#pragma once

#include "modlocker.h"

#include <QList>
#include <QObject>
#include <QVariant>

// The module locks a channel takes around its emission or its enqueueing, shared by every
// channel kind so that they all lock alike. Locks are taken in list order and released in list
// order, always after the channel's own mutex (the lock order of the whole library).
namespace ModLockSet {

// Extended modules carry 1 in their "mt" property.
inline bool ownedByExtended(const ModLocker *locker)
{
    const QObject *owner = locker->getOwner();
    return owner && owner->property("mt").toInt() == 1;
}

// Which locks of the list a call takes: all of them (send, sendList) or only those of extended
// modules (relayed lists, recvSendList).
enum Scope { All, ExtendedOnly };

// Holds the locks of a list for one scope, from construction to destruction. The list is the
// channel's own, filled while wiring and never changed once traffic flows.
class Guard
{
public:
    Guard(const QList<ModLocker *> &lockers, Scope scope)
        : m_lockers(lockers)
        , m_scope(scope)
    {
        for (ModLocker *locker : m_lockers) {
            if (m_scope == All || ownedByExtended(locker))
                locker->lock();
        }
    }
    ~Guard()
    {
        for (ModLocker *locker : m_lockers) {
            if (m_scope == All || ownedByExtended(locker))
                locker->unlock();
        }
    }
    Guard(const Guard &) = delete;
    Guard &operator=(const Guard &) = delete;

private:
    const QList<ModLocker *> &m_lockers;
    const Scope m_scope;
};

} // namespace ModLockSet
