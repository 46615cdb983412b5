#pragma once

#include "plot.h"

#include <ztliblevelinterface.h>

#include <QObject>

// The plug-in root object of plot.dll: makes Plot extended modules.
class PlotLibrary : public QObject, public ZtLibLevelInterface
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID ZtLibLevelInterface_iid)
    Q_INTERFACES(ZtLibLevelInterface)

public:
    QString getName() const override { return QStringLiteral("Plot"); }
    QString getKind() const override { return QStringLiteral("example"); }
    QString getBuildDate() const override { return QStringLiteral(__DATE__); }
    QString getInterfaceType() const override { return QStringLiteral("ZtMIExtended"); }
    int getInterfaceVersion() const override { return 1 << 16 | 2 << 8; }
    QVariant instance(int id, QObject *parent) override
    {
        return QVariant::fromValue(new Plot(id, parent));
    }
    QString getDescription() const override { return QStringLiteral("Curve plot"); }
    QString getVersion() const override { return QStringLiteral("1.0"); }
};
