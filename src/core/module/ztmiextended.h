#pragma once

#include "ztcore_export.h"
#include "pgcontainer.h"
#include "pgfbcontainer.h"
#include "ztmifound.h"

#include <QString>

class Propagator;

// A module wired to others through propagators held by name. A subclass declares the names it
// uses, typically in initOptions(), with streams.hash.insert("out", nullptr) or
// feedbacks.hash.insert("dev", nullptr); the kernel plugs propagators into declared names only.
// Module code sends through streams.value(name) and asks through feedbacks.value(name), which
// never return null.
//
// The containers are touched by the kernel while it wires the modules, before the threads run,
// and by the module's own thread afterwards; they carry no lock. The propagators themselves
// belong to the kernel.
class ZTCORE_EXPORT ZtMIExtended : public ZtMIFound
{
    Q_OBJECT

public:
    explicit ZtMIExtended(int id, QObject *parent = nullptr);
    // Copies the base only: the copy starts with empty containers.
    ZtMIExtended(const ZtMIExtended &other, QObject *parent = nullptr);

    // False for a name the module never declared. A propagator of the wrong kind for the chosen
    // container is stored as null (and the call still succeeds).
    bool setPropagator(QString name, Propagator *p, bool feedback);
    // Null when nothing real is plugged in under the name.
    Propagator *getPropagator(QString name, bool feedback);
    // Disconnects everything of the plugged-in propagator and unplugs it; does not delete it.
    bool clearPropagator(QString name, bool feedback);

protected:
    PGContainer streams;
    PGFBContainer feedbacks;
};
