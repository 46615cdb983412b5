#pragma once

#include "modbusserver.h"

#include <ztcore/ztmodulelibrary.h>

// The plug-in root object of modbusserver.dll; name, version, kind and description come from
// modules/modbusserver/CMakeLists.txt.
class ModbusServerLibrary : public ZtModuleLibrary<ModbusServer>
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID ZtLibLevelInterface_iid FILE "ztmodule.json")
    Q_INTERFACES(ZtLibLevelInterface)
};
