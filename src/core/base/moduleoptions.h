#pragma once

#include "ztcore_export.h"

#include <QHash>
#include <QMetaType>
#include <QString>
#include <QStringList>
#include <QVariant>

// A module's option set as it travels between modules and threads: option name -> value.
// Implicitly shared through its hash, so passing it by value is cheap.
class ZTCORE_EXPORT ModuleOptions
{
public:
    ModuleOptions() = default;
    explicit ModuleOptions(const QHash<QString, QVariant> &options)
        : hash(options)
    { }

    bool contains(const QString &name) const { return hash.contains(name); }
    QVariant value(const QString &name) const { return hash.value(name); }
    void insert(const QString &name, const QVariant &value) { hash.insert(name, value); }
    QStringList keys() const { return hash.keys(); }
    int size() const { return hash.size(); }
    bool isEmpty() const { return hash.isEmpty(); }
    QVariant &operator[](const QString &name) { return hash[name]; }

    bool operator==(const ModuleOptions &other) const { return hash == other.hash; }
    bool operator!=(const ModuleOptions &other) const { return hash != other.hash; }

    QHash<QString, QVariant> hash;
};
Q_DECLARE_TYPEINFO(ModuleOptions, Q_MOVABLE_TYPE);
Q_DECLARE_METATYPE(ModuleOptions)
