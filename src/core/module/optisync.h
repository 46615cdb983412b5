#pragma once

#include "ztcore_export.h"
#include "ztmifound.h"

#include <QObject>

// Passes a module's announced options on to other modules unchanged. The kernel connects a
// source module's sendOptions to recvOptions here and sendOptions here to the targets'
// recvOptions; the receiving modules take only the options they own.
class ZTCORE_EXPORT OptiSync : public QObject
{
    Q_OBJECT

public:
    explicit OptiSync(QObject *parent = nullptr);

signals:
    void sendOptions(ModuleOptions opts);

public slots:
    virtual void recvOptions(ModuleOptions opts);
};
