#pragma once

#include "netclient.h"

#include <ztcore/ztmodulelibrary.h>

class NetClientLibrary : public ZtModuleLibrary<NetClient>
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID ZtLibLevelInterface_iid FILE "ztmodule.json")
    Q_INTERFACES(ZtLibLevelInterface)
};
