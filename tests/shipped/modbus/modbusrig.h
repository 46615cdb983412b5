#pragma once

#include "tsanhandoff_p.h"

#include <logger.h>
#include <propagatorfeedback.h>
#include <propagatorstream.h>
#include <ztliblevelinterface.h>
#include <ztmiextended.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QPluginLoader>
#include <QTcpServer>
#include <QThread>
#include <QVariantMap>

#include <functional>
#include <mutex>

// Runs a function in another thread and waits for it, through a slot called by name: Qt's
// blocking queued call synchronises inside Qt, out of the thread sanitizer's sight, so the
// hand-off is marked on both sides, and no functor object of ours crosses it unmarked.
class Caller : public QObject
{
    Q_OBJECT

public:
    explicit Caller(QThread *thread) { moveToThread(thread); }

    void call(const std::function<void()> &work)
    {
        m_work = &work;
        if (thread() == QThread::currentThread()) {
            work();
            return;
        }
        tsanRelease(this);
        QMetaObject::invokeMethod(this, "run", Qt::BlockingQueuedConnection);
        tsanAcquire(this);
    }

private slots:
    void run()
    {
        tsanAcquire(this);
        (*m_work)();
        // Back to the caller's thread, which destroys it.
        moveToThread(m_origin);
        tsanRelease(this);
    }

private:
    const std::function<void()> *m_work = nullptr;
    QThread *const m_origin = QThread::currentThread();
};

inline void callIn(QObject *target, const std::function<void()> &work)
{
    Caller caller(target->thread());
    caller.call(work);
}

// One module of a shipped library, loaded from the modules folder and driven as the kernel
// drives it: setup, options, propagators plugged in, moved to a worker thread of its own, init()
// and final() run there. What the module logs through state() is collected from its thread.
class ModuleRig
{
public:
    // The test's own module library (ZT_MODULE_LIBRARY, the file the build made).
    explicit ModuleRig(const QVariantMap &options)
        : loader(QStringLiteral(ZT_MODULE_LIBRARY))
    {
        auto *interface = qobject_cast<ZtLibLevelInterface *>(loader.instance());
        if (!interface) {
            qWarning("%s", qPrintable(loader.errorString()));
            return;
        }
        module = qobject_cast<ZtMIExtended *>(interface->instance(0, nullptr).value<ZtMIFound *>());
        if (!module)
            return;
        module->setup();
        for (auto it = options.cbegin(); it != options.cend(); ++it)
            module->setOption(it.key(), it.value());
        QObject::connect(
            module, qOverload<QString, Logger::Level>(&ZtMIFound::state), module,
            [this](const QString &line, Logger::Level) {
                std::lock_guard<std::mutex> guard(mutex);
                lines.append(line);
            },
            Qt::DirectConnection);
    }

    ~ModuleRig()
    {
        if (!module)
            return;
        callIn(module, [this] {
            if (started)
                module->final();
            module->moveMeToTheMainThread();
        });
        delete module;
        thread.quit();
        thread.wait();
    }

    void plug(const QString &name, Propagator *propagator, bool feedback)
    {
        module->setPropagator(name, propagator, feedback);
    }

    // init() in the module's own thread.
    bool start()
    {
        module->moveToThread(&thread);
        thread.start();
        bool ok = false;
        callIn(module, [&] { ok = module->init(); });
        started = true;
        return ok;
    }

    QStringList log() const
    {
        std::lock_guard<std::mutex> guard(mutex);
        return lines;
    }
    int logged(const QString &fragment) const
    {
        int count = 0;
        for (const QString &line : log())
            count += line.contains(fragment) ? 1 : 0;
        return count;
    }

    QPluginLoader loader;
    ZtMIExtended *module = nullptr;
    QThread thread;
    bool started = false;

private:
    mutable std::mutex mutex; // the sanitizer sees std::mutex; lines come from the module's thread
    QStringList lines;
};

// A TCP port on 127.0.0.1 that nobody listens on right now.
inline quint16 freePort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

// Runs `work` on a thread of its own while this thread keeps its event loop going (the peers of
// the test live here). False, with a warning, when it did not end within `limitMs`: the thread
// is then left behind, still blocked, rather than destroyed while running.
inline bool runElsewhere(const std::function<void()> &work, int limitMs = 30000)
{
    static int handoff;
    tsanRelease(&handoff);
    QThread *worker = QThread::create([&work] {
        tsanAcquire(&handoff);
        work();
        tsanRelease(&handoff);
    });
    worker->start();
    QElapsedTimer clock;
    clock.start();
    while (!worker->wait(5)) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        if (clock.hasExpired(limitMs)) {
            qWarning("request still blocked after %d ms", limitMs);
            return false;
        }
    }
    tsanAcquire(&handoff);
    delete worker;
    return true;
}
