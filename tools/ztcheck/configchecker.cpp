#include "configchecker.h"

#include "inilocator.h"

#include <connectionoptions.h>
#include <syssettings.h>
#include <ztliblevelinterface.h>
#include <ztmiextended.h>
#include <ztmifound.h>
#include <ztmistream.h>
#include <ztmodulemetadata.h>

#include <QAction>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QMetaMethod>
#include <QMetaObject>
#include <QPluginLoader>
#include <QRegularExpression>
#include <QSet>

#include <algorithm>
#include <map>

QString Finding::format() const
{
    QString result
        = QStringLiteral("%1:%2: %3: %4")
              .arg(file)
              .arg(line)
              .arg(severity == Error ? QStringLiteral("error") : QStringLiteral("warning"), text);
    if (!hint.isEmpty())
        result += QStringLiteral(" (%1)").arg(hint);
    return result;
}

QJsonObject Finding::toJson() const
{
    return QJsonObject {{QStringLiteral("file"), file},
                        {QStringLiteral("line"), line},
                        {QStringLiteral("severity"),
                         severity == Error ? QStringLiteral("error") : QStringLiteral("warning")},
                        {QStringLiteral("code"), code},
                        {QStringLiteral("text"), text},
                        {QStringLiteral("hint"), hint}};
}

namespace {

const QString idPrefix = QStringLiteral("id_");
const QString signalPrefix = QStringLiteral("signal_");
const QString slotPrefix = QStringLiteral("slot_");

// "id_12" -> 12, as the kernel reads module numbers; -1 for anything that is not one.
int numberOf(const QString &field)
{
    bool ok = false;
    const int n = field.mid(3).toInt(&ok);
    return ok && n >= 0 ? n : -1;
}

// The text of a value as the library reads it: an unquoted ',' made the base return a list.
QString text(const QVariant &value)
{
    if (value.type() == QVariant::StringList)
        return value.toStringList().join(QLatin1Char(','));
    return value.toString();
}

// Edit distance with swapped neighbours counting as one edit (the commonest typo), ignoring case.
int distance(const QString &a, const QString &b)
{
    const QString x = a.toLower();
    const QString y = b.toLower();
    const int n = x.size();
    const int m = y.size();
    QVector<QVector<int>> d(n + 1, QVector<int>(m + 1));
    for (int i = 0; i <= n; ++i)
        d[i][0] = i;
    for (int j = 0; j <= m; ++j)
        d[0][j] = j;
    for (int i = 1; i <= n; ++i) {
        for (int j = 1; j <= m; ++j) {
            const int cost = x.at(i - 1) == y.at(j - 1) ? 0 : 1;
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + cost});
            if (i > 1 && j > 1 && x.at(i - 1) == y.at(j - 2) && x.at(i - 2) == y.at(j - 1))
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
        }
    }
    return d[n][m];
}

// The candidate closest to `word`, if it is close enough to be what was meant.
QString closest(const QString &word, const QStringList &candidates)
{
    QString best;
    // Nobody mistypes a name of that length; the bound keeps the quadratic distance cheap.
    if (word.size() > 64)
        return best;
    int bestDistance = std::max(2, int(word.size()) / 3) + 1;
    for (const QString &candidate : candidates) {
        if (candidate.size() > 64)
            continue;
        const int d = distance(word, candidate);
        if (d < bestDistance) {
            best = candidate;
            bestDistance = d;
        }
    }
    return best;
}

QString didYouMean(const QString &word, const QStringList &candidates)
{
    const QString best = closest(word, candidates);
    return best.isEmpty() ? QString() : QStringLiteral("did you mean \"%1\"?").arg(best);
}

bool commentedOut(const QString &key)
{
    static const QRegularExpression re(QStringLiteral("(^|/)(#|;)|//|^/"));
    return re.match(key).hasMatch();
}

// Gives the protected propagator tables of an extended module to the checker, through member
// pointers (no object of this type is ever made).
struct PropagatorNames : ZtMIExtended
{
    static QStringList of(ZtMIExtended *module, bool feedback)
    {
        QStringList names = feedback ? (module->*(&PropagatorNames::feedbacks)).hash.keys()
                                     : (module->*(&PropagatorNames::streams)).hash.keys();
        names.sort();
        return names;
    }
};

QStringList methodNames(const QMetaObject *meta, QMetaMethod::MethodType type)
{
    QStringList names;
    for (int i = 0; i < meta->methodCount(); ++i) {
        const QMetaMethod method = meta->method(i);
        if (method.methodType() == type)
            names.append(QString::fromLatin1(method.methodSignature()));
    }
    return names;
}

QByteArray normalised(const QString &signature)
{
    return QMetaObject::normalizedSignature(signature.toLatin1().constData());
}

// A library's instance() hands the module over as a ZtMIStream* or ZtMIExtended* variant.
ZtMIFound *moduleFromVariant(const QVariant &value, int kind)
{
    if (!value.isValid())
        return nullptr;
    if (QMetaType::typeFlags(value.userType()) & QMetaType::PointerToQObject)
        return qobject_cast<ZtMIFound *>(value.value<QObject *>());
    if (kind == 0)
        return value.value<ZtMIStream *>();
    return value.value<ZtMIExtended *>();
}

} // namespace

class ConfigChecker::Private
{
public:
    struct Module
    {
        bool named = false;
        QString library;
        int thread = -1;
        int kind = -2; // 0 stream, 1 extended, -1 unknown kind, -2 not known (not loaded)
        ZtMIFound *object = nullptr;
    };

    QString fileName;
    QString modulesDir;
    QString error;
    IniLocator ini;
    std::unique_ptr<SysSettings> settings;
    QMap<int, QString> aliases;
    std::map<int, Module> modules;
    int loadedCount = 0;
    QList<Finding> findings;
    QList<CheckedConnection> connections;
    QList<QPluginLoader *> loaders;

    ~Private()
    {
        for (auto &entry : modules)
            delete entry.second.object;
        // The libraries stay loaded (the loaders never unload): module code may still be
        // referenced by Qt's type registry.
        qDeleteAll(loaders);
    }

    void add(Finding::Severity severity, int line, const QString &code, const QString &text,
             const QString &hint = QString())
    {
        findings.append({fileName, line, severity, code, text, hint});
    }
    void fault(int line, const QString &code, const QString &text, const QString &hint = {})
    {
        add(Finding::Error, line, code, text, hint);
    }
    void warning(int line, const QString &code, const QString &text, const QString &hint = {})
    {
        add(Finding::Warning, line, code, text, hint);
    }

    bool withModules() const { return !modulesDir.isEmpty(); }
    bool loaded(int id) const { return id >= 0 && id < loadedCount; }
    const Module *module(int id) const
    {
        const auto it = modules.find(id);
        return it == modules.end() ? nullptr : &it->second;
    }
    ZtMIFound *object(int id) const
    {
        const Module *m = module(id);
        return m && loaded(id) ? m->object : nullptr;
    }
    int kindOf(int id) const
    {
        const Module *m = module(id);
        return m && loaded(id) ? m->kind : -2;
    }
    QString describe(int id) const
    {
        const QString alias = aliases.value(id);
        return alias.isEmpty() ? QStringLiteral("module %1").arg(id)
                               : QStringLiteral("module %1 (%2)").arg(id).arg(alias);
    }
    // The line of a module's key in `group` ("modules", "widgets"): under "id_<n>" first, as
    // the kernel reads it, else under the alias; else where the module's group starts.
    int moduleLine(const QString &group, int id, const QString &key = QString()) const
    {
        const QString idGroup = group + QStringLiteral("/id_%1").arg(id);
        const QString aliasGroup = group + QLatin1Char('/') + aliases.value(id);
        if (!key.isEmpty()) {
            if (const int line = ini.lineOf(idGroup + QLatin1Char('/') + key))
                return line;
            if (aliases.contains(id)) {
                if (const int line = ini.lineOf(aliasGroup + QLatin1Char('/') + key))
                    return line;
            }
        }
        if (const int line = ini.lineOfGroup(idGroup))
            return line;
        return aliases.contains(id) ? ini.lineOfGroup(aliasGroup) : 0;
    }
    // Values of the filtered keys below a group path, with their keys, in key order.
    QList<QPair<QString, QString>> sortedEntries(const QStringList &groups)
    {
        for (const QString &group : groups)
            settings->beginGroup(group);
        QStringList keys = settings->allKeys();
        std::sort(keys.begin(), keys.end());
        QList<QPair<QString, QString>> result;
        for (const QString &key : qAsConst(keys))
            result.append({key, text(settings->value(key))});
        for (int i = 0; i < groups.size(); ++i)
            settings->endGroup();
        return result;
    }
    QStringList childGroups(const QString &group)
    {
        settings->beginGroup(group);
        const QStringList groups = settings->childGroups();
        settings->endGroup();
        return groups;
    }

    void checkText();
    void checkMainWindow();
    void readAliases();
    void checkModules();
    void loadModule(int id, Module &m);
    void checkModuleGroups(const QString &group);
    void checkWidgets();
    void checkMenus();
    void checkMenuEntries(const QString &what, const QString &name, const QString &group);
    void checkConnections();
    void checkConnection(CheckedConnection &c);
    void checkAction(CheckedConnection &c, const QStringList &fields);
    int moduleRef(const QString &field, int line, const QString &where);
    bool aliasNotRewritten(const QString &word, int line, const QString &entry);
    void checkSignal(int id, const QString &field, int line, const QString &entry);
    void checkSlot(int id, const QString &field, int line, const QString &entry);
    bool checkPropagator(int id, const QString &name, bool feedback, int line,
                         const QString &entry);
    void checkSyncNames(const CheckedConnection &c, const QStringList &fields);
    void checkOptions();
    QStringList takenOptions(int id);
};

ConfigChecker::ConfigChecker(const QString &fileName, const QString &modulesDir)
    : d(new Private)
{
    d->fileName = fileName;
    d->modulesDir = modulesDir;
}

ConfigChecker::~ConfigChecker() = default;

QString ConfigChecker::errorString() const
{
    return d->error;
}

QList<Finding> ConfigChecker::findings() const
{
    return d->findings;
}

bool ConfigChecker::hasErrors() const
{
    return std::any_of(d->findings.cbegin(), d->findings.cend(),
                       [](const Finding &f) { return f.severity == Finding::Error; });
}

bool ConfigChecker::modulesChecked() const
{
    return d->withModules();
}

QList<CheckedConnection> ConfigChecker::connections() const
{
    return d->connections;
}

QList<CheckedModule> ConfigChecker::modules() const
{
    QList<CheckedModule> result;
    for (const auto &entry : d->modules) {
        const Private::Module &m = entry.second;
        if (!m.named)
            continue;
        CheckedModule checked;
        checked.id = entry.first;
        checked.alias = d->aliases.value(entry.first);
        checked.library = m.library;
        checked.thread = m.thread;
        checked.kind = m.kind == 0 ? QStringLiteral("stream")
            : m.kind == 1          ? QStringLiteral("extended")
            : m.kind == -1         ? QStringLiteral("unknown kind")
                                   : QString();
        checked.loaded = d->loaded(entry.first);
        result.append(checked);
    }
    return result;
}

bool ConfigChecker::run()
{
    QFile file(d->fileName);
    if (!file.open(QIODevice::ReadOnly)) {
        d->error = file.errorString();
        return false;
    }
    d->ini = IniLocator::fromText(file.readAll());
    file.close();
    d->settings.reset(new SysSettings(d->fileName));

    d->checkText();
    d->checkMainWindow();
    d->readAliases();
    d->checkModules();
    d->checkWidgets();
    d->checkMenus();
    d->checkConnections();
    d->checkOptions();

    std::stable_sort(d->findings.begin(), d->findings.end(),
                     [](const Finding &a, const Finding &b) { return a.line < b.line; });
    return true;
}

// What is wrong with the text itself, before any meaning: lines QSettings ignores, values it
// refuses, keys set twice, entries that an unquoted ';' cut short.
void ConfigChecker::Private::checkText()
{
    for (int line : qAsConst(ini.strayLines))
        warning(line, QStringLiteral("stray-line"),
                QStringLiteral("this line is neither [group], key=value nor a ';' comment; it "
                               "is ignored"),
                QStringLiteral("start comment lines with ';'"));
    for (const SettingsFinding &damaged : settings->damagedValues())
        fault(damaged.line, QStringLiteral("damaged-value"),
              QStringLiteral("value of \"%1\" cannot be read safely and is ignored: %2")
                  .arg(damaged.key, damaged.reason));

    QHash<QString, int> seen;
    for (const IniLocator::Entry &entry : qAsConst(ini.entries)) {
        if (commentedOut(entry.key))
            continue;
        const auto earlier = seen.constFind(entry.path);
        if (earlier != seen.cend())
            warning(entry.line, QStringLiteral("duplicate-key"),
                    QStringLiteral("\"%1\" is set again; the value on line %2 is lost")
                        .arg(entry.path)
                        .arg(*earlier));
        seen.insert(entry.path, entry.line);

        const bool entryGroup = entry.path.startsWith(QLatin1String("connections/"))
            || entry.path.startsWith(QLatin1String("actions/"))
            || entry.path.startsWith(QLatin1String("mwelements/"));
        if (entry.cut && entryGroup) {
            const QString value = QString::fromUtf8(entry.value).trimmed();
            const QString whole
                = value + QLatin1Char(';') + QString::fromUtf8(entry.cutText).trimmed();
            fault(entry.line, QStringLiteral("unquoted-semicolon"),
                  QStringLiteral("value of \"%1\" ends at an unquoted ';': the kernel reads "
                                 "\"%2\" and takes the rest of the line for a comment")
                      .arg(entry.key, value),
                  QStringLiteral("quote the whole value: %1=\"%2\"").arg(entry.key, whole));
        }
    }
}

void ConfigChecker::Private::checkMainWindow()
{
    for (const char *key : {"loggerlevel", "loggersize"}) {
        const QString path = QStringLiteral("mainwindow/") + QLatin1String(key);
        if (!settings->contains(path))
            continue;
        const QString value = text(settings->value(path));
        bool ok = false;
        value.trimmed().toInt(&ok);
        if (!ok)
            fault(ini.lineOf(path), QStringLiteral("bad-number"),
                  QStringLiteral("%1 is \"%2\", not a number; the kernel reads 0")
                      .arg(QLatin1String(key), value),
                  QLatin1String(key) == QLatin1String("loggerlevel")
                      ? QStringLiteral("1 critical ... 6 debug")
                      : QStringLiteral("the number of lines the log view keeps"));
    }
}

// The alias map as the kernel builds it, with what it silently drops or replaces.
void ConfigChecker::Private::readAliases()
{
    settings->beginGroup(QStringLiteral("aliases"));
    const QStringList keys = settings->childKeys();
    QHash<QString, int> byName;
    QHash<int, QString> keyOf;
    for (const QString &key : keys) {
        const int line = ini.lineOf(QStringLiteral("aliases/") + key);
        bool ok = false;
        const int id = key.mid(3).toInt(&ok, 10);
        const QString alias = text(settings->value(key));
        if (!ok) {
            fault(line, QStringLiteral("bad-alias-key"),
                  QStringLiteral("alias key \"%1\" has no module number after its first three "
                                 "characters; the kernel skips it")
                      .arg(key),
                  QStringLiteral("write id_<number>=%1").arg(alias));
            continue;
        }
        if (alias.isEmpty()) {
            warning(line, QStringLiteral("empty-alias"),
                    QStringLiteral("alias key \"%1\" has no value; module %2 gets no alias")
                        .arg(key)
                        .arg(id));
            continue;
        }
        if (aliases.contains(id)) {
            fault(line, QStringLiteral("duplicate-alias"),
                  QStringLiteral("module %1 has two aliases, \"%2\" (key \"%3\") and \"%4\"; the "
                                 "kernel keeps \"%4\" and \"%2\" names nothing")
                      .arg(id)
                      .arg(aliases.value(id), keyOf.value(id), alias),
                  QStringLiteral("give each module one alias"));
        }
        if (byName.contains(alias) && byName.value(alias) != id)
            fault(line, QStringLiteral("duplicate-alias"),
                  QStringLiteral("alias \"%1\" names module %2 and module %3")
                      .arg(alias)
                      .arg(byName.value(alias))
                      .arg(id));
        aliases.insert(id, alias);
        byName.insert(alias, id);
        keyOf.insert(id, key);
    }
    settings->endGroup();
}

// Groups below [modules] or [widgets] that the kernel never reads for any module number.
void ConfigChecker::Private::checkModuleGroups(const QString &group)
{
    const QStringList groups = childGroups(group);
    for (const QString &name : groups) {
        bool ok = false;
        const int id = name.mid(3).toInt(&ok);
        if (name.startsWith(idPrefix) && ok && name == QStringLiteral("id_%1").arg(id)) {
            modules[id];
            continue;
        }
        if (aliases.values().contains(name)) {
            modules[aliases.key(name)];
            continue;
        }
        QString hint = didYouMean(name, aliases.values());
        if (hint.isEmpty())
            hint = QStringLiteral("name the module id_<number> or define the alias in [aliases]");
        fault(ini.lineOfGroup(group + QLatin1Char('/') + name),
              QStringLiteral("unknown-module-group"),
              QStringLiteral("group \"%1\" in [%2] is neither id_<number> nor a defined alias; "
                             "the kernel never reads it")
                  .arg(name, group),
              hint);
    }
}

void ConfigChecker::Private::checkModules()
{
    checkModuleGroups(QStringLiteral("modules"));
    // Aliased modules may have no group of their own yet still be referred to.
    for (auto it = aliases.cbegin(); it != aliases.cend(); ++it)
        modules[it.key()];

    int last = -1;
    for (auto &entry : modules) {
        Module &m = entry.second;
        m.named = settings->isModuleNameContains(entry.first);
        if (m.named) {
            m.library = settings->readModuleName(entry.first);
            last = std::max(last, entry.first);
        }
    }
    while (loadedCount <= last && settings->isModuleNameContains(loadedCount))
        ++loadedCount;

    // The kernel stops at the first number without ".name": everything after it is lost.
    QStringList lost;
    int firstLost = -1;
    for (const auto &entry : modules) {
        if (entry.second.named && entry.first > loadedCount) {
            lost.append(describe(entry.first).mid(7));
            if (firstLost < 0)
                firstLost = entry.first;
        }
    }
    if (!lost.isEmpty()) {
        const bool hasGroup = moduleLine(QStringLiteral("modules"), loadedCount) > 0;
        fault(moduleLine(QStringLiteral("modules"), firstLost, QStringLiteral(".name")),
              QStringLiteral("module-gap"),
              QStringLiteral("module %1 has no .name, so the kernel stops loading there and "
                             "never loads module%2 %3")
                  .arg(loadedCount)
                  .arg(lost.size() > 1 ? QStringLiteral("s") : QString())
                  .arg(lost.join(QStringLiteral(", "))),
              hasGroup ? QStringLiteral("give module %1 a .name").arg(loadedCount)
                       : QStringLiteral("number the modules from 0 without gaps"));
    }

    for (auto &entry : modules) {
        const int id = entry.first;
        Module &m = entry.second;
        if (!m.named)
            continue;
        const QVariant thread = settings->valueFromGroupForModule(
            QStringLiteral(".thread"), QStringLiteral("modules"), id, QVariant());
        if (thread.isValid()) {
            bool ok = false;
            m.thread = text(thread).trimmed().toInt(&ok);
            if (!ok) {
                m.thread = 0;
                fault(moduleLine(QStringLiteral("modules"), id, QStringLiteral(".thread")),
                      QStringLiteral("bad-thread"),
                      QStringLiteral(".thread of %1 is \"%2\", not a number; the kernel puts the "
                                     "module on worker thread 0")
                          .arg(describe(id), text(thread)),
                      QStringLiteral("write a thread number, or leave .thread out for the GUI "
                                     "thread"));
            }
            if (m.thread < 0)
                m.thread = -1;
        }
        if (withModules() && loaded(id))
            loadModule(id, m);
    }
}

// Loads the module's library and makes the module, as the kernel's loadModules does.
void ConfigChecker::Private::loadModule(int id, Module &m)
{
    const int line = moduleLine(QStringLiteral("modules"), id, QStringLiteral(".name"));
    const QDir dir(modulesDir);
    const QString path = dir.absoluteFilePath(m.library.toLower() + QStringLiteral(".dll"));
    if (!QFile::exists(path)) {
        QStringList names;
        const QStringList files = dir.entryList({QStringLiteral("*.dll")}, QDir::Files);
        // Suggest the name to write in .name: the library's own, where its metadata says it.
        for (const QString &file : files) {
            const ZtModuleMetaData meta = ZtModuleMetaData::fromFile(dir.absoluteFilePath(file));
            names.append(meta.isValid() ? meta.getName() : QFileInfo(file).completeBaseName());
        }
        QString hint = didYouMean(m.library, names);
        if (hint.isEmpty())
            hint = QStringLiteral("the library file is .name in lower case with \".dll\"");
        fault(line, QStringLiteral("missing-library"),
              QStringLiteral("library \"%1\" of %2 is not in the modules folder: no %3")
                  .arg(m.library, describe(id), QDir::toNativeSeparators(path)),
              hint);
        return;
    }
    auto *loader = new QPluginLoader(path);
    loaders.append(loader);
    QObject *instance = loader->instance();
    auto *library = qobject_cast<ZtLibLevelInterface *>(instance);
    if (!library) {
        fault(line, QStringLiteral("bad-library"),
              QStringLiteral("%1 is not a module library: %2")
                  .arg(QDir::toNativeSeparators(path),
                       instance ? QStringLiteral("it does not implement ")
                               + QLatin1String(ZtLibLevelInterface_iid)
                                : loader->errorString()));
        return;
    }
    const QString type = library->getInterfaceType();
    m.kind = type == QLatin1String("ZtMIStream") ? 0
        : type == QLatin1String("ZtMIExtended")  ? 1
                                                 : -1;
    if (m.kind < 0) {
        fault(line, QStringLiteral("unknown-kind"),
              QStringLiteral("library \"%1\" makes modules of the unknown kind \"%2\"; the "
                             "kernel loads none of them")
                  .arg(m.library, type),
              QStringLiteral("a module library's interface type is ZtMIStream or ZtMIExtended"));
        return;
    }
    m.object = moduleFromVariant(library->instance(id, nullptr), m.kind);
    if (!m.object) {
        m.kind = -2;
        fault(line, QStringLiteral("no-module"),
              QStringLiteral("library \"%1\" made no module for %2").arg(m.library, describe(id)));
        return;
    }
    m.object->setup();
    if (m.object->isNeedThreadGui() && m.thread >= 0) {
        warning(moduleLine(QStringLiteral("modules"), id, QStringLiteral(".thread")),
                QStringLiteral("gui-thread-module"),
                QStringLiteral("%1 needs the GUI thread; .thread=%2 is ignored")
                    .arg(describe(id))
                    .arg(m.thread));
        m.thread = -1;
    }
}

void ConfigChecker::Private::checkWidgets()
{
    checkModuleGroups(QStringLiteral("widgets"));
    // The keys the kernel and the host read for a module's widgets; anything else is never read.
    static const QStringList keys {QStringLiteral("wmain"),
                                   QStringLiteral("wmainobjname"),
                                   QStringLiteral("woptions"),
                                   QStringLiteral("actnamewoptions"),
                                   QStringLiteral("woptionsstatustip"),
                                   QStringLiteral("ismainlayout"),
                                   QStringLiteral("woptionsdialog")};
    static const QStringList flags {QStringLiteral("ismainlayout"),
                                    QStringLiteral("woptionsdialog")};
    static const QStringList bools {QStringLiteral("true"), QStringLiteral("false"),
                                    QStringLiteral("1"), QStringLiteral("0")};
    const QStringList groups = childGroups(QStringLiteral("widgets"));
    for (const QString &group : groups) {
        const auto entries = sortedEntries({QStringLiteral("widgets"), group});
        for (const auto &entry : entries) {
            const int line = ini.lineOf(QStringLiteral("widgets/%1/%2").arg(group, entry.first));
            if (!keys.contains(entry.first)) {
                warning(line, QStringLiteral("unknown-widget-key"),
                        QStringLiteral("\"%1\" in [widgets] is not a widget setting; nothing "
                                       "reads it")
                            .arg(entry.first),
                        didYouMean(entry.first, keys));
            } else if (flags.contains(entry.first)
                       && !bools.contains(entry.second.trimmed().toLower())) {
                const bool reads = QVariant(entry.second).toBool();
                warning(line, QStringLiteral("bad-bool"),
                        QStringLiteral("%1 is \"%2\", which reads as %3")
                            .arg(entry.first, entry.second,
                                 reads ? QStringLiteral("true") : QStringLiteral("false")),
                        QStringLiteral("write true or false"));
            }
        }
    }
    int first = -1;
    for (int id = 0; id < loadedCount; ++id) {
        if (!settings->isModuleMainLayout(id))
            continue;
        if (first < 0) {
            first = id;
            continue;
        }
        fault(
            moduleLine(QStringLiteral("widgets"), id, QStringLiteral("ismainlayout")),
            QStringLiteral("main-layout-twice"),
            QStringLiteral("%1 is flagged ismainlayout, and so is %2 on line %3; the main "
                           "window has one main layout")
                .arg(describe(id), describe(first))
                .arg(moduleLine(QStringLiteral("widgets"), first, QStringLiteral("ismainlayout"))),
            QStringLiteral("keep ismainlayout on one module"));
    }
}

void ConfigChecker::Private::checkMenus()
{
    struct Kind
    {
        const char *list; // under [mwelements]
        const char *group; // under [actions]
        const char *what;
    };
    for (const Kind &kind :
         {Kind {"menus", "mwMenus", "menu"}, Kind {"toolbars", "mwToolBars", "tool bar"}}) {
        const QString group = QLatin1String(kind.group);
        const QStringList listed = kind.list == QLatin1String("menus") ? settings->readMenus()
                                                                       : settings->readToolBars();
        for (const QString &name : listed)
            checkMenuEntries(QLatin1String(kind.what), name, group);
        const QStringList placed = childGroups(QStringLiteral("actions/") + group);
        for (const QString &name : placed) {
            if (!listed.contains(name))
                warning(ini.lineOfGroup(QStringLiteral("actions/%1/%2").arg(group, name)),
                        QStringLiteral("unlisted-menu"),
                        QStringLiteral("%1 \"%2\" has actions but is not listed in [mwelements] "
                                       "%3; the window never shows it")
                            .arg(QLatin1String(kind.what), name, QLatin1String(kind.list)),
                        didYouMean(name, listed));
        }
    }
}

// Entries "<module>,<action>" of one menu or tool bar, with aliases rewritten as the kernel does.
void ConfigChecker::Private::checkMenuEntries(const QString &what, const QString &name,
                                              const QString &group)
{
    const auto entries = sortedEntries({QStringLiteral("actions"), group, name});
    for (const auto &entry : entries) {
        const IniLocator::Entry *located
            = ini.find(QStringLiteral("actions/%1/%2/%3").arg(group, name, entry.first));
        const int line = located ? located->line : 0;
        if (located && located->cut)
            continue; // reported with the text; what is left is not what was meant
        const QString rewritten
            = settings
                  ->replaceAliasesToId({entry.second}, QString(), QStringLiteral(","), QString())
                  .value(0);
        const QStringList parts = rewritten.split(QLatin1Char(','));
        const QString where = QStringLiteral("%1 \"%2\"").arg(what, name);
        bool numeric = false;
        const int id = parts.value(0).trimmed().toInt(&numeric);
        if (!numeric) {
            fault(line, QStringLiteral("unknown-alias"),
                  QStringLiteral("\"%1\" in %2 is neither a module number nor a defined alias; "
                                 "the kernel takes it for module 0")
                      .arg(parts.value(0), where),
                  didYouMean(parts.value(0), aliases.values()));
            continue;
        }
        const Module *m = module(id);
        if (!m || !m->named || !loaded(id)) {
            fault(line, QStringLiteral("undefined-module"),
                  QStringLiteral("%1 names module %2, which %3")
                      .arg(where)
                      .arg(id)
                      .arg(m && m->named ? QStringLiteral("is never loaded (see the gap before it)")
                                         : QStringLiteral("has no .name")));
            continue;
        }
        const QString action = parts.value(1);
        if (action.isEmpty()) {
            fault(line, QStringLiteral("missing-action"),
                  QStringLiteral("entry \"%1\" in %2 names no action").arg(entry.second, where),
                  QStringLiteral("write <module>,<action>"));
            continue;
        }
        if (ZtMIFound *object = this->object(id)) {
            const QStringList actions = object->getActions()->keys();
            if (!actions.contains(action))
                fault(
                    line, QStringLiteral("unknown-action"),
                    QStringLiteral("%1 has no action \"%2\" (%3)").arg(describe(id), action, where),
                    didYouMean(action, actions));
        }
    }
}

// A defined alias left in a connection entry: the kernel rewrites an alias only where a ';'
// follows it, and in an entry that begins with it nowhere else.
bool ConfigChecker::Private::aliasNotRewritten(const QString &word, int line, const QString &entry)
{
    if (!aliases.values().contains(word))
        return false;
    fault(line, QStringLiteral("alias-not-rewritten"),
          QStringLiteral("alias \"%1\" in connection \"%2\" is not rewritten to its module: the "
                         "kernel rewrites an alias only where ';' follows it, and only once in an "
                         "entry that begins with it")
              .arg(word, entry),
          QStringLiteral("write id_%1 here").arg(aliases.key(word)));
    return true;
}

// "id_<n>" in a connection: a number, and a module the kernel loads.
int ConfigChecker::Private::moduleRef(const QString &field, int line, const QString &where)
{
    bool ok = false;
    const int id = field.mid(3).toInt(&ok);
    if (!ok) {
        fault(line, QStringLiteral("bad-module-number"),
              QStringLiteral("\"%1\" in %2 names no module number").arg(field, where),
              QStringLiteral("write id_<number> or a defined alias"));
        return -1;
    }
    const Module *m = module(id);
    if (!m || !m->named) {
        fault(line, QStringLiteral("undefined-module"),
              QStringLiteral("%1 names module %2, which has no .name").arg(where).arg(id));
        return -1;
    }
    if (!loaded(id)) {
        fault(line, QStringLiteral("undefined-module"),
              QStringLiteral("%1 names %2, which the kernel never loads (see the gap before it)")
                  .arg(where, describe(id)));
        return -1;
    }
    return id;
}

void ConfigChecker::Private::checkSignal(int id, const QString &field, int line,
                                         const QString &entry)
{
    ZtMIFound *object = this->object(id);
    if (!object)
        return;
    const QByteArray signature = normalised(field.mid(signalPrefix.size()));
    if (object->metaObject()->indexOfSignal(signature.constData()) >= 0)
        return;
    const QStringList signals_ = methodNames(object->metaObject(), QMetaMethod::Signal);
    fault(line, QStringLiteral("unknown-signal"),
          QStringLiteral("connection \"%1\": %2 has no signal %3")
              .arg(entry, describe(id), QString::fromLatin1(signature)),
          didYouMean(QString::fromLatin1(signature), signals_));
}

void ConfigChecker::Private::checkSlot(int id, const QString &field, int line, const QString &entry)
{
    ZtMIFound *object = this->object(id);
    if (!object)
        return;
    const QByteArray signature = normalised(field.mid(slotPrefix.size()));
    if (object->metaObject()->indexOfSlot(signature.constData()) >= 0)
        return;
    const QStringList slots_ = methodNames(object->metaObject(), QMetaMethod::Slot);
    fault(line, QStringLiteral("unknown-slot"),
          QStringLiteral("connection \"%1\": %2 has no slot %3")
              .arg(entry, describe(id), QString::fromLatin1(signature)),
          didYouMean(QString::fromLatin1(signature), slots_));
}

bool ConfigChecker::Private::checkPropagator(int id, const QString &name, bool feedback, int line,
                                             const QString &entry)
{
    auto *object = qobject_cast<ZtMIExtended *>(this->object(id));
    if (!object)
        return true;
    const QStringList names = PropagatorNames::of(object, feedback);
    if (names.contains(name))
        return true;
    const QString kind = feedback ? QStringLiteral("feedback") : QStringLiteral("stream");
    QString hint = didYouMean(name, names);
    if (hint.isEmpty())
        hint = names.isEmpty()
            ? QStringLiteral("it declares no %1 propagator").arg(kind)
            : QStringLiteral("it declares %1").arg(names.join(QStringLiteral(", ")));
    fault(line, QStringLiteral("unknown-propagator"),
          QStringLiteral("connection \"%1\": %2 declares no %3 propagator \"%4\"")
              .arg(entry, describe(id), kind, name),
          hint);
    return false;
}

void ConfigChecker::Private::checkConnections()
{
    const auto entries = sortedEntries({QStringLiteral("connections")});
    for (const auto &entry : entries) {
        CheckedConnection c;
        c.key = entry.first;
        const IniLocator::Entry *located = ini.find(QStringLiteral("connections/") + entry.first);
        c.line = located ? located->line : 0;
        // The kernel's two passes: module aliases, then action aliases.
        QStringList rewritten = settings->replaceAliasesToId({entry.second}, idPrefix,
                                                             QStringLiteral(";"), QString());
        rewritten = settings->replaceAliasesToId(rewritten, QStringLiteral("actid_"),
                                                 QStringLiteral(","), QStringLiteral("act:"));
        c.entry = rewritten.value(0);
        const int before = findings.size();
        if (located && located->cut) {
            // Already reported; what is left of the entry is not what was meant.
            c.problem = QStringLiteral("cut short by an unquoted ';'");
        } else {
            checkConnection(c);
        }
        // The graph shows the entry already: its label keeps only what is wrong.
        static const QRegularExpression entryPrefix(
            QStringLiteral("^(connection|action entry|options synchroniser) \"[^\"]*\": "));
        for (int i = before; i < findings.size() && c.problem.isEmpty(); ++i) {
            if (findings.at(i).severity == Finding::Error)
                c.problem = QString(findings.at(i).text).remove(entryPrefix);
        }
        connections.append(c);
    }
}

void ConfigChecker::Private::checkConnection(CheckedConnection &c)
{
    const int line = c.line;
    QStringList fields = c.entry.split(QLatin1Char(';'));
    const ConnectionOptions options = ConnectionOptions::take(fields);
    for (const ConnectionOptions::Problem &problem : options.problems) {
        const QString name = problem.field.section(QLatin1Char('='), 0, 0).trimmed();
        QString hint = problem.kind == ConnectionOptions::Problem::UnknownName
            ? didYouMean(name, ConnectionOptions::knownNames())
            : QString();
        if (hint.isEmpty())
            hint = QStringLiteral("limit=<n>, policy=block|drop, timeout=<ms>, channel=batched");
        warning(line, QStringLiteral("connection-option"),
                ConnectionOptions::problemText(c.entry, problem), hint);
    }

    const QString source = fields.value(0);
    if (!source.startsWith(idPrefix)) {
        checkAction(c, fields);
        return;
    }
    const QString where = QStringLiteral("connection \"%1\"").arg(c.entry);
    const int a = moduleRef(source, line, where);
    c.from = a >= 0 ? a : numberOf(source);
    const QString target = fields.value(2);
    if (fields.size() < 3) {
        fault(line, QStringLiteral("field-count"),
              QStringLiteral("connection \"%1\" has %2 field%3; an entry is "
                             "source;signal;target;slot")
                  .arg(c.entry)
                  .arg(fields.size())
                  .arg(fields.size() == 1 ? QString() : QStringLiteral("s")));
        return;
    }
    const QString signal = fields.value(1);
    if (target == QLatin1String("logger")) {
        c.kind = CheckedConnection::Logger;
        c.facility = QStringLiteral("logger");
        c.label = signal.mid(signalPrefix.size());
        if (!signal.startsWith(signalPrefix) || !signal.contains(QLatin1Char('('))) {
            fault(line, QStringLiteral("missing-prefix"),
                  QStringLiteral("connection \"%1\": a logger entry names a signal, "
                                 "signal_<name>(<parameters>)")
                      .arg(c.entry),
                  QStringLiteral("for example signal_myStatus(QString)"));
            return;
        }
        const QByteArray signature = normalised(signal.mid(signalPrefix.size()));
        if (signature == "state(QString,Logger::Level)") {
            warning(line, QStringLiteral("logger-obsolete"),
                    QStringLiteral("connection \"%1\": every module's state(QString,Logger::Level) "
                                   "already goes to the log; the kernel does not connect it again")
                        .arg(c.entry),
                    QStringLiteral("remove the entry"));
            return;
        }
        checkSignal(a, signal, line, c.entry);
        if (ZtMIFound *object = this->object(a)) {
            const int index = object->metaObject()->indexOfSignal(signature.constData());
            const QList<QByteArray> types = index >= 0
                ? object->metaObject()->method(index).parameterTypes()
                : QList<QByteArray>();
            if (index >= 0 && types != QList<QByteArray> {"QString"}
                && types != QList<QByteArray> {"QString", "Logger::Level"})
                fault(line, QStringLiteral("incompatible-signature"),
                      QStringLiteral("connection \"%1\": the log takes (QString) or "
                                     "(QString,Logger::Level), not (%2)")
                          .arg(c.entry, QString::fromLatin1(types.join(','))));
        }
        return;
    }
    if (!target.startsWith(idPrefix)) {
        if (aliasNotRewritten(target, line, c.entry))
            return;
        QString hint = didYouMean(target, aliases.values() << QStringLiteral("logger"));
        fault(line, QStringLiteral("unknown-alias"),
              QStringLiteral("\"%1\" in connection \"%2\" is neither a module identifier "
                             "(id_<number>), a defined alias nor \"logger\"")
                  .arg(target, c.entry),
              hint);
        return;
    }
    const int b = moduleRef(target, line, where);
    c.to = b >= 0 ? b : numberOf(target);
    if (fields.size() < 4) {
        fault(line, QStringLiteral("field-count"),
              QStringLiteral("connection \"%1\" has 3 fields; an entry is "
                             "source;signal;target;slot")
                  .arg(c.entry));
        return;
    }
    const QString slot = fields.value(3);
    const auto shortName = [](const QString &field) {
        if (field.startsWith(signalPrefix))
            return field.mid(signalPrefix.size());
        if (field.startsWith(slotPrefix))
            return field.mid(slotPrefix.size());
        return field;
    };
    c.label = shortName(signal) + QStringLiteral(" -> ") + shortName(slot);
    const Module *ma = module(a);
    const Module *mb = module(b);
    const bool sameThread = ma && mb && ma->thread == mb->thread;
    const bool feedback = fields.size() > 4 && fields.at(4) == QLatin1String("feedback");

    if (signal.startsWith(signalPrefix) && slot.startsWith(slotPrefix)) {
        if (signal.contains(QLatin1String("sendOptions"))
            && slot.contains(QLatin1String("recvOptions"))) {
            c.kind = CheckedConnection::Options;
            c.label = fields.size() > 4 ? fields.mid(4).join(QStringLiteral(" -> "))
                                        : QStringLiteral("all options");
            if (fields.size() > 6) {
                fault(line, QStringLiteral("field-count"),
                      QStringLiteral("options synchroniser \"%1\" has %2 fields; it takes 4 "
                                     "(all options), 5 (a list) or 6 (a list renamed to another)")
                          .arg(c.entry)
                          .arg(fields.size()));
                return;
            }
            checkSyncNames(c, fields);
            return;
        }
        c.kind = CheckedConnection::Plain;
        if (fields.size() > 4) {
            if (feedback)
                warning(line, QStringLiteral("ignored-feedback"),
                        QStringLiteral("connection \"%1\": \"feedback\" is ignored, a "
                                       "signal_/slot_ entry is a plain signal/slot connection")
                            .arg(c.entry),
                        QStringLiteral("feedback joins propagators of two extended modules"));
            else
                warning(line, QStringLiteral("extra-fields"),
                        QStringLiteral("connection \"%1\": the fields after the fourth are ignored")
                            .arg(c.entry));
        }
        checkSignal(a, signal, line, c.entry);
        checkSlot(b, slot, line, c.entry);
        ZtMIFound *from = object(a);
        ZtMIFound *to = object(b);
        if (from && to) {
            const QByteArray sig = normalised(signal.mid(signalPrefix.size()));
            const QByteArray sl = normalised(slot.mid(slotPrefix.size()));
            if (from->metaObject()->indexOfSignal(sig.constData()) >= 0
                && to->metaObject()->indexOfSlot(sl.constData()) >= 0
                && !QMetaObject::checkConnectArgs(sig.constData(), sl.constData()))
                fault(line, QStringLiteral("incompatible-signature"),
                      QStringLiteral("connection \"%1\": signal %2 cannot call slot %3")
                          .arg(c.entry, QString::fromLatin1(sig), QString::fromLatin1(sl)),
                      QStringLiteral("the slot takes the signal's first parameters"));
        }
    } else {
        // A propagator link: what the two ends are decides what the kernel makes.
        c.kind = feedback ? CheckedConnection::Feedback : CheckedConnection::Stream;
        if (fields.size() > 4 && !feedback)
            warning(line, QStringLiteral("extra-fields"),
                    QStringLiteral("connection \"%1\": field \"%2\" is ignored")
                        .arg(c.entry, fields.at(4)),
                    didYouMean(fields.at(4), {QStringLiteral("feedback")}));
        else if (fields.size() > 5)
            warning(line, QStringLiteral("extra-fields"),
                    QStringLiteral("connection \"%1\": the fields after \"feedback\" are ignored")
                        .arg(c.entry));
        const int ka = kindOf(a);
        const int kb = kindOf(b);
        const auto needPrefix
            = [&](const QString &field, const QString &prefix, const QString &what) {
                  if (field.startsWith(prefix))
                      return true;
                  fault(line, QStringLiteral("missing-prefix"),
                        QStringLiteral("connection \"%1\": \"%2\" needs the prefix %3 (%4)")
                            .arg(c.entry, field, prefix, what),
                        QStringLiteral("write %1%2").arg(prefix, field));
                  return false;
              };
        if (ka < 0 || kb < 0) {
            // Kinds unknown: only what the text alone gives away.
            if (feedback && (signal.startsWith(signalPrefix) || slot.startsWith(slotPrefix)))
                fault(line, QStringLiteral("feedback-stream"),
                      QStringLiteral("connection \"%1\": feedback joins two propagators, not a "
                                     "signal or slot")
                          .arg(c.entry));
            if (signal.contains(QLatin1Char('(')))
                needPrefix(signal, signalPrefix, QStringLiteral("a signal"));
            if (slot.contains(QLatin1Char('(')))
                needPrefix(slot, slotPrefix, QStringLiteral("a slot"));
        } else if (ka == 0 && kb == 0) {
            if (feedback)
                warning(line, QStringLiteral("ignored-feedback"),
                        QStringLiteral("connection \"%1\": \"feedback\" is ignored between two "
                                       "stream modules")
                            .arg(c.entry));
            c.kind = sameThread ? CheckedConnection::Plain : CheckedConnection::Stream;
            const bool s
                = needPrefix(signal, signalPrefix, QStringLiteral("a stream module's signal"));
            const bool t = needPrefix(slot, slotPrefix, QStringLiteral("a stream module's slot"));
            if (s)
                checkSignal(a, signal, line, c.entry);
            if (t)
                checkSlot(b, slot, line, c.entry);
        } else if (ka == 0 || kb == 0) {
            if (feedback) {
                fault(line, QStringLiteral("feedback-stream"),
                      QStringLiteral("connection \"%1\": %2 is a stream module and cannot take "
                                     "part in a feedback link")
                          .arg(c.entry, describe(ka == 0 ? a : b)));
                return;
            }
            if (ka == 0) {
                if (needPrefix(signal, signalPrefix, QStringLiteral("a stream module's signal")))
                    checkSignal(a, signal, line, c.entry);
                checkPropagator(b, slot, false, line, c.entry);
            } else {
                checkPropagator(a, signal, false, line, c.entry);
                if (needPrefix(slot, slotPrefix, QStringLiteral("a stream module's slot")))
                    checkSlot(b, slot, line, c.entry);
            }
        } else {
            checkPropagator(a, signal, feedback, line, c.entry);
            checkPropagator(b, slot, feedback, line, c.entry);
        }
    }

    // Options that cannot apply to what this entry makes (threads as configured).
    const auto notApplicable = [&](const QString &option, const QString &why) {
        warning(line, QStringLiteral("option-not-applicable"),
                QStringLiteral("connection \"%1\": option \"%2\" has no effect %3")
                    .arg(c.entry, option, why));
    };
    for (const QString &accepted : options.accepted) {
        const QString name = accepted.section(QLatin1Char('='), 0, 0).trimmed();
        if (name == QLatin1String("limit") && sameThread)
            notApplicable(accepted, QStringLiteral("within one thread"));
        else if (name == QLatin1String("timeout") && c.kind != CheckedConnection::Feedback)
            notApplicable(accepted, QStringLiteral("on a stream, only on a feedback link"));
        else if (name == QLatin1String("channel") && sameThread)
            notApplicable(accepted, QStringLiteral("within one thread"));
    }
}

// "actid_<module>,<action>;<keyword>[;id_<target>;slot_<signature>]"
void ConfigChecker::Private::checkAction(CheckedConnection &c, const QStringList &fields)
{
    const int line = c.line;
    c.kind = CheckedConnection::Action;
    const QString head = fields.value(0);
    const QString keyword = fields.value(1);
    static const QStringList keywords {QStringLiteral("actstart"), QStringLiteral("actquit"),
                                       QStringLiteral("actcancelquit")};
    if (!head.startsWith(QLatin1String("actid_"))) {
        c.kind = CheckedConnection::Unknown;
        if (head.startsWith(QLatin1String("act:"))) {
            const QString alias = head.mid(4).section(QLatin1Char(','), 0, 0);
            fault(line, QStringLiteral("unknown-alias"),
                  QStringLiteral("action entry \"%1\": \"%2\" is not a defined alias")
                      .arg(c.entry, alias),
                  didYouMean(alias, aliases.values()));
        } else if (keywords.contains(keyword)) {
            fault(line, QStringLiteral("unknown-action-entry"),
                  QStringLiteral("action entry \"%1\" must begin with act:<alias>,<action> or "
                                 "actid_<number>,<action>")
                      .arg(c.entry));
        } else if (!aliasNotRewritten(head.section(QLatin1Char(','), 0, 0), line, c.entry)) {
            fault(line, QStringLiteral("unknown-alias"),
                  QStringLiteral("\"%1\" in connection \"%2\" is neither a module identifier "
                                 "(id_<number>) nor a defined alias")
                      .arg(head, c.entry),
                  didYouMean(head, aliases.values()));
        }
        return;
    }
    const QStringList idAndName = head.mid(6).split(QLatin1Char(','));
    const QString action = idAndName.value(1);
    c.label = action + QStringLiteral(": ") + keyword;
    const int id = moduleRef(QStringLiteral("id_") + idAndName.value(0), line,
                             QStringLiteral("action entry \"%1\"").arg(c.entry));
    c.from = id;
    if (action.isEmpty())
        fault(line, QStringLiteral("missing-action"),
              QStringLiteral("action entry \"%1\" names no action").arg(c.entry),
              QStringLiteral("write act:<alias>,<action>"));
    else if (ZtMIFound *object = this->object(id)) {
        const QStringList actions = object->getActions()->keys();
        if (!actions.contains(action))
            fault(line, QStringLiteral("unknown-action"),
                  QStringLiteral("action entry \"%1\": %2 has no action \"%3\"")
                      .arg(c.entry, describe(id), action),
                  didYouMean(action, actions));
    }

    if (keyword == QLatin1String("actquit") || keyword == QLatin1String("actcancelquit")) {
        c.facility = QStringLiteral("kernel");
        return;
    }
    if (keyword != QLatin1String("actstart")) {
        fault(line, QStringLiteral("unknown-keyword"),
              QStringLiteral("action entry \"%1\": \"%2\" is not actstart, actquit or "
                             "actcancelquit")
                  .arg(c.entry, keyword),
              didYouMean(keyword, keywords));
        return;
    }
    const QString target = fields.value(2);
    const QString slot = fields.value(3);
    if (target.isEmpty() || slot.isEmpty()) {
        fault(line, QStringLiteral("field-count"),
              QStringLiteral(
                  "action entry \"%1\": actstart needs a receiver, ;<module>;slot_<name>()")
                  .arg(c.entry));
        return;
    }
    if (!target.startsWith(idPrefix) && aliasNotRewritten(target, line, c.entry))
        return;
    if (!target.startsWith(idPrefix)) {
        fault(line, QStringLiteral("unknown-alias"),
              QStringLiteral("\"%1\" in action entry \"%2\" is neither a module identifier "
                             "(id_<number>) nor a defined alias")
                  .arg(target, c.entry),
              didYouMean(target, aliases.values()));
        return;
    }
    if (!slot.startsWith(slotPrefix)) {
        fault(
            line, QStringLiteral("missing-prefix"),
            QStringLiteral("action entry \"%1\": \"%2\" needs the prefix slot_").arg(c.entry, slot),
            QStringLiteral("write slot_%1").arg(slot));
        return;
    }
    c.to = moduleRef(target, line, QStringLiteral("action entry \"%1\"").arg(c.entry));
    ZtMIFound *receiver = object(c.to);
    if (!receiver)
        return;
    const QByteArray signature = normalised(slot.mid(slotPrefix.size()));
    const int index = receiver->metaObject()->indexOfMethod(signature.constData());
    if (index < 0) {
        fault(line, QStringLiteral("unknown-slot"),
              QStringLiteral("action entry \"%1\": %2 has no slot %3")
                  .arg(c.entry, describe(c.to), QString::fromLatin1(signature)),
              didYouMean(QString::fromLatin1(signature),
                         methodNames(receiver->metaObject(), QMetaMethod::Slot)));
        return;
    }
    const QList<QByteArray> types = receiver->metaObject()->method(index).parameterTypes();
    if (!types.isEmpty() && types != QList<QByteArray> {"QVariantList"}
        && types != QList<QByteArray> {"QByteArray"})
        fault(line, QStringLiteral("incompatible-signature"),
              QStringLiteral("action entry \"%1\": an action starts a slot taking (), "
                             "(QVariantList) or (QByteArray), not %2")
                  .arg(c.entry, QString::fromLatin1(signature)));
}

// The options module `id` holds once the kernel has loaded it: those it declares and those its
// settings give it (the kernel stores every configured key in the module's table, so a
// synchroniser reaches them too).
QStringList ConfigChecker::Private::takenOptions(int id)
{
    ZtMIFound *object = this->object(id);
    if (!object)
        return {};
    QStringList names = object->getOptions()->keys();
    QHash<QString, QVariant> configured;
    settings->readModuleSetting(id, &configured);
    for (auto it = configured.cbegin(); it != configured.cend(); ++it) {
        if (!it.key().startsWith(QLatin1Char('.')) && !names.contains(it.key()))
            names.append(it.key());
    }
    names.removeAll(QStringLiteral(".name"));
    return names;
}

// The option names an options synchroniser passes: the source's names must be options the
// source announces, the target's names options the target takes; a renaming list needs a target
// name for every source name.
void ConfigChecker::Private::checkSyncNames(const CheckedConnection &c, const QStringList &fields)
{
    if (fields.size() < 5)
        return;
    const QStringList sources = fields.at(4).split(QLatin1Char(','));
    const QStringList targets = fields.size() == 6 ? fields.at(5).split(QLatin1Char(',')) : sources;
    if (targets.size() < sources.size()) {
        fault(c.line, QStringLiteral("field-count"),
              QStringLiteral("options synchroniser \"%1\" renames %2 options to %3 names; it "
                             "passes no options at all")
                  .arg(c.entry)
                  .arg(sources.size())
                  .arg(targets.size()),
              QStringLiteral("give a target name for every source name"));
        return;
    }
    // One warning per name, naming every end that lacks it.
    const QStringList fromOptions = takenOptions(c.from);
    const QStringList toOptions = takenOptions(c.to);
    for (int i = 0; i < sources.size(); ++i) {
        QStringList lacking;
        QString hint;
        if (object(c.from) && !fromOptions.contains(sources.at(i))) {
            lacking.append(
                QStringLiteral("%1 has no option \"%2\"").arg(describe(c.from), sources.at(i)));
            hint = didYouMean(sources.at(i), fromOptions);
        }
        if (object(c.to) && !toOptions.contains(targets.at(i))) {
            lacking.append(
                QStringLiteral("%1 has no option \"%2\"").arg(describe(c.to), targets.at(i)));
            if (hint.isEmpty())
                hint = didYouMean(targets.at(i), toOptions);
        }
        if (!lacking.isEmpty())
            warning(c.line, QStringLiteral("unknown-option"),
                    QStringLiteral("options synchroniser \"%1\": %2")
                        .arg(c.entry, lacking.join(QStringLiteral(", and "))),
                    hint);
    }
}

// Every key of a module's group against the options the module declares. The kernel stores
// every key in the module's table; a misspelt one is silently never read.
void ConfigChecker::Private::checkOptions()
{
    static const QRegularExpression actionText(
        QStringLiteral("^(.+)\\.(actname|actstip|actttip|actwhat)$"));
    for (const auto &entry : modules) {
        const int id = entry.first;
        ZtMIFound *object = this->object(id);
        if (!object)
            continue;
        QHash<QString, QVariant> configured;
        settings->readModuleSetting(id, &configured);
        const QHash<QString, QVariant> *declared = object->getOptions();
        // Template fields: a key named as "{key}" in another of the module's text values (a
        // caption such as "gain {gain}") is read through that template.
        static const QRegularExpression field(QStringLiteral("\\{([A-Za-z_][A-Za-z0-9_]*)\\}"));
        QSet<QString> fields;
        for (auto it = configured.cbegin(); it != configured.cend(); ++it) {
            if (it.value().type() != QVariant::String)
                continue;
            auto matches = field.globalMatch(it.value().toString());
            while (matches.hasNext())
                fields.insert(matches.next().captured(1));
        }
        const QStringList actions = object->getActions()->keys();
        QStringList keys = configured.keys();
        std::sort(keys.begin(), keys.end());
        for (const QString &key : qAsConst(keys)) {
            if (key.startsWith(QLatin1Char('.')))
                continue;
            const int line = moduleLine(QStringLiteral("modules"), id, key);
            const QRegularExpressionMatch text = actionText.match(key);
            if (text.hasMatch()) {
                if (!actions.contains(text.captured(1)))
                    warning(line, QStringLiteral("unknown-action"),
                            QStringLiteral("\"%1\" is a text for action \"%2\", which %3 does not "
                                           "have")
                                .arg(key, text.captured(1), describe(id)),
                            didYouMean(text.captured(1), actions));
                continue;
            }
            if (declared->contains(key) || fields.contains(key))
                continue;
            QStringList names = declared->keys();
            names.removeAll(QStringLiteral(".name"));
            warning(line, QStringLiteral("unknown-option"),
                    QStringLiteral("%1 has no option \"%2\"; the kernel stores it but the module "
                                   "never reads it")
                        .arg(describe(id), key),
                    didYouMean(key, names));
        }
    }
}
