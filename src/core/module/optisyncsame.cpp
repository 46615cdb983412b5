#include "optisyncsame.h"

OptiSyncSame::OptiSyncSame(QStringList names, QObject *parent)
    : OptiSync(parent)
    , names(names)
{ }

QStringList OptiSyncSame::getNames() const
{
    return names;
}

void OptiSyncSame::recvOptions(ModuleOptions opts)
{
    ModuleOptions out;
    for (const QString &name : qAsConst(names)) {
        auto it = opts.hash.constFind(name);
        if (it != opts.hash.constEnd())
            out.hash.insert(name, it.value());
    }
    emit sendOptions(out);
}
