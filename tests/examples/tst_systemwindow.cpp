#include "hostedzthost.h"
#include "systemwindow.h"

#include <ztkernel.h>

#include <QApplication>
#include <QClipboard>
#include <QImage>
#include <QPushButton>
#include <QTableWidget>
#include <QTemporaryDir>
#include <QtTest>

namespace {

// A module that loads, on worker thread 0, and one whose library does not exist; a link that
// is made and a channel from the missing module that cannot be.
const char settingsText[]
    = "[mainwindow]\ncfgfile=system window\ntitle=system window\n"
      "[aliases]\nid_0=gain\nid_1=ghost\n"
      "[modules]\ngain\\.name=Processing\ngain\\.thread=0\n"
      "ghost\\.name=NoSuchLibrary\n"
      "[connections]\n01=\"gain;signal_closeWMain();id_0;slot_updateWMain()\"\n"
      "02=\"ghost;out;gain;in\"\n";

bool reddish(const QColor &c)
{
    return c.red() > 150 && c.green() < c.red() - 25 && c.blue() < c.red() - 25;
}

// Pixels of the table's row that look red, on the grabbed viewport.
int redPixelsInRow(QTableWidget *table, int row)
{
    const QImage image = table->viewport()->grab().toImage();
    QRect rect;
    for (int column = 0; column < table->columnCount(); ++column)
        rect |= table->visualItemRect(table->item(row, column));
    int red = 0;
    for (int y = rect.top(); y <= rect.bottom() && y < image.height(); ++y) {
        for (int x = rect.left(); x <= rect.right() && x < image.width(); ++x)
            red += reddish(image.pixelColor(x, y));
    }
    return red;
}

int rowOf(QTableWidget *table, int column, const QString &text)
{
    for (int row = 0; row < table->rowCount(); ++row) {
        if (table->item(row, column) && table->item(row, column)->text() == text)
            return row;
    }
    return -1;
}

} // namespace

// zthost's System window over a real kernel, and zthost's --profile, --system-text and
// --system-screenshot as a child process, on a system with one module whose library is missing.
class tst_SystemWindow : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void failedModuleInRed();
    void zthostReports();

private:
    QTemporaryDir work;
    QString settings;
};

void tst_SystemWindow::initTestCase()
{
    QVERIFY(work.isValid());
    settings = work.filePath("system.ini");
    QFile file(settings);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(settingsText);
}

// The failed module stands out in red with its stage and error, the loaded one does not; an
// entry that could not be connected is red too. "Copy" gives the tables as tab-separated text.
void tst_SystemWindow::failedModuleInRed()
{
    QObject host;
    auto *kernel = new ZtKernel(&host);
    kernel->setOptionsFileName(settings);
    kernel->loadModules(ZTHOST_MODULES_DIR);
    kernel->makeConnections();
    SystemWindow window(kernel);
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));

    auto *modules = window.findChild<QTableWidget *>("system_modules");
    auto *channels = window.findChild<QTableWidget *>("system_channels");
    QVERIFY(modules && channels);
    const int ghost = rowOf(modules, 2, "ghost");
    const int gain = rowOf(modules, 2, "gain");
    QVERIFY(ghost >= 0 && gain >= 0);
    QCOMPARE(modules->item(ghost, 3)->text(), QString("file missing"));
    QVERIFY(!modules->item(ghost, 4)->text().isEmpty());
    QVERIFY(modules->item(gain, 3)->text() != "file missing");
    QVERIFY2(redPixelsInRow(modules, ghost) > 200, "the failed module is not drawn in red");
    QCOMPARE(redPixelsInRow(modules, gain), 0);
    QStringList connected;
    for (int row = 0; row < channels->rowCount(); ++row) {
        connected << channels->item(row, 5)->text();
        QCOMPARE(redPixelsInRow(channels, row) > 0, connected.last() != "yes");
    }
    QCOMPARE(connected, QStringList({"yes", "no"}));

    QVERIFY(window.findChild<QPushButton *>("system_copy"));
    window.findChild<QPushButton *>("system_copy")->click();
    const QStringList lines = QApplication::clipboard()->text().split('\n');
    QCOMPARE(QApplication::clipboard()->text(), window.text());
    // Every line of a table has one cell per column.
    const int ghostLine
        = lines.indexOf(QRegularExpression("^1\tNoSuchLibrary\tghost\tfile missing\t.*"));
    QVERIFY2(ghostLine > 1, qPrintable(lines.join('\n')));
    QCOMPARE(lines.at(ghostLine).count('\t'), modules->columnCount() - 1);
    QCOMPARE(lines.at(1).split('\t').value(3), QString("stage"));

    delete kernel;
}

// zthost on the same system: --profile lists the phases in order with module steps indented
// under their phase; --system-text - writes both tables at the quit; --system-screenshot saves
// the window (on a virtual display when xvfb-run is there).
void tst_SystemWindow::zthostReports()
{
    const QString shot = work.filePath("system.png");
    const HostedRun run
        = runHosted(work.path(),
                    {"--quit-after", "1", "--profile", "--system", "--system-text", "-",
                     "--system-screenshot", shot, settings, ZTHOST_MODULES_DIR},
                    !HostedZtHost::xvfbRun().isEmpty());
    const QString &out = run.out;
    const QString report = run.report();
    QVERIFY2(run.ok(), qPrintable(report));
    QVERIFY2(out.contains("Modules\nnumber\tname\talias\tstage\terror\tthread"),
             qPrintable(report));
    QVERIFY2(out.contains("Channels\nentry\tkind\tsource\ttarget"), qPrintable(report));
    QVERIFY2(out.contains(QRegularExpression("system screenshot \\S+ \\d+x\\d+ saved")),
             qPrintable(report));

    if (out.contains("profile: the kernel recorded no start-up phases"))
        QSKIP("kernel records not available");
    QVERIFY2(out.contains(QRegularExpression("\n1\tNoSuchLibrary\tghost\tfile missing\t")),
             qPrintable(report));
    // A module's steps indented under a phase (the phases' order is the kernel's own test), the
    // total last.
    const QString line = "^profile: +[\\d.]+ +[\\d.]+  %1$";
    QVERIFY2(out.contains(QRegularExpression(line.arg("  \\S.*gain.*"),
                                             QRegularExpression::MultilineOption)),
             qPrintable(report));
    const QString last = out.mid(out.lastIndexOf("\nprofile: ") + 1).section('\n', 0, 0);
    QVERIFY2(last.contains(QRegularExpression(line.arg("total"))), qPrintable(report));

    QImage image(shot);
    QVERIFY(!image.isNull());
    int red = 0;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x)
            red += reddish(image.pixelColor(x, y));
    }
    QVERIFY2(red > 200, "the screenshot shows no red row");
}

QTEST_MAIN(tst_SystemWindow)
#include "tst_systemwindow.moc"
