#pragma once

#include "signalgenerator.h"

#include <ztliblevelinterface.h>

#include <QObject>

// The plug-in root object of signalgenerator.dll: makes SignalGenerator stream modules.
class SignalGeneratorLibrary : public QObject, public ZtLibLevelInterface
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID ZtLibLevelInterface_iid)
    Q_INTERFACES(ZtLibLevelInterface)

public:
    QString getName() const override { return QStringLiteral("SignalGenerator"); }
    QString getKind() const override { return QStringLiteral("example"); }
    QString getBuildDate() const override { return QStringLiteral(__DATE__); }
    QString getInterfaceType() const override { return QStringLiteral("ZtMIStream"); }
    int getInterfaceVersion() const override { return 1 << 16 | 2 << 8; }
    QVariant instance(int id, QObject *parent) override
    {
        return QVariant::fromValue(new SignalGenerator(id, parent));
    }
    QString getDescription() const override
    {
        return QStringLiteral("Sine, square, triangle and saw waveforms in blocks");
    }
    QString getVersion() const override { return QStringLiteral("1.0"); }
};
