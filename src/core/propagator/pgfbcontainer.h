#pragma once

#include "ztcore_export.h"

#include <QHash>
#include <QString>

class PropagatorFeedback;

// The feedback propagators of an extended module, by name; the feedback twin of PGContainer.
// value() never returns null: an unplugged name yields the container's own PropagatorFeedbackNull,
// whose results (-1, false, empty) report that nobody answers.
//
// Owns only that null propagator; the plugged-in propagators belong to the kernel.
class ZTCORE_EXPORT PGFBContainer
{
public:
    PGFBContainer();
    virtual ~PGFBContainer();

    PropagatorFeedback *value(QString name) const;
    bool isNull(QString name) const;

    QHash<QString, PropagatorFeedback *> hash;

private:
    Q_DISABLE_COPY(PGFBContainer)

    PropagatorFeedback *nullPropagator;
};
