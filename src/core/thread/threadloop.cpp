#include "threadloop.h"

#include "ztbacktrace.h"

ThreadLoop::ThreadLoop(QObject *parent)
    : QThread(parent)
{ }

void ThreadLoop::run()
{
    // So that a stack overflow in a module's code on this thread is still reported.
    ztset_thread_signal_stack();
    emit launch(QThread::currentThread());
    exec();
}
