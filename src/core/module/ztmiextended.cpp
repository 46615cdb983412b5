#include "ztmiextended.h"

#include "propagator.h"
#include "propagatorfeedback.h"
#include "propagatorstream.h"

namespace {

// See ZtMIStream: the kernel may receive the module as a ZtMIExtended* variant.
void registerPointerType()
{
    static const int id = qRegisterMetaType<ZtMIExtended *>("ZtMIExtended*");
    Q_UNUSED(id)
}

} // namespace

ZtMIExtended::ZtMIExtended(int id, QObject *parent)
    : ZtMIFound(id, parent)
{
    registerPointerType();
    mt = ModExtended;
}

ZtMIExtended::ZtMIExtended(const ZtMIExtended &other, QObject *parent)
    : ZtMIFound(other, parent)
{ }

bool ZtMIExtended::setPropagator(QString name, Propagator *p, bool feedback)
{
    if (feedback) {
        if (!feedbacks.hash.contains(name))
            return false;
        feedbacks.hash.insert(name, qobject_cast<PropagatorFeedback *>(p));
    } else {
        if (!streams.hash.contains(name))
            return false;
        streams.hash.insert(name, qobject_cast<PropagatorStream *>(p));
    }
    return true;
}

Propagator *ZtMIExtended::getPropagator(QString name, bool feedback)
{
    if (feedback)
        return feedbacks.hash.value(name, nullptr);
    return streams.hash.value(name, nullptr);
}

bool ZtMIExtended::clearPropagator(QString name, bool feedback)
{
    Propagator *p = getPropagator(name, feedback);
    if (!p)
        return true;
    QObject::disconnect(p, nullptr, nullptr, nullptr);
    if (feedback)
        feedbacks.hash.insert(name, nullptr);
    else
        streams.hash.insert(name, nullptr);
    return true;
}
