#include "threadloop.h"

#include "signalstack_p.h"
#include "tsanhandoff_p.h"

ThreadLoop::ThreadLoop(QObject *parent)
    : QThread(parent)
{ }

void ThreadLoop::run()
{
    // So that a stack overflow in a module's code on this thread is still reported.
    SignalStack::ensureForCurrentThread();
    emit launch(QThread::currentThread());
    exec();
    // Whoever deletes this object after the thread has ended takes over what the thread did.
    tsanRelease(static_cast<QThread *>(this));
}
