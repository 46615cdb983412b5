#include "ztkernel.h"

#include "kernelwindow_p.h"
#include "kernelwiring_p.h"
#include "logger.h"
#include "optisync.h"
#include "pluginprefetch_p.h"
#include "propagator.h"
#include "propagatorfeedbackconcurrent.h"
#include "propagatorstreamconcurrent.h"
#include "settingsfinding.h"
#include "syssettings.h"
#include "threadlauncher.h"
#include "tsanhandoff_p.h"
#include "ztliblevelinterface.h"
#include "ztmiextended.h"
#include "ztmifound.h"
#include "ztmistream.h"
#include "ztmodulemetadata.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDebug>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QLibraryInfo>
#include <QMenu>
#include <QMetaMethod>
#include <QMetaObject>
#include <QPluginLoader>
#include <QPointer>
#include <QSemaphore>
#include <QSharedPointer>
#include <QThread>
#include <QTimer>
#include <QToolBar>
#include <QTranslator>
#include <QWidget>

#include <atomic>
#include <cstdio>
#include <functional>

// Every debug line of the kernel starts with its object name.
#define KDEBUG qDebug().noquote() << objectName()

// "gen (id_0)": the module's alias, or its configured name when it has none, and its number.
static QString moduleLabelFor(const ModuleLoadRecord &info)
{
    return QStringLiteral("%1 (id_%2)")
        .arg(info.alias.isEmpty() ? info.name : info.alias)
        .arg(info.number);
}

ZtKernel::ZtKernel(QObject *parent)
    : QObject(parent)
{
    init(parent);
    widgetParent = nullptr;
    logger = new Logger(this);
}

ZtKernel::ZtKernel(QWidget *widgetParent, QObject *parent)
    : QObject(parent)
{
    init(parent);
    this->widgetParent = widgetParent;
    logger = new Logger(this);
}

void ZtKernel::init(QObject *parent)
{
    quitAllowed = 1;
    quitRequests = 0;
    sysSettings = nullptr;
    parentObject = parent;
    widgetParent = nullptr;
    logger = nullptr;
    setObjectName(QStringLiteral("kernel"));
    m_clock.start();
    threadLauncher = new ThreadLauncher(parentObject);
    qRegisterMetaType<ModuleOptions>("ModuleOptions");
}

namespace {

// A call into a module's thread that the kernel waits for, up to a deadline.
struct PendingCall
{
    ZtMIFound *module = nullptr;
    int index = -1; // the module's record
    QSharedPointer<QSemaphore> done;
};

// Posts `call` into the module's thread; null `done` when it ran here at once (the module lives
// in this thread, or in one that no longer runs).
PendingCall postToModule(ZtMIFound *module, int index, const std::function<void()> &call)
{
    PendingCall pending {module, index, {}};
    QThread *home = module->thread();
    if (home == QThread::currentThread() || !home || !home->isRunning()) {
        call();
        return pending;
    }
    pending.done = QSharedPointer<QSemaphore>::create();
    // The semaphore is shared with the posted call: a call that runs after the kernel gave up
    // on it (a late module) releases a semaphore nobody waits for, never a freed one.
    QMetaObject::invokeMethod(
        module,
        [call, done = pending.done] {
            call();
            done->release();
        },
        Qt::QueuedConnection);
    return pending;
}

// The answer of one init() run in a module's thread. The state is an atomic of the library's own,
// so that the result is handed over visibly to the thread sanitizer too; the semaphore only puts
// the waiting thread to sleep.
struct InitCall
{
    enum { Pending, Succeeded, Failed };
    std::atomic<int> state {Pending};
    QSemaphore done;
};

// Posts module->init() into the module's thread `home`; null when that thread does not run.
QSharedPointer<InitCall> postInit(ZtMIFound *module, QThread *home)
{
    if (!home || !home->isRunning())
        return {};
    auto call = QSharedPointer<InitCall>::create();
    postQueuedCall(module, [module, call] {
        call->state.store(module->init() ? InitCall::Succeeded : InitCall::Failed,
                          std::memory_order_release);
        call->done.release();
    });
    return call;
}

// Waits for a posted init(). A healthy worker answers within microseconds, so this polls for a
// moment, yielding to others on a busy machine, before it sleeps: a sleep and a wake-up per
// module used to cost more than the inits themselves. There is no deadline, since an init() may
// rightly take long (devices, connections); the way out is the thread ending without having run
// the call (or not running in the first place: null `call`). False in `ran` then.
bool awaitInit(const QSharedPointer<InitCall> &call, QThread *home, bool *ran)
{
    *ran = false;
    if (!call)
        return false;
    const auto answered
        = [&call] { return call->state.load(std::memory_order_acquire) != InitCall::Pending; };
    QElapsedTimer polling;
    polling.start();
    while (!answered() && polling.nsecsElapsed() < 200000)
        QThread::yieldCurrentThread();
    while (!answered()) {
        if (call->done.tryAcquire(1, 50))
            continue;
        // A thread that ends runs no more calls; one last look, as it may have run this one
        // just before.
        if (!home->isRunning() && !answered())
            return false;
    }
    *ran = true;
    return call->state.load(std::memory_order_acquire) == InitCall::Succeeded;
}

// Calls `step` for every module of `modules` in the module's own thread, in their order: at once
// for the modules of this thread, as one queued call per worker thread for all of that thread's
// modules. A queued call per module would run them in the same order, but wake the thread once
// per module. A module that moved to another thread in the meantime gets its own call there.
void inEachThread(const QList<ComplexModule> &modules, void (*step)(ZtMIFound *))
{
    QVector<QThread *> threads;
    QVector<QVector<QPointer<ZtMIFound>>> batches;
    for (const ComplexModule &record : modules) {
        ZtMIFound *module = record.module;
        if (!module)
            continue;
        QThread *home = module->thread();
        if (home == QThread::currentThread()) {
            step(module);
            continue;
        }
        int batch = threads.indexOf(home);
        if (batch < 0) {
            batch = threads.size();
            threads.append(home);
            batches.append(QVector<QPointer<ZtMIFound>>());
        }
        batches[batch].append(module);
    }
    for (const QVector<QPointer<ZtMIFound>> &batch : qAsConst(batches)) {
        postQueuedCall(batch.first().data(), [batch, step] {
            for (const QPointer<ZtMIFound> &module : batch) {
                if (!module)
                    continue;
                if (module->thread() == QThread::currentThread())
                    step(module);
                else
                    QMetaObject::invokeMethod(module, [module, step] { step(module); });
            }
        });
    }
}

} // namespace

// The modules of `records` that are not retired yet, with their record numbers.
static QList<QPair<ZtMIFound *, int>> liveModules(const QList<ComplexModule> &records,
                                                  const QSet<const ZtMIFound *> &retired)
{
    QList<QPair<ZtMIFound *, int>> live;
    for (int i = 0; i < records.size(); ++i) {
        ZtMIFound *module = records.at(i).module;
        if (module && !retired.contains(module))
            live.append({module, i});
    }
    return live;
}

QString ZtKernel::moduleLabel(int index) const
{
    if (index >= 0 && index < m_records.size())
        return moduleLabelFor(m_records.at(index));
    return QStringLiteral("id_%1").arg(index);
}

// Ends every producer's queue wait for good, and with `feedbackToo` releases blocked requesters
// with the error answer: once a module hung, whoever waits for it would wait for ever.
void ZtKernel::closeChannels(bool feedbackToo)
{
    for (Propagator *pg : qAsConst(propagators)) {
        if (auto *stream = qobject_cast<PropagatorStreamConcurrent *>(pg))
            stream->close();
        else if (auto *feedback = qobject_cast<PropagatorFeedbackConcurrent *>(pg);
                 feedback && feedbackToo)
            feedback->close();
    }
}

// Every module is finalised before any is let go: a module that still works until its final()
// (a requester polling a feedback server, say) must not find its peer gone. final() runs in the
// module's own thread; then each worker-thread module is brought back to the GUI thread, where
// it will be deleted with its actions and widgets.
//
// The worker modules' final() calls are posted to their threads together, and together with
// their return to the GUI thread they get shutdownTimeout() ms. A module that misses the
// deadline is named (log level 2 and standard error) and left where it is with everything on its
// thread; the rest shuts down as usual. Returns the modules that may be deleted.
QList<ZtMIFound *> ZtKernel::finalise(const QList<QPair<ZtMIFound *, int>> &numbered)
{
    const QDeadlineTimer deadline(m_shutdownTimeout);
    // No producer may stay blocked on a full queue whose consumer is finishing.
    closeChannels(false);

    QList<PendingCall> finals;
    for (const auto &entry : qAsConst(numbered)) {
        ZtMIFound *module = entry.first;
        QObject::disconnect(module, nullptr, nullptr, nullptr);
        finals.append(postToModule(module, entry.second, [module] { module->final(); }));
    }

    // A healthy thread runs a queued call at once: once the time is up, the rest get this long.
    const int grace = qMin(m_shutdownTimeout, 250);
    auto arrived = [](const PendingCall &call, const QDeadlineTimer &until) {
        return !call.done || call.done->tryAcquire(1, int(qMax<qint64>(0, until.remainingTime())));
    };
    auto name = [this](const PendingCall &call, const char *what) {
        const int number = call.index >= 0 && call.index < m_records.size()
            ? m_records.at(call.index).threadNumber
            : -1;
        const QString text = QStringLiteral("module %1 on thread %2 %3 within %4 ms")
                                 .arg(moduleLabel(call.index))
                                 .arg(number)
                                 .arg(QLatin1String(what))
                                 .arg(m_shutdownTimeout);
        log(text, 2);
        std::fprintf(stderr, "%s\n", qPrintable(text));
        std::fflush(stderr);
        m_hungThreads.insert(call.module->thread());
    };

    QList<PendingCall> outstanding;
    for (const PendingCall &call : qAsConst(finals)) {
        if (!arrived(call, deadline))
            outstanding.append(call);
    }
    if (!outstanding.isEmpty()) {
        // Someone hangs. Whoever waits in final() for an answer from it is released with the
        // error answer, so that only the module that hangs is named.
        closeChannels(true);
        const QDeadlineTimer released(grace);
        for (const PendingCall &call : qAsConst(outstanding)) {
            if (!arrived(call, released))
                name(call, "did not finish final()");
        }
    }

    // Modules that share a thread with a late one stay there too: their turn would never come.
    QThread *gui = QCoreApplication::instance()->thread();
    QList<PendingCall> moves;
    for (const auto &entry : qAsConst(numbered)) {
        ZtMIFound *module = entry.first;
        if (module->thread() == gui || m_hungThreads.contains(module->thread()))
            continue;
        moves.append(
            postToModule(module, entry.second, [module] { module->moveMeToTheMainThread(); }));
    }
    const QDeadlineTimer homecoming(qMax<qint64>(grace, deadline.remainingTime()));
    for (const PendingCall &call : qAsConst(moves)) {
        if (!arrived(call, homecoming))
            name(call, "did not return to the GUI thread");
    }

    QList<ZtMIFound *> released;
    for (const auto &entry : qAsConst(numbered)) {
        QThread *home = entry.first->thread();
        if (home == gui || !m_hungThreads.contains(home))
            released.append(entry.first);
    }
    return released;
}

ZtKernel::~ZtKernel()
{
    for (ZtMIFound *module : finalise(liveModules(modules, m_retired)))
        delete module;
    modules.clear();

    // The propagators belong to the kernel; one living in a running worker thread (the
    // propagator thread or a module's) is deleted there, so that no event of its own is being
    // delivered while it goes away. Those in a thread a late module holds stay where they are,
    // and a thread that does not take the deletion within the shutdown time keeps its own.
    const QList<Propagator *> channels = propagators;
    propagators.clear();
    m_rowChannels.clear();
    for (Propagator *pg : channels) {
        QThread *home = pg->thread();
        if (m_hungThreads.contains(home))
            continue;
        if (home && home != QThread::currentThread() && home->isRunning()) {
            auto done = QSharedPointer<QSemaphore>::create();
            QMetaObject::invokeMethod(
                pg,
                [pg, done] {
                    delete pg;
                    done->release();
                },
                Qt::QueuedConnection);
            if (!done->tryAcquire(1, m_shutdownTimeout))
                KDEBUG << "propagator" << pg << "not deleted: its thread did not take the call";
        } else {
            delete pg;
        }
    }
    // Synchronisers are children of the kernel and go with it.
    optiSyncs.clear();
}

int ZtKernel::setSysSettings(SysSettings *settings)
{
    // setOptionsFileName started the phase before it parsed the file.
    const qint64 start = m_settingsStart >= 0 ? m_settingsStart : now();
    m_settingsStart = -1;
    if (sysSettings && sysSettings != settings)
        delete sysSettings;
    sysSettings = settings;
    if (!logger)
        logger = new Logger(this);

    bool ok = false;
    const int level = sysSettings->getLoggerLevel(&ok);
    logger->setLevelWrite(static_cast<Logger::Level>(ok ? level : 4));
    QString file = sysSettings->getLoggerFile();
    if (file.isEmpty())
        file = QStringLiteral("./zt.log");
    logger->setFile(file);

    const QString name = sysSettings->getSysSettingFileName();
    log(tr("Read config from ") + name, 1);
    KDEBUG << "Read config from" << name;
    // Values the settings reader refused as damaged read as absent; the log says where they are.
    for (const SettingsFinding &finding : sysSettings->damagedValues())
        log(tr("Damaged value ignored: %1:%2, key \"%3\": %4")
                .arg(finding.fileName)
                .arg(finding.line)
                .arg(finding.key, finding.reason),
            2);

    bool timeoutOk = false;
    const int timeout
        = sysSettings->value(QStringLiteral("mainwindow/shutdowntimeout")).toInt(&timeoutOk);
    if (timeoutOk && timeout > 0)
        m_shutdownTimeout = timeout;

    m_phases.append({QStringLiteral("settings"), start, now() - start, 0});
    return 0;
}

int ZtKernel::setOptionsFileName(QString fileName)
{
    m_settingsStart = now();
    return setSysSettings(new SysSettings(fileName, this));
}

void ZtKernel::setWidgetParent(QWidget *widget)
{
    widgetParent = widget;
    if (logger)
        logger->setParent(widget);
}

QWidget *ZtKernel::getLogger()
{
    return logger ? logger->getWidget() : nullptr;
}

int ZtKernel::typeOfInterface(QString name)
{
    if (name == QLatin1String("ZtMIStream"))
        return 0;
    if (name == QLatin1String("ZtMIExtended"))
        return 1;
    return -1;
}

void ZtKernel::log(const QString &text, int level)
{
    if (logger)
        logger->append(text, static_cast<Logger::Level>(level));
}

// A library's instance() hands the module over in a QVariant holding a ZtMIStream* or
// ZtMIExtended*. Pointers to QObject subclasses convert to QObject* directly; anything else is
// tried through the registered pointer type of the module's kind.
static ZtMIFound *moduleFromVariant(const QVariant &value, int type)
{
    if (!value.isValid())
        return nullptr;
    if (QMetaType::typeFlags(value.userType()) & QMetaType::PointerToQObject)
        return qobject_cast<ZtMIFound *>(value.value<QObject *>());
    if (type == 0)
        return value.value<ZtMIStream *>();
    return value.value<ZtMIExtended *>();
}

int ZtKernel::loadModules(QString dir)
{
    const int phase = beginPhase(QStringLiteral("load modules"));
    const QDir folder(dir);
    // One walk of each module's settings groups for everything read about it here.
    std::vector<SysSettings::ModuleEntry> entries;
    QStringList paths;
    for (int i = 0;; ++i) {
        SysSettings::ModuleEntry entry = sysSettings->readModuleEntry(i);
        if (!entry.found)
            break;
        paths.append(folder.filePath(entry.name.toLower() + QStringLiteral(".dll")));
        entries.push_back(std::move(entry));
    }
    PluginPrefetch prefetch(paths);
    QPluginLoader loader;
    for (int i = 0; i < int(entries.size()); ++i) {
        const qint64 started = now();
        const SysSettings::ModuleEntry &entry = entries[size_t(i)];
        ComplexModule record;
        record.type = -1;
        const QString name = entry.name;
        const QString path = paths.at(i);

        ModuleLoadRecord info;
        info.number = i;
        info.name = name;
        info.alias = sysSettings->value(QStringLiteral("aliases/id_%1").arg(i)).toString();
        info.libraryPath = path;
        info.threadNumber = entry.thread;
        // Every way out of this iteration keeps the record and the kernel's slot in step.
        auto keep = [&](ModuleLoadRecord::Stage stage, const QString &error) {
            info.stage = stage;
            info.error = error;
            info.loadNs = now() - started;
            if (record.module) {
                info.thread = record.module->thread();
            }
            m_phases.append(
                {QStringLiteral("load %1").arg(moduleLabelFor(info)), started, info.loadNs, 1});
            m_records.append(info);
            modules.append(record);
        };

        if (!QFile::exists(path)) {
            log(tr("can't load ") + name + tr(" plugin, file not exists"), 5);
            KDEBUG << "can't load " << name << " plugin, file not exists";
            keep(ModuleLoadRecord::FileMissing, QStringLiteral("file not exists"));
            continue;
        }

        prefetch.waitFor(i);
        loader.setFileName(path);
        QObject *instance = loader.instance();
        if (!instance) {
            QString error = prefetch.errorString(i);
            if (error.isEmpty())
                error = loader.errorString();
            log(tr("can't load ") + name + tr(" plugin"), 5);
            log(error, 5);
            KDEBUG << "can't load " << name << " plugin!";
            KDEBUG << error;
            keep(ModuleLoadRecord::NotAPlugin, error);
            continue;
        }

        KDEBUG << "Load plugin" << name;
        // A Qt plug-in that is not a module library would crash the walk below: say so instead.
        ZtLibLevelInterface *library = qobject_cast<ZtLibLevelInterface *>(instance);
        if (!library) {
            const QString error
                = tr("the plugin does not implement ") + QStringLiteral(ZtLibLevelInterface_iid);
            log(tr("can't load ") + name + tr(" plugin"), 5);
            log(error, 5);
            KDEBUG << "can't load " << name << " plugin!"
                   << "no" << ZtLibLevelInterface_iid;
            keep(ModuleLoadRecord::NotAPlugin, error);
            continue;
        }
        record.library = library;
        info.version = library->getVersion();
        info.buildDate = library->getBuildDate();
        // The metadata embedded at build time is what tools read without loading the library;
        // a library whose own answers differ is loaded as it answers, with a warning.
        const QStringList differences
            = ZtModuleMetaData::fromPluginMetaData(loader.metaData()).disagreements(*library);
        if (!differences.isEmpty())
            log(tr("Metadata of %1 disagrees with the library: %2")
                    .arg(name, differences.join(QStringLiteral("; "))),
                3);
        const QString interfaceType = library->getInterfaceType();
        record.type = typeOfInterface(interfaceType);

        if (record.type == -1) {
            const QString error
                = tr("Unknown interface ") + interfaceType + tr(" of module ") + library->getName();
            log(error, 5);
            KDEBUG << "Unknown interface" << interfaceType << "of module" << library->getName();
            keep(ModuleLoadRecord::UnknownInterface, error);
            continue;
        }

        record.module = moduleFromVariant(library->instance(i, nullptr), record.type);
        if (!record.module) {
            KDEBUG << "module" << name << "not created by its library";
            keep(ModuleLoadRecord::NoInstance, QStringLiteral("module not created by its library"));
            continue;
        }
        ZtMIFound *module = record.module;
        module->setup();
        QHash<QString, QVariant> *options = module->getOptions();
        for (auto it = entry.settings.constBegin(); it != entry.settings.constEnd(); ++it)
            options->insert(it.key(), it.value());
        logger->registerSource(module, options->value(QStringLiteral(".alias")).toString());

        const int threadNumber = info.threadNumber;
        if (threadNumber >= 0) {
            if (!module->property("isneedthreadgui").toBool())
                module->moveToThread(threadLauncher->placeAt(threadNumber));
            else
                KDEBUG << "Warning:" << name << "can not be moved to thread"
                       << threadLauncher->threadAt(threadNumber);
        }
        if (module->thread() == thread())
            info.threadNumber = -1;

        const QString version = info.version;
        if (logger) {
            log(tr("Load module ") + name
                    + tr(" to thread  0x%1 (")
                          .arg(QString::number(reinterpret_cast<quintptr>(module->thread()), 16))
                    + version + tr(" builded:") + info.buildDate + QStringLiteral(")\n"),
                1);
        }
        // By method, like a connection made by signature, so that a "logger" connection entry
        // can see it and refuse a duplicate; looked up once instead of normalised per module.
        static const QMetaMethod stateSignal = ZtMIFound::staticMetaObject.method(
            ZtMIFound::staticMetaObject.indexOfSignal("state(QString,Logger::Level)"));
        static const QMetaMethod appendSlot = Logger::staticMetaObject.method(
            Logger::staticMetaObject.indexOfSlot("append(QString,Logger::Level)"));
        connect(module, stateSignal, logger, appendSlot);
        KDEBUG << "Load module" << name << "(v " << version << ") to thread" << module->thread();
        keep(ModuleLoadRecord::Created, QString());
    }

    // Worker threads are named after the modules they carry, for top -H, debuggers and the
    // launcher's last words about a thread that will not stop.
    QVector<QStringList> carried(threadLauncher->threadCount());
    for (const ModuleLoadRecord &info : qAsConst(m_records)) {
        if (info.threadNumber >= 0 && info.threadNumber < carried.size())
            carried[info.threadNumber].append(info.alias.isEmpty() ? info.name : info.alias);
    }
    for (int n = 0; n < carried.size(); ++n)
        threadLauncher->setThreadModules(n, carried.at(n));
    for (ModuleLoadRecord &info : m_records) {
        if (info.thread)
            info.threadName = info.thread->objectName();
    }
    endPhase(phase);
    return 0;
}

// Hands the posted applyOptions/sendOptions calls to the event dispatchers. Deprecated in Qt 5.15
// (a no-op on most platforms), but it is what the start-up sequence promises.
static void flushEvents()
{
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    QCoreApplication::flush();
    QT_WARNING_POP
}

int ZtKernel::initModules()
{
    const int phase = beginPhase(QStringLiteral("init modules"));
    const QList<ComplexModule> snapshot = modules;
    // Each module is reported (debug line, record, phase) while the next one's init() runs in
    // its thread: the kernel would otherwise only wait then. Reports keep the module order.
    struct Outcome
    {
        int index = -1;
        bool widgetsOk = false;
        bool initOk = false;
        bool initRan = false;
        qint64 started = 0;
        qint64 took = 0;
    };
    Outcome previous;
    const auto report = [this, &snapshot](const Outcome &done) {
        const bool ok = done.widgetsOk && done.initOk;
        // A module that failed to start stays loaded: it is only reported.
        KDEBUG << snapshot.at(done.index).library->getName() << "init" << (ok ? "true" : "false");
        if (done.index >= m_records.size())
            return;
        ModuleLoadRecord &info = m_records[done.index];
        info.initNs = done.took;
        info.stage = ok ? ModuleLoadRecord::Initialised : ModuleLoadRecord::InitFailed;
        if (!done.initRan)
            info.error = QStringLiteral("init() not run: the module's thread has ended");
        else if (!done.initOk)
            info.error = QStringLiteral("init() returned false");
        else if (!done.widgetsOk)
            info.error = QStringLiteral("initWidgets() returned false");
        m_phases.append(
            {QStringLiteral("init %1").arg(moduleLabelFor(info)), done.started, done.took, 1});
    };
    for (int i = 0; i < snapshot.size(); ++i) {
        ZtMIFound *module = snapshot.at(i).module;
        if (!module)
            continue;
        Outcome current;
        current.index = i;
        current.started = now();
        current.widgetsOk = widgetParent ? module->initWidgets(widgetParent) : true;
        QThread *home = module->thread();
        QSharedPointer<InitCall> pending;
        if (home == thread()) {
            current.initOk = module->init();
            current.initRan = true;
        } else {
            pending = postInit(module, home);
        }
        if (previous.index >= 0)
            report(previous);
        if (home != thread())
            current.initOk = awaitInit(pending, home, &current.initRan);
        current.took = now() - current.started;
        previous = current;
    }
    if (previous.index >= 0)
        report(previous);

    inEachThread(snapshot, [](ZtMIFound *module) { module->applyOptions(); });
    flushEvents();

    // Each module announces its options from its own thread, after its applyOptions: a worker
    // module's table is only read where it is written.
    inEachThread(snapshot, [](ZtMIFound *module) {
        emit module->sendOptions(ModuleOptions(*module->getOptions()));
    });
    flushEvents();

    emit actStart();
    emit actStart(QByteArray());
    emit actStart(QVariantList());
    endPhase(phase);
    return 0;
}

int ZtKernel::unloadModules()
{
    const QList<QPair<ZtMIFound *, int>> live = liveModules(modules, m_retired);
    const QList<ZtMIFound *> released = finalise(live);
    // A late module is retired as well (never touched again), but not deleted.
    for (const auto &entry : live) {
        if (released.contains(entry.first))
            entry.first->deleteLater();
        m_retired.insert(entry.first);
    }
    return 0;
}

QList<QHash<QString, QVariant> *> ZtKernel::getModulesOptions()
{
    QList<QHash<QString, QVariant> *> list;
    for (const ComplexModule &record : qAsConst(modules))
        list.append(record.module ? record.module->getOptions() : nullptr);
    return list;
}

void ZtKernel::getModulesInfo(QList<QString> &info) const
{
    const QString dash = QStringLiteral("-");
    if (sysSettings)
        info << QStringLiteral("config") << sysSettings->readVersion() << dash << dash << dash;
    info << QStringLiteral("core") << QStringLiteral("1.10.2") << dash << QStringLiteral("std")
         << QStringLiteral("27.04.2018 ");

    for (const ComplexModule &record : modules) {
        if (!record.library) {
            for (int i = 0; i < 5; ++i)
                info << QStringLiteral("Unknown");
            continue;
        }
        const QString name = record.library->getName();
        if (info.contains(name))
            continue;
        const int packed = record.library->getInterfaceVersion();
        const QString version = QStringLiteral("%1.%2.%3")
                                    .arg(static_cast<qint8>((packed >> 16) & 0xff))
                                    .arg(static_cast<qint8>((packed >> 8) & 0xff))
                                    .arg(static_cast<qint8>(packed & 0xff));
        info << name << record.library->getVersion() << version << record.library->getKind()
             << record.library->getBuildDate();
    }
}

static void installTranslation(QObject *parent, const QString &file, const QString &dir)
{
    auto *translator = new QTranslator(parent);
    if (translator->load(file, dir))
        QCoreApplication::installTranslator(translator);
    else
        delete translator;
}

int ZtKernel::loadTranslations(QString locale, QString dir)
{
    QStringList names;
    for (int i = 0; sysSettings->isModuleNameContains(i); ++i) {
        const QString name = sysSettings->readModuleName(i).toLower();
        if (!names.contains(name))
            names.append(name);
    }

    installTranslation(this, QStringLiteral("qt_") + locale,
                       QLibraryInfo::location(QLibraryInfo::TranslationsPath));
    installTranslation(this, QStringLiteral("core_") + locale, dir);
    installTranslation(this, QStringLiteral("ovesk_") + locale, dir);

    if (widgetParent) {
        logger->createWidget(widgetParent);
        bool ok = false;
        const int count = sysSettings->getLoggerBlockCount(&ok);
        if (ok)
            logger->setMaximumBlockCount(count);
    }

    for (const QString &name : qAsConst(names))
        installTranslation(this, name + QLatin1Char('_') + locale, dir);
    return 0;
}

void ZtKernel::tryQuit()
{
    const int before = quitRequests--;
    if (before == 1)
        QTimer::singleShot(100, this, &ZtKernel::quit);
}

void ZtKernel::cancelQuit()
{
    quitAllowed = 0;
}

void ZtKernel::quit()
{
    if (quitAllowed && parentObject)
        QTimer::singleShot(0, parentObject, SLOT(quit()));
}

ZtMIFound *ZtKernel::moduleAt(int index) const
{
    return getModule(index).module;
}

ComplexModule ZtKernel::getModule(int index) const
{
    return modules.value(index, ComplexModule());
}

int ZtKernel::getModuleCount() const
{
    return modules.size();
}

QList<Propagator *> ZtKernel::getPropagators() const
{
    return propagators;
}

QList<OptiSync *> ZtKernel::getOptiSyncs() const
{
    return optiSyncs;
}

ThreadLauncher *ZtKernel::getThreadLauncher() const
{
    return threadLauncher;
}

Logger *ZtKernel::getLoggerObject() const
{
    return logger;
}

SysSettings *ZtKernel::getSysSettings() const
{
    return sysSettings;
}

// ---------------------------------------------------------------------------------------------
// Wiring and window elements live in internal classes.

void ZtKernel::makeConnections()
{
    const int phase = beginPhase(QStringLiteral("connections"));
    KernelWiring(this).makeConnections();
    endPhase(phase);
}

bool ZtKernel::connMod2Mod(QStringList fields)
{
    return KernelWiring(this).connMod2Mod(fields);
}

QList<QWidget *> ZtKernel::getWMains()
{
    return timedElements<QList<QWidget *>>([](KernelWindow window) { return window.getWMains(); });
}

QList<QWidget *> ZtKernel::getWOptions()
{
    return timedElements<QList<QWidget *>>(
        [](KernelWindow window) { return window.getWOptions(); });
}

QList<QMenu *> ZtKernel::getMenus()
{
    return timedElements<QList<QMenu *>>([](KernelWindow window) { return window.getMenus(); });
}

QList<QToolBar *> ZtKernel::getToolBars()
{
    return timedElements<QList<QToolBar *>>(
        [](KernelWindow window) { return window.getToolBars(); });
}

void ZtKernel::updateWidgets()
{
    KernelWindow(this).updateWidgets();
}

QList<ModuleLoadRecord> ZtKernel::loadRecords() const
{
    return m_records;
}

QList<StartupPhase> ZtKernel::startupPhases() const
{
    return m_phases;
}

QList<ChannelRow> ZtKernel::channelRows() const
{
    QList<ChannelRow> rows = m_rows;
    for (int i = 0; i < rows.size(); ++i) {
        if (Propagator *pg = m_rowChannels.value(i))
            rows[i].stats = pg->stats();
    }
    return rows;
}

void ZtKernel::setShutdownTimeout(int msecs)
{
    if (msecs > 0)
        m_shutdownTimeout = msecs;
}

int ZtKernel::shutdownTimeout() const
{
    return m_shutdownTimeout;
}

qint64 ZtKernel::now() const
{
    return m_clock.nsecsElapsed();
}

// Phases are appended when they begin, so that the steps they hold follow them in the list.
int ZtKernel::beginPhase(const QString &name, int depth)
{
    m_phases.append({name, now(), 0, depth});
    return m_phases.size() - 1;
}

void ZtKernel::endPhase(int index)
{
    StartupPhase &phase = m_phases[index];
    phase.durationNs = now() - phase.startNs;
}

// The four element builders are one phase, "window elements", that each of them extends.
template<class Result, class Builder>
Result ZtKernel::timedElements(Builder build)
{
    const qint64 started = now();
    Result result = build(KernelWindow(this));
    const qint64 took = now() - started;
    if (m_elementsPhase < 0) {
        m_phases.append({QStringLiteral("window elements"), started, took, 0});
        m_elementsPhase = m_phases.size() - 1;
    } else {
        m_phases[m_elementsPhase].durationNs += took;
    }
    return result;
}

QString ModuleLoadRecord::stageText(Stage stage)
{
    switch (stage) {
    case NotLoaded:
        return QStringLiteral("not loaded");
    case FileMissing:
        return QStringLiteral("file missing");
    case NotAPlugin:
        return QStringLiteral("not a plug-in");
    case UnknownInterface:
        return QStringLiteral("unknown interface type");
    case NoInstance:
        return QStringLiteral("no instance");
    case Created:
        return QStringLiteral("created");
    case Initialised:
        return QStringLiteral("initialised");
    case InitFailed:
        return QStringLiteral("init returned false");
    }
    return QString();
}
