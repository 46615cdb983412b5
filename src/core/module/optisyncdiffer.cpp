#include "optisyncdiffer.h"

#include <QDebug>

OptiSyncDiffer::OptiSyncDiffer(QStringList sources, QStringList targets, QObject *parent)
    : OptiSync(parent)
{
    if (targets.size() < sources.size()) {
        qWarning() << "OptiSyncDiffer: fewer target names than source names, no options passed:"
                   << sources << targets;
        return;
    }
    this->targets = targets;
    this->sources = sources;
}

QStringList OptiSyncDiffer::getSources() const
{
    return sources;
}

QStringList OptiSyncDiffer::getTargets() const
{
    return targets;
}

void OptiSyncDiffer::recvOptions(ModuleOptions opts)
{
    ModuleOptions out;
    // Backwards, so that of two sources with one target the lower index is written last.
    for (int i = sources.size() - 1; i >= 0; --i) {
        auto it = opts.hash.constFind(sources.at(i));
        if (it != opts.hash.constEnd())
            out.hash.insert(targets.at(i), it.value());
    }
    emit sendOptions(out);
}
