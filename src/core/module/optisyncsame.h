#pragma once

#include "optisync.h"

#include <QStringList>

// Passes on only the listed options, under the same names. An empty result is still sent, so
// that the receivers re-announce their own options.
class ZTCORE_EXPORT OptiSyncSame : public OptiSync
{
    Q_OBJECT

public:
    explicit OptiSyncSame(QStringList names, QObject *parent = nullptr);

    QStringList getNames() const;

public slots:
    void recvOptions(ModuleOptions opts) override;

private:
    QStringList names;
};
