#pragma once

#include "ztcore_export.h"

#include <QHash>
#include <QString>

class PropagatorStream;

// The stream propagators of an extended module, by name. The module declares a name by
// inserting it with a null propagator; the kernel plugs propagators in later. value() never
// returns null: an unplugged name yields the container's own do-nothing propagator, so module
// code can send through any name without testing.
//
// Owns only that null propagator; the plugged-in propagators belong to the kernel.
class ZTCORE_EXPORT PGContainer
{
public:
    PGContainer();
    virtual ~PGContainer();

    PropagatorStream *value(QString name) const;
    bool isNull(QString name) const;

    QHash<QString, PropagatorStream *> hash;

private:
    Q_DISABLE_COPY(PGContainer)

    PropagatorStream *nullPropagator;
};
