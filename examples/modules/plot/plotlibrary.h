#pragma once

#include "plot.h"

#include <ztcore/ztmodulelibrary.h>

// The plug-in root object of plot.dll: makes Plot extended modules.
// Its name, version, kind and description are the ones examples/modules/CMakeLists.txt gives.
class PlotLibrary : public ZtModuleLibrary<Plot>
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID ZtLibLevelInterface_iid FILE "ztmodule.json")
    Q_INTERFACES(ZtLibLevelInterface)
};
