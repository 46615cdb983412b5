#include "optisync.h"

OptiSync::OptiSync(QObject *parent)
    : QObject(parent)
{ }

void OptiSync::recvOptions(ModuleOptions opts)
{
    emit sendOptions(opts);
}
