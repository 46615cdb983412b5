#include "signalstack_p.h"

bool SignalStack::ensureForCurrentThread()
{
    return true;
}
