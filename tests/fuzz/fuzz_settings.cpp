// Arbitrary bytes as a settings file, read through everything that reads one: the system
// settings file (every reader the kernel and the host use) and the state store (reads, and a
// save that makes QSettings merge with the file again). Nothing may crash, hang, leak or trip a
// sanitizer, whatever the file holds.
//
// To read the same bytes through something else, add a function to the readers table.

#include <syssettings.h>
#include <wssettings.h>

#include <QByteArray>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QTemporaryDir>
#include <QVariant>
#include <QVector>

#include <cstdint>
#include <cstdlib>

namespace {

// The kernel reads modules 0, 1, ... until one has no name; the bound keeps one input cheap.
constexpr int maxModules = 16;

void readSystemSettings(const QString &path)
{
    SysSettings settings(path);
    settings.damagedValues();
    settings.getSysSettingFileName();
    settings.getTitle();
    settings.getLoggerFile();
    settings.getLoggerLevel(nullptr);
    bool ok = false;
    settings.getLoggerBlockCount(&ok);
    settings.readVersion();

    const QStringList menus = settings.readMenus();
    for (const QString &menu : menus) {
        settings.readMenuLabel(menu);
        settings.readMenuName(menu);
        settings.readMenusActions(menu);
    }
    const QStringList toolBars = settings.readToolBars();
    for (const QString &toolBar : toolBars) {
        settings.readToolBarLabel(toolBar);
        settings.readToolBarName(toolBar);
        settings.readToolBarsActions(toolBar);
    }

    for (int id = 0; id < maxModules; ++id) {
        const bool named = settings.isModuleNameContains(id);
        settings.readModuleName(id);
        settings.readModuleThread(id);
        settings.readModuleOption(id, QStringLiteral("period"));
        QHash<QString, QVariant> options;
        settings.readModuleSetting(id, &options);
        for (const QVariant &value : qAsConst(options))
            value.toString();
        settings.readModuleWMain(id);
        settings.readModuleWMainObjName(id);
        settings.readModuleWOptions(id);
        settings.readModuleWOptionsAct(id);
        settings.readModuleWOptionsStatusTip(id);
        settings.isModuleMainLayout(id);
        settings.isModuleWOptionsDialog(id);
        settings.beginGroupModuleAuto(id);
        settings.endGroup();
        if (!named)
            break;
    }
    settings.readActions();
    settings.readConnections();

    // Every key of the file, through the base as well as through the filtered walk.
    const QStringList keys = settings.QSettings::allKeys();
    for (const QString &key : keys)
        settings.value(key).toString();
    settings.childGroups();
}

void readStateStore(const QString &path)
{
    WSSettings store(path);
    store.readMWGeometry();
    store.readMWState();
    store.readModuleGeometry(0, QStringLiteral("main"));

    QVector<QHash<QString, QVariant>> tables(4);
    tables[1].insert(QStringLiteral(".alias"), QStringLiteral("gen"));
    QList<QHash<QString, QVariant> *> list;
    for (QHash<QString, QVariant> &table : tables)
        list.append(&table);
    store.readAllModulesSetting(list);
    const QStringList keys = store.allKeys();
    for (const QString &key : keys)
        store.value(key).toString();
    tables[0].insert(QStringLiteral("saved"), 1);
    store.saveModuleSetting(0, &tables[0]);
}

using Reader = void (*)(const QString &path);
const Reader readers[] = {readSystemSettings, readStateStore};

void quiet(QtMsgType type, const QMessageLogContext &, const QString &)
{
    if (type == QtFatalMsg)
        abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static QTemporaryDir *dir = [] {
        qInstallMessageHandler(quiet);
        // QSettings saves through QSaveFile, which syncs to disk; memory-backed files keep the
        // runs fast where the system has them.
        const QString shm = QStringLiteral("/dev/shm");
        if (QFileInfo(shm).isWritable())
            qputenv("TMPDIR", shm.toLocal8Bit());
        return new QTemporaryDir;
    }();
    static quint64 inputs = 0;

    const QByteArray text = QByteArray::fromRawData(reinterpret_cast<const char *>(data),
                                                    int(qMin<size_t>(size, 1 << 20)));
    for (Reader read : readers) {
        // A fresh name each time: QSettings caches files by name and would not notice new
        // contents of the same size written within its clock's resolution.
        const QString path = dir->filePath(QStringLiteral("input%1.ini").arg(++inputs));
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size())
            abort();
        file.close();
        read(path);
        QFile::remove(path);
    }
    return 0;
}
