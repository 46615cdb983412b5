#pragma once

#include "modbusmaster.h"

#include <ztcore/ztmodulelibrary.h>

// The plug-in root object of modbusmaster.dll; name, version, kind and description come from
// modules/modbusmaster/CMakeLists.txt.
class ModbusMasterLibrary : public ZtModuleLibrary<ModbusMaster>
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID ZtLibLevelInterface_iid FILE "ztmodule.json")
    Q_INTERFACES(ZtLibLevelInterface)
};
