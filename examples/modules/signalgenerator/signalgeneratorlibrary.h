#pragma once

#include "signalgenerator.h"

#include <ztcore/ztmodulelibrary.h>

// The plug-in root object of signalgenerator.dll: makes SignalGenerator stream modules.
// Its name, version, kind and description are the ones examples/modules/CMakeLists.txt gives.
class SignalGeneratorLibrary : public ZtModuleLibrary<SignalGenerator>
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID ZtLibLevelInterface_iid FILE "ztmodule.json")
    Q_INTERFACES(ZtLibLevelInterface)
};
