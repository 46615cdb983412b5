#pragma once

#include "processingstage.h"

#include <ztcore/ztmodulelibrary.h>

// The plug-in root object of processing.dll: makes ProcessingStage stream modules. One library
// may serve several module entries of the settings file.
// Its name, version, kind and description are the ones examples/modules/CMakeLists.txt gives.
class ProcessingLibrary : public ZtModuleLibrary<ProcessingStage>
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID ZtLibLevelInterface_iid FILE "ztmodule.json")
    Q_INTERFACES(ZtLibLevelInterface)
};
