#include "threadlauncher.h"

#include "threadloop.h"
#include "tsanhandoff_p.h"

#include <QCoreApplication>
#include <QDebug>
#include <QThread>

ThreadLauncher::ThreadLauncher(QObject *parent)
    : QObject(parent)
    , currentLoop(nullptr)
    , ppgThread(nullptr)
    , ownerObject(parent)
{
    m_ppgLoop = new ThreadLoop(ownerObject);
    connect(m_ppgLoop, &ThreadLoop::launch, this, &ThreadLauncher::setPpgThread);
    m_ppgLoop->start(QThread::InheritPriority);
    connect(this, &ThreadLauncher::quitThreads, m_ppgLoop, &QThread::quit);
}

// Terminating a thread is a last resort: it may die holding a lock or in the middle of an
// allocation. A thread that is merely slow to leave its event loop (a busy machine) therefore
// gets a short grace after the quit request; only one that is still running then, typically
// stuck in a slot, is terminated.
static const int quitGraceMs = 200;

ThreadLauncher::~ThreadLauncher()
{
    emit quitThreads();
    QThread::msleep(10);

    const QList<QThread *> snapshot = threads;
    for (QThread *thread : snapshot) {
        if (thread->isRunning() && !thread->wait(quitGraceMs)) {
            qDebug() << "terminate thread" << thread;
            thread->terminate();
            thread->wait(3000);
        }
        // The loop objects are deleted with this launcher; what their threads left behind
        // becomes this thread's (QThread's own end is invisible to the thread sanitizer).
        tsanAcquire(thread);
    }
    // The propagator loop belongs to the owner object, which deletes it right after this
    // launcher; deleting a QThread that still runs aborts the process, so make sure it has ended.
    // It may not even have announced itself yet, so go by the loop object, not ppgThread.
    if (m_ppgLoop && !m_ppgLoop->wait(quitGraceMs)) {
        m_ppgLoop->terminate();
        m_ppgLoop->wait(3000);
    }
    tsanAcquire(m_ppgLoop.data());
    if (!ownerObject)
        delete m_ppgLoop;
    threads.clear();
}

bool ThreadLauncher::launchThread(int n)
{
    const int target = threads.size() + n;
    for (int i = 0; i < n; ++i) {
        currentLoop = new ThreadLoop(this);
        connect(currentLoop, &ThreadLoop::launch, this, &ThreadLauncher::appendThread);
        currentLoop->start(QThread::InheritPriority);
        connect(this, &ThreadLauncher::quitThreads, currentLoop, &QThread::quit);
    }
    // The announcements arrive as queued calls into this thread: serve them until all are in.
    // Numbers follow the order in which the threads start running, not the creation order.
    while (threads.size() != target) {
        QCoreApplication::processEvents();
        if (threads.size() == target)
            break;
        QThread::msleep(10);
    }
    return true;
}

QThread *ThreadLauncher::placeAt(int number)
{
    if (number < 0)
        return thread();
    if (number >= threads.size())
        launchThread(number + 1 - threads.size());
    return threads.at(number);
}

QThread *ThreadLauncher::threadAt(int number)
{
    if (number < 0)
        return ownerObject ? ownerObject->thread() : thread();
    return threads.value(number, nullptr);
}

QThread *ThreadLauncher::getPpgThread()
{
    while (!ppgThread) {
        QCoreApplication::processEvents();
        if (!ppgThread)
            QThread::msleep(1);
    }
    return ppgThread;
}

int ThreadLauncher::threadCount() const
{
    return threads.size();
}

void ThreadLauncher::appendThread(QThread *th)
{
    threads.append(th);
}

void ThreadLauncher::setPpgThread(QThread *th)
{
    ppgThread = th;
}

void ThreadLauncher::setThreadModules(int number, const QStringList &modules)
{
    Q_UNUSED(number)
    Q_UNUSED(modules)
}
