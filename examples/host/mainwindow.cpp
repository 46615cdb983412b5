#include "mainwindow.h"

#include "systemwindow.h"

#include <logger.h>
#include <syssettings.h>
#include <wssettings.h>
#include <ztkernel.h>
#include <ztmifound.h>
#include <ztmodulemetadata.h>

#include <QAction>
#include <QApplication>
#include <QCloseEvent>
#include <QDateTime>
#include <QDialogButtonBox>
#include <QDir>
#include <QDockWidget>
#include <QFile>
#include <QFileInfo>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QPixmap>
#include <QStatusBar>
#include <QTimer>
#include <QToolBar>

#include <cstdio>

MainWindow::MainWindow(const HostOptions &options, QWidget *parent)
    : QMainWindow(parent)
    , options(options)
    , kernel(new ZtKernel(this, qApp))
    , state(new WSSettings(options.stateFile, this))
{
    // Every log line also goes to standard output, so that a headless run can be followed.
    connect(kernel->getLoggerObject(), &Logger::print, this, [](QString text, QString type) {
        while (text.endsWith(QLatin1Char('\n')))
            text.chop(1);
        std::fprintf(stdout, "[%s] %s\n", qPrintable(type), qPrintable(text));
        std::fflush(stdout);
    });
    statusBar();
}

MainWindow::~MainWindow()
{
    // Modules end before the widgets they feed go away with the window.
    delete kernel;
}

void MainWindow::log(const QString &text)
{
    kernel->getLoggerObject()->append(QStringLiteral("zthost: ") + text, Logger::Info);
}

void MainWindow::start()
{
    kernel->setOptionsFileName(options.settingsFile);
    SysSettings *settings = kernel->getSysSettings();
    setWindowTitle(settings->getTitle());
    kernel->loadTranslations(options.locale, options.translationsDir);
    kernel->loadModules(options.modulesDir);
    kernel->makeConnections();

    placeMainWidgets(kernel->getWMains());
    const QList<QWidget *> optionWidgets = kernel->getWOptions();
    for (QMenu *menu : kernel->getMenus())
        menuBar()->addMenu(menu);
    for (QToolBar *bar : kernel->getToolBars())
        addToolBar(bar);
    addOptionsDialogs(optionWidgets);

    resize(1024, 720);
    // Stored options go in before initialisation, so that the modules apply and announce them.
    state->readAllModulesSetting(kernel->getModulesOptions());
    restoreGeometry(state->readMWGeometry());
    restoreState(state->readMWState());
    for (const OptionsDialog &dialog : qAsConst(dialogs))
        dialog.widget->restoreGeometry(
            state->readModuleGeometry(dialog.id, QStringLiteral("woptions")));

    kernel->initModules();
    applyEdits();
    describe();
    if (options.profile) {
        const QList<StartupPhase> phases = kernel->startupPhases();
        if (phases.isEmpty())
            std::fprintf(stdout, "profile: the kernel recorded no start-up phases\n");
        else
            std::fputs(qPrintable(profileText(phases)), stdout);
        std::fflush(stdout);
    }
    if (options.systemWindow)
        showSystemWindow();
    // Written at the quit, whatever makes the application quit.
    if (!options.systemScreenshotFile.isEmpty() || !options.systemTextFile.isEmpty())
        connect(qApp, &QCoreApplication::aboutToQuit, this, &MainWindow::writeSystemReports);
    if (options.quitAfter >= 0)
        QTimer::singleShot(static_cast<int>(options.quitAfter * 1000), this,
                           &MainWindow::quitAfterDelay);
}

void MainWindow::placeMainWidgets(const QList<QWidget *> &mains)
{
    // The kernel puts the widget flagged as the main layout first; it only is central when some
    // module carries the flag.
    SysSettings *settings = kernel->getSysSettings();
    bool hasCentral = false;
    for (int i = 0; i < kernel->getModuleCount(); ++i) {
        if (kernel->getModule(i).module && !settings->readModuleWMain(i).isEmpty()
            && settings->isModuleMainLayout(i))
            hasCentral = true;
    }
    QList<QWidget *> docked = mains;
    if (hasCentral && !docked.isEmpty())
        setCentralWidget(docked.takeFirst());

    for (QWidget *w : qAsConst(docked)) {
        auto *dock = new QDockWidget(w->windowTitle(), this);
        dock->setObjectName(QStringLiteral("dock_") + w->objectName());
        dock->setWidget(w);
        addDockWidget(Qt::LeftDockWidgetArea, dock);
    }

    QWidget *logView = kernel->getLogger();
    if (logView) {
        if (!centralWidget()) {
            setCentralWidget(logView);
        } else {
            auto *dock = new QDockWidget(tr("Log"), this);
            dock->setObjectName(QStringLiteral("dock_log"));
            dock->setWidget(logView);
            addDockWidget(Qt::BottomDockWidgetArea, dock);
        }
    }
}

void MainWindow::addOptionsDialogs(const QList<QWidget *> &widgets)
{
    // getWOptions() gives one widget per module that has a dialog-style options widget, in
    // module order; walk the modules the same way to know whose each one is.
    SysSettings *settings = kernel->getSysSettings();
    QList<int> ids;
    for (int i = 0; i < kernel->getModuleCount(); ++i) {
        if (kernel->getModule(i).module && !settings->readModuleWOptions(i).isEmpty()
            && settings->isModuleWOptionsDialog(i))
            ids.append(i);
    }

    modulesMenu = menuBar()->addMenu(tr("&Modules"));
    modulesMenu->setObjectName(QStringLiteral("zthost_modules"));
    for (int k = 0; k < widgets.size() && k < ids.size(); ++k) {
        QWidget *w = widgets.at(k);
        const int id = ids.at(k);
        w->setParent(this, Qt::Dialog);
        dialogs.append({id, w});

        QString text = settings->readModuleWOptionsAct(id);
        if (text.isEmpty())
            text = w->windowTitle() + QStringLiteral("...");
        QAction *open = modulesMenu->addAction(text);
        open->setStatusTip(settings->readModuleWOptionsStatusTip(id));
        connect(open, &QAction::triggered, w, [w] {
            w->show();
            w->raise();
            w->activateWindow();
        });
        if (auto *box = w->findChild<QDialogButtonBox *>()) {
            connect(box, &QDialogButtonBox::accepted, w, &QWidget::hide);
            connect(box, &QDialogButtonBox::rejected, w, &QWidget::hide);
        }
    }
    modulesMenu->addSeparator();
    modulesMenu->addAction(tr("System..."), this, &MainWindow::showSystemWindow);
    modulesMenu->addAction(tr("About modules..."), this, &MainWindow::showModulesInfo);
}

void MainWindow::showSystemWindow()
{
    if (!systemWindow)
        systemWindow = new SystemWindow(kernel, this);
    systemWindow->show();
    systemWindow->raise();
    systemWindow->activateWindow();
}

void MainWindow::writeSystemReports()
{
    if (!systemWindow)
        systemWindow = new SystemWindow(kernel, this);
    systemWindow->refresh();
    if (!options.systemScreenshotFile.isEmpty()) {
        // grab() also lays out and paints a window that was never shown.
        const QPixmap shot = systemWindow->grab();
        const bool saved = shot.save(options.systemScreenshotFile, "PNG");
        log(QStringLiteral("system screenshot %1 %2x%3 %4")
                .arg(options.systemScreenshotFile)
                .arg(shot.width())
                .arg(shot.height())
                .arg(saved ? QStringLiteral("saved") : QStringLiteral("not saved")));
    }
    if (!options.systemTextFile.isEmpty()) {
        const QByteArray text = systemWindow->text().toUtf8();
        if (options.systemTextFile == QLatin1String("-")) {
            std::fwrite(text.constData(), 1, static_cast<size_t>(text.size()), stdout);
            std::fflush(stdout);
        } else {
            QFile file(options.systemTextFile);
            if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)
                || file.write(text) != text.size())
                std::fprintf(stderr, "zthost: cannot write %s\n",
                             qPrintable(options.systemTextFile));
        }
    }
}

void MainWindow::showModulesInfo()
{
    // Read from the library files' metadata: what each library is, without asking its code.
    SysSettings *settings = kernel->getSysSettings();
    QStringList files;
    for (int i = 0; settings->isModuleNameContains(i); ++i) {
        const QString file = settings->readModuleName(i).toLower() + QStringLiteral(".dll");
        if (!files.contains(file))
            files.append(file);
    }
    QString text = QStringLiteral("<table><tr><th>%1</th><th>%2</th><th>%3</th><th>%4</th>"
                                  "<th>%5</th><th>%6</th></tr>")
                       .arg(tr("name"), tr("version"), tr("interface"), tr("kind"), tr("built"),
                            tr("description"));
    const QDir dir(options.modulesDir);
    for (const QString &file : qAsConst(files)) {
        const ZtModuleMetaData meta = ZtModuleMetaData::fromFile(dir.filePath(file));
        const QStringList row = meta.isValid()
            ? QStringList {meta.getName(),
                           meta.getVersion(),
                           meta.getInterfaceType() + QLatin1Char(' ')
                               + ZtModuleMetaData::versionText(meta.getInterfaceVersion()),
                           meta.getKind(),
                           QFileInfo(dir.filePath(file)).lastModified().toString(Qt::ISODate),
                           meta.getDescription()}
            : QStringList {file, QString(), QString(), QString(), QString(), meta.errorString()};
        text += QStringLiteral("<tr>");
        for (const QString &cell : row)
            text += QStringLiteral("<td>%1&nbsp;</td>").arg(cell.toHtmlEscaped());
        text += QStringLiteral("</tr>");
    }
    QMessageBox::information(this, tr("Modules"), text + QStringLiteral("</table>"));
}

void MainWindow::applyEdits()
{
    for (const QString &edit : qAsConst(options.edits)) {
        const int slash = edit.indexOf(QLatin1Char('/'));
        const int equals = edit.indexOf(QLatin1Char('='), slash + 1);
        if (slash <= 0 || equals <= slash + 1) {
            log(QStringLiteral("ignored option edit %1: expected module/option=value").arg(edit));
            continue;
        }
        const QString who = edit.left(slash);
        const QString name = edit.mid(slash + 1, equals - slash - 1);
        const QString value = edit.mid(equals + 1);
        ZtMIFound *target = nullptr;
        for (int i = 0; i < kernel->getModuleCount() && !target; ++i) {
            ZtMIFound *module = kernel->getModule(i).module;
            if (module
                && (module->getOption(QStringLiteral(".alias")).toString() == who
                    || QStringLiteral("id_%1").arg(i) == who))
                target = module;
        }
        if (!target) {
            log(QStringLiteral("ignored option edit %1: no module %2").arg(edit, who));
            continue;
        }
        // Into the module's own thread, as the options dialogs do.
        QMetaObject::invokeMethod(target, "setOptionsFromList", Qt::QueuedConnection,
                                  Q_ARG(QVariantList, QVariantList({name, value})));
        log(QStringLiteral("set %1 of %2 to %3").arg(name, who, value));
    }
}

void MainWindow::describe()
{
    QStringList docks;
    for (QDockWidget *dock : findChildren<QDockWidget *>())
        docks.append(dock->windowTitle());
    QStringList menus;
    for (QAction *action : menuBar()->actions())
        menus.append(action->text().remove(QLatin1Char('&')));
    QStringList bars;
    for (QToolBar *bar : findChildren<QToolBar *>())
        bars.append(bar->windowTitle());
    log(QStringLiteral("window: central %1; docks %2; menus %3; tool bars %4")
            .arg(centralWidget() ? centralWidget()->objectName() : QStringLiteral("none"),
                 docks.join(QStringLiteral(", ")), menus.join(QStringLiteral(", ")),
                 bars.join(QStringLiteral(", "))));
    // One line per menu with its entries, so that a headless run shows where actions went.
    for (QAction *item : menuBar()->actions()) {
        QMenu *menu = item->menu();
        if (!menu)
            continue;
        QStringList entries;
        for (QAction *action : menu->actions()) {
            if (!action->isSeparator())
                entries.append(action->text().remove(QLatin1Char('&')));
        }
        log(QStringLiteral("menu %1: %2")
                .arg(menu->title().remove(QLatin1Char('&')), entries.join(QStringLiteral(", "))));
    }
}

void MainWindow::quitAfterDelay()
{
    if (!options.screenshotFile.isEmpty()) {
        const QPixmap shot = grab();
        const bool saved = shot.save(options.screenshotFile, "PNG");
        log(QStringLiteral("screenshot %1 %2x%3 %4")
                .arg(options.screenshotFile)
                .arg(shot.width())
                .arg(shot.height())
                .arg(saved ? QStringLiteral("saved") : QStringLiteral("not saved")));
    }
    requestQuit();
    // The kernel quits 100 ms after the request unless a cancel action intervened; a host that
    // was told to quit must not hang, but it says that the protocol did not work.
    QTimer::singleShot(5000, qApp, [] {
        std::fprintf(stderr, "zthost: the kernel did not quit\n");
        QCoreApplication::exit(3);
    });
}

void MainWindow::requestQuit()
{
    // The kernel quits only when it has quit requesters ("actquit" entries); a system without
    // any leaves directly.
    bool kernelQuits = false;
    for (const QString &entry : kernel->getSysSettings()->readConnections())
        kernelQuits = kernelQuits || entry.contains(QLatin1String(";actquit"));
    if (quitRequested || !kernelQuits) {
        QCoreApplication::quit();
        return;
    }
    quitRequested = true;
    QMetaObject::invokeMethod(kernel, "tryQuit");
}

void MainWindow::closeEvent(QCloseEvent *event)
{
    // The window closes when the application quits; closing it only asks the kernel.
    event->ignore();
    requestQuit();
}

void MainWindow::saveSettings()
{
    state->saveMWGeometry(saveGeometry());
    state->saveMWState(saveState());
    for (const OptionsDialog &dialog : qAsConst(dialogs))
        state->saveModuleGeometry(dialog.id, dialog.widget, QStringLiteral("woptions"));
    state->saveAllModulesSetting(kernel->getModulesOptions());
}
