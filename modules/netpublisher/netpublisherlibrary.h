#pragma once

#include "netpublisher.h"

#include <ztcore/ztmodulelibrary.h>

class NetPublisherLibrary : public ZtModuleLibrary<NetPublisher>
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID ZtLibLevelInterface_iid FILE "ztmodule.json")
    Q_INTERFACES(ZtLibLevelInterface)
};
