#include "modlocker.h"

ModLocker::ModLocker(ZtMIFound *owner)
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

ZtMIFound *ModLocker::getOwner() const
{
    return owner;
}
