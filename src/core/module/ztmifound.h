#pragma once

#include "ztcore_export.h"
#include "logger.h"
#include "modlocker.h"
#include "moduleoptions.h"

#include <QHash>
#include <QMetaType>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantList>

class QAction;
class QWidget;
class WAbstractMain;
class WAbstractOptions;

// The base of every hosted module. It owns the module's identifier, its named options, its named
// actions, the widgets it offers to the host window, an error text and the module's lock.
// The kernel drives it: instance() -> setup() -> configured options -> connections -> widgets ->
// initWidgets() + init() -> applyOptions() + sendOptions -> ... -> final() -> delete.
//
// Plug-ins are compiled against the order of the members, virtual operations, signals and slots
// below; keep it.
class ZTCORE_EXPORT ZtMIFound : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool isneedthreadgui READ isNeedThreadGui)
    Q_PROPERTY(ModType mt READ getModType)

public:
    enum ModType { ModFound = -1, ModStream = 0, ModExtended = 1 };
    Q_ENUM(ModType)

    explicit ZtMIFound(int id, QObject *parent = nullptr);
    // Copies identifier, kind flags, options and the action pointers; the copy has no widgets,
    // no error text and a lock of its own. A subclass that copies modules must give the copy
    // its own actions: each module deletes the actions in its table.
    ZtMIFound(const ZtMIFound &other, QObject *parent = nullptr);
    ~ZtMIFound() override;

    virtual QHash<QString, QAction *> *getActions();
    virtual QHash<QString, QVariant> *getOptions();
    virtual QAction *getAction(QString name);
    virtual QVariant getOption(QString name);
    virtual bool setOption(QString name, QVariant value);
    virtual QString errorString();
    virtual bool initWidgets(QWidget *parent);
    virtual QWidget *getWMain(QWidget *parent);
    virtual QWidget *getWOptions(QWidget *parent);
    virtual QWidget *getWState(QWidget *parent);

    // Second phase of construction, called by the kernel right after instance().
    void setup();
    void initInterface(QObject *parent);

    int getId() const;
    ModLocker *getLocker();
    bool isNeedThreadGui() const;
    ModType getModType() const;

signals:
    void state(QString str, Logger::Level level);
    void state(QString str);
    void closeWMain();
    void closeWOptions();
    void sendOptions(ModuleOptions);

public slots:
    virtual bool init();
    virtual void final();
    virtual void updateWMain();
    virtual void updateWOptions();
    virtual void setOptionsFromList(const QVariantList &data);
    virtual void recvOptions(ModuleOptions opts);
    virtual void applyOptions();
    void actForOptionsChanged();
    void moveMeToTheMainThread();

protected:
    virtual void initOptions();
    virtual void createActions();

    int id;
    bool isneedthreadgui;
    ModType mt;
    WAbstractMain *wMain;
    WAbstractOptions *wOptions;
    QWidget *wState;
    QHash<QString, QVariant> options;
    QHash<QString, QAction *> actions;
    QString errString;
    ModLocker locker;
};
