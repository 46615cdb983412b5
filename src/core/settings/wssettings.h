#pragma once

#include "ztcore_export.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QSettings>
#include <QString>
#include <QVariant>

class ModuleOptions;
class QWidget;

// The host's store for what changes while the system runs and must survive a restart: the main
// window's geometry and state, module widget geometry and every module's option values. The
// library never calls it; the host reads it at start and saves when things change. Every save
// syncs at once.
//
// A module's options live under "modules/<alias>" when its table carries a non-empty ".alias",
// else under "modules/id_<n>". Options whose names begin with "." come from the system settings
// file and are never written back. Values are read back as the base gives them (mostly strings
// for an INI file); converting them is the module's business.
//
// A value that QSettings could not decode without risk (a damaged @Variant(...), see
// SettingsFileCheck) is dropped from the file when the object is created, with a warning that
// names the file and line; it then reads as absent, as if it had never been saved.
//
// GUI thread only, no locks: the caller must not let a worker-thread module change its options
// table while it is read or saved here.
class ZTCORE_EXPORT WSSettings : public QSettings
{
    Q_OBJECT

public:
    // The platform's default format and place for the application's organisation and name.
    explicit WSSettings(QObject *parent = nullptr);
    // An INI file at the given path; the form the kernel's hosts use.
    explicit WSSettings(const QString &fileName, QObject *parent = nullptr);

    QByteArray readMWGeometry();
    void saveMWGeometry(QByteArray geometry);
    QByteArray readMWState();
    void saveMWState(QByteArray state);

    QByteArray readModuleGeometry(int id, QString name);
    bool saveModuleGeometry(int id, QWidget *widget, QString name);

    // The raw-table forms are the implementation; modules hand out their tables as
    // QHash<QString, QVariant>* (ZtMIFound::getOptions()).
    bool readModuleSetting(int id, QHash<QString, QVariant> *options);
    bool saveModuleSetting(int id, QHash<QString, QVariant> *options);
    bool readModuleSetting(int id, ModuleOptions *options);
    bool saveModuleSetting(int id, ModuleOptions *options);

    // The list is indexed by module identifier; null entries are skipped.
    bool readAllModulesSetting(QList<QHash<QString, QVariant> *> list);
    bool saveAllModulesSetting(QList<QHash<QString, QVariant> *> list);
    bool readAllModulesSetting(QList<ModuleOptions *> list);
    bool saveAllModulesSetting(QList<ModuleOptions *> list);

private:
    void dropDamagedValues();
    QByteArray readBytes(const QString &key);
    void saveBytes(const QString &key, const QByteArray &bytes);
    // Both expect "modules" to be open and leave it open.
    void readModule(int id, QHash<QString, QVariant> *options);
    void saveModule(int id, const QHash<QString, QVariant> *options);
};
