#include "modlocker.h"

#include "tsanhandoff_p.h"

ModLocker::ModLocker(QObject *owner)
    : owner(owner)
{ }

ModLocker::ModLocker(const ModLocker &other)
    : owner(other.owner)
{ }

void ModLocker::lock()
{
    mutex.lock();
    tsanAcquire(&mutex);
}

void ModLocker::unlock()
{
    tsanRelease(&mutex);
    mutex.unlock();
}

bool ModLocker::tryLock()
{
    if (!mutex.tryLock())
        return false;
    tsanAcquire(&mutex);
    return true;
}

QObject *ModLocker::getOwner() const
{
    return owner;
}
