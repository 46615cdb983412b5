#pragma once

#include "ztcore_export.h"

#include <QByteArray>
#include <QList>
#include <QObject>
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
// end it destroys the kernel (or calls unloadModules, never both for one set of modules).
//
// Lives on the GUI thread and takes no locks. Owns its settings (when it created them), its
// logger (until re-parented to the widget parent), the module objects, and every propagator and
// options synchroniser it creates. The thread launcher is a child of the parent object, not of
// the kernel, and outlives it. Failures are reported through the log and debug lines, never
// thrown; host-facing operations return 0.
class ZTCORE_EXPORT ZtKernel : public QObject
{
    Q_OBJECT

public:
    explicit ZtKernel(QObject *parent);
    ZtKernel(QWidget *widgetParent, QObject *parent);
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
    int initModules();
    int unloadModules();
    int loadTranslations(QString locale, QString dir);

    QList<QHash<QString, QVariant> *> getModulesOptions();
    void getModulesInfo(QList<QString> &info) const;

    QList<QWidget *> getWMains();
    QList<QWidget *> getWOptions();
    QList<QMenu *> getMenus();
    QList<QToolBar *> getToolBars();
    void updateWidgets();

    ComplexModule getModule(int index) const;
    int getModuleCount() const;
    QList<Propagator *> getPropagators() const;
    QList<OptiSync *> getOptiSyncs() const;
    ThreadLauncher *getThreadLauncher() const;
    Logger *getLoggerObject() const;
    SysSettings *getSysSettings() const;

signals:
    void actStart();
    void actStart(QByteArray data);
    void actStart(QVariantList data);

private slots:
    void tryQuit();
    void cancelQuit();
    void quit();

private:
    ZtMIFound *moduleAt(int index) const;
    void log(const QString &text, int level);
    void addModuleActions(QWidget *container, const QString &key, const QStringList &entries,
                          bool rangeCheck, const QString &missingAction);
    void makeOptionsSync(const QStringList &fields);
    void makeLoggerLink(const QStringList &fields);
    void makeActionLink(const QStringList &fields);
    bool connStreamToStream(const QStringList &fields, int a, int b);
    bool connStreamToExtended(const QStringList &fields, int a, int b);
    bool connExtendedToStream(const QStringList &fields, int a, int b);
    bool connExtendedToExtended(const QStringList &fields, int a, int b);
    bool connFeedback(const QStringList &fields, int a, int b);
    bool plugInto(int id, const QString &name, Propagator *pg, bool feedback);
    bool unknownIdentifier(const QString &field);
    Propagator *targetStream(int b, const QString &name);
    void keep(Propagator *pg);

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
};
