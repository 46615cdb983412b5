#pragma once

#include "ztcore_export.h"

#include <QString>
#include <QStringList>

// The options a connection entry may carry: fields of the form `name=value` at the end of the
// entry ("id_0;signal_ImReady(QVariantList);id_1;slot_StartProcessing(QVariantList);limit=100;
// policy=drop"). take() removes them, so that what is left is the entry as the kernel has always
// read it: field counts, "feedback" and synchroniser name lists keep their meaning.
//
// Known options: limit=<n> (n > 0), policy=block|drop, timeout=<ms> (ms > 0), channel=batched.
// An unknown name or a bad value is not applied; take() reports it as a problem, and callers (the
// kernel's wiring, the configuration checker) word and place the warning.
struct ZTCORE_EXPORT ConnectionOptions
{
    enum Policy { Block, Drop };

    struct Problem
    {
        enum Kind { UnknownName, BadValue };
        Kind kind = UnknownName;
        QString field; // the whole "name=value" field as written
    };

    int limit = 0; // 0: no limit
    Policy policy = Block;
    int timeout = 0; // ms; 0: requests wait as long as it takes
    bool batched = false;
    QStringList accepted; // the fields that were applied, in entry order
    QList<Problem> problems; // the fields that were not, in entry order

    bool isEmpty() const { return accepted.isEmpty(); }
    bool hasLimit() const { return limit > 0; }

    // Takes the trailing `name=value` fields off `fields` (stops at the first field from the end
    // that has no '=') and returns what they say.
    static ConnectionOptions take(QStringList &fields);
    // True for a field that take() would treat as an option.
    static bool isOptionField(const QString &field);
    // The names take() knows, for hints ("limit", "policy", "timeout", "channel").
    static QStringList knownNames();
    // "connection "<entry>": unknown connection option "speed=fast" ignored" and
    // "connection "<entry>": bad value in connection option "limit=zero" ignored".
    static QString problemText(const QString &entry, const Problem &problem);
};
