#pragma once

#include "optisync.h"

#include <QStringList>

// Passes on chosen options under other names: sources[i] is read from the received set and sent
// as targets[i]. When two sources map to one target, the one listed first wins. A target list
// shorter than the source list is refused at construction: no pairs are kept.
class ZTCORE_EXPORT OptiSyncDiffer : public OptiSync
{
    Q_OBJECT

public:
    OptiSyncDiffer(QStringList sources, QStringList targets, QObject *parent = nullptr);

    QStringList getSources() const;
    QStringList getTargets() const;

public slots:
    void recvOptions(ModuleOptions opts) override;

private:
    QStringList targets;
    QStringList sources;
};
