#include "syssettings.h"

#include "settingsfilecheck_p.h"

#include <QDebug>
#include <QDir>
#include <QTemporaryFile>

#include <algorithm>

namespace {

const QString noAliasGroup = QStringLiteral("__none__");

QString moduleGroup(int id)
{
    return QStringLiteral("id_%1").arg(id);
}

} // namespace

// What the base is opened on: the file itself, or a cleaned copy when the file holds values
// that must not be decoded. The base reads the file in its constructor, hence the check first.
struct SysSettings::Source
{
    QString fileName;
    QString readPath;
    QTemporaryFile *copy = nullptr;
    QList<SettingsFinding> damaged;

    static Source open(const QString &fileName)
    {
        Source source {fileName, fileName, nullptr, {}};
        const SettingsFileCheck check = SettingsFileCheck::scanFile(fileName);
        if (check.isClean())
            return source;
        source.damaged = check.findings;
        auto *copy
            = new QTemporaryFile(QDir::tempPath() + QStringLiteral("/ztsettings-XXXXXX.ini"));
        if (copy->open() && copy->write(check.cleanText) == check.cleanText.size()
            && copy->flush()) {
            source.readPath = copy->fileName();
            copy->close(); // the file stays until the object is deleted
            source.copy = copy;
        } else {
            // Nothing of the file can be read safely without the copy.
            delete copy;
            source.readPath.clear();
            source.damaged.append({fileName, 0, QString(),
                                   QStringLiteral("no cleaned copy could be written; the "
                                                  "whole file is ignored")});
        }
        return source;
    }
};

SysSettings::SysSettings(const QString &fileName, QObject *parent)
    : SysSettings(Source::open(fileName), parent)
{ }

SysSettings::SysSettings(Source source, QObject *parent)
    : QSettings(source.readPath, QSettings::IniFormat, parent)
    , keyFilter(QStringLiteral("^(?!#|//|;)"))
    , listSeparator(QLatin1Char(';'))
    , itemSeparator(QLatin1Char(','))
    , m_fileName(source.fileName)
    , m_damagedValues(source.damaged)
{
    setIniCodec("UTF-8");
    // The copy is removed with this object, after the base has synced on destruction.
    if (source.copy)
        source.copy->setParent(this);
    for (const SettingsFinding &finding : qAsConst(m_damagedValues))
        qWarning().noquote() << finding.message();

    beginGroup(QStringLiteral("aliases"));
    const QStringList keys = childKeys();
    for (const QString &key : keys) {
        // The first three characters are dropped whatever they are: "id_3", "zz_3" and "mod3"
        // all name module 3.
        bool ok = false;
        const int id = key.mid(3).toInt(&ok, 10);
        if (!ok)
            continue;
        const QString alias = text(value(key));
        // An empty alias would name the parent group and make the module read every module's
        // keys; such an entry names no alias.
        if (alias.isEmpty())
            continue;
        aliases.insert(id, alias);
    }
    endGroup();
}

QString SysSettings::fileName() const
{
    return m_fileName;
}

QList<SettingsFinding> SysSettings::damagedValues() const
{
    return m_damagedValues;
}

QStringList SysSettings::childGroups() const
{
    QStringList names = QSettings::childGroups().filter(keyFilter);
    // A key written as "//name" reaches the base as an unnamed group; it is commented out too.
    names.removeAll(QString());
    return names;
}

QStringList SysSettings::childKeys() const
{
    return QSettings::childKeys().filter(keyFilter);
}

QStringList SysSettings::allKeys() const
{
    return QSettings::allKeys().filter(keyFilter);
}

void SysSettings::beginGroupModule(int id)
{
    beginGroup(moduleGroup(id));
}

void SysSettings::beginGroupModuleAliased(int id)
{
    beginGroup(aliases.value(id, noAliasGroup));
}

void SysSettings::beginGroupModuleAuto(int id)
{
    QString group = moduleGroup(id);
    if (childGroups().contains(QStringLiteral("aliases"))) {
        beginGroup(QStringLiteral("aliases"));
        if (childKeys().contains(group)) {
            const QString alias = text(value(group));
            if (!alias.isEmpty())
                group = alias;
        }
        endGroup();
    }
    beginGroup(group);
}

QString SysSettings::getSysSettingFileName()
{
    return mainWindowText(QStringLiteral("cfgfile"), QString());
}

QString SysSettings::getTitle()
{
    QString title = mainWindowText(QStringLiteral("title"), QString());
    if (!title.isEmpty())
        title += QLatin1String(" - ");
    return title + mainWindowText(QStringLiteral("subtitle"), QString());
}

QString SysSettings::getLoggerFile()
{
    return mainWindowText(QStringLiteral("loggerfile"), QString());
}

int SysSettings::getLoggerLevel(bool *ok)
{
    return mainWindowInt(QStringLiteral("loggerlevel"), ok);
}

int SysSettings::getLoggerBlockCount(bool *ok)
{
    return mainWindowInt(QStringLiteral("loggersize"), ok);
}

QString SysSettings::readVersion()
{
    return mainWindowText(QStringLiteral("version"), QStringLiteral("Unknown"));
}

QString SysSettings::readMenuLabel(QString key)
{
    return textFromGroup(QStringLiteral("mwelements/menus"), key);
}

QString SysSettings::readMenuName(QString key)
{
    return textFromGroup(QStringLiteral("mwelements/menunames"), key);
}

QString SysSettings::readToolBarLabel(QString key)
{
    return textFromGroup(QStringLiteral("mwelements/toolbars"), key);
}

QString SysSettings::readToolBarName(QString key)
{
    return textFromGroup(QStringLiteral("mwelements/toolbarnames"), key);
}

QStringList SysSettings::readMenus()
{
    beginGroup(QStringLiteral("mwelements"));
    beginGroup(QStringLiteral("menus"));
    const QStringList values = sortedValues();
    endGroup();
    endGroup();
    return values;
}

QStringList SysSettings::readToolBars()
{
    beginGroup(QStringLiteral("mwelements"));
    beginGroup(QStringLiteral("toolbars"));
    const QStringList values = sortedValues();
    endGroup();
    endGroup();
    return values;
}

bool SysSettings::isModuleNameContains(int id)
{
    const QString nameKey = QStringLiteral(".name");
    beginGroup(QStringLiteral("modules"));
    beginGroupModule(id);
    if (!contains(nameKey) && aliases.contains(id)) {
        endGroup();
        beginGroup(aliases.value(id));
    }
    const bool found = contains(nameKey);
    endGroup();
    endGroup();
    return found;
}

QString SysSettings::readModuleName(int id)
{
    return stringValueFromGroupForModule(QStringLiteral(".name"), QStringLiteral("modules"), id,
                                         QString());
}

int SysSettings::readModuleThread(int id)
{
    const QVariant thread = valueFromGroupForModule(QStringLiteral(".thread"),
                                                    QStringLiteral("modules"), id, QVariant());
    if (!thread.isValid())
        return -1;
    return thread.toInt();
}

QVariant SysSettings::readModuleOption(int id, QString option)
{
    return valueFromGroupForModule(option, QStringLiteral("modules"), id, QVariant());
}

bool SysSettings::readModuleSetting(int id, QHash<QString, QVariant> *settings)
{
    if (!settings)
        return false;

    beginGroup(QStringLiteral("modules"));
    beginGroupModule(id);
    const QStringList idKeys = allKeys();
    for (const QString &key : idKeys)
        settings->insert(key, value(key));
    endGroup();

    // The alias group is read second so that its values win here, unlike
    // valueFromGroupForModule() where "id_<n>" wins. Existing configurations rely on both.
    beginGroupModuleAliased(id);
    const QStringList aliasKeys = allKeys();
    for (const QString &key : aliasKeys)
        settings->insert(key, value(key));
    endGroup();
    endGroup();

    // Read from the file, not from the alias map: an edit of "aliases" since construction shows.
    const QString group = moduleGroup(id);
    beginGroup(QStringLiteral("aliases"));
    if (contains(group))
        settings->insert(QStringLiteral(".alias"), text(value(group)));
    else
        settings->insert(QStringLiteral(".alias"), group);
    endGroup();
    return true;
}

QString SysSettings::readModuleWMain(int id)
{
    return stringValueFromGroupForModule(QStringLiteral("wmain"), QStringLiteral("widgets"), id,
                                         QString());
}

QString SysSettings::readModuleWMainObjName(int id)
{
    return stringValueFromGroupForModule(QStringLiteral("wmainobjname"), QStringLiteral("widgets"),
                                         id, QString());
}

QString SysSettings::readModuleWOptions(int id)
{
    return stringValueFromGroupForModule(QStringLiteral("woptions"), QStringLiteral("widgets"), id,
                                         QString());
}

QString SysSettings::readModuleWOptionsAct(int id)
{
    return stringValueFromGroupForModule(QStringLiteral("actnamewoptions"),
                                         QStringLiteral("widgets"), id, QString());
}

QString SysSettings::readModuleWOptionsStatusTip(int id)
{
    return stringValueFromGroupForModule(QStringLiteral("woptionsstatustip"),
                                         QStringLiteral("widgets"), id, QString());
}

bool SysSettings::isModuleMainLayout(int id)
{
    return boolValueFromGroupForModule(QStringLiteral("ismainlayout"), QStringLiteral("widgets"),
                                       id, false);
}

bool SysSettings::isModuleWOptionsDialog(int id)
{
    return boolValueFromGroupForModule(QStringLiteral("woptionsdialog"), QStringLiteral("widgets"),
                                       id, false);
}

QStringList SysSettings::readActions()
{
    beginGroup(QStringLiteral("actions"));
    beginGroup(QStringLiteral("mw"));
    const QStringList keys = allKeys();
    endGroup();
    endGroup();
    return replaceAliasesToId(keys, QString(), QString(itemSeparator), QString());
}

QStringList SysSettings::readMenusActions(QString menu)
{
    beginGroup(QStringLiteral("actions"));
    beginGroup(QStringLiteral("mwMenus"));
    beginGroup(menu);
    const QStringList values = sortedValues();
    endGroup();
    endGroup();
    endGroup();
    return replaceAliasesToId(values, QString(), QString(itemSeparator), QString());
}

QStringList SysSettings::readToolBarsActions(QString toolbar)
{
    beginGroup(QStringLiteral("actions"));
    beginGroup(QStringLiteral("mwToolBars"));
    beginGroup(toolbar);
    const QStringList values = sortedValues();
    endGroup();
    endGroup();
    endGroup();
    return replaceAliasesToId(values, QString(), QString(itemSeparator), QString());
}

QStringList SysSettings::readConnections()
{
    beginGroup(QStringLiteral("connections"));
    const QStringList values = sortedValues();
    endGroup();
    // Module aliases first ("gen;" -> "id_2;"), then action aliases ("act:gen," -> "actid_2,").
    const QStringList modules
        = replaceAliasesToId(values, QStringLiteral("id_"), QString(listSeparator), QString());
    return replaceAliasesToId(modules, QStringLiteral("actid_"), QString(itemSeparator),
                              QStringLiteral("act:"));
}

QVariant SysSettings::valueFromGroupForModule(QString key, QString group, int id,
                                              const QVariant &defaultValue)
{
    beginGroup(group);
    beginGroupModule(id);
    if (!contains(key)) {
        endGroup();
        beginGroupModuleAliased(id);
    }
    const QVariant result = value(key, defaultValue);
    endGroup();
    endGroup();
    return result;
}

QString SysSettings::stringValueFromGroupForModule(QString key, QString group, int id,
                                                   const QString &defaultValue)
{
    return text(valueFromGroupForModule(key, group, id, QVariant(defaultValue)));
}

bool SysSettings::boolValueFromGroupForModule(QString key, QString group, int id,
                                              const bool &defaultValue)
{
    return valueFromGroupForModule(key, group, id, QVariant(defaultValue)).toBool();
}

QStringList SysSettings::replaceAliasesToId(QStringList list, QString idPrefix, QString terminator,
                                            QString aliasPrefix)
{
    for (QString &entry : list) {
        for (auto it = aliases.constBegin(); it != aliases.constEnd(); ++it) {
            const QString key = aliasPrefix + it.value() + terminator;
            const QString replacement = idPrefix + QString::number(it.key()) + terminator;
            // Either the leading field or the inner ones, never both: a later occurrence in an
            // entry whose start was rewritten for the same alias stays as written.
            if (entry.startsWith(key)) {
                entry.replace(0, key.length(), replacement);
                continue;
            }
            for (const QChar separator : {listSeparator, itemSeparator}) {
                const QString field = separator + key;
                if (entry.contains(field))
                    entry.replace(field, separator + replacement);
            }
        }
    }
    return list;
}

QString SysSettings::text(const QVariant &value)
{
    if (value.userType() == QMetaType::QStringList)
        return value.toStringList().join(QLatin1Char(','));
    return value.toString();
}

QString SysSettings::mainWindowText(const QString &key, const QString &defaultValue)
{
    beginGroup(QStringLiteral("mainwindow"));
    const QString result = contains(key) ? text(value(key)) : defaultValue;
    endGroup();
    return result;
}

int SysSettings::mainWindowInt(const QString &key, bool *ok)
{
    beginGroup(QStringLiteral("mainwindow"));
    const bool present = contains(key);
    // A value that is not a number still counts as configured: 0 with *ok true.
    const int result = present ? value(key).toInt() : 0;
    endGroup();
    if (ok)
        *ok = present;
    return result;
}

QString SysSettings::textFromGroup(const QString &group, const QString &key)
{
    beginGroup(group);
    const QString result = text(value(key));
    endGroup();
    return result;
}

QStringList SysSettings::sortedValues()
{
    QStringList keys = allKeys();
    std::sort(keys.begin(), keys.end());
    QStringList values;
    values.reserve(keys.size());
    for (const QString &key : qAsConst(keys))
        values.append(text(value(key)));
    return values;
}

SysSettings::ModuleEntry SysSettings::readModuleEntry(int id)
{
    const QString nameKey = QStringLiteral(".name");
    const QString threadKey = QStringLiteral(".thread");
    QHash<QString, QVariant> own; // under "id_<n>"
    QHash<QString, QVariant> aliased; // under the module's alias
    beginGroup(QStringLiteral("modules"));
    beginGroupModule(id);
    const QStringList idKeys = allKeys();
    for (const QString &key : idKeys)
        own.insert(key, value(key));
    endGroup();
    beginGroupModuleAliased(id);
    const QStringList aliasKeys = allKeys();
    for (const QString &key : aliasKeys)
        aliased.insert(key, value(key));
    endGroup();
    endGroup();

    ModuleEntry entry;
    entry.found = own.contains(nameKey) || (aliases.contains(id) && aliased.contains(nameKey));
    // As in valueFromGroupForModule(): "id_<n>" wins.
    const auto either = [&own, &aliased](const QString &key, const QVariant &defaultValue) {
        const auto it = own.constFind(key);
        return it != own.constEnd() ? it.value() : aliased.value(key, defaultValue);
    };
    entry.name = text(either(nameKey, QVariant(QString())));
    const QVariant thread = either(threadKey, QVariant());
    entry.thread = thread.isValid() ? thread.toInt() : -1;

    // As in readModuleSetting(): the alias group wins.
    entry.settings = own;
    for (auto it = aliased.constBegin(); it != aliased.constEnd(); ++it)
        entry.settings.insert(it.key(), it.value());
    const QString group = moduleGroup(id);
    beginGroup(QStringLiteral("aliases"));
    entry.settings.insert(QStringLiteral(".alias"), contains(group) ? text(value(group)) : group);
    endGroup();
    return entry;
}
