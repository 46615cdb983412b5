#include "threadlauncher.h"

#include "threadloop.h"
#include "tsanhandoff_p.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDebug>
#include <QThread>
#include <QTimer>

namespace {

// Terminating a thread is a last resort: it may die holding a lock or in the middle of an
// allocation. A thread that is merely slow to leave its event loop (a busy machine) therefore
// gets a short grace after the quit request; only one that is still running then, typically
// stuck in a slot, is terminated. All threads share the one grace, so that several hung threads
// do not add up.
const int quitGraceMs = 200;
// How long terminated threads together get to end before they are left running.
const int terminateLimitMs = 3000;
// A new thread announces itself within microseconds; one that has not after this long never
// will (the system refused it, or the machine is hopelessly overloaded).
const int announceLimitMs = 30000;

} // namespace

ThreadLauncher::ThreadLauncher(QObject *parent)
    : QObject(parent)
    , currentLoop(nullptr)
    , ppgThread(nullptr)
    , ownerObject(parent)
{
    m_ppgLoop = new ThreadLoop(ownerObject);
    m_ppgLoop->setThreadName(QStringLiteral("zt propagators"));
    connect(m_ppgLoop, &ThreadLoop::launch, this, &ThreadLauncher::setPpgThread);
    m_ppgLoop->start(QThread::InheritPriority);
    connect(this, &ThreadLauncher::quitThreads, m_ppgLoop, &QThread::quit);
}

ThreadLauncher::~ThreadLauncher()
{
    emit quitThreads();

    struct Stopping
    {
        QThread *thread;
        QString who; // "thread 2 (zt2 gen)"
        QString what; // why terminating it matters
    };
    QList<Stopping> hung;
    const QDeadlineTimer grace(quitGraceMs);
    for (int i = 0; i < threads.size(); ++i) {
        QThread *thread = threads.at(i);
        if (!thread->wait(grace)) {
            const QStringList modules = m_threadModules.value(i);
            hung.append({thread, QStringLiteral("thread %1 (%2)").arg(i).arg(threadName(i)),
                         modules.isEmpty()
                             ? QStringLiteral("no modules on it; it did not return to its "
                                              "event loop")
                             : QStringLiteral("modules %1 did not return to its event loop")
                                   .arg(modules.join(QStringLiteral(", ")))});
        }
    }
    // The propagator loop belongs to the owner object, which deletes it right after this
    // launcher; deleting a QThread that still runs aborts the process, so make sure it has ended.
    // It may not even have announced itself yet, so go by the loop object, not ppgThread.
    if (m_ppgLoop && !m_ppgLoop->wait(grace))
        hung.append({m_ppgLoop.data(), QStringLiteral("the propagator thread (zt propagators)"),
                     QStringLiteral("it did not return to its event loop")});

    for (const Stopping &stopping : qAsConst(hung)) {
        qWarning().noquote()
            << QStringLiteral("terminating %1: %2").arg(stopping.who, stopping.what);
        qDebug() << "terminate thread" << stopping.thread;
        stopping.thread->terminate();
    }
    const QDeadlineTimer ending(terminateLimitMs);
    for (const Stopping &stopping : qAsConst(hung)) {
        if (!stopping.thread->wait(ending)) {
            // Termination is deferred to a cancellation point, which a thread spinning in a
            // loop never reaches. Deleting its QThread would abort the process; leaving the
            // object alive lets the process end, and the thread with it.
            qWarning().noquote()
                << QStringLiteral("%1 could not be ended; it is left running").arg(stopping.who);
            stopping.thread->setParent(nullptr);
            if (stopping.thread == m_ppgLoop.data())
                m_ppgLoop.clear();
        }
    }

    for (QThread *thread : qAsConst(threads)) {
        // The loop objects are deleted with this launcher; what their threads left behind
        // becomes this thread's (QThread's own end is invisible to the thread sanitizer).
        if (thread->isFinished())
            tsanAcquire(thread);
    }
    if (m_ppgLoop) {
        tsanAcquire(m_ppgLoop.data());
        if (!ownerObject)
            delete m_ppgLoop;
    }
    threads.clear();
}

template<typename Done>
bool ThreadLauncher::serveEventsUntil(Done done, int limitMs)
{
    // The announcements arrive as queued calls into this thread. Sleep in the event loop until
    // something arrives; the timer makes sure the limit is noticed even if nothing does.
    const QDeadlineTimer limit(limitMs);
    QTimer wake;
    wake.start(50);
    while (!done()) {
        if (limit.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
    }
    return true;
}

void ThreadLauncher::startThreads(int n)
{
    for (int i = 0; i < n; ++i) {
        currentLoop = new ThreadLoop(this);
        connect(currentLoop, &ThreadLoop::launch, this, &ThreadLauncher::appendThread);
        // Named before it starts: the thread applies the name itself when it runs.
        currentLoop->setThreadName(threadName(threads.size()));
        currentLoop->start(QThread::InheritPriority);
        // QThread::start() has already warned when the system refused the thread.
        if (!currentLoop->isRunning()) {
            delete currentLoop;
            currentLoop = nullptr;
            return;
        }
        connect(this, &ThreadLauncher::quitThreads, currentLoop, &QThread::quit);
        threads.append(currentLoop);
    }
}

bool ThreadLauncher::launchThread(int n)
{
    const int first = threads.size();
    startThreads(n);
    const int started = threads.size() - first;
    const auto allAnnounced = [&] {
        for (int i = first; i < threads.size(); ++i) {
            if (!m_announced.contains(threads.at(i)))
                return false;
        }
        return true;
    };
    if (started == n && serveEventsUntil(allAnnounced, announceLimitMs))
        return true;
    int silent = n - started;
    for (int i = first; i < threads.size(); ++i)
        silent += m_announced.contains(threads.at(i)) ? 0 : 1;
    qWarning().noquote() << QStringLiteral("thread launcher: %1 of %2 new threads did not start "
                                           "within %3 s")
                                .arg(silent)
                                .arg(n)
                                .arg(announceLimitMs / 1000);
    return false;
}

QThread *ThreadLauncher::placeAt(int number)
{
    if (number < 0)
        return thread();
    // A thread that has just been started takes objects and queued calls already; waiting for
    // its announcement here cost a sleep of this thread per new thread (a long one on a busy
    // machine), and the start-up places modules on its threads one after the other.
    if (number >= threads.size())
        startThreads(number + 1 - threads.size());
    if (number >= threads.size()) {
        qWarning().noquote()
            << QStringLiteral("thread launcher: thread %1 is missing; using the launcher's thread")
                   .arg(number);
        return thread();
    }
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
    if (ppgThread || serveEventsUntil([this] { return ppgThread != nullptr; }, announceLimitMs))
        return ppgThread;
    qWarning().noquote() << QStringLiteral("thread launcher: the propagator thread did not start "
                                           "within %1 s; using the launcher's thread")
                                .arg(announceLimitMs / 1000);
    return thread();
}

int ThreadLauncher::threadCount() const
{
    return threads.size();
}

void ThreadLauncher::appendThread(QThread *th)
{
    m_announced.insert(th);
}

void ThreadLauncher::setPpgThread(QThread *th)
{
    ppgThread = th;
}

QString ThreadLauncher::threadName(int number) const
{
    const QStringList modules = m_threadModules.value(number);
    if (modules.isEmpty())
        return QStringLiteral("zt%1").arg(number);
    return QStringLiteral("zt%1 %2").arg(number).arg(modules.join(QLatin1Char(',')));
}

void ThreadLauncher::setThreadModules(int number, const QStringList &modules)
{
    if (number < 0)
        return;
    m_threadModules.insert(number, modules);
    if (auto *loop = qobject_cast<ThreadLoop *>(threads.value(number, nullptr)))
        loop->setThreadName(threadName(number));
}
