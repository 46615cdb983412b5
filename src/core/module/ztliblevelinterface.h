#pragma once

#include <QObject>
#include <QString>
#include <QVariant>

// The factory interface that every module library's plug-in root object implements. The kernel
// loads the library, asks what kind of module it makes and creates modules through instance().
// Module libraries are compiled against the order of these virtual operations: keep it.
class ZtLibLevelInterface
{
public:
    virtual ~ZtLibLevelInterface() = default;

    // The library's name, shown in module information and in log lines.
    virtual QString getName() const = 0;
    // The library's kind text ("std" for the core itself).
    virtual QString getKind() const = 0;
    virtual QString getBuildDate() const = 0;
    // "ZtMIStream" or "ZtMIExtended"; anything else makes the library's modules unusable.
    virtual QString getInterfaceType() const = 0;
    // major << 16 | minor << 8 | patch.
    virtual int getInterfaceVersion() const = 0;
    // A QVariant holding a new ZtMIStream* or ZtMIExtended* without parent. A library that does
    // not override this makes no module.
    virtual QVariant instance(int id, QObject *parent)
    {
        Q_UNUSED(id)
        Q_UNUSED(parent)
        return QVariant();
    }
    // A free-form description of the library for about boxes; the kernel does not call it.
    virtual QString getDescription() const { return QString(); }
    virtual QString getVersion() const = 0;
};

#define ZtLibLevelInterface_iid "Zantor.ZtLibLevelInterface/1.2"
Q_DECLARE_INTERFACE(ZtLibLevelInterface, ZtLibLevelInterface_iid)
