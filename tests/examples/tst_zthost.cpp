#include "hostedzthost.h"

#include <QImage>
#include <QRegularExpression>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

// zthost on the demo configuration, as a child process. Without a display it must choose the
// offscreen platform by itself, load every module, move data along every kind of connection,
// keep options across runs through its state file and speak German when asked to. On a virtual
// X display it assembles its window from the configuration, and --screenshot saves what it shows.
class tst_ZtHost : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void loadsEveryModule_data();
    void loadsEveryModule();
    void dataFlows_data();
    void dataFlows();
    void window();
    void restoresOptionsChangedBeforeQuit();
    void germanKernelMessages();
    void refusesMissingSettingsFile();
    void checksWithoutStarting();

private:
    // Runs zthost to the end in the subfolder `name` of the work folder, with its state file
    // there; under xvfb-run when `onDisplay`.
    HostedRun run(const QString &name, const QString &locale, const QStringList &more = {},
                  bool onDisplay = false);

    QTemporaryDir work;
    QString xvfb;
    HostedRun base; // the run without a display, and its log file
    QString log;
    HostedRun shown; // the run on a virtual display, and its screenshot
    QImage shot;
};

HostedRun tst_ZtHost::run(const QString &name, const QString &locale, const QStringList &more,
                          bool onDisplay)
{
    return runHosted(work.filePath(name),
                     QStringList {"--locale", locale, "--quit-after", "2"} + more, onDisplay);
}

void tst_ZtHost::initTestCase()
{
    base = run("base", "en");
    QVERIFY2(base.ok() && !base.err.contains("the kernel did not quit"), qPrintable(base.report()));
    QFile file(work.filePath("base/zthost.log"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    log = QString::fromUtf8(file.readAll());
    xvfb = HostedZtHost::xvfbRun();
    if (!xvfb.isEmpty()) {
        shown = run("window", "en", {"--screenshot", work.filePath("window/shot.png")}, true);
        shot.load(work.filePath("window/shot.png"));
    }
}

void tst_ZtHost::loadsEveryModule_data()
{
    QTest::addColumn<QString>("library");
    QTest::addColumn<int>("entries");
    QTest::newRow("generator") << "SignalGenerator" << 1;
    QTest::newRow("three processing stages") << "Processing" << 3;
    QTest::newRow("plotter") << "Plotter" << 1;
    QTest::newRow("poller") << "Poller" << 1;
    QTest::newRow("register device") << "RegisterDevice" << 1;
}

void tst_ZtHost::loadsEveryModule()
{
    QFETCH(QString, library);
    QFETCH(int, entries);
    // The version comes from the module's build metadata; any will do.
    const QString line = "Load module %1 to thread  0x[0-9a-f]+ \\(\\S+ builded:";
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

void tst_ZtHost::window()
{
    if (xvfb.isEmpty())
        QSKIP("xvfb-run is not installed (scripts/setup installs it)");
    QVERIFY2(shown.ok() && !shown.err.contains("offscreen"), qPrintable(shown.report()));
    QVERIFY2(shown.out.contains("zthost: window: central Plot; docks Generator, Log; menus File, "
                                "Generator, Modules; tool bars Main"),
             qPrintable(shown.report()));
    // The window's default size, as the state file has no geometry yet.
    QVERIFY2(shown.out.contains(QRegularExpression("screenshot \\S+ 1024x720 saved")),
             qPrintable(shown.report()));
    QCOMPARE(shot.size(), QSize(1024, 720));

    // Not blank: the demo's processed signal (the shift stage's pen) and a register are drawn.
    // Antialiasing blends the edges; the core of a 1.5 px line keeps the pen's colour.
    for (const QColor &pen : {QColor("darkorange"), QColor(40, 150, 60)}) {
        int hits = 0;
        for (int y = 0; y < shot.height(); ++y) {
            for (int x = 0; x < shot.width(); ++x) {
                const QColor c = shot.pixelColor(x, y);
                hits += qAbs(c.red() - pen.red()) + qAbs(c.green() - pen.green())
                        + qAbs(c.blue() - pen.blue())
                    < 30;
            }
        }
        QVERIFY2(hits > 80, qPrintable(pen.name() + QString(": %1").arg(hits)));
    }
}

void tst_ZtHost::restoresOptionsChangedBeforeQuit()
{
    // The first run starts from the settings file and changes the amplitude on the way.
    const HostedRun first = run("state", "en", {"--set", "gen/amplitude=3.5"});
    QVERIFY2(first.ok(), qPrintable(first.report()));
    QVERIFY2(first.out.contains("gen: options: sine 2 Hz, amplitude 1,")
                 && first.out.contains("gen: options: sine 2 Hz, amplitude 3.5,"),
             qPrintable(first.report()));
    // The window's layout is stored too; its restoring is the state store's own test.
    QSettings stored(work.filePath("state/state.ini"), QSettings::IniFormat);
    QVERIFY(!stored.value("mainwindow/state").toByteArray().isEmpty());
    // The second run gets the amplitude from the state file, before the module starts.
    const HostedRun second = run("state", "en");
    QVERIFY2(second.ok(), qPrintable(second.report()));
    QVERIFY2(second.out.contains("gen: options: sine 2 Hz, amplitude 3.5,")
                 && !second.out.contains("amplitude 1,"),
             qPrintable(second.report()));
}

void tst_ZtHost::germanKernelMessages()
{
    const HostedRun de = run("de", "de");
    QVERIFY2(de.ok(), qPrintable(de.report()));
    QCOMPARE(de.out.count(QRegularExpression("Modul geladen: \\w+ in Thread  0x")), 7);
    QVERIFY2(de.out.contains("Werkzeugleiste erstellt: Main") && !de.out.contains("Load module"),
             qPrintable(de.report()));
}

void tst_ZtHost::refusesMissingSettingsFile()
{
    const HostedRun missing = run("missing", "en", {work.filePath("missing.ini")});
    QCOMPARE(missing.exitCode, 2);
    QVERIFY2(missing.err.contains("missing.ini not found"), qPrintable(missing.report()));
}

// --check prints what ztcheck would and starts nothing: a misspelt library is found at its line
// with the closest name.
void tst_ZtHost::checksWithoutStarting()
{
    const QString broken = work.filePath("broken.ini");
    QFile file(broken);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("[modules]\n; the generator\nid_0\\.name=SignalGeneratr\n");
    file.close();
    const HostedRun bad = run("check-broken", "en", {"--check", broken});
    QCOMPARE(bad.exitCode, 1);
    QVERIFY2(bad.out.startsWith(broken + ":3: error: library \"SignalGeneratr\""),
             qPrintable(bad.report()));
    QVERIFY2(bad.out.contains("did you mean \"SignalGenerator\""), qPrintable(bad.report()));
}

QTEST_GUILESS_MAIN(tst_ZtHost)
#include "tst_zthost.moc"
