#pragma once

#include "ztcore_export.h"

#include <QMutex>

class ZtMIFound;

// The lock of one module. Propagators that touch a module take it (after their own mutex) so
// that a consumer's slot never runs while another propagator feeds the same module. The lock is
// non-recursive; a copy gets a fresh, unlocked mutex and the same owner.
class ZTCORE_EXPORT ModLocker
{
public:
    explicit ModLocker(ZtMIFound *owner);
    ModLocker(const ModLocker &other);
    ModLocker &operator=(const ModLocker &) = delete;

    void lock();
    void unlock();
    bool tryLock();

    ZtMIFound *getOwner() const;

private:
    QMutex mutex;
    ZtMIFound *owner;
};
