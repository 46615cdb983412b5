#pragma once

#include "poller.h"

#include <ztcore/ztmodulelibrary.h>

// The plug-in root object of poller.dll: makes register pollers.
// Its name, version, kind and description are the ones examples/modules/CMakeLists.txt gives.
class PollerLibrary : public ZtModuleLibrary<Poller>
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID ZtLibLevelInterface_iid FILE "ztmodule.json")
    Q_INTERFACES(ZtLibLevelInterface)
};
