#pragma once

#include "ztcore_export.h"
#include "propagatorstreamconcurrent.h"

// A cross-thread stream channel that hands lists to its consumer in batches: the producer puts
// each list into a bounded queue shared with the consumer (under the same locks as
// PropagatorStreamConcurrent, around the enqueueing only) and posts one wake-up only when the
// consumer was idle; the consumer's thread delivers every waiting list in order.
class ZTCORE_EXPORT PropagatorStreamBatched : public PropagatorStreamConcurrent
{
    Q_OBJECT

public:
    explicit PropagatorStreamBatched(QObject *parent = nullptr);
};
