#include "zthostrunner.h"

#include <QFile>
#include <QRegularExpression>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

// zthost on the demo configuration without a display: it must pick the offscreen platform by
// itself, load every module, move data along every kind of connection, keep options across runs
// through its state file and speak German when asked to.
class tst_ZtHost : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void exitsCleanly();
    void loadsEveryModule_data();
    void loadsEveryModule();
    void dataFlows_data();
    void dataFlows();
    void writesLogFile();
    void restoresOptionsChangedBeforeQuit();
    void germanKernelMessages();
    void refusesMissingSettingsFile();

private:
    ZtHostRun runIn(const QString &dir, const QStringList &args);

    QTemporaryDir work;
    ZtHostRun base;
};

// No display and no platform chosen: zthost has to choose offscreen on its own.
static QProcessEnvironment headless()
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove(QStringLiteral("DISPLAY"));
    env.remove(QStringLiteral("WAYLAND_DISPLAY"));
    env.remove(QStringLiteral("QT_QPA_PLATFORM"));
    return env;
}

ZtHostRun tst_ZtHost::runIn(const QString &dir, const QStringList &args)
{
    return ZtHostRun::start(QStringLiteral(ZTHOST), args, dir, headless());
}

void tst_ZtHost::initTestCase()
{
    QVERIFY(work.isValid());
    QVERIFY(QDir(work.path()).mkpath(QStringLiteral("base")));
    base = runIn(work.filePath(QStringLiteral("base")),
                 {QStringLiteral("--locale"), QStringLiteral("en"), QStringLiteral("--state"),
                  work.filePath(QStringLiteral("base/state.ini")), QStringLiteral("--quit-after"),
                  QStringLiteral("2")});
}

void tst_ZtHost::exitsCleanly()
{
    QVERIFY2(base.ok(), qPrintable(base.report()));
    QVERIFY2(!base.out.contains(QLatin1String("can't load")), qPrintable(base.report()));
    QVERIFY2(!base.err.contains(QLatin1String("the kernel did not quit")),
             qPrintable(base.report()));
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
    const QRegularExpression line(
        QStringLiteral("Load module %1 to thread  0x[0-9a-f]+ \\(1\\.0 builded:").arg(library));
    QCOMPARE(base.out.count(line), entries);
}

void tst_ZtHost::dataFlows_data()
{
    QTest::addColumn<QString>("pattern");
    // Each row is one link of the demo's chain; the receiving module logs what it got.
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

void tst_ZtHost::writesLogFile()
{
    QFile log(work.filePath(QStringLiteral("base/zthost.log")));
    QVERIFY(log.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(log.readAll());
    QCOMPARE(text.count(QRegularExpression(QStringLiteral("^\\(CC\\) .*Load module "),
                                           QRegularExpression::MultilineOption)),
             7);
    QVERIFY(text.contains(
        QRegularExpression(QStringLiteral("\\(II\\) .* poller:    received registers"))));
}

void tst_ZtHost::restoresOptionsChangedBeforeQuit()
{
    QVERIFY(QDir(work.path()).mkpath(QStringLiteral("state")));
    const QString dir = work.filePath(QStringLiteral("state"));
    const QString state = work.filePath(QStringLiteral("state/state.ini"));
    const QStringList common {QStringLiteral("--locale"),     QStringLiteral("en"),
                              QStringLiteral("--state"),      state,
                              QStringLiteral("--quit-after"), QStringLiteral("1")};

    // The first run starts from the settings file and changes the amplitude on the way.
    const ZtHostRun first = runIn(
        dir, common + QStringList {QStringLiteral("--set"), QStringLiteral("gen/amplitude=3.5")});
    QVERIFY2(first.ok(), qPrintable(first.report()));
    QVERIFY2(first.out.contains(QLatin1String("gen: options: sine 2 Hz, amplitude 1,")),
             qPrintable(first.report()));
    QVERIFY2(first.out.contains(QLatin1String("gen: options: sine 2 Hz, amplitude 3.5,")),
             qPrintable(first.report()));

    {
        QSettings stored(state, QSettings::IniFormat);
        QCOMPARE(stored.value(QStringLiteral("modules/gen/amplitude")).toString(),
                 QStringLiteral("3.5"));
        QVERIFY(!stored.value(QStringLiteral("mainwindow/geometry")).toByteArray().isEmpty());
        QVERIFY(!stored.value(QStringLiteral("mainwindow/state")).toByteArray().isEmpty());
        // Options taken from the settings file ("." names) are never stored.
        QVERIFY(!stored.contains(QStringLiteral("modules/gen/.name")));
    }

    // The second run gets the amplitude from the state file, before the module starts.
    const ZtHostRun second = runIn(dir, common);
    QVERIFY2(second.ok(), qPrintable(second.report()));
    QVERIFY2(second.out.contains(QLatin1String("gen: options: sine 2 Hz, amplitude 3.5,")),
             qPrintable(second.report()));
    QVERIFY2(!second.out.contains(QLatin1String("amplitude 1,")), qPrintable(second.report()));
}

void tst_ZtHost::germanKernelMessages()
{
    QVERIFY(QDir(work.path()).mkpath(QStringLiteral("de")));
    const QString dir = work.filePath(QStringLiteral("de"));
    const ZtHostRun run = runIn(dir,
                                {QStringLiteral("--locale"), QStringLiteral("de"),
                                 QStringLiteral("--state"), dir + QStringLiteral("/s.ini"),
                                 QStringLiteral("--quit-after"), QStringLiteral("1")});
    QVERIFY2(run.ok(), qPrintable(run.report()));
    QCOMPARE(run.out.count(QRegularExpression(QStringLiteral("Modul geladen: \\w+ in Thread  0x"))),
             7);
    QVERIFY2(run.out.contains(QLatin1String("Werkzeugleiste erstellt: Main")),
             qPrintable(run.report()));
    QVERIFY2(!run.out.contains(QLatin1String("Load module")), qPrintable(run.report()));

    QFile log(dir + QStringLiteral("/zthost.log"));
    QVERIFY(log.open(QIODevice::ReadOnly));
    QVERIFY(QString::fromUtf8(log.readAll()).contains(QLatin1String("Modul geladen: Plot")));
}

void tst_ZtHost::refusesMissingSettingsFile()
{
    const ZtHostRun run = runIn(work.path(), {work.filePath(QStringLiteral("missing.ini"))});
    QVERIFY(run.finished);
    QCOMPARE(run.exitCode, 2);
    QVERIFY2(run.err.contains(QLatin1String("missing.ini not found")), qPrintable(run.report()));
}

QTEST_GUILESS_MAIN(tst_ZtHost)
#include "tst_zthost.moc"
