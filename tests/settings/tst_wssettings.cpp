#include <wssettings.h>
#include <ztmifound.h>

#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QWidget>

using Options = QHash<QString, QVariant>;

// The state store as a host uses it: save, then read back through a fresh object on the same
// file, as after a restart; the written file itself is checked where layout matters.
class tst_WSSettings : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(dir.isValid()); }
    void saveClearsOldGroups();
    void readMergesIdAndAliasGroups();
    void allModules();
    void geometry();
    void damagedValueDropped();

private:
    QString path(const QByteArray &initial = QByteArray());
    static QString fileText(const QString &file);

    QTemporaryDir dir;
    int files = 0;
};

// A new file name; the file holds the given text when there is one.
QString tst_WSSettings::path(const QByteArray &initial)
{
    const QString file = dir.filePath(QStringLiteral("ws%1.ini").arg(++files));
    QFile f(file);
    if (!initial.isEmpty() && f.open(QIODevice::WriteOnly))
        f.write(initial);
    return file;
}

QString tst_WSSettings::fileText(const QString &file)
{
    QFile f(file);
    return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QString();
}

void tst_WSSettings::saveClearsOldGroups()
{
    const QString file = path("[modules]\nid_2\\old=1\nid_3\\keep=3\ngen\\stale=4\n"
                              "geometry\\id_2_main=@ByteArray(x)\n");
    WSSettings store(file);
    Options saved {{".alias", "gen"}, {"rate", 20}, {"nested/c", 3}};
    QVERIFY(store.saveModuleSetting(2, &saved));
    saved.remove("nested/c");
    QVERIFY(store.saveModuleSetting(2, &saved));
    // An empty alias is no alias: the options go to "id_4", and nothing else is cleared.
    Options unaliased {{".alias", QString()}, {"mine", 2}};
    QVERIFY(store.saveModuleSetting(4, &unaliased));
    QVERIFY(!store.saveModuleSetting(0, static_cast<ModuleOptions *>(nullptr)));
    QCOMPARE(store.group(), QString());

    // Synced at once; nothing under a key that starts with ".", as those come from the system
    // settings file.
    const QString text = fileText(file);
    QVERIFY2(!text.contains("old") && !text.contains("stale") && !text.contains("nested")
                 && text.contains("gen\\rate=20") && !text.contains("\\.")
                 && text.contains("id_3\\keep=3") && text.contains("id_4\\mine=2"),
             qPrintable(text));
    // Module geometry under "modules" is not a module group and survives.
    QCOMPARE(store.readModuleGeometry(2, "main"), QByteArray("x"));
}

void tst_WSSettings::readMergesIdAndAliasGroups()
{
    WSSettings store(
        path("[modules]\nid_2\\rate=10\nid_2\\only=1\ngen\\rate=20\ngen\\a\\b=5\nid_1\\x=9\n"));
    // The table is not cleared; the alias group wins over "id_2".
    Options aliased {{".alias", "gen"}, {"untouched", true}};
    QVERIFY(store.readModuleSetting(2, &aliased));
    QCOMPARE(
        aliased,
        (Options {
            {".alias", "gen"}, {"untouched", true}, {"rate", "20"}, {"only", "1"}, {"a/b", "5"}}));
    // An empty alias must not read the whole "modules" group.
    Options unaliased {{".alias", QString()}};
    QVERIFY(store.readModuleSetting(4, &unaliased));
    QCOMPARE(unaliased.keys(), QStringList {".alias"});
    QVERIFY(!store.readModuleSetting(0, static_cast<ModuleOptions *>(nullptr)));
}

// The list is indexed by module identifier; entry 2 is null and skipped both ways.
void tst_WSSettings::allModules()
{
    QList<ModuleOptions> saved, read;
    for (int id = 0; id < 4; ++id) {
        saved.append(ModuleOptions(Options {{"id", id}}));
        read.append(ModuleOptions());
    }
    saved[1].insert(".alias", "second");
    read[1].insert(".alias", "second");
    read[2].insert("untouched", true);
    const auto pointers = [](QList<ModuleOptions> &list) {
        return QList<ModuleOptions *> {&list[0], &list[1], nullptr, &list[3]};
    };

    const QString file = path();
    {
        WSSettings store(file);
        QVERIFY(store.saveAllModulesSetting(pointers(saved)));
    }
    QVERIFY(fileText(file).contains("second\\id=1") && !fileText(file).contains("id_1\\"));
    WSSettings store(file);
    QVERIFY(store.readAllModulesSetting(pointers(read)));
    QCOMPARE(store.group(), QString());
    for (int id : {0, 1, 3})
        QCOMPARE(read.at(id).value("id").toInt(), id);
    QCOMPARE(read.at(2).hash, (Options {{"untouched", true}}));
}

void tst_WSSettings::geometry()
{
    const QString file = path();
    const QByteArray geometry("\x01\xd9\xd0\xcb\x00\x03", 6);
    const QByteArray state("state;with,separators\n", 22);
    QWidget widget;
    widget.setGeometry(40, 50, 320, 200);
    {
        WSSettings store(file);
        QVERIFY(store.readMWGeometry().isEmpty());
        store.saveMWGeometry(geometry);
        // Written at once, not when the object goes away.
        QVERIFY(fileText(file).contains("[mainwindow]"));
        store.saveMWState(state);
        QVERIFY(store.saveModuleGeometry(1, &widget, "main"));
        QVERIFY(!store.saveModuleGeometry(1, nullptr, "options"));
    }
    WSSettings store(file);
    QCOMPARE(store.readMWGeometry(), geometry);
    QCOMPARE(store.readMWState(), state);
    QCOMPARE(store.readModuleGeometry(1, "main"), widget.saveGeometry());
    QVERIFY(store.readModuleGeometry(1, "options").isEmpty());
}

// A value QSettings cannot decode safely is dropped from the file with a warning; the rest of
// the file reads and saves as usual.
void tst_WSSettings::damagedValueDropped()
{
    const QString file = path("[modules]\nid_1\\rate=5\n"
                              "id_1\\06=@Variant(\\0\\0\\0\\x7f\\0\\0\\0\\x10QVariantList)ntList)\n"
                              "[mainwindow]\nstate=@ByteArray(s)\n");
    QTest::ignoreMessage(QtWarningMsg,
                         QRegularExpression("^Damaged value ignored: .*ws\\d+\\.ini:3, key "
                                            "\"id_1\\\\06\""));
    WSSettings store(file);
    QVERIFY(!fileText(file).contains("Variant"));
    Options options;
    QVERIFY(store.readModuleSetting(1, &options));
    QCOMPARE(options, (Options {{"rate", "5"}}));
    QCOMPARE(store.readMWState(), QByteArray("s"));
    options.insert("gain", 2);
    QVERIFY(store.saveModuleSetting(1, &options));
    QVERIFY(fileText(file).contains("id_1\\gain=2"));
}

QTEST_MAIN(tst_WSSettings)
#include "tst_wssettings.moc"
