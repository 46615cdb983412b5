#pragma once

#include "settingsfinding.h"
#include "ztcore_export.h"

#include <QChar>
#include <QHash>
#include <QList>
#include <QMap>
#include <QRegExp>
#include <QSettings>
#include <QString>
#include <QStringList>
#include <QVariant>

// Read-only view of the system settings file: the INI file from which the kernel learns which
// modules to load, on which threads, with which widgets, menus, tool bars, actions and
// connections. Module groups may be named "id_<n>" or by the module's alias from the "aliases"
// group; entries that name modules by alias are rewritten to identifiers before they are handed
// out.
//
// Every walk over names skips those that begin with "#", "//" or ";", so that a user can comment
// out a key or group by prefixing it. A value asked for by its exact key is not filtered.
//
// A value that QSettings could not decode without risk (a damaged @Variant(...), see
// SettingsFileCheck) reads as absent: the object then reads a cleaned copy of the file, which
// lives as long as the object does, and damagedValues() says what was left out and where, for the
// owner to report. Everything else in the file reads as usual.
//
// Every read opens its groups and closes exactly as many before returning; only the
// beginGroupModule* helpers leave one group open for the caller. Lives on the thread that
// created it (the GUI thread) and takes no locks: the open-group state is per object.
class ZTCORE_EXPORT SysSettings : public QSettings
{
    Q_OBJECT

public:
    explicit SysSettings(const QString &fileName, QObject *parent = nullptr);

    // The file given to the constructor, also when the base reads a cleaned copy of it. Hides
    // the base's (non-virtual) operation of the same name.
    QString fileName() const;
    // Values of the file that were refused and read as absent; empty for a sound file.
    QList<SettingsFinding> damagedValues() const;

    // The base's name lists with commented-out names removed. These hide the base's
    // (non-virtual) operations of the same names.
    QStringList childGroups() const;
    QStringList childKeys() const;
    QStringList allKeys() const;

    void beginGroupModule(int id);
    // Opens "__none__", a group that never exists, when the module has no alias, so that reads
    // below it find nothing.
    void beginGroupModuleAliased(int id);
    // Asks the file rather than the alias map, and looks for "aliases" below the group that is
    // open at the time of the call.
    void beginGroupModuleAuto(int id);

    QString getSysSettingFileName();
    QString getTitle();
    QString getLoggerFile();
    int getLoggerLevel(bool *ok = nullptr);
    int getLoggerBlockCount(bool *ok = nullptr);
    QString readVersion();

    QString readMenuLabel(QString key);
    QString readMenuName(QString key);
    QString readToolBarLabel(QString key);
    QString readToolBarName(QString key);
    QStringList readMenus();
    QStringList readToolBars();

    bool isModuleNameContains(int id);
    QString readModuleName(int id);
    int readModuleThread(int id);
    QVariant readModuleOption(int id, QString option);
    // Adds every option of the module to the table without clearing it first; values under the
    // alias group replace those under "id_<n>". Also sets ".alias" to the module's alias, or to
    // "id_<n>" when it has none.
    bool readModuleSetting(int id, QHash<QString, QVariant> *settings);
    // What the kernel reads about module `id` when it loads it, from one walk of the module's
    // groups instead of one per question: `found` answers isModuleNameContains(), `name`
    // readModuleName(), `thread` readModuleThread(), and `settings` holds what
    // readModuleSetting() adds.
    struct ModuleEntry
    {
        bool found = false;
        QString name;
        int thread = -1;
        QHash<QString, QVariant> settings;
    };
    ModuleEntry readModuleEntry(int id);

    QString readModuleWMain(int id);
    QString readModuleWMainObjName(int id);
    QString readModuleWOptions(int id);
    QString readModuleWOptionsAct(int id);
    QString readModuleWOptionsStatusTip(int id);
    bool isModuleMainLayout(int id);
    bool isModuleWOptionsDialog(int id);

    QStringList readActions();
    QStringList readMenusActions(QString menu);
    QStringList readToolBarsActions(QString toolbar);
    QStringList readConnections();

    // A key under "id_<n>" wins over the same key under the module's alias.
    QVariant valueFromGroupForModule(QString key, QString group, int id,
                                     const QVariant &defaultValue);
    QString stringValueFromGroupForModule(QString key, QString group, int id,
                                          const QString &defaultValue);
    bool boolValueFromGroupForModule(QString key, QString group, int id, const bool &defaultValue);

    // Rewrites aliasPrefix + alias + terminator to idPrefix + identifier + terminator wherever it
    // stands as a whole field: at the start of an entry or right after ';' or ','.
    QStringList replaceAliasesToId(QStringList list, QString idPrefix, QString terminator,
                                   QString aliasPrefix);

private:
    struct Source;
    SysSettings(Source source, QObject *parent);

    // An unquoted ',' in an INI value makes the base return a string list, whose toString() is
    // empty; this gives back the text as written (parts joined by ',', blanks around the commas
    // lost). Every read of a value as text goes through it.
    static QString text(const QVariant &value);
    QString mainWindowText(const QString &key, const QString &defaultValue);
    int mainWindowInt(const QString &key, bool *ok);
    QString textFromGroup(const QString &group, const QString &key);
    // Values of the filtered keys below the open group, in case-sensitive key order.
    QStringList sortedValues();

    QMap<int, QString> aliases;
    QRegExp keyFilter;
    QChar listSeparator;
    QChar itemSeparator;
    QString m_fileName;
    QList<SettingsFinding> m_damagedValues;
};
