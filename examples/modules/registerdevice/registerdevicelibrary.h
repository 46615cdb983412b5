#pragma once

#include "registerdevice.h"

#include <ztcore/ztmodulelibrary.h>

// The plug-in root object of registerdevice.dll: makes simulated register devices.
// Its name, version, kind and description are the ones examples/modules/CMakeLists.txt gives.
class RegisterDeviceLibrary : public ZtModuleLibrary<RegisterDevice>
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID ZtLibLevelInterface_iid FILE "ztmodule.json")
    Q_INTERFACES(ZtLibLevelInterface)
};
