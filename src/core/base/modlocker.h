#pragma once

#include "ztcore_export.h"

#include <QMutex>

class QObject;

// The lock of one module. Propagators that touch a module take it (after their own mutex) so
// that a consumer's slot never runs while another propagator feeds the same module. The lock is
// non-recursive; a copy gets a fresh, unlocked mutex and the same owner.
//
// The owner is any QObject so that the lower layers can hold module locks without knowing the
// module classes; who needs the owner's kind reads its "mt" property (1: extended module).
class ZTCORE_EXPORT ModLocker
{
public:
    explicit ModLocker(QObject *owner);
    ModLocker(const ModLocker &other);
    ModLocker &operator=(const ModLocker &) = delete;

    void lock();
    void unlock();
    bool tryLock();

    QObject *getOwner() const;

private:
    QMutex mutex;
    QObject *owner;
};
