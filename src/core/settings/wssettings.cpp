#include "wssettings.h"

#include "moduleoptions.h"
#include "settingsfilecheck_p.h"

#include <QDebug>
#include <QSaveFile>
#include <QWidget>

namespace {

const QString modulesGroup = QStringLiteral("modules");
const QString aliasKey = QStringLiteral(".alias");

QString moduleGroup(int id)
{
    return QStringLiteral("id_%1").arg(id);
}

// An empty alias would name "modules" itself; it counts as no alias.
QString aliasOf(const QHash<QString, QVariant> *options)
{
    return options->value(aliasKey).toString();
}

QList<QHash<QString, QVariant> *> tablesOf(const QList<ModuleOptions *> &list)
{
    QList<QHash<QString, QVariant> *> tables;
    tables.reserve(list.size());
    for (ModuleOptions *options : list)
        tables.append(options ? &options->hash : nullptr);
    return tables;
}

} // namespace

WSSettings::WSSettings(QObject *parent)
    : QSettings(parent)
{
    setIniCodec("UTF-8");
    dropDamagedValues();
}

WSSettings::WSSettings(const QString &fileName, QObject *parent)
    : QSettings(fileName, QSettings::IniFormat, parent)
{
    setIniCodec("UTF-8");
    dropDamagedValues();
}

void WSSettings::dropDamagedValues()
{
    // The base has only split the file into sections so far; values are decoded at the first
    // read. Rewriting the file and syncing makes it read the file again before that.
    const QString file = QSettings::fileName();
    if (file.isEmpty())
        return;
    const SettingsFileCheck check = SettingsFileCheck::scanFile(file);
    if (check.isClean())
        return;
    for (const SettingsFinding &finding : check.findings)
        qWarning().noquote() << finding.message();
    // One more line break, so that the size differs and sync() cannot take the file for
    // unchanged. The next save writes the file afresh anyway.
    QSaveFile out(file);
    const QByteArray text = check.cleanText + '\n';
    if (out.open(QIODevice::WriteOnly) && out.write(text) == text.size() && out.commit())
        sync();
    else
        qWarning().noquote() << QStringLiteral("Cannot rewrite %1 without its damaged values: %2")
                                    .arg(file, out.errorString());
}

QByteArray WSSettings::readMWGeometry()
{
    return readBytes(QStringLiteral("mainwindow/geometry"));
}

void WSSettings::saveMWGeometry(QByteArray geometry)
{
    saveBytes(QStringLiteral("mainwindow/geometry"), geometry);
}

QByteArray WSSettings::readMWState()
{
    return readBytes(QStringLiteral("mainwindow/state"));
}

void WSSettings::saveMWState(QByteArray state)
{
    saveBytes(QStringLiteral("mainwindow/state"), state);
}

QByteArray WSSettings::readModuleGeometry(int id, QString name)
{
    return readBytes(QStringLiteral("modules/geometry/id_%1_%2").arg(id).arg(name));
}

bool WSSettings::saveModuleGeometry(int id, QWidget *widget, QString name)
{
    if (!widget)
        return false;
    saveBytes(QStringLiteral("modules/geometry/id_%1_%2").arg(id).arg(name),
              widget->saveGeometry());
    return true;
}

bool WSSettings::readModuleSetting(int id, QHash<QString, QVariant> *options)
{
    if (!options)
        return false;
    beginGroup(modulesGroup);
    readModule(id, options);
    endGroup();
    return true;
}

bool WSSettings::saveModuleSetting(int id, QHash<QString, QVariant> *options)
{
    if (!options)
        return false;
    beginGroup(modulesGroup);
    saveModule(id, options);
    endGroup();
    sync();
    return true;
}

bool WSSettings::readModuleSetting(int id, ModuleOptions *options)
{
    return readModuleSetting(id, options ? &options->hash : nullptr);
}

bool WSSettings::saveModuleSetting(int id, ModuleOptions *options)
{
    return saveModuleSetting(id, options ? &options->hash : nullptr);
}

bool WSSettings::readAllModulesSetting(QList<QHash<QString, QVariant> *> list)
{
    beginGroup(modulesGroup);
    for (int id = 0; id < list.size(); ++id) {
        if (list.at(id))
            readModule(id, list.at(id));
    }
    endGroup();
    return true;
}

bool WSSettings::saveAllModulesSetting(QList<QHash<QString, QVariant> *> list)
{
    beginGroup(modulesGroup);
    for (int id = 0; id < list.size(); ++id) {
        if (list.at(id))
            saveModule(id, list.at(id));
    }
    endGroup();
    sync();
    return true;
}

bool WSSettings::readAllModulesSetting(QList<ModuleOptions *> list)
{
    return readAllModulesSetting(tablesOf(list));
}

bool WSSettings::saveAllModulesSetting(QList<ModuleOptions *> list)
{
    return saveAllModulesSetting(tablesOf(list));
}

QByteArray WSSettings::readBytes(const QString &key)
{
    return value(key).toByteArray();
}

void WSSettings::saveBytes(const QString &key, const QByteArray &bytes)
{
    setValue(key, bytes);
    sync();
}

void WSSettings::readModule(int id, QHash<QString, QVariant> *options)
{
    const QString idGroup = moduleGroup(id);
    beginGroup(idGroup);
    const QStringList idKeys = allKeys();
    for (const QString &key : idKeys)
        options->insert(key, value(key));
    endGroup();

    // Read after "id_<n>" so that values saved under the alias win.
    const QString alias = options->contains(aliasKey) ? aliasOf(options) : idGroup;
    if (!alias.isEmpty() && alias != idGroup) {
        beginGroup(alias);
        const QStringList aliasKeys = allKeys();
        for (const QString &key : aliasKeys)
            options->insert(key, value(key));
        endGroup();
    }
}

void WSSettings::saveModule(int id, const QHash<QString, QVariant> *options)
{
    const QString idGroup = moduleGroup(id);
    const QString alias = aliasOf(options);
    if (!alias.isEmpty()) {
        // A module keeps its values in one place: saving under the alias drops what an earlier
        // run saved under its number.
        beginGroup(idGroup);
        remove(QString());
        endGroup();
        beginGroup(alias);
    } else {
        beginGroup(idGroup);
    }
    // Cleared first, so that an option dropped from the table disappears from the file.
    remove(QString());
    for (auto it = options->constBegin(); it != options->constEnd(); ++it) {
        if (!it.key().startsWith(QLatin1Char('.')))
            setValue(it.key(), it.value());
    }
    endGroup();
}
