#pragma once

#include "processingstage.h"

#include <ztliblevelinterface.h>

#include <QObject>

// The plug-in root object of processing.dll: makes ProcessingStage stream modules. One library
// may serve several module entries of the settings file.
class ProcessingLibrary : public QObject, public ZtLibLevelInterface
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID ZtLibLevelInterface_iid)
    Q_INTERFACES(ZtLibLevelInterface)

public:
    QString getName() const override { return QStringLiteral("Processing"); }
    QString getKind() const override { return QStringLiteral("example"); }
    QString getBuildDate() const override { return QStringLiteral(__DATE__); }
    QString getInterfaceType() const override { return QStringLiteral("ZtMIStream"); }
    int getInterfaceVersion() const override { return 1 << 16 | 2 << 8; }
    QVariant instance(int id, QObject *parent) override
    {
        return QVariant::fromValue(new ProcessingStage(id, parent));
    }
    QString getDescription() const override { return QStringLiteral("Gain and offset stage"); }
    QString getVersion() const override { return QStringLiteral("1.0"); }
};
