#include "zthostrunner.h"

#include <QColor>
#include <QImage>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

// zthost with a real window on a virtual X display: the window is assembled from the demo
// configuration and --screenshot saves what it shows.
class tst_ZtHostWindow : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void screenshotHasTheWindowsSize();
    void screenshotShowsCurves_data();
    void screenshotShowsCurves();

private:
    QTemporaryDir work;
    ZtHostRun run;
    QImage shot;
};

void tst_ZtHostWindow::initTestCase()
{
    const QString xvfb = QStandardPaths::findExecutable("xvfb-run");
    if (xvfb.isEmpty())
        QSKIP("xvfb-run is not installed (scripts/setup installs it)");
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove("QT_QPA_PLATFORM");
    env.remove("WAYLAND_DISPLAY");
    // No session bus and no GL driver: both lie outside this test and leak under the sanitizers.
    env.insert("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent");
    env.insert("QT_XCB_GL_INTEGRATION", "none");
    run = ZtHostRun(xvfb,
                    {"-a", "-s", "-screen 0 1280x1024x24", ZTHOST, "--locale", "en", "--state",
                     work.filePath("state.ini"), "--quit-after", "2", "--screenshot",
                     work.filePath("shot.png")},
                    work.path(), env);
    QVERIFY2(run.ok(), qPrintable(run.report()));
    QVERIFY2(!run.err.contains("offscreen"), qPrintable(run.report()));
    QVERIFY2(run.out.contains("zthost: window: central Plot; docks Generator, Log; menus File, "
                              "Generator, Modules; tool bars Main"),
             qPrintable(run.report()));
    QVERIFY(shot.load(work.filePath("shot.png")));
}

void tst_ZtHostWindow::screenshotHasTheWindowsSize()
{
    // The window's default size, as the state file has no geometry yet.
    QVERIFY2(run.out.contains(QRegularExpression("screenshot \\S+ 1024x720 saved")),
             qPrintable(run.report()));
    QCOMPARE(shot.size(), QSize(1024, 720));
}

void tst_ZtHostWindow::screenshotShowsCurves_data()
{
    QTest::addColumn<QColor>("pen");
    // The demo's pens: the processed signal (shift stage's colour) and the two registers.
    QTest::newRow("processed") << QColor("darkorange");
    QTest::newRow("register 0") << QColor(200, 60, 40);
    QTest::newRow("register 1") << QColor(40, 150, 60);
}

void tst_ZtHostWindow::screenshotShowsCurves()
{
    QFETCH(QColor, pen);
    // Not blank: the curves are drawn. Antialiasing blends the edges; the core of a 1.5 px line
    // keeps the pen's colour.
    int hits = 0;
    for (int y = 0; y < shot.height(); ++y) {
        for (int x = 0; x < shot.width(); ++x) {
            const QColor c = shot.pixelColor(x, y);
            hits += qAbs(c.red() - pen.red()) + qAbs(c.green() - pen.green())
                    + qAbs(c.blue() - pen.blue())
                < 30;
        }
    }
    QVERIFY2(hits > 80, qPrintable(QString::number(hits)));
}

QTEST_MAIN(tst_ZtHostWindow)
#include "tst_zthostwindow.moc"
