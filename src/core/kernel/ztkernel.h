#pragma once

#include "ztcore_export.h"
#include "ztkernelrecords.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QList>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantList>

class Logger;
class OptiSync;
class Propagator;
class QMenu;
class QToolBar;
class QWidget;
class SysSettings;
class ThreadLauncher;
class ZtLibLevelInterface;
class ZtMIFound;

// The kernel's record of one configured module. Its position in the kernel's list is the
// module's number in the settings file; a module that failed to load keeps its place as a
// record without module. A default record is all zeros.
struct ZTCORE_EXPORT ComplexModule
{
    ZtMIFound *module = nullptr;
    ZtLibLevelInterface *library = nullptr;
    int type = 0; // 0 ZtMIStream, 1 ZtMIExtended, -1 none or unknown
};

// The module host. A host application creates one kernel and drives it in this order:
// setOptionsFileName (or setSysSettings), loadTranslations, loadModules, makeConnections, the
// window element builders (getWMains, getWOptions, getMenus, getToolBars), initModules; at the
// end it calls unloadModules, destroys the kernel, or both.
//
// Lives on the GUI thread and takes no locks. Owns its settings (when it created them), its
// logger (until re-parented to the widget parent), the module objects, and every propagator and
// options synchroniser it creates. The thread launcher is a child of the parent object, not of
// the kernel, and outlives it. Failures are reported through the log and debug lines, never
// thrown; host-facing operations return 0.
//
// The wiring of makeConnections and the window elements are kept in internal classes
// (KernelWiring, KernelWindow); this class holds the life cycle and the state they work on.
class ZTCORE_EXPORT ZtKernel : public QObject
{
    Q_OBJECT

public:
    explicit ZtKernel(QObject *parent);
    ZtKernel(QWidget *widgetParent, QObject *parent);
    // Finalises and deletes every module that unloadModules has not retired yet: final() in the
    // module's own thread, a worker-thread module moved back to the GUI thread, then deleted.
    // All modules are finalised before the first is deleted. The worker-thread modules get
    // shutdownTimeout() ms for both steps together; a module that misses it is named (log level
    // 2 and standard error) and left where it is, with everything living on its thread.
    ~ZtKernel() override;

    void init(QObject *parent);
    int setSysSettings(SysSettings *settings);
    int setOptionsFileName(QString fileName);
    void setWidgetParent(QWidget *widget);
    QWidget *getLogger();
    int typeOfInterface(QString name);

    int loadModules(QString dir);
    void makeConnections();
    bool connMod2Mod(QStringList fields);
    // Posts applyOptions to every module, then makes each module announce its options from its
    // own thread, so that a worker module's table is read only where it is written.
    int initModules();
    // Retires every loaded module: disconnects it, calls final() (in its own thread, blocking;
    // directly for a GUI-thread module, as the destructor does), brings a worker-thread module
    // back to the GUI thread, and schedules its deletion there, so that its actions and widgets
    // die on the GUI thread. The records are left as they are; their module pointers dangle
    // once the deferred deletions ran. Retired modules are never touched again: calling this
    // twice, or destroying the kernel afterwards, is safe. Bounded like the destructor.
    int unloadModules();
    int loadTranslations(QString locale, QString dir);

    // One pointer per record (null for an empty one). Each table belongs to its module's thread:
    // read or change it there while the module runs.
    QList<QHash<QString, QVariant> *> getModulesOptions();
    void getModulesInfo(QList<QString> &info) const;

    QList<QWidget *> getWMains();
    QList<QWidget *> getWOptions();
    QList<QMenu *> getMenus();
    QList<QToolBar *> getToolBars();
    // Asks every module to refresh its widgets. A worker-thread module is asked in its own
    // thread (queued); it then posts the refresh to its widgets in the GUI thread.
    void updateWidgets();

    ComplexModule getModule(int index) const;
    int getModuleCount() const;
    QList<Propagator *> getPropagators() const;
    QList<OptiSync *> getOptiSyncs() const;
    ThreadLauncher *getThreadLauncher() const;
    Logger *getLoggerObject() const;
    SysSettings *getSysSettings() const;

    // One record per configured module number, in number order.
    QList<ModuleLoadRecord> loadRecords() const;
    // The start-up steps timed so far, in the order they ran.
    QList<StartupPhase> startupPhases() const;
    // One row per connection entry made by makeConnections, with its channel's counters now.
    QList<ChannelRow> channelRows() const;
    // How long the worker-thread modules' final() and return to the GUI thread may take at
    // shutdown, all together ([mainwindow] shutdowntimeout, default 3000 ms).
    void setShutdownTimeout(int msecs);
    int shutdownTimeout() const;

signals:
    void actStart();
    void actStart(QByteArray data);
    void actStart(QVariantList data);

private slots:
    void tryQuit();
    void cancelQuit();
    void quit();

private:
    friend class KernelWiring;
    friend class KernelWindow;

    ZtMIFound *moduleAt(int index) const;
    void log(const QString &text, int level);
    QList<ZtMIFound *> finalise(const QList<QPair<ZtMIFound *, int>> &numbered);
    void closeChannels(bool feedbackToo);
    QString moduleLabel(int index) const;
    qint64 now() const;
    int beginPhase(const QString &name, int depth = 0);
    void endPhase(int index);
    template<class Result, class Builder>
    Result timedElements(Builder build);

    QObject *parentObject;
    QWidget *widgetParent;
    SysSettings *sysSettings;
    Logger *logger;
    ThreadLauncher *threadLauncher;
    QList<ComplexModule> modules;
    QList<Propagator *> propagators;
    QList<OptiSync *> optiSyncs;
    int quitAllowed;
    int quitRequests;
    // Modules that unloadModules finalised and handed to deleteLater.
    QSet<const ZtMIFound *> m_retired;
    // Threads holding a module that missed the shutdown deadline: nothing living there is
    // deleted or waited for again.
    QSet<const QThread *> m_hungThreads;

    QElapsedTimer m_clock; // started with the kernel; every phase time is read from it
    qint64 m_settingsStart = -1;
    int m_elementsPhase = -1;
    QList<ModuleLoadRecord> m_records;
    QList<StartupPhase> m_phases;
    // One row per connection entry and the channel behind it (null: none), read at channelRows().
    QList<ChannelRow> m_rows;
    QList<Propagator *> m_rowChannels;
    int m_shutdownTimeout = 3000;
};
