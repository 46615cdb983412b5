#include "ztkernel.h"

#include "logger.h"
#include "optisync.h"
#include "optisyncdiffer.h"
#include "optisyncsame.h"
#include "propagator.h"
#include "propagatorfeedbackconcurrent.h"
#include "propagatorfeedbackdirect.h"
#include "propagatorstreamconcurrent.h"
#include "propagatorstreamdirect.h"
#include "syssettings.h"
#include "threadlauncher.h"
#include "wabstractoptions.h"
#include "ztliblevelinterface.h"
#include "ztmiextended.h"
#include "ztmifound.h"
#include "ztmistream.h"

#include <QAction>
#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QLibraryInfo>
#include <QMenu>
#include <QMetaMethod>
#include <QMetaObject>
#include <QPluginLoader>
#include <QThread>
#include <QTimer>
#include <QToolBar>
#include <QTranslator>
#include <QWidget>

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

ZtKernel::~ZtKernel()
{
    // Every module is finalised before any is deleted: a module that still works until its
    // final() (a requester polling a feedback server, say) must not find its peer gone and
    // wait for an answer for ever. final() runs in the module's own thread.
    const QList<ComplexModule> snapshot = modules;
    for (const ComplexModule &record : snapshot) {
        ZtMIFound *module = record.module;
        if (!module)
            continue;
        QObject::disconnect(module, nullptr, nullptr, nullptr);
        if (module->thread() != thread())
            QMetaObject::invokeMethod(module, "final", Qt::BlockingQueuedConnection);
        else
            module->final();
    }
    for (const ComplexModule &record : snapshot) {
        ZtMIFound *module = record.module;
        if (!module)
            continue;
        if (module->thread() != thread())
            QMetaObject::invokeMethod(module, "moveMeToTheMainThread",
                                      Qt::BlockingQueuedConnection);
        delete module;
    }
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

    for (const ComplexModule &record : snapshot) {
        if (record.module)
            QMetaObject::invokeMethod(
                record.module, "sendOptions",
                Q_ARG(ModuleOptions, ModuleOptions(*record.module->getOptions())));
    }
    flushEvents();

    emit actStart();
    emit actStart(QByteArray());
    emit actStart(QVariantList());
    return 0;
}

int ZtKernel::unloadModules()
{
    const QList<ComplexModule> snapshot = modules;
    for (const ComplexModule &record : snapshot) {
        if (!record.module)
            continue;
        QObject::disconnect(record.module, nullptr, nullptr, nullptr);
        record.module->deleteLater();
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
// Main-window elements

QList<QWidget *> ZtKernel::getWMains()
{
    QList<QWidget *> result;
    for (int i = 0; i < modules.size(); ++i) {
        ZtMIFound *module = modules.at(i).module;
        if (!module)
            continue;
        const QString name = sysSettings->readModuleWMain(i);
        if (name.isEmpty())
            continue;
        KDEBUG << "add" << name << "to wmain list";
        QWidget *w = module->getWMain(widgetParent);
        if (!w) {
            KDEBUG << "wmain" << name << "is NULL";
            continue;
        }
        if (sysSettings->isModuleMainLayout(i))
            result.prepend(w);
        else
            result.append(w);
        w->setObjectName(name);
        w->setWindowTitle(name);
    }
    return result;
}

QList<QWidget *> ZtKernel::getWOptions()
{
    QList<QWidget *> result;
    for (int i = 0; i < modules.size(); ++i) {
        ZtMIFound *module = modules.at(i).module;
        if (!module)
            continue;
        const QString name = sysSettings->readModuleWOptions(i);
        if (name.isEmpty() || !sysSettings->isModuleWOptionsDialog(i))
            continue;
        KDEBUG << "add" << name << "to woptions list from module id" << i;
        QWidget *w = module->getWOptions(widgetParent);
        if (w) {
            w->setWindowTitle(name);
            w->setObjectName(name);
            w->setStatusTip(sysSettings->readModuleWOptionsStatusTip(i));
            connect(w, SIGNAL(changed()), module, SLOT(actForOptionsChanged()));
            result.append(w);
        } else {
            // One usable widget per configured module, always.
            KDEBUG << "woptions" << name << "is NULL";
            auto *placeholder = new QWidget;
            placeholder->setWindowTitle(name + QStringLiteral(" (NULL)"));
            result.append(placeholder);
        }
    }
    return result;
}

// Gives a menu or tool-bar action its texts from the module's ".act*" options, where set. An
// unquoted text with a comma arrives as a string list: it is shown as written.
static void applyActionTexts(SysSettings *settings, int id, const QString &actionName,
                             QAction *action)
{
    const struct
    {
        const char *suffix;
        void (QAction::*set)(const QString &);
    } texts[] = {{".actname", &QAction::setText},
                 {".actstip", &QAction::setStatusTip},
                 {".actttip", &QAction::setToolTip},
                 {".actwhat", &QAction::setWhatsThis}};
    for (const auto &text : texts) {
        const QVariant value
            = settings->readModuleOption(id, actionName + QLatin1String(text.suffix));
        if (!value.isValid())
            continue;
        (action->*text.set)(value.type() == QVariant::StringList
                                ? value.toStringList().join(QLatin1Char(','))
                                : value.toString());
    }
}

// Adds the module actions named by `entries` ("<id>,<action name>" each) to a menu or tool bar.
// Menus check the module number against the record count first; tool bars deliberately do not,
// so there an id past the end reads an empty record and takes the missing-module path.
void ZtKernel::addModuleActions(QWidget *container, const QString &key, const QStringList &entries,
                                bool rangeCheck, const QString &missingAction)
{
    for (const QString &entry : entries) {
        const QStringList parts = entry.split(QLatin1Char(','));
        const int id = parts.value(0).toInt();
        const QString actionName = parts.value(1);
        if (rangeCheck && id >= modules.size()) {
            KDEBUG << "critical error, module" << id << "doesn't append";
            continue;
        }
        ZtMIFound *module = moduleAt(id);
        if (!module) {
            KDEBUG << "can't append " + entry + " to " + key + ", module id=" << id << "not exist";
            continue;
        }
        KDEBUG << "append " + entry + " to " + key + ", module id=" << id;
        QAction *action = module->getActions()->value(actionName, nullptr);
        if (!action) {
            KDEBUG << missingAction + actionName + " for module id=" << id << "not exist";
            continue;
        }
        applyActionTexts(sysSettings, id, actionName, action);
        container->addAction(action);
    }
}

QList<QMenu *> ZtKernel::getMenus()
{
    QList<QMenu *> result;
    const QStringList keys = sysSettings->readMenus();
    for (const QString &key : keys) {
        KDEBUG << "append" << key;
        const QString title = sysSettings->readMenuName(key);
        auto *menu = new QMenu(title, widgetParent);
        result.append(menu);
        menu->setObjectName(key);
        if (logger)
            log(tr("Create menu ") + title, 5);
        addModuleActions(menu, key, sysSettings->readMenusActions(key), true,
                         QStringLiteral("can't append menu item: action "));
    }
    return result;
}

QList<QToolBar *> ZtKernel::getToolBars()
{
    QList<QToolBar *> result;
    const QStringList keys = sysSettings->readToolBars();
    for (const QString &key : keys) {
        KDEBUG << "append" << key;
        const QString title = sysSettings->readToolBarName(key);
        auto *toolBar = new QToolBar(title, widgetParent);
        result.append(toolBar);
        toolBar->setObjectName(key);
        if (logger)
            log(tr("Create toolbar ") + title, 5);
        KDEBUG << "Create toolbar" << title;
        addModuleActions(toolBar, key, sysSettings->readToolBarsActions(key), false,
                         QStringLiteral("can't append toolbar: actions "));
    }
    return result;
}

void ZtKernel::updateWidgets()
{
    for (const ComplexModule &record : qAsConst(modules)) {
        if (!record.module)
            continue;
        KDEBUG << record.library->getName() << "update";
        record.module->updateWMain();
        record.module->updateWOptions();
    }
}

// ---------------------------------------------------------------------------------------------
// Module connections

// "signal_ImReady(QVariantList)" -> "2ImReady(QVariantList)", "slot_x(int)" -> "1x(int)": the
// method strings that QObject::connect expects (Qt's signal and slot codes).
static QByteArray signalCode(const QString &field)
{
    return (QString::number(QSIGNAL_CODE) + field.mid(7)).toLatin1();
}

static QByteArray slotCode(const QString &field)
{
    return (QString::number(QSLOT_CODE) + field.mid(5)).toLatin1();
}

// "id_12" -> 12; anything that is not a number gives -1.
static int moduleNumber(const QString &field)
{
    bool ok = false;
    const int n = field.mid(3).toInt(&ok);
    return ok ? n : -1;
}

static const QString idPrefix = QStringLiteral("id_");
static const QString signalPrefix = QStringLiteral("signal_");
static const QString slotPrefix = QStringLiteral("slot_");

void ZtKernel::makeConnections()
{
    const QStringList entries = sysSettings->readConnections();
    for (const QString &entry : entries) {
        KDEBUG << entry;
        const QStringList fields = entry.split(QLatin1Char(';'));
        const QString source = fields.value(0);
        const QString target = fields.value(2);

        if (!source.startsWith(idPrefix)) {
            makeActionLink(fields);
            continue;
        }
        if (target == QLatin1String("logger")) {
            makeLoggerLink(fields);
            continue;
        }
        if (!target.startsWith(idPrefix)) {
            KDEBUG << "unknown identifer" << target;
            continue;
        }

        const QString signal = fields.value(1);
        const QString slot = fields.value(3);
        if (signal.startsWith(signalPrefix) && slot.startsWith(slotPrefix)) {
            if (signal.contains(QLatin1String("sendOptions"))
                && slot.contains(QLatin1String("recvOptions"))) {
                makeOptionsSync(fields);
                continue;
            }
            ZtMIFound *from = moduleAt(moduleNumber(source));
            ZtMIFound *to = moduleAt(moduleNumber(target));
            const bool ok = from && to
                && connect(from, signalCode(signal).constData(), to, slotCode(slot).constData(),
                           Qt::AutoConnection);
            KDEBUG << (ok ? "connected" : "not connect");
        } else {
            KDEBUG << (connMod2Mod(fields) ? "connected" : "not connect");
        }
    }
}

void ZtKernel::makeOptionsSync(const QStringList &fields)
{
    OptiSync *sync = nullptr;
    switch (fields.size()) {
    case 4:
        sync = new OptiSync(this);
        break;
    case 5:
        sync = new OptiSyncSame(fields.at(4).split(QLatin1Char(',')), this);
        break;
    case 6:
        sync = new OptiSyncDiffer(fields.at(4).split(QLatin1Char(',')),
                                  fields.at(5).split(QLatin1Char(',')), this);
        break;
    default:
        KDEBUG << "invalid arguments";
        return;
    }
    optiSyncs.append(sync);

    ZtMIFound *from = moduleAt(moduleNumber(fields.at(0)));
    ZtMIFound *to = moduleAt(moduleNumber(fields.at(2)));
    const bool in = from
        && connect(from, SIGNAL(sendOptions(ModuleOptions)), sync,
                   SLOT(recvOptions(ModuleOptions)));
    const bool out = to
        && connect(sync, SIGNAL(sendOptions(ModuleOptions)), to, SLOT(recvOptions(ModuleOptions)));
    KDEBUG << ((in && out) ? "connected" : "not connect");
}

// A "logger" entry connects the named signal to Logger::append with the signal's own parameters:
// a (QString) signal logs at level 5, a (QString,Logger::Level) signal at its level. Every
// module's state(QString,Logger::Level) is connected at load time already; connecting it again
// is refused (unique connection) and reported as obsolete.
void ZtKernel::makeLoggerLink(const QStringList &fields)
{
    ZtMIFound *from = moduleAt(moduleNumber(fields.value(0)));
    const QString signal = fields.value(1);
    const int params = signal.indexOf(QLatin1Char('('));
    bool ok = false;
    if (from && logger && signal.startsWith(signalPrefix) && params > 0) {
        const QByteArray slot
            = QByteArray::number(QSLOT_CODE) + "append" + signal.mid(params).toLatin1();
        ok = connect(from, signalCode(signal).constData(), logger, slot.constData(),
                     Qt::UniqueConnection);
    }
    KDEBUG << (ok ? "connected" : "not connect, obsoleted");
}

// Action entry: "actid_<module>,<action>;<keyword>[;id_<target>;slot_<signature>]". The
// action's triggered() drives it. "actstart" also ties the target slot to the kernel's actStart
// signal of the same parameters, so that it runs once at start-up as well.
void ZtKernel::makeActionLink(const QStringList &fields)
{
    const QString head = fields.value(0);
    const QString keyword = fields.value(1);
    if (!head.startsWith(QLatin1String("actid_"))) {
        KDEBUG << "actions not connected, unknown identifer";
        log(tr("actions not connected, unknown identifer:") + head, 3);
        return;
    }
    const QStringList idAndName = head.mid(6).split(QLatin1Char(','));
    bool numeric = false;
    const int id = idAndName.value(0).toInt(&numeric);
    ZtMIFound *module = numeric ? moduleAt(id) : nullptr;
    if (!module) {
        KDEBUG << "Error, try connect to undefined module";
        return;
    }
    QAction *action = module->getActions()->value(idAndName.value(1), nullptr);
    if (!action) {
        KDEBUG << "actions not connected";
        return;
    }

    if (keyword == QLatin1String("actquit")) {
        const bool ok = connect(action, SIGNAL(triggered()), this, SLOT(tryQuit()));
        if (ok)
            ++quitRequests;
        KDEBUG << (ok ? "connected" : "actions not connected");
        return;
    }
    if (keyword == QLatin1String("actcancelquit")) {
        const bool ok = connect(action, SIGNAL(triggered()), this, SLOT(cancelQuit()));
        KDEBUG << (ok ? "connected" : "actions not connected");
        return;
    }
    if (keyword != QLatin1String("actstart")) {
        KDEBUG << "actions not connected, unknown identifer";
        log(tr("actions not connected, unknown identifer:") + keyword, 3);
        return;
    }

    const QString target = fields.value(2);
    const QString slot = fields.value(3);
    if (target.isEmpty() || slot.isEmpty()) {
        KDEBUG << "actions not connected, receiver not defined";
        return;
    }
    if (!target.startsWith(idPrefix) || !slot.startsWith(slotPrefix)) {
        KDEBUG << "actions not connected, not implemented yet";
        return;
    }
    ZtMIFound *receiver = moduleAt(moduleNumber(target));
    if (!receiver) {
        KDEBUG << "Error, try connect to undefined module";
        return;
    }
    const QByteArray signature = QMetaObject::normalizedSignature(qPrintable(slot.mid(5)));
    const int index = receiver->metaObject()->indexOfMethod(signature.constData());
    if (index < 0) {
        KDEBUG << "actions not connected";
        return;
    }
    const QMetaMethod method = receiver->metaObject()->method(index);
    const QList<QByteArray> types = method.parameterTypes();

    bool ok = false;
    if (types.isEmpty()) {
        ok = connect(this, SIGNAL(actStart()), receiver, slotCode(slot).constData())
            && connect(action, SIGNAL(triggered()), receiver, slotCode(slot).constData());
    } else if (types == QList<QByteArray> {"QVariantList"}) {
        ok = connect(this, SIGNAL(actStart(QVariantList)), receiver, slotCode(slot).constData());
        ok = ok && connect(action, &QAction::triggered, receiver, [receiver, method] {
                 method.invoke(receiver, Qt::DirectConnection, Q_ARG(QVariantList, QVariantList()));
             });
    } else if (types == QList<QByteArray> {"QByteArray"}) {
        ok = connect(this, SIGNAL(actStart(QByteArray)), receiver, slotCode(slot).constData());
        ok = ok && connect(action, &QAction::triggered, receiver, [receiver, method] {
                 method.invoke(receiver, Qt::DirectConnection, Q_ARG(QByteArray, QByteArray()));
             });
    } else {
        KDEBUG << "actions not connected, not implemented yet";
        return;
    }
    KDEBUG << (ok ? "connected" : "actions not connected");
}

void ZtKernel::keep(Propagator *pg)
{
    propagators.append(pg);
}

// Module locks are not recursive: a propagator must never hold the same module's lock twice,
// or its first send would wait for itself.
static void addLock(Propagator *pg, ZtMIFound *module)
{
    if (!pg->getLockers().contains(module->getLocker()))
        pg->appendLocker(module->getLocker());
}

bool ZtKernel::unknownIdentifier(const QString &field)
{
    KDEBUG << "unknown identifer";
    log(tr("unknown identifer:") + field, 3);
    return false;
}

bool ZtKernel::plugInto(int id, const QString &name, Propagator *pg, bool feedback)
{
    auto *module = qobject_cast<ZtMIExtended *>(moduleAt(id));
    if (module && module->setPropagator(name, pg, feedback))
        return true;
    KDEBUG << "can't set propagator to module with id" << id;
    return false;
}

bool ZtKernel::connMod2Mod(QStringList fields)
{
    const int a = moduleNumber(fields.value(0));
    const int b = moduleNumber(fields.value(2));
    for (int id : {a, b}) {
        if (!moduleAt(id)) {
            KDEBUG << "module with id" << id << "is NULL";
            return false;
        }
    }
    const int kindA = modules.at(a).type;
    const int kindB = modules.at(b).type;
    for (const auto &kind : {qMakePair(a, kindA), qMakePair(b, kindB)}) {
        if (kind.second != 0 && kind.second != 1) {
            KDEBUG << "unknown type of module with id" << kind.first;
            return false;
        }
    }
    if (kindA == 0 && kindB == 0)
        return connStreamToStream(fields, a, b);
    if (kindA == 0)
        return connStreamToExtended(fields, a, b);
    if (kindB == 0)
        return connExtendedToStream(fields, a, b);
    if (fields.size() > 4 && fields.at(4) == QLatin1String("feedback"))
        return connFeedback(fields, a, b);
    return connExtendedToExtended(fields, a, b);
}

bool ZtKernel::connStreamToStream(const QStringList &fields, int a, int b)
{
    ZtMIFound *from = moduleAt(a);
    ZtMIFound *to = moduleAt(b);
    const QString signal = fields.value(1);
    const QString slot = fields.value(3);

    if (from->thread() == to->thread()) {
        if (!signal.startsWith(signalPrefix))
            return unknownIdentifier(signal);
        if (!slot.startsWith(slotPrefix))
            return unknownIdentifier(slot);
        return connect(from, signalCode(signal).constData(), to, slotCode(slot).constData(),
                       Qt::DirectConnection);
    }

    auto *pg = new PropagatorStreamConcurrent;
    addLock(pg, to);
    keep(pg);
    if (!signal.startsWith(signalPrefix))
        return unknownIdentifier(signal);
    if (!slot.startsWith(slotPrefix))
        return unknownIdentifier(slot);
    const bool in = connect(from, signalCode(signal).constData(), pg, SLOT(sendList(QVariantList)),
                            Qt::DirectConnection);
    const bool out = connect(pg, SIGNAL(trySendList(QVariantList)), to, slotCode(slot).constData(),
                             Qt::AutoConnection);
    return in && out;
}

// The target's stream propagator under `name`, created (direct, living in the target's thread)
// and handed to the target when it has none yet.
Propagator *ZtKernel::targetStream(int b, const QString &name)
{
    auto *to = qobject_cast<ZtMIExtended *>(moduleAt(b));
    Propagator *pgto = to->getPropagator(name, false);
    if (pgto)
        return pgto;
    pgto = new PropagatorStreamDirect;
    keep(pgto);
    if (!plugInto(b, name, pgto, false))
        return nullptr;
    if (pgto->thread() != to->thread())
        pgto->moveToThread(to->thread());
    return pgto;
}

bool ZtKernel::connStreamToExtended(const QStringList &fields, int a, int b)
{
    if (fields.size() > 4 && fields.at(4) == QLatin1String("feedback")) {
        KDEBUG << "error connect stream to feedback with feedback options" << b;
        return false;
    }
    ZtMIFound *from = moduleAt(a);
    ZtMIFound *to = moduleAt(b);
    const QString signal = fields.value(1);
    if (!signal.startsWith(signalPrefix))
        return unknownIdentifier(signal);
    Propagator *pgto = targetStream(b, fields.value(3));
    if (!pgto)
        return false;

    if (from->thread() == to->thread())
        return connect(from, signalCode(signal).constData(), pgto, SLOT(recvSendList(QVariantList)),
                       Qt::DirectConnection);

    auto *pg = new PropagatorStreamConcurrent;
    keep(pg);
    addLock(pg, to);
    pg->moveToThread(to->thread());
    const bool in = connect(from, signalCode(signal).constData(), pg,
                            SLOT(recvSendList(QVariantList)), Qt::DirectConnection);
    const bool out = connect(pg, SIGNAL(trySendList(QVariantList)), pgto,
                             SIGNAL(trySendList(QVariantList)), Qt::AutoConnection);
    return in && out;
}

bool ZtKernel::connExtendedToStream(const QStringList &fields, int a, int b)
{
    if (fields.size() > 4 && fields.at(4) == QLatin1String("feedback")) {
        KDEBUG << "error connect feedback to stream with feedback options" << a;
        return false;
    }
    ZtMIFound *from = moduleAt(a);
    ZtMIFound *to = moduleAt(b);
    const QString name = fields.value(1);
    const QString slot = fields.value(3);
    Propagator *pgfrom = qobject_cast<ZtMIExtended *>(from)->getPropagator(name, false);

    if (from->thread() == to->thread()) {
        if (!pgfrom) {
            pgfrom = new PropagatorStreamDirect;
            keep(pgfrom);
            if (!plugInto(a, name, pgfrom, false))
                return false;
        }
        if (pgfrom->getType() == Propagator::Concurrent)
            addLock(pgfrom, to);
        if (!slot.startsWith(slotPrefix))
            return unknownIdentifier(slot);
        return connect(pgfrom, SIGNAL(streamSendList(QVariantList)), to, slotCode(slot).constData(),
                       Qt::DirectConnection);
    }

    // Across threads the stream consumer is reached through a concurrent propagator: the
    // source's own, a concurrent child behind its direct one, or a new one.
    Propagator *pg = nullptr;
    if (!pgfrom) {
        pg = new PropagatorStreamConcurrent;
        keep(pg);
        if (!plugInto(a, name, pg, false))
            return false;
    } else if (pgfrom->getType() == Propagator::Concurrent) {
        pg = pgfrom;
    } else if (pgfrom->getType() == Propagator::Direct) {
        Propagator *child = pgfrom->getChild();
        if (child && child->getType() == Propagator::Concurrent) {
            KDEBUG << "pgchild reused" << child;
            pg = child;
        } else {
            pg = new PropagatorStreamConcurrent;
            KDEBUG << "pgto" << pg;
            keep(pg);
            if (!pgfrom->setChild(pg)) {
                KDEBUG << "can't set child for propagator to module with id" << a;
                return false;
            }
        }
    } else {
        KDEBUG << "unknown ptopagator type to module with id" << a;
        return false;
    }
    addLock(pg, to);
    if (!slot.startsWith(slotPrefix))
        return unknownIdentifier(slot);
    return connect(pg, SIGNAL(streamSendList(QVariantList)), to, slotCode(slot).constData(),
                   Qt::QueuedConnection);
}

bool ZtKernel::connExtendedToExtended(const QStringList &fields, int a, int b)
{
    ZtMIFound *from = moduleAt(a);
    ZtMIFound *to = moduleAt(b);
    const QString nameFrom = fields.value(1);
    const QString nameTo = fields.value(3);
    Propagator *pgfrom = qobject_cast<ZtMIExtended *>(from)->getPropagator(nameFrom, false);
    Propagator *pgto = qobject_cast<ZtMIExtended *>(to)->getPropagator(nameTo, false);
    const bool sameThread = from->thread() == to->thread();

    // `shared` is what the target will listen to: the source's propagator, or across threads a
    // concurrent one (the source's own, or a child chained behind its direct one).
    Propagator *shared = pgfrom;
    if (!pgfrom) {
        shared = sameThread ? static_cast<Propagator *>(new PropagatorStreamDirect)
                            : static_cast<Propagator *>(new PropagatorStreamConcurrent);
        keep(shared);
        if (!plugInto(a, nameFrom, shared, false))
            return false;
    } else if (!sameThread) {
        if (pgfrom->getType() == Propagator::Direct) {
            Propagator *child = pgfrom->getChild();
            if (child) {
                KDEBUG << "pgchild reused" << child;
                shared = child;
            } else {
                shared = new PropagatorStreamConcurrent;
                keep(shared);
                if (!pgfrom->setChild(shared)) {
                    KDEBUG << "can't set child for propagator to module with id" << a;
                    return false;
                }
            }
        } else if (pgfrom->getType() != Propagator::Concurrent) {
            KDEBUG << "unknown propagator type to module with id" << a;
            return false;
        }
    }
    if (!pgto || pgto == shared) {
        if (!sameThread && shared->getType() == Propagator::Concurrent)
            addLock(shared, to);
        return pgto == shared || plugInto(b, nameTo, shared, false);
    }
    // The target already listens to a propagator of its own (fed by another source, say): keep
    // it and relay into it, so that every source reaches the target. The target's propagator
    // takes the target's lock when it relays; the source side must not take it as well.
    KDEBUG << "relay to pgto" << pgto;
    const bool bytes = connect(shared, SIGNAL(trySend(QByteArray)), pgto,
                               SLOT(recvSend(QByteArray)), Qt::DirectConnection);
    const bool lists = connect(shared, SIGNAL(trySendList(QVariantList)), pgto,
                               SLOT(recvSendList(QVariantList)), Qt::DirectConnection);
    return bytes && lists;
}

// Request and answer between two extended modules: the requester (source) and the server
// (target) hold the same feedback propagator. In one thread it is direct; across threads it is
// concurrent and lives in the propagator thread, whose event loop turns requests into try*
// signals that reach the server in its own thread.
bool ZtKernel::connFeedback(const QStringList &fields, int a, int b)
{
    ZtMIFound *from = moduleAt(a);
    ZtMIFound *to = moduleAt(b);
    const QString nameFrom = fields.value(1);
    const QString nameTo = fields.value(3);
    Propagator *pgfrom = qobject_cast<ZtMIExtended *>(from)->getPropagator(nameFrom, true);
    Propagator *pgto = qobject_cast<ZtMIExtended *>(to)->getPropagator(nameTo, true);
    const bool sameThread = from->thread() == to->thread();

    if (!pgfrom) {
        if (sameThread) {
            pgfrom = new PropagatorFeedbackDirect;
        } else {
            pgfrom = new PropagatorFeedbackConcurrent;
            pgfrom->moveToThread(threadLauncher->getPpgThread());
        }
        keep(pgfrom);
        if (!plugInto(a, nameFrom, pgfrom, true))
            return false;
    } else if (!sameThread && pgfrom->getType() == Propagator::Direct) {
        // A direct request would run the server in the requester's thread; feedback
        // propagators take no child to bridge that.
        KDEBUG << "can't set child for propagator to module with id" << b;
        return false;
    } else if (pgfrom->getType() != Propagator::Direct
               && pgfrom->getType() != Propagator::Concurrent) {
        KDEBUG << "unknown propagator type to module with id" << a;
        return false;
    }

    if (pgto == pgfrom)
        return true;
    if (pgto) {
        // One server answers one requester's propagator; overlapping requests from two
        // requesters through one propagator are not supported.
        KDEBUG << "can't set propagator to module with id" << b << ", already exist";
        return false;
    }
    return plugInto(b, nameTo, pgfrom, true);
}
