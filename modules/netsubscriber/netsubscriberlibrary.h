#pragma once

#include "netsubscriber.h"

#include <ztcore/ztmodulelibrary.h>

class NetSubscriberLibrary : public ZtModuleLibrary<NetSubscriber>
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID ZtLibLevelInterface_iid FILE "ztmodule.json")
    Q_INTERFACES(ZtLibLevelInterface)
};
