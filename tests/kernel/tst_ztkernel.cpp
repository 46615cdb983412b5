#include "kerneltestkit.h"

#include <kernelprobe.h>
#include <threadlauncher.h>
#include <ztkernel.h>
#include <ztliblevelinterface.h>

#include <QAction>
#include <QCoreApplication>
#include <QPluginLoader>
#include <QPointer>
#include <QSignalSpy>
#include <QTest>
#include <QThread>
#include <QVector>

#include <algorithm>

// The kernel's own life: loading module libraries from a folder into numbered records, placing
// the modules on their threads, starting them, the quit protocol, module information,
// translations and tear-down. The modules are real plug-ins from the fixture folder; what
// happened to them is read back from KernelProbe.

namespace {

const QString moduleDir = QStringLiteral(ZT_MODULE_DIR);

// A kernel as a host application makes one: child of the application object, settings from a
// file. The kernel goes with the host, then the thread launcher.
struct Rig
{
    explicit Rig(const QString &fixture)
        : kernel(new ZtKernel(&host))
    {
        settings = copySettings(dir, fixture);
        kernel->setOptionsFileName(settings);
    }

    ZtMIFound *module(int index) const { return kernel->getModule(index).module; }
    QString log(const QString &name) const { return readLog(dir.filePath(name)); }

    QTemporaryDir dir;
    Host host;
    ZtKernel *kernel;
    QString settings;
};

// Modules of loading.ini that exist after loading: stream (thread 3), extended (thread 1), the
// GUI-thread module, the stream library again, the one that fails to start.
const QList<int> loadedModules {0, 2, 3, 4, 8};

QString hexAddress(QThread *thread)
{
    return QStringLiteral("0x") + QString::number(reinterpret_cast<quintptr>(thread), 16);
}

QStringList startUpNames(int id)
{
    const QStringList start {QStringLiteral("init"), QStringLiteral("applyOptions"),
                             QStringLiteral("sendOptions")};
    QStringList names = KernelProbe::names(id);
    names.erase(std::remove_if(names.begin(), names.end(),
                               [&start](const QString &name) { return !start.contains(name); }),
                names.end());
    return names;
}

} // namespace

class tst_ZtKernel : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void loadingKeepsOneRecordPerEntry();
    void loadIsWrittenToTheLog();
    void logFollowsTheSettings_data();
    void logFollowsTheSettings();
    void modulesLandOnTheirThreads();
    void configuredOptionsArriveBeforeInit();
    void startUpReachesEveryModule();
    void actStartSignalsInOrder();
    void quitProtocol_data();
    void quitProtocol();
    void modulesInfo();
    void translationsReachTheLog();
    void destructionStopsModulesAndThreads();
};

void tst_ZtKernel::init()
{
    KernelProbe::clear();
}

void tst_ZtKernel::loadingKeepsOneRecordPerEntry()
{
    MessageCatcher catcher;
    Rig rig(QStringLiteral("loading.ini"));
    QCOMPARE(rig.kernel->loadModules(moduleDir), 0);

    // Every entry keeps its place, loaded or not, so that numbers in the settings still match.
    struct Expected
    {
        bool module;
        bool library;
        int type;
    };
    const QList<Expected> expected {
        {true, true, 0}, {false, false, -1}, {true, true, 1},  {true, true, 0},
        {true, true, 0}, {false, true, -1},  {false, true, 0}, {false, false, -1},
        {true, true, 0}, {false, false, -1},
    };
    QCOMPARE(rig.kernel->getModuleCount(), expected.size());
    const QList<QHash<QString, QVariant> *> options = rig.kernel->getModulesOptions();
    QCOMPARE(options.size(), expected.size());
    for (int i = 0; i < expected.size(); ++i) {
        const ComplexModule record = rig.kernel->getModule(i);
        QVERIFY2(bool(record.module) == expected.at(i).module, qPrintable(QString::number(i)));
        QVERIFY2(bool(record.library) == expected.at(i).library, qPrintable(QString::number(i)));
        QCOMPARE(record.type, expected.at(i).type);
        QCOMPARE(options.at(i), record.module ? record.module->getOptions() : nullptr);
        if (record.module)
            QCOMPARE(record.module->getId(), i);
    }
    QCOMPARE(rig.module(2)->getModType(), ZtMIFound::ModExtended);
    QVERIFY(qobject_cast<ZtMIStream *>(rig.module(4)));
    QCOMPARE(rig.kernel->getModule(5).library->getName(), QStringLiteral("unknown-fixture"));

    for (int outside : {-1, 10, 100}) {
        const ComplexModule none = rig.kernel->getModule(outside);
        QVERIFY(!none.module && !none.library);
        QCOMPARE(none.type, 0);
    }

    QVERIFY(
        catcher.contains(QStringLiteral("kernel can't load  Missing  plugin, file not exists")));
    QVERIFY(catcher.contains(QStringLiteral("kernel can't load  Broken  plugin!")));
    QVERIFY(catcher.contains(
        QStringLiteral("kernel Unknown interface ZtMIMystery of module unknown-fixture")));
    QVERIFY(catcher.contains(QStringLiteral("kernel Load plugin TestNoInstance")));
}

void tst_ZtKernel::loadIsWrittenToTheLog()
{
    Rig rig(QStringLiteral("loading.ini"));
    rig.kernel->loadModules(moduleDir);

    QPluginLoader probe(QDir(moduleDir).filePath(QStringLiteral("broken.dll")));
    QVERIFY(!probe.load());
    const QString brokenError = probe.errorString();
    QVERIFY(!brokenError.isEmpty());

    QThread *gui = QThread::currentThread();
    const QString loaded = QStringLiteral("(CC) <stamp> null:    Load module %1 to thread  %2 "
                                          "(%3 builded:%4)\n\t\n");
    const QString refused = QStringLiteral("(MM) <stamp> null:    %1\n");
    const QString expected = QStringLiteral("\n\n==============================     <stamp>      "
                                            "=============================\n")
        + QStringLiteral("(CC) <stamp> null:    Read config from kernel test rig\n")
        + loaded.arg(QStringLiteral("TestStream"), hexAddress(rig.module(0)->thread()),
                     QStringLiteral("1.4.2"), QStringLiteral("03.02.2024"))
        + refused.arg(QStringLiteral("can't load Missing plugin, file not exists"))
        + loaded.arg(QStringLiteral("TestExtended"), hexAddress(rig.module(2)->thread()),
                     QStringLiteral("0.9"), QStringLiteral("11.12.2023"))
        + loaded.arg(QStringLiteral("TestGuiThread"), hexAddress(gui), QStringLiteral("3.0"),
                     QStringLiteral("01.06.2022"))
        + loaded.arg(QStringLiteral("TestStream"), hexAddress(gui), QStringLiteral("1.4.2"),
                     QStringLiteral("03.02.2024"))
        + refused.arg(QStringLiteral("Unknown interface ZtMIMystery of module unknown-fixture"))
        + refused.arg(QStringLiteral("can't load Broken plugin")) + refused.arg(brokenError)
        + loaded.arg(QStringLiteral("TestInitFail"), hexAddress(gui), QStringLiteral("0.0.1"),
                     QStringLiteral("29.02.2024"))
        + refused.arg(QStringLiteral("can't load TestForeign plugin"))
        + refused.arg(QStringLiteral("the plugin does not implement ")
                      + QStringLiteral(ZtLibLevelInterface_iid));
    QCOMPARE(rig.log(QStringLiteral("kernel.log")), expected);
}

void tst_ZtKernel::logFollowsTheSettings_data()
{
    QTest::addColumn<QString>("mainwindow");
    QTest::addColumn<QString>("file");
    QTest::addColumn<bool>("critical"); // level 1 entries written
    QTest::addColumn<bool>("message"); // level 5 entries written

    QTest::newRow("file and level given") << "loggerfile=@LOGDIR@/rig.log\nloggerlevel=5"
                                          << "rig.log" << true << true;
    QTest::newRow("no level: information and worse") << "loggerfile=@LOGDIR@/rig.log"
                                                     << "rig.log" << true << false;
    QTest::newRow("no file: zt.log in the working folder") << "loggerlevel=5"
                                                           << "zt.log" << true << true;
    QTest::newRow("level 0: no file at all") << "loggerfile=@LOGDIR@/rig.log\nloggerlevel=0"
                                             << "rig.log" << false << false;
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
    {
        Host host;
        auto *kernel = new ZtKernel(&host);
        kernel->setOptionsFileName(writeSettings(
            dir, QStringLiteral("log.ini"),
            QStringLiteral("[mainwindow]\ncfgfile=log rig\n%1\n[modules]\nid_0\\.name=Missing\n")
                .arg(mainwindow)));
        kernel->loadModules(moduleDir);
    }
    QDir::setCurrent(previous);

    const QString log = readLog(dir.filePath(file));
    QCOMPARE(QFile::exists(dir.filePath(file)), critical);
    QCOMPARE(log.contains(QStringLiteral("(CC) <stamp> null:    Read config from log rig\n")),
             critical);
    QCOMPARE(log.contains(QStringLiteral("can't load Missing plugin, file not exists")), message);
}

void tst_ZtKernel::modulesLandOnTheirThreads()
{
    MessageCatcher catcher;
    Rig rig(QStringLiteral("loading.ini"));
    ThreadLauncher *launcher = rig.kernel->getThreadLauncher();
    QCOMPARE(launcher->threadCount(), 0);
    rig.kernel->loadModules(moduleDir);

    // Thread 3 was asked for first and brought 0, 1 and 2 with it.
    QCOMPARE(launcher->threadCount(), 4);
    QThread *gui = QThread::currentThread();
    for (int i = 0; i < 4; ++i) {
        QVERIFY(launcher->threadAt(i)->isRunning());
        QVERIFY(launcher->threadAt(i) != gui);
    }
    QCOMPARE(rig.module(0)->thread(), launcher->threadAt(3));
    QCOMPARE(rig.module(2)->thread(), launcher->threadAt(1));
    QCOMPARE(rig.module(3)->thread(), gui);
    QCOMPARE(rig.module(4)->thread(), gui);

    QString warning;
    QDebug(&warning).noquote() << "kernel"
                               << "Warning:"
                               << "TestGuiThread"
                               << "can not be moved to thread" << launcher->threadAt(2);
    QCOMPARE(catcher.startingWith(QStringLiteral("kernel Warning:")),
             QStringList {warning.trimmed()});
}

void tst_ZtKernel::configuredOptionsArriveBeforeInit()
{
    Rig rig(QStringLiteral("loading.ini"));
    rig.kernel->loadModules(moduleDir);
    rig.kernel->initModules();

    const QList<ProbeEvent> first = KernelProbe::events(0, QStringLiteral("init"));
    QCOMPARE(first.size(), 1);
    const QVariantHash seen = first.first().detail.toHash();
    QCOMPARE(seen.value(QStringLiteral("gain")).toString(), QStringLiteral("5"));
    // Quoted, so one text and not a list.
    QCOMPARE(seen.value(QStringLiteral("label")), QVariant(QStringLiteral("left, right")));
    QCOMPARE(seen.value(QStringLiteral("extra")).toString(), QStringLiteral("on"));
    QCOMPARE(seen.value(QStringLiteral(".alias")).toString(), QStringLiteral("id_0"));
    QVERIFY(!seen.contains(QStringLiteral("#gain")));

    const QVariantHash aliased
        = KernelProbe::events(4, QStringLiteral("init")).value(0).detail.toHash();
    QCOMPARE(aliased.value(QStringLiteral("gain")).toString(), QStringLiteral("7"));
    QCOMPARE(aliased.value(QStringLiteral(".alias")).toString(), QStringLiteral("second"));

    const QVariantHash extended
        = KernelProbe::events(2, QStringLiteral("init")).value(0).detail.toHash();
    QCOMPARE(extended.value(QStringLiteral("scale")).toDouble(), 0.5);

    // Nothing configured: the module's own default.
    const QVariantHash unset
        = KernelProbe::events(3, QStringLiteral("init")).value(0).detail.toHash();
    QCOMPARE(unset.value(QStringLiteral("gain")), QVariant(1));
}

void tst_ZtKernel::startUpReachesEveryModule()
{
    MessageCatcher catcher;
    Rig rig(QStringLiteral("loading.ini"));
    rig.kernel->loadModules(moduleDir);
    QCOMPARE(rig.kernel->initModules(), 0);

    const QStringList sequence {QStringLiteral("init"), QStringLiteral("applyOptions"),
                                QStringLiteral("sendOptions")};
    for (int id : loadedModules) {
        ZtMIFound *module = rig.module(id);
        QTRY_COMPARE(startUpNames(id), sequence);
        // init blocks the GUI thread until the worker ran it; the rest is posted to the
        // module's own thread.
        for (const ProbeEvent &event : KernelProbe::events(id)) {
            if (sequence.contains(event.what))
                QCOMPARE(event.thread, module->thread());
        }
        const QVariant announced
            = KernelProbe::events(id, QStringLiteral("sendOptions")).value(0).detail;
        QCOMPARE(announced.toHash(), *module->getOptions());
        // Without a widget parent the widgets are not set up.
        QVERIFY(KernelProbe::events(id, QStringLiteral("initWidgets")).isEmpty());
    }

    // A module that fails to start is reported and stays.
    QCOMPARE(catcher.count(QStringLiteral("kernel stream-fixture init true")), 2);
    QCOMPARE(catcher.count(QStringLiteral("kernel extended-fixture init true")), 1);
    QCOMPARE(catcher.count(QStringLiteral("kernel gui-fixture init true")), 1);
    QCOMPARE(catcher.count(QStringLiteral("kernel initfail-fixture init false")), 1);
    QVERIFY(rig.module(8));
}

void tst_ZtKernel::actStartSignalsInOrder()
{
    Rig rig(QStringLiteral("loading.ini"));
    rig.kernel->loadModules(moduleDir);

    QStringList order;
    connect(rig.kernel, QOverload<>::of(&ZtKernel::actStart), this,
            [&order] { order << QStringLiteral("()"); });
    connect(rig.kernel, QOverload<QByteArray>::of(&ZtKernel::actStart), this,
            [&order](const QByteArray &data) {
                order << QStringLiteral("(QByteArray)") + (data.isEmpty() ? "" : " not empty");
            });
    connect(rig.kernel, QOverload<QVariantList>::of(&ZtKernel::actStart), this,
            [&order](const QVariantList &data) {
                order << QStringLiteral("(QVariantList)") + (data.isEmpty() ? "" : " not empty");
            });
    // A worker-thread module receives them as queued calls.
    auto *worker = qobject_cast<ProbeStream *>(rig.module(0));
    QVERIFY(worker);
    connect(rig.kernel, QOverload<>::of(&ZtKernel::actStart), worker,
            QOverload<>::of(&ProbeStream::begin));
    connect(rig.kernel, QOverload<QByteArray>::of(&ZtKernel::actStart), worker,
            QOverload<QByteArray>::of(&ProbeStream::begin));
    connect(rig.kernel, QOverload<QVariantList>::of(&ZtKernel::actStart), worker,
            QOverload<QVariantList>::of(&ProbeStream::begin));

    rig.kernel->initModules();
    QCOMPARE(order,
             (QStringList {QStringLiteral("()"), QStringLiteral("(QByteArray)"),
                           QStringLiteral("(QVariantList)")}));
    QTRY_COMPARE(KernelProbe::names(0).filter(QStringLiteral("begin")),
                 (QStringList {QStringLiteral("begin()"), QStringLiteral("begin(QByteArray)"),
                               QStringLiteral("begin(QVariantList)")}));
    for (const ProbeEvent &event : KernelProbe::events(0)) {
        if (event.what.startsWith(QLatin1String("begin")))
            QCOMPARE(event.thread, rig.kernel->getThreadLauncher()->threadAt(3));
    }
}

void tst_ZtKernel::quitProtocol_data()
{
    // Steps: "quit0"/"quit1" trigger a module's quit action, "stay" its cancel action;
    // "tryQuit"/"cancelQuit" call the kernel's slot by name.
    QTest::addColumn<QStringList>("steps");
    QTest::addColumn<int>("quits");

    QTest::newRow("both requesters ask") << QStringList {"quit0", "quit1"} << 1;
    QTest::newRow("one of two asks") << QStringList {"quit1"} << 0;
    QTest::newRow("asked three times, quits once") << QStringList {"quit0", "quit1", "quit0"} << 1;
    QTest::newRow("cancelled first") << QStringList {"stay", "quit0", "quit1"} << 0;
    QTest::newRow("cancelled between requests") << QStringList {"quit0", "stay", "quit1"} << 0;
    QTest::newRow("cancelled within the delay") << QStringList {"quit0", "quit1", "stay"} << 0;
    QTest::newRow("slots called by name") << QStringList {"tryQuit", "tryQuit"} << 1;
    QTest::newRow("cancel called by name") << QStringList {"tryQuit", "cancelQuit", "tryQuit"} << 0;
}

void tst_ZtKernel::quitProtocol()
{
    QFETCH(QStringList, steps);
    QFETCH(int, quits);

    Rig rig(QStringLiteral("quit.ini"));
    rig.kernel->loadModules(moduleDir);
    rig.kernel->makeConnections();
    QAction *quit0 = rig.module(0)->getActions()->value(QStringLiteral("quit"));
    QAction *quit1 = rig.module(1)->getActions()->value(QStringLiteral("quit"));
    QAction *stay = rig.module(1)->getActions()->value(QStringLiteral("stay"));
    QVERIFY(quit0 && quit1 && stay);

    for (const QString &step : qAsConst(steps)) {
        if (step == QLatin1String("quit0"))
            quit0->trigger();
        else if (step == QLatin1String("quit1"))
            quit1->trigger();
        else if (step == QLatin1String("stay"))
            stay->trigger();
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

void tst_ZtKernel::modulesInfo()
{
    {
        ZtKernel bare(nullptr);
        QList<QString> info;
        bare.getModulesInfo(info);
        QCOMPARE(info, (QList<QString> {"core", "1.10.2", "-", "std", "27.04.2018 "}));
        // Without a parent object nobody else would stop the propagator thread.
        delete bare.getThreadLauncher();
    }

    Rig rig(QStringLiteral("loading.ini"));
    rig.kernel->loadModules(moduleDir);
    QList<QString> info;
    rig.kernel->getModulesInfo(info);
    const QList<QString> unknown = QVector<QString>(5, QStringLiteral("Unknown")).toList();
    const QList<QString> expected = QList<QString> {"config", "3.1", "-", "-", "-"}
        + QList<QString> {"core", "1.10.2", "-", "std", "27.04.2018 "}
        + QList<QString> {"stream-fixture", "1.4.2", "1.2.0", "stream", "03.02.2024"}
        + unknown // Missing
        + QList<QString> {"extended-fixture", "0.9", "1.2.1", "extended", "11.12.2023"}
        + QList<QString> {"gui-fixture", "3.0", "1.2.0", "gui", "01.06.2022"}
        // the stream library's second module is not listed again
        + QList<QString> {"unknown-fixture", "2.0", "1.-56.3", "odd", "15.08.2021"}
        + QList<QString> {"noinstance-fixture", "0.5", "1.1.0", "stream", "02.01.2020"}
        + unknown // Broken
        + QList<QString> {"initfail-fixture", "0.0.1", "1.2.0", "broken start", "29.02.2024"}
        + unknown; // TestForeign
    QCOMPARE(info, expected);
}

void tst_ZtKernel::translationsReachTheLog()
{
    {
        Rig rig(QStringLiteral("loading.ini"));
        QCOMPARE(
            rig.kernel->loadTranslations(QStringLiteral("de"), QStringLiteral(ZT_TRANSLATION_DIR)),
            0);
        rig.kernel->loadModules(moduleDir);
        rig.kernel->initModules();

        const QString log = rig.log(QStringLiteral("kernel.log"));
        QVERIFY(log.contains(QStringLiteral("null:    Lade Modul TestStream to thread  0x")));
        QVERIFY(log.contains(
            QStringLiteral("null:    Kann nicht laden: Missing plugin, file not exists\n")));
        // Untranslated texts stay as they are.
        QVERIFY(log.contains(QStringLiteral("null:    Unknown interface ZtMIMystery")));
        // The module library's own translation, logged from its worker thread and from the
        // GUI thread, each under its module's name.
        QTRY_VERIFY(rig.log(QStringLiteral("kernel.log"))
                        .contains(QStringLiteral("(II) <stamp> id_0:    läuft\n")));
        QTRY_VERIFY(rig.log(QStringLiteral("kernel.log"))
                        .contains(QStringLiteral("(II) <stamp> second:    läuft\n")));
    }
    // The translators went with the kernel.
    QCOMPARE(QCoreApplication::translate("ZtKernel", "Load module "),
             QStringLiteral("Load module "));
}

void tst_ZtKernel::destructionStopsModulesAndThreads()
{
    QTemporaryDir dir;
    auto *host = new Host;
    auto *kernel = new ZtKernel(host);
    kernel->setOptionsFileName(copySettings(dir, QStringLiteral("loading.ini")));
    kernel->loadModules(moduleDir);
    kernel->initModules();

    ThreadLauncher *launcher = kernel->getThreadLauncher();
    QList<QPointer<QThread>> threads;
    for (int i = 0; i < launcher->threadCount(); ++i)
        threads << launcher->threadAt(i);
    threads << launcher->getPpgThread();
    QThread *stream = launcher->threadAt(3);
    QThread *extended = launcher->threadAt(1);
    for (int id : loadedModules)
        QTRY_VERIFY(!KernelProbe::events(id, QStringLiteral("sendOptions")).isEmpty());

    delete host;

    for (const QPointer<QThread> &thread : qAsConst(threads))
        QVERIFY(thread.isNull());

    // Worker-thread modules end in their thread, come home, and are deleted in the GUI thread.
    const QStringList workerEnd {QStringLiteral("final"), QStringLiteral("threadChange"),
                                 QStringLiteral("destroyed")};
    QThread *gui = QThread::currentThread();
    for (const auto &worker : {qMakePair(0, stream), qMakePair(2, extended)}) {
        const QList<ProbeEvent> events = KernelProbe::events(worker.first);
        QVERIFY(events.size() >= 3);
        const QList<ProbeEvent> end = events.mid(events.size() - 3);
        QCOMPARE(KernelProbe::names(worker.first).mid(events.size() - 3), workerEnd);
        QCOMPARE(end.at(0).thread, worker.second);
        QCOMPARE(end.at(1).thread, worker.second);
        QCOMPARE(end.at(2).thread, gui);
        QCOMPARE(end.at(2).affinity, gui);
    }
    for (int id : {3, 4, 8}) {
        const QStringList names = KernelProbe::names(id);
        QCOMPARE(names.mid(names.size() - 2),
                 (QStringList {QStringLiteral("final"), QStringLiteral("destroyed")}));
        QCOMPARE(KernelProbe::events(id, QStringLiteral("final")).value(0).thread, gui);
    }
    for (int id : loadedModules)
        QCOMPARE(KernelProbe::events(id, QStringLiteral("destroyed")).size(), 1);
}

QTEST_MAIN(tst_ZtKernel)

#include "tst_ztkernel.moc"
