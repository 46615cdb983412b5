#pragma once

#include "netserver.h"

#include <ztcore/ztmodulelibrary.h>

class NetServerLibrary : public ZtModuleLibrary<NetServer>
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID ZtLibLevelInterface_iid FILE "ztmodule.json")
    Q_INTERFACES(ZtLibLevelInterface)
};
