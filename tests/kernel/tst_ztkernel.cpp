#include "debuglines.h"

#include <kernelprobe.h>
#include <loggerwidget.h>
#include <threadlauncher.h>
#include <ztliblevelinterface.h>
#include <ztkernel.h>
#include <tsanhandoff_p.h>

#include <QAction>
#include <QDir>
#include <QMenu>
#include <QPluginLoader>
#include <QProcess>
#include <QPointer>
#include <QRegularExpression>
#include <QSemaphore>
#include <QTemporaryDir>
#include <QTest>
#include <QTextDocument>
#include <QTextEdit>
#include <QToolBar>

#include <memory>

// The kernel driven as a host drives it: real module libraries from the fixture folder, settings
// files as people write them; what happened to the modules is read back from KernelProbe.

namespace {

const QString moduleDir = QStringLiteral(ZT_MODULE_DIR);

// Debug lines by content: runs of blanks (QDebug's spacing) count as one.
QStringList lines()
{
    QStringList result;
    for (const QString &line : DebugLines::all())
        result.append(line.simplified());
    return result;
}

QString fixture(const QString &name)
{
    QFile file(QDir(QStringLiteral(ZT_SETTINGS_DIR)).filePath(name));
    file.open(QIODevice::ReadOnly);
    return QString::fromUtf8(file.readAll());
}

// Writes settings into `dir`, with the log file pointing into the same folder.
QString writeSettings(const QTemporaryDir &dir, QString text)
{
    QFile file(dir.filePath(QStringLiteral("settings.ini")));
    if (file.open(QIODevice::WriteOnly))
        file.write(text.replace(QStringLiteral("@LOGDIR@"), dir.path()).toUtf8());
    return file.fileName();
}

// A log file with its time stamps replaced by "<stamp>".
QString readLog(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    return QString::fromUtf8(file.readAll())
        .replace(QRegularExpression(QStringLiteral("^(\\(\\w\\w\\)) \\d\\d \\S+ [\\d:]{8} "),
                                    QRegularExpression::MultilineOption),
                 QStringLiteral("\\1 <stamp> "))
        .replace(QRegularExpression(QStringLiteral("\\d\\d\\.\\d\\d\\.\\d\\d [\\d:]{8}")),
                 QStringLiteral("<stamp>"));
}

// Stands in for the application: the kernel quits its parent object through quit().
class Host : public QObject
{
    Q_OBJECT
public:
    int quits = 0;
public slots:
    void quit() { ++quits; }
};

// A kernel as a host makes one, optionally with a main window. The window goes first with every
// widget, menu and tool bar; then the host takes the kernel and the threads.
struct Rig
{
    explicit Rig(const QString &settings, bool withWindow = false)
        : kernel(withWindow ? new ZtKernel(&window, &host) : new ZtKernel(&host))
    {
        kernel->setOptionsFileName(writeSettings(dir, settings));
    }
    ZtMIFound *module(int index) const { return kernel->getModule(index).module; }
    QAction *action(int index, const char *name) const
    {
        return module(index)->getActions()->value(QString::fromLatin1(name));
    }
    QString log(const char *name) const { return readLog(dir.filePath(QLatin1String(name))); }

    QTemporaryDir dir;
    Host host;
    QWidget window;
    ZtKernel *kernel;
};

// Modules of loading.ini that exist after loading: stream (thread 3), extended (thread 1), the
// GUI-thread module, the stream library again, the one that fails to start.
const QList<int> loadedModules {0, 2, 3, 4, 8};

// A module's hooks as "what@own", "what@gui" or "what@other", by the thread that ran them.
QStringList trail(int id, QThread *own, const QString &filter = QString())
{
    QStringList result;
    for (const ProbeEvent &event : KernelProbe::events(id)) {
        const char *where = event.thread == own ? "@own"
            : event.thread == qApp->thread()    ? "@gui"
                                                : "@other";
        if (event.what.contains(QRegularExpression(filter)))
            result.append(event.what + QLatin1String(where));
    }
    return result;
}

} // namespace

class tst_ZtKernel : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { DebugLines::install(); }
    void init();

    void loading();
    void loadRecords_data();
    void loadRecords();
    void initInEndedThread();
    void logFollowsTheSettings_data();
    void logFollowsTheSettings();
    void startUp();
    void quitProtocol_data();
    void quitProtocol();
    void teardown_data();
    void teardown();
    void shutdownWatchdog_data();
    void shutdownWatchdog();
    void windowElements();
    void misplacedEntries_data();
    void misplacedEntries();
};

void tst_ZtKernel::init()
{
    KernelProbe::clear();
    DebugLines::clear();
}

void tst_ZtKernel::loading()
{
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^Damaged value ignored: "));
    Rig rig(fixture(QStringLiteral("loading.ini")));
    ThreadLauncher *launcher = rig.kernel->getThreadLauncher();
    QCOMPARE(rig.kernel->loadModules(moduleDir), 0);

    // Every entry keeps its place, loaded or not, so that numbers in the settings still match;
    // outside the list the record is all zeros.
    const QList<QVector<int>> expected {{1, 1, 0},  {0, 0, -1}, {1, 1, 1},  {1, 1, 0}, {1, 1, 0},
                                        {0, 1, -1}, {0, 1, 0},  {0, 0, -1}, {1, 1, 0}, {0, 0, -1}};
    QCOMPARE(rig.kernel->getModuleCount(), expected.size());
    const QList<QHash<QString, QVariant> *> options = rig.kernel->getModulesOptions();
    for (int i = -1; i <= expected.size(); ++i) {
        const ComplexModule record = rig.kernel->getModule(i);
        QCOMPARE((QVector<int> {record.module != nullptr, record.library != nullptr, record.type}),
                 expected.value(i, {0, 0, 0}));
        QCOMPARE(options.value(i), record.module ? record.module->getOptions() : nullptr);
    }

    // Thread 3 was asked for first and brought 0, 1 and 2 with it; the GUI-thread module stays.
    QCOMPARE(launcher->threadCount(), 4);
    QThread *gui = QThread::currentThread();
    auto hexAddress = [](QThread *thread) { return "0x" + QString::number(quintptr(thread), 16); };
    QPluginLoader broken(QDir(moduleDir).filePath(QStringLiteral("broken.dll")));
    QVERIFY(!broken.load());
    const QString loaded = QStringLiteral("(CC) <stamp> null:    Load module %1 to thread  %2 "
                                          "(%3 builded:%4)\n\t\n");
    const QString refused = QStringLiteral("(MM) <stamp> null:    %1\n");
    const QString expectedLog
        = QStringLiteral(
              "\n\n==============================     <stamp>      "
              "=============================\n"
              "(CC) <stamp> null:    Read config from kernel test rig\n"
              "(EE) <stamp> null:    Damaged value ignored: %1:43, key \"id_8\\limits\": "
              "an element count runs past the end of the value\n")
              .arg(rig.dir.filePath(QStringLiteral("settings.ini")))
        + loaded.arg("TestStream", hexAddress(launcher->threadAt(3)), "1.4.2", "03.02.2024")
        + refused.arg("can't load Missing plugin, file not exists")
        + loaded.arg("TestExtended", hexAddress(launcher->threadAt(1)), "0.9", "11.12.2023")
        + loaded.arg("TestGuiThread", hexAddress(gui), "3.0", "01.06.2022")
        + loaded.arg("TestStream", hexAddress(gui), "1.4.2", "03.02.2024")
        + refused.arg("Unknown interface ZtMIMystery of module unknown-fixture")
        + refused.arg("can't load Broken plugin") + refused.arg(broken.errorString())
        + QStringLiteral(
              "(WW) <stamp> null:    Metadata of TestInitFail disagrees with the library: "
              "name: \"testinitfail\" in the metadata, \"initfail-fixture\" from the "
              "library; kind: \"fixture\" in the metadata, \"broken start\" from the "
              "library; version: \"1.0.0\" in the metadata, \"0.0.1\" from the library\n")
        + loaded.arg("TestInitFail", hexAddress(gui), "0.0.1", "29.02.2024")
        + refused.arg("can't load TestForeign plugin")
        + refused.arg("the plugin does not implement " ZtLibLevelInterface_iid);
    QCOMPARE(rig.log("kernel.log"), expectedLog);

    // What a host lists: the settings, the core, then each library once, "Unknown" for none.
    QList<QString> info;
    rig.kernel->getModulesInfo(info);
    const QString unknown = QStringLiteral("Unknown|Unknown|Unknown|Unknown|Unknown");
    const QStringList expectedInfo {"config|3.1|-|-|-",
                                    "core|1.10.2|-|std|27.04.2018 ",
                                    "stream-fixture|1.4.2|1.2.0|stream|03.02.2024",
                                    unknown,
                                    "extended-fixture|0.9|1.2.1|extended|11.12.2023",
                                    "gui-fixture|3.0|1.2.0|gui|01.06.2022",
                                    "unknown-fixture|2.0|1.-56.3|odd|15.08.2021",
                                    "noinstance-fixture|0.5|1.1.0|stream|02.01.2020",
                                    unknown,
                                    "initfail-fixture|0.0.1|1.2.0|broken start|29.02.2024",
                                    unknown};
    QCOMPARE(info, expectedInfo.join('|').split('|'));
}

void tst_ZtKernel::loadRecords_data()
{
    QTest::addColumn<int>("number");
    QTest::addColumn<int>("stage");
    QTest::addColumn<QString>("error"); // a regular expression; empty: no error text
    QTest::addColumn<int>("thread"); // worker thread number; -1: the GUI thread
    QTest::addColumn<QString>("version"); // "version|build date"
    QTest::addColumn<QString>("label"); // the alias, or the name without one

    using R = ModuleLoadRecord;
    auto row = [](int number, R::Stage stage, const char *error, int thread, const char *version,
                  const char *label) {
        QTest::addRow("%d: %s", number, qPrintable(R::stageText(stage)))
            << number << int(stage) << error << thread << version << label;
    };
    row(0, R::Initialised, "", 3, "1.4.2|03.02.2024", "TestStream");
    row(1, R::FileMissing, "^file not exists$", -1, "|", "Missing");
    row(2, R::Initialised, "", 1, "0.9|11.12.2023", "TestExtended");
    row(3, R::Initialised, "", -1, "3.0|01.06.2022", "TestGuiThread");
    row(4, R::Initialised, "", -1, "1.4.2|03.02.2024", "second");
    row(5, R::UnknownInterface, "^Unknown interface ZtMIMystery of module unknown-fixture$", -1,
        "2.0|15.08.2021", "TestUnknown");
    row(6, R::NoInstance, "not created", -1, "0.5|02.01.2020", "TestNoInstance");
    row(7, R::NotAPlugin, "broken\\.dll", -1, "|", "Broken");
    row(8, R::InitFailed, "^init\\(\\) returned false$", -1, "0.0.1|29.02.2024", "TestInitFail");
    row(9, R::NotAPlugin, "^the plugin does not implement Zantor", -1, "|", "TestForeign");
}

// Every way a module can fare is in its record, with the times of what it went through.
void tst_ZtKernel::loadRecords()
{
    QFETCH(int, number);
    QFETCH(int, stage);
    QFETCH(QString, error);
    QFETCH(int, thread);
    QFETCH(QString, version);
    QFETCH(QString, label);

    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^Damaged value ignored: "));
    Rig rig(fixture(QStringLiteral("loading.ini")));
    rig.kernel->loadModules(moduleDir);
    // Loading decides every stage up to "created"; init decides the rest.
    QCOMPARE(int(rig.kernel->loadRecords().value(number).stage),
             qMin(stage, int(ModuleLoadRecord::Created)));
    rig.kernel->initModules();

    const QList<ModuleLoadRecord> records = rig.kernel->loadRecords();
    QCOMPARE(records.size(), 10);
    const ModuleLoadRecord record = records.at(number);
    QCOMPARE(record.number, number);
    QCOMPARE(int(record.stage), stage);
    QVERIFY2(error.isEmpty() ? record.error.isEmpty()
                             : record.error.contains(QRegularExpression(error)),
             qPrintable(record.error));
    QCOMPARE(record.alias.isEmpty() ? record.name : record.alias, label);
    QCOMPARE(record.libraryPath,
             QDir(moduleDir).filePath(record.name.toLower() + QStringLiteral(".dll")));
    QCOMPARE(record.version + '|' + record.buildDate, version);

    // Where a module lives, by number, name and pointer.
    ZtMIFound *module = rig.module(number);
    QCOMPARE(record.thread.data(), module ? module->thread() : nullptr);
    if (module) {
        QCOMPARE(record.threadNumber, thread);
        if (thread >= 0)
            QCOMPARE(record.thread.data(), rig.kernel->getThreadLauncher()->threadAt(thread));
        QCOMPARE(record.threadName, module->thread()->objectName());
    }
    // Times are measured for what happened, and only for that.
    QVERIFY(record.loadNs >= 0);
    QCOMPARE(record.initNs >= 0, stage >= ModuleLoadRecord::Initialised);
}

// A worker thread that has ended, before the kernel asks for a module's init() or while it
// waits for the answer, must not hold up the start-up: the module is reported as not started.
void tst_ZtKernel::initInEndedThread()
{
    Rig rig(QStringLiteral("[mainwindow]\ncfgfile=ended threads\n[modules]\n"
                           "id_0\\.name=TestStream\nid_0\\.thread=1\n"
                           "id_1\\.name=TestStream\nid_1\\.thread=2\n"));
    QCOMPARE(rig.kernel->loadModules(moduleDir), 0);
    QThread *first = rig.module(0)->thread();
    QThread *second = rig.module(1)->thread();
    // The first thread ends after the kernel has posted its init() (it runs the calls in turn);
    // the second has ended already.
    postQueuedCall(rig.module(0), [] {
        QThread::msleep(200);
        QThread::currentThread()->quit();
    });
    second->quit();
    QVERIFY(second->wait(10000));
    rig.kernel->initModules();
    QVERIFY(first->wait(10000));

    for (const ModuleLoadRecord &record : rig.kernel->loadRecords()) {
        QCOMPARE(int(record.stage), int(ModuleLoadRecord::InitFailed));
        QCOMPARE(record.error, QStringLiteral("init() not run: the module's thread has ended"));
    }
    QCOMPARE(KernelProbe::events(0, QStringLiteral("init")).size()
                 + KernelProbe::events(1, QStringLiteral("init")).size(),
             0);
}

void tst_ZtKernel::logFollowsTheSettings_data()
{
    QTest::addColumn<QString>("mainwindow"); // empty: no settings file at all
    QTest::addColumn<QString>("file");
    QTest::addColumn<bool>("critical"); // level 1 entries written
    QTest::addColumn<bool>("message"); // level 5 entries written

    auto row = [](const char *name, const char *mainwindow, const char *file, bool c, bool m) {
        QTest::newRow(name) << mainwindow << file << c << m;
    };

    row("file and level", "loggerfile=@LOGDIR@/rig.log\nloggerlevel=5", "rig.log", true, true);
    row("no level: information and worse", "loggerfile=@LOGDIR@/rig.log", "rig.log", true, false);
    row("no file: zt.log here", "loggerlevel=5", "zt.log", true, true);
    row("level 0: no file", "loggerfile=@LOGDIR@/rig.log\nloggerlevel=0", "rig.log", false, false);
    row("settings file missing", "", "zt.log", true, false);
}

void tst_ZtKernel::logFollowsTheSettings()
{
    QFETCH(QString, mainwindow);
    QFETCH(QString, file);
    QFETCH(bool, critical);
    QFETCH(bool, message);

    QTemporaryDir dir;
    const QString previous = QDir::currentPath();
    QVERIFY(QDir::setCurrent(dir.path()));
    QString settings = dir.filePath(QStringLiteral("nowhere.ini"));
    if (!mainwindow.isEmpty())
        settings = writeSettings(
            dir,
            QStringLiteral("[mainwindow]\ncfgfile=log rig\n%1\n[modules]\nid_0\\.name=Missing\n")
                .arg(mainwindow));
    {
        // A host goes through the whole start-up whatever the file held.
        Host host;
        auto *kernel = new ZtKernel(&host);
        kernel->setOptionsFileName(settings);
        kernel->loadModules(moduleDir);
        kernel->makeConnections();
        QVERIFY(kernel->getWMains().isEmpty() && kernel->getMenus().isEmpty());
        kernel->initModules();
        QCOMPARE(kernel->getModuleCount(), mainwindow.isEmpty() ? 0 : 1);
    }
    QDir::setCurrent(previous);

    const QString log = readLog(dir.filePath(file));
    QCOMPARE(QFile::exists(dir.filePath(file)), critical);
    const QString name = mainwindow.isEmpty() ? QString() : QStringLiteral("log rig");
    QCOMPARE(log.contains("(CC) <stamp> null:    Read config from " + name + "\n"), critical);
    QCOMPARE(log.contains(QStringLiteral("can't load Missing plugin, file not exists")), message);
}

void tst_ZtKernel::startUp()
{
    Rig rig(fixture(QStringLiteral("loading.ini")));
    rig.kernel->loadTranslations(QStringLiteral("de"), QStringLiteral(ZT_TRANSLATION_DIR));
    rig.kernel->loadModules(moduleDir);
    QCOMPARE(rig.kernel->initModules(), 0);

    // init blocks the GUI thread until the module's thread ran it; the rest is posted there, and
    // the options are announced as they are after applyOptions. Without a widget parent the
    // widgets are not set up.
    for (int id : loadedModules)
        QTRY_COMPARE(trail(id, rig.module(id)->thread(), "^(init|applyOptions|sendOptions)"),
                     (QStringList {"init@own", "applyOptions@own", "sendOptions@own"}));
    QCOMPARE(KernelProbe::events(2, "sendOptions").value(0).detail.toHash().value("applied"),
             QVariant(true));
    // A module that fails to start is reported and stays.
    QVERIFY(lines().contains(QStringLiteral("kernel initfail-fixture init false")));

    // The options from the file arrived before init: a quoted text stays one text, not a list;
    // "#" keys are comments; without an entry the module keeps its own value.
    const QList<QStringList> seen {{"0", "gain", "5"},      {"0", "label", "left, right"},
                                   {"0", ".alias", "id_0"}, {"4", ".alias", "second"},
                                   {"2", "scale", "0.5"},   {"3", "gain", "1"},
                                   {"0", "#gain", ""}};
    for (const QStringList &option : seen) {
        const ProbeEvent init = KernelProbe::events(option.at(0).toInt(), "init").value(0);
        QCOMPARE(init.detail.toHash().value(option.at(1)).toString(), option.at(2));
    }

    // Translated: the kernel's texts, and each module's own, logged under the module's alias.
    QVERIFY(rig.log("kernel.log").contains("null:    Lade Modul TestStream to thread  0x"));
    QVERIFY(rig.log("kernel.log").contains("null:    Kann nicht laden: Missing plugin, file"));
    QTRY_VERIFY(rig.log("kernel.log").contains(QStringLiteral("(II) <stamp> id_0:    läuft\n")));
    QTRY_VERIFY(rig.log("kernel.log").contains(QStringLiteral("(II) <stamp> second:    läuft\n")));
}

void tst_ZtKernel::quitProtocol_data()
{
    // "<module>,<action>" triggers an action (quit: actquit, stay: actcancelquit); other steps call
    // the kernel's slot by name.
    QTest::addColumn<QStringList>("steps");
    QTest::addColumn<int>("quits");

    QTest::newRow("both requesters ask") << QStringList {"0,quit", "1,quit"} << 1;
    QTest::newRow("one of two asks") << QStringList {"1,quit"} << 0;
    QTest::newRow("asked three times, quits once")
        << QStringList {"0,quit", "1,quit", "0,quit"} << 1;
    QTest::newRow("cancelled first") << QStringList {"1,stay", "0,quit", "1,quit"} << 0;
    QTest::newRow("cancelled within the delay") << QStringList {"0,quit", "1,quit", "1,stay"} << 0;
    QTest::newRow("slots by name") << QStringList {"tryQuit", "cancelQuit", "tryQuit"} << 0;
}

void tst_ZtKernel::quitProtocol()
{
    QFETCH(QStringList, steps);
    QFETCH(int, quits);

    Rig rig(fixture(QStringLiteral("quit.ini")));
    rig.kernel->loadModules(moduleDir);
    rig.kernel->makeConnections();
    for (const QString &step : qAsConst(steps)) {
        if (step.contains(','))
            rig.action(step.section(',', 0, 0).toInt(), qPrintable(step.section(',', 1)))
                ->trigger();
        else
            QVERIFY(QMetaObject::invokeMethod(rig.kernel, qPrintable(step)));
    }
    // Never at once: the kernel waits before it quits the host.
    QCOMPARE(rig.host.quits, 0);
    if (quits)
        QTRY_COMPARE(rig.host.quits, quits);
    QTest::qWait(300);
    QCOMPARE(rig.host.quits, quits);
}

void tst_ZtKernel::teardown_data()
{
    // "busy" keeps the stream module on thread 3 in a long call; "drain" runs the deferred
    // deletions; "destroy" destroys the kernel and its host.
    QTest::addColumn<QStringList>("steps");

    QTest::newRow("destroyed") << QStringList {"destroy"};
    QTest::newRow("unloaded, then destroyed") << QStringList {"unload", "drain", "destroy"};
    QTest::newRow("destroyed before the deletions ran")
        << QStringList {"unload", "destroy", "drain"};
    QTest::newRow("unloaded twice") << QStringList {"unload", "unload", "drain", "destroy"};
    QTest::newRow("destroyed while a module is busy") << QStringList {"busy", "destroy"};
    QTest::newRow("unloaded while a module is busy") << QStringList {"busy", "unload", "drain"};
}

void tst_ZtKernel::teardown()
{
    QFETCH(QStringList, steps);

    auto rig = std::make_unique<Rig>(fixture(QStringLiteral("loading.ini")));
    rig->kernel->loadModules(moduleDir);
    rig->kernel->initModules();
    ThreadLauncher *launcher = rig->kernel->getThreadLauncher();
    QList<QPointer<QThread>> threads {launcher->getPpgThread()};
    for (int i = 0; i < launcher->threadCount(); ++i)
        threads << launcher->threadAt(i);
    QThread *stream = launcher->threadAt(3), *extended = launcher->threadAt(1);
    const QPointer<QAction> action = rig->action(0, "start");
    for (int id : loadedModules)
        QTRY_VERIFY(!KernelProbe::events(id, QStringLiteral("sendOptions")).isEmpty());
    KernelProbe::clear();

    for (const QString &step : qAsConst(steps)) {
        if (step == QLatin1String("busy")) {
            // Ends by itself a while after the kernel started waiting for it.
            QSemaphore started;
            QMetaObject::invokeMethod(rig->module(0), [&started] {
                started.release();
                QThread::msleep(1000);
                KernelProbe::record(0, QStringLiteral("busy"));
            });
            QVERIFY(started.tryAcquire(1, 5000));
        } else if (step == QLatin1String("unload")) {
            QCOMPARE(rig->kernel->unloadModules(), 0);
        } else if (step == QLatin1String("drain")) {
            QTRY_COMPARE(KernelProbe::events(8, QStringLiteral("destroyed")).size(), 1);
        } else {
            rig.reset();
            for (const QPointer<QThread> &thread : qAsConst(threads))
                QVERIFY(thread.isNull());
        }
    }

    // Worker modules end in their thread, come home, and are deleted in the GUI thread with
    // their actions; everything happens once, after a busy module is free.
    const QString hooks = QStringLiteral("^(busy|final|threadChange|destroyed)");
    const QStringList end {"final@own", "threadChange@own", "destroyed@gui"};
    QCOMPARE(trail(0, stream, hooks), steps.contains("busy") ? QStringList("busy@own") + end : end);
    QCOMPARE(trail(2, extended, hooks), end);
    for (int id : {3, 4, 8})
        QCOMPARE(trail(id, QThread::currentThread(), hooks),
                 (QStringList {"final@own", "destroyed@own"}));
    QVERIFY(action.isNull());
}

void tst_ZtKernel::shutdownWatchdog_data()
{
    QTest::addColumn<QStringList>("args"); // how the host shuts down
    QTest::newRow("destroyed") << QStringList {"destroy"};
    QTest::newRow("unloaded, then destroyed") << QStringList {"unload"};
    QTest::newRow("whole host, stuck thread terminated") << QStringList {"destroy", "whole"};
}

// A module that takes a minute in final() holds up nobody: it is named, left where it is, and
// the others end as usual.
void tst_ZtKernel::shutdownWatchdog()
{
    QFETCH(QStringList, args);
    if (args.contains("whole")) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        QSKIP("the launcher terminates the stuck thread, which the sanitizers do not survive");
#endif
    }

    QTemporaryDir dir;
    const QString settings
        = writeSettings(dir,
                        QStringLiteral("[mainwindow]\nloggerfile=@LOGDIR@/host.log\nloggerlevel=5\n"
                                       "shutdowntimeout=1000\n[aliases]\nid_0=slow\n[modules]\n"
                                       "slow\\.name=TestSlowFinal\nslow\\.thread=1\n"
                                       "id_1\\.name=TestStream\nid_1\\.thread=0\n"));
    QProcess host;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    host.setProcessEnvironment(env);
    host.start(QStringLiteral(ZT_KERNEL_HOST), QStringList {settings, moduleDir} + args);
    // A safety limit, not a measure of speed: unbounded, this host would take a minute.
    const bool ended = host.waitForFinished(10000);
    if (!ended) {
        host.kill();
        host.waitForFinished();
    }
    const QString out = QString::fromLocal8Bit(host.readAllStandardOutput());
    const QString err = QString::fromLocal8Bit(host.readAllStandardError());
    QVERIFY2(ended, qPrintable(err));
    QCOMPARE(host.exitStatus(), QProcess::NormalExit);
    QCOMPARE(host.exitCode(), 0);

    const QString named
        = QStringLiteral("module slow (id_0) on thread 1 did not finish final() within 1000 ms");
    QVERIFY2(err.contains(named + '\n'), qPrintable(err));
    QCOMPARE(err.count(QStringLiteral("did not finish final()")), 1);
    QVERIFY(readLog(dir.filePath("host.log")).contains("(EE) <stamp> null:    " + named + '\n'));
    QCOMPARE(out, QStringLiteral("module 1: final threadChange destroyed\n"));
}

void tst_ZtKernel::windowElements()
{
    Rig rig(fixture(QStringLiteral("elements.ini")), true);
    QVERIFY(!rig.kernel->getLogger());
    rig.kernel->loadTranslations(QStringLiteral("de"), QStringLiteral(ZT_TRANSLATION_DIR));
    auto *view = qobject_cast<LoggerWidget *>(rig.kernel->getLogger());
    QVERIFY(view);
    QCOMPARE(view->parentWidget(), &rig.window);
    QCOMPARE(view->view()->document()->maximumBlockCount(), 42);
    rig.kernel->loadModules(moduleDir);
    rig.kernel->makeConnections(); // none in the file: the phase is recorded all the same

    // The plot comes after the generator in the file but is the central widget.
    const QList<QWidget *> mains = rig.kernel->getWMains();
    QCOMPARE(mains.size(), 2);
    for (int i : {0, 1}) {
        auto *main = qobject_cast<WAbstractMain *>(mains.at(i));
        QCOMPARE(main->getModule(), rig.module(2 - 2 * i));
        QCOMPARE(main->windowTitle() + main->objectName(), i ? "GeneratorGenerator" : "PlotPlot");
        QCOMPARE(main->parentWidget(), &rig.window);
    }

    // The store's options are not a dialog and are left to the host; the plot offers no options
    // widget: an empty stand-in keeps the list one per module.
    const QList<QWidget *> dialogs = rig.kernel->getWOptions();
    QCOMPARE(dialogs.size(), 2);
    std::unique_ptr<QWidget> placeholder(dialogs.at(1));
    auto *generator = qobject_cast<WAbstractOptions *>(dialogs.at(0));
    QCOMPARE(generator->getModule(), rig.module(0));
    QCOMPARE(generator->windowTitle() + '|' + generator->statusTip(),
             QStringLiteral("Generator options|Set up the generator"));
    QCOMPARE(generator->parentWidget(), &rig.window);
    QVERIFY(!qobject_cast<WAbstractOptions *>(placeholder.get()));
    QCOMPARE(placeholder->windowTitle(), QStringLiteral("Plot options (NULL)"));

    const QList<QMenu *> menus = rig.kernel->getMenus();
    QCOMPARE(menus.size(), 2);
    QCOMPARE(menus.at(0)->objectName() + menus.at(0)->title(), QStringLiteral("file&File"));
    QCOMPARE(menus.at(1)->objectName() + menus.at(1)->title(), QStringLiteral("run&Run"));
    QCOMPARE(menus.at(0)->parentWidget(), &rig.window);
    QAction *start = rig.action(0, "start");
    QAction *stop = rig.action(0, "stop");
    QAction *quit = rig.action(2, "quit");
    QCOMPARE(menus.at(0)->actions(), QList<QAction *> {quit});
    QCOMPARE(menus.at(1)->actions(), (QList<QAction *> {start, stop}));
    QCOMPARE((QStringList {start->text(), start->statusTip(), start->toolTip(), start->whatsThis(),
                           stop->text(), quit->text()}),
             (QStringList {"&Go", "Start generating", "Starts the generator",
                           "Starts generating samples until stopped", "Stop", "&Quit"}));

    // The same action objects serve menus and tool bars.
    const QList<QToolBar *> bars = rig.kernel->getToolBars();
    QCOMPARE(bars.size(), 1);
    QCOMPARE(bars.at(0)->objectName() + bars.at(0)->windowTitle(), QStringLiteral("mainMain"));
    QCOMPARE(bars.at(0)->actions(), (QList<QAction *> {start, quit}));

    const QString log = rig.log("elements.log");
    for (const char *entry : {"Create menu &File", "Create menu &Run", "Create toolbar Main"})
        QVERIFY2(log.contains(QStringLiteral("(MM) <stamp> null:    %1\n").arg(entry)), entry);

    // Widgets are set up in the GUI thread even for a module that lives elsewhere.
    rig.kernel->initModules();
    for (int id : {0, 2, 3}) {
        QCOMPARE(trail(id, nullptr, "initWidgets"), QStringList {"initWidgets@gui"});
        QCOMPARE(KernelProbe::events(id, "initWidgets").value(0).detail.value<QObject *>(),
                 &rig.window);
    }
    // Confirming the dialog makes the module take and announce the options on its own thread.
    QTRY_COMPARE(KernelProbe::events(0, QStringLiteral("sendOptions")).size(), 1);
    emit generator->changed();
    QTRY_COMPARE(KernelProbe::events(0, QStringLiteral("sendOptions")).size(), 2);
    QCOMPARE(KernelProbe::events(0, QStringLiteral("applyOptions")).value(1).thread,
             rig.kernel->getThreadLauncher()->threadAt(0));

    // A refresh reaches each module in its own thread and each widget in the GUI thread.
    QTRY_COMPARE(KernelProbe::events(0, QStringLiteral("options.readOptions")).size(), 1);
    KernelProbe::clear();
    rig.kernel->updateWidgets();
    QCOMPARE(lines().count(QStringLiteral("kernel stream-fixture update")), 3);
    QTRY_COMPARE(
        trail(0, rig.module(0)->thread()),
        (QStringList {"updateWMain@own", "main.readOptions@gui", "options.readOptions@gui"}));
    QCOMPARE(trail(2, rig.module(2)->thread()),
             (QStringList {"updateWMain@own", "main.readOptions@own"}));
    QCOMPARE(trail(3, rig.module(3)->thread()), QStringList {"updateWMain@own"});

    // The start-up as a host ran it, phase after phase, each module's step inside its phase.
    QStringList names;
    const QList<StartupPhase> phases = rig.kernel->startupPhases();
    StartupPhase outer;
    qint64 last = 0;
    for (const StartupPhase &phase : phases) {
        names << QString(phase.depth, '+') + phase.name;
        QVERIFY2(phase.startNs >= last && phase.durationNs >= 0, qPrintable(phase.name));
        if (phase.depth == 0) {
            outer = phase;
            last = phase.startNs;
        } else {
            QVERIFY2(phase.startNs + phase.durationNs <= outer.startNs + outer.durationNs,
                     qPrintable(phase.name));
            last = phase.startNs + phase.durationNs;
        }
    }
    QCOMPARE(
        names,
        (QStringList {"settings", "load modules", "+load TestStream (id_0)", "+load Missing (id_1)",
                      "+load plot (id_2)", "+load TestStream (id_3)", "connections",
                      "window elements", "init modules", "+init TestStream (id_0)",
                      "+init plot (id_2)", "+init TestStream (id_3)"}));
}

void tst_ZtKernel::misplacedEntries_data()
{
    QTest::addColumn<QString>("entry");
    QTest::addColumn<QString>("menuLine");
    QTest::addColumn<QString>("barLine");
    // Without a bar line the tool bar says what the menu says.
    auto row = [](const char *name, const char *entry, const char *menu, const char *bar = "") {
        QTest::newRow(name) << entry << menu
                            << (*bar ? QString(bar) : QString(menu).replace(" menu,", " bar,"));
    };

    // Menus check the module number against the records, tool bars deliberately do not.
    row("number just past the records", "3,start", "kernel critical error, module 3 doesn't append",
        "kernel can't append 3,start to bar, module id= 3 not exist");
    row("module not loaded", "1,start",
        "kernel can't append 1,start to menu, module id= 1 not exist");
    row("negative number", "-1,start",
        "kernel can't append -1,start to menu, module id= -1 not exist");
    row("action the module lacks", "2,nosuch",
        "kernel can't append menu item: action nosuch for module id= 2 not exist",
        "kernel can't append toolbar: actions nosuch for module id= 2 not exist");
    row("not a number reads as 0", "x,start", "kernel append x,start to menu, module id= 0");
    row("well placed", "2,stop", "kernel append 2,stop to menu, module id= 2");
}

void tst_ZtKernel::misplacedEntries()
{
    QFETCH(QString, entry);
    QFETCH(QString, menuLine);
    QFETCH(QString, barLine);

    // One menu and one tool bar, each holding the same single entry.
    Rig rig(QStringLiteral("[mainwindow]\nloggerfile=@LOGDIR@/entries.log\n[modules]\n"
                           "id_0\\.name=TestStream\nid_1\\.name=Missing\nid_2\\.name=TestStream\n"
                           "[mwelements]\nmenus\\01=menu\ntoolbars\\01=bar\n[actions]\n"
                           "mwMenus\\menu\\01=\"%1\"\nmwToolBars\\bar\\01=\"%1\"\n")
                .arg(entry),
            true);
    rig.kernel->loadModules(moduleDir);
    const QList<QMenu *> menus = rig.kernel->getMenus();
    const QList<QToolBar *> bars = rig.kernel->getToolBars();
    QVERIFY2(lines().contains(menuLine), qPrintable(lines().join('\n')));
    QVERIFY2(lines().contains(barLine), qPrintable(lines().join('\n')));

    QList<QAction *> placed; // the entry's action when both accepted it
    if (barLine.startsWith(QLatin1String("kernel append ")))
        placed << rig.action(entry.section(',', 0, 0).toInt(), qPrintable(entry.section(',', 1)));
    QCOMPARE(menus.value(0)->actions(), placed);
    QCOMPARE(bars.value(0)->actions(), placed);
}

QTEST_MAIN(tst_ZtKernel)

#include "tst_ztkernel.moc"
