#pragma once

#include <logger.h>
#include <propagatorfeedback.h>
#include <propagatorstream.h>
#include <ztliblevelinterface.h>
#include <ztmiextended.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QMutex>
#include <QPluginLoader>
#include <QTcpServer>
#include <QThread>
#include <QVariantMap>

#include <functional>

// One module of a shipped library, loaded from the modules folder and driven as the kernel
// drives it: setup, options, propagators plugged in, moved to a worker thread of its own, init()
// and final() run there. What the module logs through state() is collected from its thread.
class ModuleRig
{
public:
    ModuleRig(const QString &library, const QVariantMap &options)
        : loader(QDir(QStringLiteral(ZT_MODULES_DIR)).filePath(library))
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
                QMutexLocker guard(&mutex);
                lines.append(line);
            },
            Qt::DirectConnection);
    }

    ~ModuleRig()
    {
        if (!module)
            return;
        if (started)
            QMetaObject::invokeMethod(module, "final", Qt::BlockingQueuedConnection);
        QMetaObject::invokeMethod(module, "moveMeToTheMainThread", Qt::BlockingQueuedConnection);
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
        QMetaObject::invokeMethod(module, "init", Qt::BlockingQueuedConnection,
                                  Q_RETURN_ARG(bool, ok));
        started = true;
        return ok;
    }

    QStringList log() const
    {
        QMutexLocker guard(&mutex);
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
    mutable QMutex mutex;
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
    QThread *worker = QThread::create(work);
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
    delete worker;
    return true;
}
