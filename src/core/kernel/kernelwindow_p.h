#pragma once

#include <QList>
#include <QString>
#include <QStringList>

class QMenu;
class QToolBar;
class QWidget;
class ZtKernel;

// Builds the host window's elements from the settings and the modules of a kernel: main and
// options widgets, menus and tool bars of module actions. The kernel creates one per call; it
// keeps no state of its own and no reference to what it built. GUI thread only: the widget
// getters of worker-thread modules are called here too, since widgets must be made on the GUI
// thread.
class KernelWindow
{
public:
    explicit KernelWindow(ZtKernel *kernel);

    QList<QWidget *> getWMains();
    QList<QWidget *> getWOptions();
    QList<QMenu *> getMenus();
    QList<QToolBar *> getToolBars();
    void updateWidgets();

private:
    void addModuleActions(QWidget *container, const QString &key, const QStringList &entries,
                          bool rangeCheck, const QString &missingAction);

    ZtKernel *kernel;
};
