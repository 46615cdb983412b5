#include "kerneltestkit.h"

#include <kernelprobe.h>
#include <loggerwidget.h>
#include <threadlauncher.h>
#include <wabstractmain.h>
#include <wabstractoptions.h>
#include <ztkernel.h>

#include <QAction>
#include <QMenu>
#include <QTest>
#include <QTextDocument>
#include <QTextEdit>
#include <QThread>
#include <QToolBar>
#include <QWidget>

#include <memory>

// What the kernel hands the host window: main widgets, options dialogs, menus and tool bars
// assembled from the settings file and the modules' own widgets and actions, and the log view.

namespace {

const QString moduleDir = QStringLiteral(ZT_MODULE_DIR);

// A host with a main window. The window goes first and takes every widget, menu and tool bar
// with it; then the host takes the kernel and the threads.
struct WindowRig
{
    WindowRig()
        : kernel(new ZtKernel(&window, &host))
    { }

    void loadFixture(const QString &fixture)
    {
        kernel->setOptionsFileName(copySettings(dir, fixture));
        kernel->loadModules(moduleDir);
    }
    void loadText(const QString &text)
    {
        kernel->setOptionsFileName(writeSettings(dir, QStringLiteral("entries.ini"), text));
        kernel->loadModules(moduleDir);
    }
    ZtMIFound *module(int index) const { return kernel->getModule(index).module; }
    QAction *action(int index, const QString &name) const
    {
        return module(index)->getActions()->value(name);
    }

    QTemporaryDir dir;
    Host host;
    QWidget window;
    ZtKernel *kernel;
};

// One menu and one tool bar, each holding the same single entry.
const char entriesTemplate[] = R"(; one entry placed in a menu and in a tool bar
[mainwindow]
loggerfile=@LOGDIR@/entries.log

[modules]
id_0\.name=TestStream
id_1\.name=Missing
id_2\.name=TestStream

[mwelements]
menus\01=menu
toolbars\01=bar

[actions]
mwMenus\menu\01="%1"
mwToolBars\bar\01="%1"
)";

} // namespace

class tst_KernelElements : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void mainWidgetsCentralFirst();
    void optionsDialogs();
    void menusAndToolBars();
    void misplacedEntries_data();
    void misplacedEntries();
    void updateWidgetsReachesEveryWidget();
    void logViewAndWidgetSetUp();
};

void tst_KernelElements::init()
{
    KernelProbe::clear();
}

void tst_KernelElements::mainWidgetsCentralFirst()
{
    MessageCatcher catcher;
    WindowRig rig;
    rig.loadFixture(QStringLiteral("elements.ini"));

    const QList<QWidget *> mains = rig.kernel->getWMains();
    QCOMPARE(mains.size(), 2);
    // The plot comes after the generator in the file but is the central widget.
    const QList<int> owners {2, 0};
    const QStringList titles {QStringLiteral("Plot"), QStringLiteral("Generator")};
    for (int i = 0; i < mains.size(); ++i) {
        auto *main = qobject_cast<WAbstractMain *>(mains.at(i));
        QVERIFY(main);
        QCOMPARE(main->getModule(), rig.module(owners.at(i)));
        QCOMPARE(main->windowTitle(), titles.at(i));
        QCOMPARE(main->objectName(), titles.at(i));
        QCOMPARE(main->parentWidget(), &rig.window);
    }
    QVERIFY(catcher.contains(QStringLiteral("kernel add Plot to wmain list")));
    QVERIFY(catcher.contains(QStringLiteral("kernel wmain Store is NULL")));
}

void tst_KernelElements::optionsDialogs()
{
    MessageCatcher catcher;
    WindowRig rig;
    rig.loadFixture(QStringLiteral("elements.ini"));

    const QList<QWidget *> dialogs = rig.kernel->getWOptions();
    // The store's options are not a dialog and are left to the host.
    QCOMPARE(dialogs.size(), 2);
    std::unique_ptr<QWidget> placeholder(dialogs.at(1));

    auto *generator = qobject_cast<WAbstractOptions *>(dialogs.at(0));
    QVERIFY(generator);
    QCOMPARE(generator->getModule(), rig.module(0));
    QCOMPARE(generator->windowTitle(), QStringLiteral("Generator options"));
    QCOMPARE(generator->objectName(), QStringLiteral("Generator options"));
    QCOMPARE(generator->statusTip(), QStringLiteral("Set up the generator"));
    QCOMPARE(generator->parentWidget(), &rig.window);
    QVERIFY(catcher.contains(
        QStringLiteral("kernel add Generator options to woptions list from module id 0")));

    // The plot offers no options widget: an empty stand-in keeps the list one per module.
    QVERIFY(!qobject_cast<WAbstractOptions *>(placeholder.get()));
    QCOMPARE(placeholder->windowTitle(), QStringLiteral("Plot options (NULL)"));
    QVERIFY(!placeholder->parent());
    QVERIFY(catcher.contains(QStringLiteral("kernel woptions Plot options is NULL")));

    // Confirming the dialog makes the module, on its worker thread, take and announce the
    // options.
    emit generator->changed();
    QTRY_COMPARE(KernelProbe::events(0, QStringLiteral("sendOptions")).size(), 1);
    const ProbeEvent applied = KernelProbe::events(0, QStringLiteral("applyOptions")).value(0);
    QCOMPARE(applied.thread, rig.kernel->getThreadLauncher()->threadAt(0));
}

void tst_KernelElements::menusAndToolBars()
{
    MessageCatcher catcher;
    WindowRig rig;
    rig.loadFixture(QStringLiteral("elements.ini"));

    const QList<QMenu *> menus = rig.kernel->getMenus();
    QCOMPARE(menus.size(), 2);
    QCOMPARE(menus.at(0)->objectName(), QStringLiteral("file"));
    QCOMPARE(menus.at(0)->title(), QStringLiteral("&File"));
    QCOMPARE(menus.at(0)->parentWidget(), &rig.window);
    QCOMPARE(menus.at(1)->objectName(), QStringLiteral("run"));
    QCOMPARE(menus.at(1)->title(), QStringLiteral("&Run"));

    QAction *start = rig.action(0, QStringLiteral("start"));
    QAction *stop = rig.action(0, QStringLiteral("stop"));
    QAction *quit = rig.action(2, QStringLiteral("quit"));
    QCOMPARE(menus.at(0)->actions(), QList<QAction *> {quit});
    QCOMPARE(menus.at(1)->actions(), (QList<QAction *> {start, stop}));
    QCOMPARE(start->text(), QStringLiteral("&Go"));
    QCOMPARE(start->statusTip(), QStringLiteral("Start generating"));
    QCOMPARE(start->toolTip(), QStringLiteral("Starts the generator"));
    QCOMPARE(start->whatsThis(), QStringLiteral("Starts generating samples until stopped"));
    QCOMPARE(stop->text(), QStringLiteral("Stop"));
    QCOMPARE(quit->text(), QStringLiteral("&Quit"));

    const QList<QToolBar *> bars = rig.kernel->getToolBars();
    QCOMPARE(bars.size(), 1);
    QCOMPARE(bars.at(0)->objectName(), QStringLiteral("main"));
    QCOMPARE(bars.at(0)->windowTitle(), QStringLiteral("Main"));
    QCOMPARE(bars.at(0)->parentWidget(), &rig.window);
    // The same action objects serve menus and tool bars.
    QCOMPARE(bars.at(0)->actions(), (QList<QAction *> {start, quit}));

    const QString log = readLog(rig.dir.filePath(QStringLiteral("elements.log")));
    QVERIFY(log.contains(QStringLiteral("(MM) <stamp> null:    Create menu &File\n")));
    QVERIFY(log.contains(QStringLiteral("(MM) <stamp> null:    Create menu &Run\n")));
    QVERIFY(log.contains(QStringLiteral("(MM) <stamp> null:    Create toolbar Main\n")));
    QVERIFY(catcher.contains(QStringLiteral("kernel append run")));
    QVERIFY(catcher.contains(QStringLiteral("kernel append 0,start to run, module id= 0")));
    QVERIFY(catcher.contains(QStringLiteral("kernel Create toolbar Main")));
}

void tst_KernelElements::misplacedEntries_data()
{
    QTest::addColumn<QString>("entry");
    QTest::addColumn<QString>("menuLine");
    QTest::addColumn<QString>("barLine");
    QTest::addColumn<int>("owner"); // module whose action is placed, -1 for none
    QTest::addColumn<QString>("action");

    // Menus check the module number against the records, tool bars deliberately do not.
    QTest::newRow("number far past the records")
        << "7,start"
        << "kernel critical error, module 7 doesn't append"
        << "kernel can't append 7,start to bar, module id= 7 not exist" << -1 << QString();
    QTest::newRow("number just past the records")
        << "3,start"
        << "kernel critical error, module 3 doesn't append"
        << "kernel can't append 3,start to bar, module id= 3 not exist" << -1 << QString();
    QTest::newRow("module not loaded")
        << "1,start"
        << "kernel can't append 1,start to menu, module id= 1 not exist"
        << "kernel can't append 1,start to bar, module id= 1 not exist" << -1 << QString();
    QTest::newRow("negative number")
        << "-1,start"
        << "kernel can't append -1,start to menu, module id= -1 not exist"
        << "kernel can't append -1,start to bar, module id= -1 not exist" << -1 << QString();
    QTest::newRow("action the module lacks")
        << "2,nosuch"
        << "kernel can't append menu item: action nosuch for module id= 2 not exist"
        << "kernel can't append toolbar: actions nosuch for module id= 2 not exist" << -1
        << QString();
    QTest::newRow("no action name")
        << "2"
        << "kernel can't append menu item: action  for module id= 2 not exist"
        << "kernel can't append toolbar: actions  for module id= 2 not exist" << -1 << QString();
    QTest::newRow("number that is not a number reads as 0")
        << "x,start"
        << "kernel append x,start to menu, module id= 0"
        << "kernel append x,start to bar, module id= 0" << 0 << "start";
    QTest::newRow("well placed") << "2,stop"
                                 << "kernel append 2,stop to menu, module id= 2"
                                 << "kernel append 2,stop to bar, module id= 2" << 2 << "stop";
}

void tst_KernelElements::misplacedEntries()
{
    QFETCH(QString, entry);
    QFETCH(QString, menuLine);
    QFETCH(QString, barLine);
    QFETCH(int, owner);
    QFETCH(QString, action);

    MessageCatcher catcher;
    WindowRig rig;
    rig.loadText(QString::fromUtf8(entriesTemplate).arg(entry));
    QCOMPARE(rig.kernel->getModuleCount(), 3);

    const QList<QMenu *> menus = rig.kernel->getMenus();
    const QList<QToolBar *> bars = rig.kernel->getToolBars();
    QCOMPARE(menus.size(), 1);
    QCOMPARE(bars.size(), 1);
    QVERIFY2(catcher.contains(menuLine), qPrintable(catcher.lines().join('\n')));
    QVERIFY2(catcher.contains(barLine), qPrintable(catcher.lines().join('\n')));

    const QList<QAction *> placed
        = owner < 0 ? QList<QAction *>() : QList<QAction *> {rig.action(owner, action)};
    QCOMPARE(menus.at(0)->actions(), placed);
    QCOMPARE(bars.at(0)->actions(), placed);
}

void tst_KernelElements::updateWidgetsReachesEveryWidget()
{
    MessageCatcher catcher;
    WindowRig rig;
    rig.loadFixture(QStringLiteral("elements.ini"));
    rig.kernel->getWMains();
    const QList<QWidget *> dialogs = rig.kernel->getWOptions();
    std::unique_ptr<QWidget> placeholder(dialogs.value(1));
    KernelProbe::clear();

    rig.kernel->updateWidgets();
    QCOMPARE(catcher.count(QStringLiteral("kernel stream-fixture update")), 3);
    // The plot shares the GUI thread with its widget: refreshed at once.
    QCOMPARE(KernelProbe::names(2), QStringList {QStringLiteral("main.readOptions")});
    // The generator lives on a worker thread: its widgets are refreshed in their own thread.
    QTRY_COMPARE(
        KernelProbe::names(0),
        (QStringList {QStringLiteral("main.readOptions"), QStringLiteral("options.readOptions")}));
    for (const ProbeEvent &event : KernelProbe::events(0))
        QCOMPARE(event.thread, QThread::currentThread());
    QVERIFY(KernelProbe::names(3).isEmpty());
}

void tst_KernelElements::logViewAndWidgetSetUp()
{
    WindowRig rig;
    rig.kernel->setOptionsFileName(copySettings(rig.dir, QStringLiteral("elements.ini")));
    QVERIFY(!rig.kernel->getLogger());

    rig.kernel->loadTranslations(QStringLiteral("de"), QStringLiteral(ZT_TRANSLATION_DIR));
    auto *view = qobject_cast<LoggerWidget *>(rig.kernel->getLogger());
    QVERIFY(view);
    QCOMPARE(view->parentWidget(), &rig.window);
    QCOMPARE(view->view()->document()->maximumBlockCount(), 42);

    rig.kernel->loadModules(moduleDir);
    rig.kernel->initModules();
    // Widgets are set up in the GUI thread even for a module that lives elsewhere.
    for (int id : {0, 2, 3}) {
        const QList<ProbeEvent> set = KernelProbe::events(id, QStringLiteral("initWidgets"));
        QCOMPARE(set.size(), 1);
        QCOMPARE(set.first().thread, QThread::currentThread());
        QCOMPARE(set.first().detail.value<QObject *>(), &rig.window);
    }
    QCOMPARE(rig.module(0)->thread(), rig.kernel->getThreadLauncher()->threadAt(0));
}

QTEST_MAIN(tst_KernelElements)

#include "tst_kernelelements.moc"
