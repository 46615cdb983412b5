#pragma once

#include "plotter.h"

#include <ztcore/ztmodulelibrary.h>

// The plug-in root object of plotter.dll: makes Plotter extended modules. Its name, version,
// kind and description are the ones modules/plotter/CMakeLists.txt gives.
class PlotterLibrary : public ZtModuleLibrary<Plotter>
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID ZtLibLevelInterface_iid FILE "ztmodule.json")
    Q_INTERFACES(ZtLibLevelInterface)
};
