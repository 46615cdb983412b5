#include "zthostrunner.h"

#include <QColor>
#include <QImage>
#include <QRegularExpression>
#include <QSet>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

// zthost with a real window on a virtual X display (xvfb-run): the window is assembled from the
// demo configuration and --screenshot saves what it shows.
class tst_ZtHostWindow : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void windowLayout();
    void screenshotShowsTheWindow();
    void screenshotShowsCurves_data();
    void screenshotShowsCurves();

private:
    QTemporaryDir work;
    ZtHostRun run;
    QImage shot;
};

void tst_ZtHostWindow::initTestCase()
{
    const QString xvfb = QStandardPaths::findExecutable(QStringLiteral("xvfb-run"));
    if (xvfb.isEmpty())
        QSKIP("xvfb-run is not installed (scripts/setup installs the xvfb package); the window "
              "is tested headless only by tst_zthost");
    QVERIFY(work.isValid());

    // A real X display: the platform the test itself runs on must not leak into the child.
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove(QStringLiteral("QT_QPA_PLATFORM"));
    env.remove(QStringLiteral("WAYLAND_DISPLAY"));
    // No session bus (xvfb's display would make libdbus launch one) and no GL driver: both live
    // outside what is tested here and leak under the sanitizer build's leak checker.
    env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"),
               QStringLiteral("unix:path=/nonexistent"));
    env.insert(QStringLiteral("QT_XCB_GL_INTEGRATION"), QStringLiteral("none"));
    run = ZtHostRun::start(
        xvfb,
        {QStringLiteral("-a"), QStringLiteral("-s"), QStringLiteral("-screen 0 1280x1024x24"),
         QStringLiteral(ZTHOST), QStringLiteral("--locale"), QStringLiteral("en"),
         QStringLiteral("--state"), work.filePath(QStringLiteral("state.ini")),
         QStringLiteral("--quit-after"), QStringLiteral("2"), QStringLiteral("--screenshot"),
         work.filePath(QStringLiteral("shot.png"))},
        work.path(), env);
    QVERIFY2(run.ok(), qPrintable(run.report()));
    QVERIFY2(!run.err.contains(QLatin1String("offscreen")), qPrintable(run.report()));
    shot.load(work.filePath(QStringLiteral("shot.png")));
}

void tst_ZtHostWindow::windowLayout()
{
    QVERIFY2(run.out.contains(QLatin1String(
                 "zthost: window: central Plot; docks Generator, Log; menus File, Generator, "
                 "Modules; tool bars Main")),
             qPrintable(run.report()));
}

void tst_ZtHostWindow::screenshotShowsTheWindow()
{
    QVERIFY(!shot.isNull());
    const QRegularExpressionMatch reported
        = QRegularExpression(QStringLiteral("screenshot \\S+ (\\d+)x(\\d+) saved")).match(run.out);
    QVERIFY2(reported.hasMatch(), qPrintable(run.report()));
    QCOMPARE(shot.width(), reported.captured(1).toInt());
    QCOMPARE(shot.height(), reported.captured(2).toInt());
    // The window opens at its default size when the state file has no geometry yet.
    QCOMPARE(shot.size(), QSize(1024, 720));

    QSet<QRgb> colours;
    for (int y = 0; y < shot.height(); y += 3) {
        for (int x = 0; x < shot.width(); x += 3)
            colours.insert(shot.pixel(x, y));
    }
    QVERIFY2(colours.size() > 20, qPrintable(QString::number(colours.size())));
}

void tst_ZtHostWindow::screenshotShowsCurves_data()
{
    QTest::addColumn<QColor>("pen");
    // The demo's pens: the processed signal (shift stage's colour) and the two registers.
    QTest::newRow("processed") << QColor(QStringLiteral("darkorange"));
    QTest::newRow("register 0") << QColor(200, 60, 40);
    QTest::newRow("register 1") << QColor(40, 150, 60);
}

void tst_ZtHostWindow::screenshotShowsCurves()
{
    QFETCH(QColor, pen);
    QVERIFY(!shot.isNull());
    // Antialiasing blends the edges; the core of a 1.5 px line keeps the pen's colour.
    int hits = 0;
    for (int y = 0; y < shot.height(); ++y) {
        for (int x = 0; x < shot.width(); ++x) {
            const QColor c = shot.pixelColor(x, y);
            if (qAbs(c.red() - pen.red()) + qAbs(c.green() - pen.green())
                    + qAbs(c.blue() - pen.blue())
                < 30)
                ++hits;
        }
    }
    QVERIFY2(hits > 80, qPrintable(QString::number(hits)));
}

QTEST_MAIN(tst_ZtHostWindow)
#include "tst_zthostwindow.moc"
