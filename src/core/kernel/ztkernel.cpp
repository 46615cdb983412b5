#include "ztkernel.h"

#include "kernelwindow_p.h"
#include "kernelwiring_p.h"
#include "logger.h"
#include "optisync.h"
#include "propagator.h"
#include "settingsfinding.h"
#include "syssettings.h"
#include "threadlauncher.h"
#include "ztliblevelinterface.h"
#include "ztmiextended.h"
#include "ztmifound.h"
#include "ztmistream.h"
#include "ztmodulemetadata.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QLibraryInfo>
#include <QMenu>
#include <QMetaObject>
#include <QPluginLoader>
#include <QSemaphore>
#include <QSharedPointer>
#include <QThread>
#include <QTimer>
#include <QToolBar>
#include <QTranslator>
#include <QWidget>

#include <functional>

// Every debug line of the kernel starts with its object name.
#define KDEBUG qDebug().noquote() << objectName()

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
    threadLauncher = new ThreadLauncher(parentObject);
    qRegisterMetaType<ModuleOptions>("ModuleOptions");
}

// Runs `call` in the module's thread and waits for it: at once when the module lives in this
// thread (or in one that no longer runs), else as a queued call. A module busy in its thread is
// waited for as long as it takes, since deleting it under its own feet would be worse; every
// few seconds a debug line names the module and the call it is waited for.
static void runInModuleThread(const QString &kernelName, ZtMIFound *module, const char *what,
                              const std::function<void()> &call)
{
    QThread *home = module->thread();
    if (home == QThread::currentThread() || !home || !home->isRunning()) {
        call();
        return;
    }
    auto done = QSharedPointer<QSemaphore>::create();
    QMetaObject::invokeMethod(
        module,
        [call, done] {
            call();
            done->release();
        },
        Qt::QueuedConnection);
    while (!done->tryAcquire(1, 5000)) {
        qDebug().noquote() << kernelName << "waiting for module" << module->getId()
                           << module->objectName() << "to finish" << what;
    }
}

// The modules of `records` that are not retired yet, in record order.
static QList<ZtMIFound *> liveModules(const QList<ComplexModule> &records,
                                      const QSet<const ZtMIFound *> &retired)
{
    QList<ZtMIFound *> live;
    for (const ComplexModule &record : records) {
        if (record.module && !retired.contains(record.module))
            live.append(record.module);
    }
    return live;
}

// Every module is finalised before any is let go: a module that still works until its final()
// (a requester polling a feedback server, say) must not find its peer gone and wait for an
// answer for ever. final() runs in the module's own thread; then each worker-thread module is
// brought back to the GUI thread, where it will be deleted with its actions and widgets.
void ZtKernel::finalise(const QList<ZtMIFound *> &live)
{
    for (ZtMIFound *module : live) {
        QObject::disconnect(module, nullptr, nullptr, nullptr);
        runInModuleThread(objectName(), module, "final", [module] { module->final(); });
    }
    QThread *gui = QCoreApplication::instance()->thread();
    for (ZtMIFound *module : live) {
        if (module->thread() != gui)
            runInModuleThread(objectName(), module, "moveMeToTheMainThread",
                              [module] { module->moveMeToTheMainThread(); });
    }
}

ZtKernel::~ZtKernel()
{
    const QList<ZtMIFound *> live = liveModules(modules, m_retired);
    finalise(live);
    for (ZtMIFound *module : live)
        delete module;
    modules.clear();

    // The propagators belong to the kernel; one living in a running worker thread (the
    // propagator thread or a module's) is deleted there, so that no event of its own is being
    // delivered while it goes away.
    const QList<Propagator *> channels = propagators;
    propagators.clear();
    for (Propagator *pg : channels) {
        QThread *home = pg->thread();
        if (home && home != QThread::currentThread() && home->isRunning())
            QMetaObject::invokeMethod(
                pg, [pg] { delete pg; }, Qt::BlockingQueuedConnection);
        else
            delete pg;
    }
    // Synchronisers are children of the kernel and go with it.
    optiSyncs.clear();
}

int ZtKernel::setSysSettings(SysSettings *settings)
{
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
    return 0;
}

int ZtKernel::setOptionsFileName(QString fileName)
{
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
    QPluginLoader loader;
    for (int i = 0; sysSettings->isModuleNameContains(i); ++i) {
        ComplexModule record;
        record.type = -1;
        const QString name = sysSettings->readModuleName(i);
        const QString path = QDir(dir).filePath(name.toLower() + QStringLiteral(".dll"));

        if (!QFile::exists(path)) {
            log(tr("can't load ") + name + tr(" plugin, file not exists"), 5);
            KDEBUG << "can't load " << name << " plugin, file not exists";
            modules.append(record);
            continue;
        }

        loader.setFileName(path);
        QObject *instance = loader.instance();
        if (!instance) {
            log(tr("can't load ") + name + tr(" plugin"), 5);
            log(loader.errorString(), 5);
            KDEBUG << "can't load " << name << " plugin!";
            KDEBUG << loader.errorString();
            modules.append(record);
            continue;
        }

        KDEBUG << "Load plugin" << name;
        // A Qt plug-in that is not a module library would crash the walk below: say so instead.
        ZtLibLevelInterface *library = qobject_cast<ZtLibLevelInterface *>(instance);
        if (!library) {
            log(tr("can't load ") + name + tr(" plugin"), 5);
            log(tr("the plugin does not implement ") + QStringLiteral(ZtLibLevelInterface_iid), 5);
            KDEBUG << "can't load " << name << " plugin!"
                   << "no" << ZtLibLevelInterface_iid;
            modules.append(record);
            continue;
        }
        record.library = library;
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
            log(tr("Unknown interface ") + interfaceType + tr(" of module ") + library->getName(),
                5);
            KDEBUG << "Unknown interface" << interfaceType << "of module" << library->getName();
            modules.append(record);
            continue;
        }

        record.module = moduleFromVariant(library->instance(i, nullptr), record.type);
        if (!record.module) {
            KDEBUG << "module" << name << "not created by its library";
            modules.append(record);
            continue;
        }
        ZtMIFound *module = record.module;
        module->setup();
        sysSettings->readModuleSetting(i, module->getOptions());
        logger->registerSource(module,
                               module->getOptions()->value(QStringLiteral(".alias")).toString());

        const int threadNumber = sysSettings->readModuleThread(i);
        if (threadNumber >= 0) {
            if (!module->property("isneedthreadgui").toBool())
                module->moveToThread(threadLauncher->placeAt(threadNumber));
            else
                KDEBUG << "Warning:" << name << "can not be moved to thread"
                       << threadLauncher->threadAt(threadNumber);
        }

        if (logger) {
            log(tr("Load module ") + name
                    + tr(" to thread  0x%1 (")
                          .arg(QString::number(reinterpret_cast<quintptr>(module->thread()), 16))
                    + library->getVersion() + tr(" builded:") + library->getBuildDate()
                    + QStringLiteral(")\n"),
                1);
        }
        // By signature, so that a "logger" connection entry can see it and refuse a duplicate.
        connect(module, SIGNAL(state(QString, Logger::Level)), logger,
                SLOT(append(QString, Logger::Level)));
        KDEBUG << "Load module" << name << "(v " << library->getVersion() << ") to thread"
               << module->thread();
        modules.append(record);
    }
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
    const QList<ComplexModule> snapshot = modules;
    for (const ComplexModule &record : snapshot) {
        ZtMIFound *module = record.module;
        if (!module)
            continue;
        const bool widgetsOk = widgetParent ? module->initWidgets(widgetParent) : true;
        bool initOk = false;
        if (module->thread() == thread())
            initOk = module->init();
        else
            QMetaObject::invokeMethod(module, "init", Qt::BlockingQueuedConnection,
                                      Q_RETURN_ARG(bool, initOk));
        // A module that failed to start stays loaded: it is only reported.
        KDEBUG << record.library->getName() << "init" << ((widgetsOk && initOk) ? "true" : "false");
    }

    for (const ComplexModule &record : snapshot) {
        if (record.module)
            QMetaObject::invokeMethod(record.module, "applyOptions");
    }
    flushEvents();

    // Each module announces its options from its own thread, after its applyOptions: a worker
    // module's table is only read where it is written.
    for (const ComplexModule &record : snapshot) {
        ZtMIFound *module = record.module;
        if (module)
            QMetaObject::invokeMethod(module, [module] {
                emit module->sendOptions(ModuleOptions(*module->getOptions()));
            });
    }
    flushEvents();

    emit actStart();
    emit actStart(QByteArray());
    emit actStart(QVariantList());
    return 0;
}

int ZtKernel::unloadModules()
{
    const QList<ZtMIFound *> live = liveModules(modules, m_retired);
    finalise(live);
    for (ZtMIFound *module : live) {
        module->deleteLater();
        m_retired.insert(module);
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
    KernelWiring(this).makeConnections();
}

bool ZtKernel::connMod2Mod(QStringList fields)
{
    return KernelWiring(this).connMod2Mod(fields);
}

QList<QWidget *> ZtKernel::getWMains()
{
    return KernelWindow(this).getWMains();
}

QList<QWidget *> ZtKernel::getWOptions()
{
    return KernelWindow(this).getWOptions();
}

QList<QMenu *> ZtKernel::getMenus()
{
    return KernelWindow(this).getMenus();
}

QList<QToolBar *> ZtKernel::getToolBars()
{
    return KernelWindow(this).getToolBars();
}

void ZtKernel::updateWidgets()
{
    KernelWindow(this).updateWidgets();
}

QList<ModuleLoadRecord> ZtKernel::loadRecords() const
{
    return {};
}

QList<StartupPhase> ZtKernel::startupPhases() const
{
    return {};
}

QList<ChannelRow> ZtKernel::channelRows() const
{
    return {};
}

void ZtKernel::setShutdownTimeout(int msecs)
{
    Q_UNUSED(msecs)
}

int ZtKernel::shutdownTimeout() const
{
    return 3000;
}

QString ModuleLoadRecord::stageText(Stage stage)
{
    switch (stage) {
    case NotLoaded: return QStringLiteral("not loaded");
    case FileMissing: return QStringLiteral("file missing");
    case NotAPlugin: return QStringLiteral("not a plug-in");
    case UnknownInterface: return QStringLiteral("unknown interface type");
    case NoInstance: return QStringLiteral("no instance");
    case Created: return QStringLiteral("created");
    case Initialised: return QStringLiteral("initialised");
    case InitFailed: return QStringLiteral("init returned false");
    }
    return QString();
}
