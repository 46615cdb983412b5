#include "threadloop.h"

ThreadLoop::ThreadLoop(QObject *parent)
    : QThread(parent)
{ }

void ThreadLoop::run()
{
    emit launch(QThread::currentThread());
    exec();
}
