#include "zthostrunner.h"

#include <QFile>
#include <QRegularExpression>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

// zthost on the demo configuration without a display: it must choose the offscreen platform by
// itself, load every module, move data along every kind of connection, keep options across runs
// through its state file and speak German when asked to.
class tst_ZtHost : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void loadsEveryModule_data();
    void loadsEveryModule();
    void dataFlows_data();
    void dataFlows();
    void restoresOptionsChangedBeforeQuit();
    void germanKernelMessages();
    void refusesMissingSettingsFile();

private:
    // Runs zthost in the subfolder `name` of the work folder, with its state file there.
    ZtHostRun run(const QString &name, const QString &locale, const QStringList &more = {});

    QTemporaryDir work;
    QString log; // the log file of the first run
    ZtHostRun base;
};

ZtHostRun tst_ZtHost::run(const QString &name, const QString &locale, const QStringList &more)
{
    const QString dir = work.filePath(name);
    QDir().mkpath(dir);
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const char *variable : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
        env.remove(variable);
    return ZtHostRun(
        ZTHOST,
        QStringList {"--locale", locale, "--state", dir + "/state.ini", "--quit-after", "2"} + more,
        dir, env);
}

void tst_ZtHost::initTestCase()
{
    base = run("base", "en");
    QVERIFY2(base.ok(), qPrintable(base.report()));
    QVERIFY2(!base.out.contains("can't load"), qPrintable(base.report()));
    QVERIFY2(!base.err.contains("the kernel did not quit"), qPrintable(base.report()));
    QFile file(work.filePath("base/zthost.log"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    log = QString::fromUtf8(file.readAll());
}

void tst_ZtHost::loadsEveryModule_data()
{
    QTest::addColumn<QString>("library");
    QTest::addColumn<int>("entries");
    QTest::newRow("generator") << "SignalGenerator" << 1;
    QTest::newRow("three processing stages") << "Processing" << 3;
    QTest::newRow("plot") << "Plot" << 1;
    QTest::newRow("poller") << "Poller" << 1;
    QTest::newRow("register device") << "RegisterDevice" << 1;
}

void tst_ZtHost::loadsEveryModule()
{
    QFETCH(QString, library);
    QFETCH(int, entries);
    const QString line = "Load module %1 to thread  0x[0-9a-f]+ \\(1\\.0 builded:";
    QCOMPARE(base.out.count(QRegularExpression(line.arg(library))), entries);
    QCOMPARE(log.count(QRegularExpression("^\\(CC\\) .*" + line.arg(library),
                                          QRegularExpression::MultilineOption)),
             entries);
}

void tst_ZtHost::dataFlows_data()
{
    QTest::addColumn<QString>("pattern");
    // One row per link of the demo's chain; the receiving module logs what it got.
    QTest::newRow("stream across threads, same thread")
        << "shift: received block 1 with 50 points, gain 1, offset 0.5";
    QTest::newRow("stream to extended: plot draws the processed curve")
        << "plot: received curve processed with 50 points";
    QTest::newRow("feedback write answered") << "poller: setpoint 1000 written, device answered 1";
    QTest::newRow("feedback read answered") << "poller: received registers 0\\.\\.1: \\d+, \\d+";
    QTest::newRow("extended to extended: plot draws the registers")
        << "plot: received curve register 1 with 1 points";
    QTest::newRow("extended to stream") << "monitor: received block 1 with 2 points";
    QTest::newRow("option synchronisers fill the plot's caption")
        << "plot: caption: Signals  \\|  gain 2, offset 0  \\|  sine 2 Hz";
    QTest::newRow("logger link and start action") << "gen: generator started";
}

void tst_ZtHost::dataFlows()
{
    QFETCH(QString, pattern);
    QVERIFY2(base.out.contains(QRegularExpression(pattern)), qPrintable(base.report()));
}

void tst_ZtHost::restoresOptionsChangedBeforeQuit()
{
    // The first run starts from the settings file and changes the amplitude on the way.
    const ZtHostRun first = run("state", "en", {"--set", "gen/amplitude=3.5"});
    QVERIFY2(first.ok(), qPrintable(first.report()));
    QVERIFY2(first.out.contains("gen: options: sine 2 Hz, amplitude 1,")
                 && first.out.contains("gen: options: sine 2 Hz, amplitude 3.5,"),
             qPrintable(first.report()));
    {
        QSettings stored(work.filePath("state/state.ini"), QSettings::IniFormat);
        QCOMPARE(stored.value("modules/gen/amplitude").toString(), QString("3.5"));
        QVERIFY(!stored.value("mainwindow/geometry").toByteArray().isEmpty());
        QVERIFY(!stored.value("mainwindow/state").toByteArray().isEmpty());
        // Options taken from the settings file ("." names) are never stored.
        QVERIFY(!stored.contains("modules/gen/.name"));
    }
    // The second run gets the amplitude from the state file, before the module starts.
    const ZtHostRun second = run("state", "en");
    QVERIFY2(second.ok(), qPrintable(second.report()));
    QVERIFY2(second.out.contains("gen: options: sine 2 Hz, amplitude 3.5,")
                 && !second.out.contains("amplitude 1,"),
             qPrintable(second.report()));
}

void tst_ZtHost::germanKernelMessages()
{
    const ZtHostRun de = run("de", "de");
    QVERIFY2(de.ok(), qPrintable(de.report()));
    QCOMPARE(de.out.count(QRegularExpression("Modul geladen: \\w+ in Thread  0x")), 7);
    QVERIFY2(de.out.contains("Werkzeugleiste erstellt: Main") && !de.out.contains("Load module"),
             qPrintable(de.report()));
    QFile file(work.filePath("de/zthost.log"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    QVERIFY(QString::fromUtf8(file.readAll()).contains("Modul geladen: Plot"));
}

void tst_ZtHost::refusesMissingSettingsFile()
{
    const ZtHostRun missing = run("missing", "en", {work.filePath("missing.ini")});
    QVERIFY(missing.finished);
    QCOMPARE(missing.exitCode, 2);
    QVERIFY2(missing.err.contains("missing.ini not found"), qPrintable(missing.report()));
}

QTEST_GUILESS_MAIN(tst_ZtHost)
#include "tst_zthost.moc"
