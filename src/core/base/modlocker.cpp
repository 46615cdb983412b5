#include "modlocker.h"

ModLocker::ModLocker(QObject *owner)
    : owner(owner)
{ }

ModLocker::ModLocker(const ModLocker &other)
    : owner(other.owner)
{ }

void ModLocker::lock()
{
    mutex.lock();
}

void ModLocker::unlock()
{
    mutex.unlock();
}

bool ModLocker::tryLock()
{
    return mutex.tryLock();
}

QObject *ModLocker::getOwner() const
{
    return owner;
}
