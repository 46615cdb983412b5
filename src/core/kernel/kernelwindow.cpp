#include "kernelwindow_p.h"

#include "syssettings.h"
#include "ztkernel.h"
#include "ztliblevelinterface.h"
#include "ztmifound.h"

#include <QAction>
#include <QDebug>
#include <QMenu>
#include <QMetaObject>
#include <QToolBar>
#include <QWidget>

// Every debug line of the kernel starts with its object name.
#define KDEBUG qDebug().noquote() << kernel->objectName()

KernelWindow::KernelWindow(ZtKernel *kernel)
    : kernel(kernel)
{ }

QList<QWidget *> KernelWindow::getWMains()
{
    QList<QWidget *> result;
    for (int i = 0; i < kernel->modules.size(); ++i) {
        ZtMIFound *module = kernel->modules.at(i).module;
        if (!module)
            continue;
        const QString name = kernel->sysSettings->readModuleWMain(i);
        if (name.isEmpty())
            continue;
        KDEBUG << "add" << name << "to wmain list";
        QWidget *w = module->getWMain(kernel->widgetParent);
        if (!w) {
            KDEBUG << "wmain" << name << "is NULL";
            continue;
        }
        if (kernel->sysSettings->isModuleMainLayout(i))
            result.prepend(w);
        else
            result.append(w);
        w->setObjectName(name);
        w->setWindowTitle(name);
    }
    return result;
}

QList<QWidget *> KernelWindow::getWOptions()
{
    QList<QWidget *> result;
    for (int i = 0; i < kernel->modules.size(); ++i) {
        ZtMIFound *module = kernel->modules.at(i).module;
        if (!module)
            continue;
        const QString name = kernel->sysSettings->readModuleWOptions(i);
        if (name.isEmpty() || !kernel->sysSettings->isModuleWOptionsDialog(i))
            continue;
        KDEBUG << "add" << name << "to woptions list from module id" << i;
        QWidget *w = module->getWOptions(kernel->widgetParent);
        if (w) {
            w->setWindowTitle(name);
            w->setObjectName(name);
            w->setStatusTip(kernel->sysSettings->readModuleWOptionsStatusTip(i));
            QObject::connect(w, SIGNAL(changed()), module, SLOT(actForOptionsChanged()));
            result.append(w);
        } else {
            // One usable widget per configured module, always.
            KDEBUG << "woptions" << name << "is NULL";
            auto *placeholder = new QWidget;
            placeholder->setWindowTitle(name + QStringLiteral(" (NULL)"));
            result.append(placeholder);
        }
    }
    return result;
}

// Gives a menu or tool-bar action its texts from the module's ".act*" options, where set. An
// unquoted text with a comma arrives as a string list: it is shown as written.
static void applyActionTexts(SysSettings *settings, int id, const QString &actionName,
                             QAction *action)
{
    const struct
    {
        const char *suffix;
        void (QAction::*set)(const QString &);
    } texts[] = {{".actname", &QAction::setText},
                 {".actstip", &QAction::setStatusTip},
                 {".actttip", &QAction::setToolTip},
                 {".actwhat", &QAction::setWhatsThis}};
    for (const auto &text : texts) {
        const QVariant value
            = settings->readModuleOption(id, actionName + QLatin1String(text.suffix));
        if (!value.isValid())
            continue;
        (action->*text.set)(value.type() == QVariant::StringList
                                ? value.toStringList().join(QLatin1Char(','))
                                : value.toString());
    }
}

// Adds the module actions named by `entries` ("<id>,<action name>" each) to a menu or tool bar.
// Menus check the module number against the record count first; tool bars deliberately do not,
// so there an id past the end reads an empty record and takes the missing-module path.
void KernelWindow::addModuleActions(QWidget *container, const QString &key,
                                    const QStringList &entries, bool rangeCheck,
                                    const QString &missingAction)
{
    for (const QString &entry : entries) {
        const QStringList parts = entry.split(QLatin1Char(','));
        const int id = parts.value(0).toInt();
        const QString actionName = parts.value(1);
        if (rangeCheck && id >= kernel->modules.size()) {
            KDEBUG << "critical error, module" << id << "doesn't append";
            continue;
        }
        ZtMIFound *module = kernel->moduleAt(id);
        if (!module) {
            KDEBUG << "can't append " + entry + " to " + key + ", module id=" << id << "not exist";
            continue;
        }
        KDEBUG << "append " + entry + " to " + key + ", module id=" << id;
        QAction *action = module->getActions()->value(actionName, nullptr);
        if (!action) {
            KDEBUG << missingAction + actionName + " for module id=" << id << "not exist";
            continue;
        }
        applyActionTexts(kernel->sysSettings, id, actionName, action);
        container->addAction(action);
    }
}

QList<QMenu *> KernelWindow::getMenus()
{
    QList<QMenu *> result;
    const QStringList keys = kernel->sysSettings->readMenus();
    for (const QString &key : keys) {
        KDEBUG << "append" << key;
        const QString title = kernel->sysSettings->readMenuName(key);
        auto *menu = new QMenu(title, kernel->widgetParent);
        result.append(menu);
        menu->setObjectName(key);
        if (kernel->logger)
            kernel->log(ZtKernel::tr("Create menu ") + title, 5);
        addModuleActions(menu, key, kernel->sysSettings->readMenusActions(key), true,
                         QStringLiteral("can't append menu item: action "));
    }
    return result;
}

QList<QToolBar *> KernelWindow::getToolBars()
{
    QList<QToolBar *> result;
    const QStringList keys = kernel->sysSettings->readToolBars();
    for (const QString &key : keys) {
        KDEBUG << "append" << key;
        const QString title = kernel->sysSettings->readToolBarName(key);
        auto *toolBar = new QToolBar(title, kernel->widgetParent);
        result.append(toolBar);
        toolBar->setObjectName(key);
        if (kernel->logger)
            kernel->log(ZtKernel::tr("Create toolbar ") + title, 5);
        KDEBUG << "Create toolbar" << title;
        addModuleActions(toolBar, key, kernel->sysSettings->readToolBarsActions(key), false,
                         QStringLiteral("can't append toolbar: actions "));
    }
    return result;
}

void KernelWindow::updateWidgets()
{
    for (const ComplexModule &record : qAsConst(kernel->modules)) {
        if (!record.module)
            continue;
        KDEBUG << record.library->getName() << "update";
        // A worker-thread module refreshes from its own thread, where its options are written;
        // the module then posts the refresh on to its widgets in the GUI thread.
        QMetaObject::invokeMethod(record.module, "updateWMain");
        QMetaObject::invokeMethod(record.module, "updateWOptions");
    }
}
