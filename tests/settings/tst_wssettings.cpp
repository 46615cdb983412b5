#include <wssettings.h>
#include <ztmifound.h>

#include <QColor>
#include <QFile>
#include <QPoint>
#include <QSize>
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
    void initTestCase();

    void optionRoundTrip_data();
    void optionRoundTrip();
    void dotOptionsNeverWritten();
    void aliasSaveClearsNumberGroup();
    void emptyAliasIsNoAlias();
    void removedOptionDisappears();
    void readMergesIdAndAliasGroups();
    void nullOptions();
    void allModulesSkipNullEntries_data();
    void allModulesSkipNullEntries();
    void windowBytes();
    void moduleGeometry();

private:
    QString path();
    QString fileText(const QString &file);

    QTemporaryDir dir;
    int files = 0;
};

QString tst_WSSettings::path()
{
    return dir.filePath(QStringLiteral("ws%1.ini").arg(++files));
}

QString tst_WSSettings::fileText(const QString &file)
{
    QFile f(file);
    if (!f.open(QIODevice::ReadOnly))
        return QString();
    return QString::fromUtf8(f.readAll());
}

void tst_WSSettings::initTestCase()
{
    QVERIFY(dir.isValid());
}

// clang-format off
void tst_WSSettings::optionRoundTrip_data()
{
    QTest::addColumn<QVariant>("value");

    QTest::newRow("int") << QVariant(42);
    QTest::newRow("negative int") << QVariant(-7);
    QTest::newRow("double") << QVariant(2.5);
    QTest::newRow("small double") << QVariant(1e-9);
    QTest::newRow("bool true") << QVariant(true);
    QTest::newRow("bool false") << QVariant(false);
    QTest::newRow("string") << QVariant(QStringLiteral("plain"));
    QTest::newRow("string with separators") << QVariant(QStringLiteral("a;b,c \"d\" = e"));
    QTest::newRow("utf-8 string") << QVariant(QString::fromUtf8("Стенд №1"));
    QTest::newRow("empty string") << QVariant(QString());
    QTest::newRow("string list") << QVariant(QStringList({"fast", "slow", "a,b"}));
    QTest::newRow("byte array") << QVariant(QByteArray("\x00\x01\xff;,", 5));
    QTest::newRow("point") << QVariant(QPoint(-3, 12));
    QTest::newRow("size") << QVariant(QSize(640, 480));
    QTest::newRow("colour") << QVariant(QColor(10, 20, 30, 40));
}
// clang-format on

void tst_WSSettings::optionRoundTrip()
{
    QFETCH(QVariant, value);
    const QString file = path();
    Options saved {{"option", value}, {"other", 1}, {".alias", "id_3"}};
    {
        WSSettings store(file);
        QVERIFY(store.saveModuleSetting(3, &saved));
        QCOMPARE(store.group(), QString());
    }

    WSSettings store(file);
    Options read {{".alias", "id_3"}};
    QVERIFY(store.readModuleSetting(3, &read));
    QCOMPARE(store.group(), QString());
    QVERIFY(read.contains("option"));
    QVariant back = read.value("option");
    QVERIFY(back.convert(value.userType()));
    QCOMPARE(back, value);
}

void tst_WSSettings::dotOptionsNeverWritten()
{
    const QString file = path();
    Options saved {{".name", "Generator"}, {".thread", 2}, {".x", "y"}, {"gain", 3}};
    {
        WSSettings store(file);
        QVERIFY(store.saveModuleSetting(1, &saved));
    }
    const QString text = fileText(file);
    QVERIFY2(!text.contains(QLatin1Char('.')), qPrintable(text));
    QVERIFY(text.contains("gain=3"));

    // What came from the system settings file keeps its values.
    WSSettings store(file);
    Options read {{".name", "Configured"}, {".alias", "id_1"}};
    QVERIFY(store.readModuleSetting(1, &read));
    QCOMPARE(read.value(".name").toString(), "Configured");
    QVERIFY(!read.contains(".thread"));
    QCOMPARE(read.value("gain").toInt(), 3);
}

void tst_WSSettings::aliasSaveClearsNumberGroup()
{
    const QString file = path();
    {
        QFile f(file);
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.write("[modules]\nid_2\\old=1\nid_2\\sub\\deeper=2\nid_3\\keep=3\n"
                "geometry\\id_2_main=@ByteArray(x)\n");
    }
    Options saved {{".alias", "gen"}, {"rate", 20}};
    {
        WSSettings store(file);
        QVERIFY(store.saveModuleSetting(2, &saved));
    }
    const QString text = fileText(file);
    QVERIFY2(!text.contains("id_2\\"), qPrintable(text));
    QVERIFY2(!text.contains("old"), qPrintable(text));
    QVERIFY(text.contains("gen\\rate=20"));

    WSSettings store(file);
    store.beginGroup("modules");
    QCOMPARE(store.childGroups(), QStringList({"gen", "geometry", "id_3"}));
    store.endGroup();
    // Module geometry under "modules" is not a module group and survives.
    QCOMPARE(store.readModuleGeometry(2, "main"), QByteArray("x"));
}

void tst_WSSettings::emptyAliasIsNoAlias()
{
    const QString file = path();
    {
        WSSettings store(file);
        Options other {{"keep", 1}};
        QVERIFY(store.saveModuleSetting(0, &other));
        Options empty {{".alias", QString()}, {"mine", 2}};
        QVERIFY(store.saveModuleSetting(4, &empty));
    }
    WSSettings store(file);
    Options other;
    QVERIFY(store.readModuleSetting(0, &other));
    QCOMPARE(other.value("keep").toInt(), 1);
    QVERIFY(!other.contains("mine"));

    Options fourth {{".alias", QString()}};
    QVERIFY(store.readModuleSetting(4, &fourth));
    QCOMPARE(fourth.value("mine").toInt(), 2);
    QVERIFY(!fourth.contains("id_0/keep"));
}

void tst_WSSettings::removedOptionDisappears()
{
    const QString file = path();
    WSSettings store(file);
    Options options {{"a", 1}, {"b", 2}, {"nested/c", 3}};
    QVERIFY(store.saveModuleSetting(5, &options));
    options.remove("b");
    options.remove("nested/c");
    QVERIFY(store.saveModuleSetting(5, &options));

    const QString text = fileText(file);
    QVERIFY2(!text.contains("b=") && !text.contains("nested"), qPrintable(text));

    Options read;
    QVERIFY(WSSettings(file).readModuleSetting(5, &read));
    QCOMPARE(read.keys(), QStringList {"a"});
}

void tst_WSSettings::readMergesIdAndAliasGroups()
{
    const QString file = path();
    {
        QFile f(file);
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.write("[modules]\nid_2\\rate=10\nid_2\\only=1\ngen\\rate=20\ngen\\a\\b=5\n"
                "id_1\\x=9\n");
    }
    WSSettings store(file);

    Options aliased {{".alias", "gen"}, {"untouched", true}};
    QVERIFY(store.readModuleSetting(2, &aliased));
    QCOMPARE(aliased.value("rate").toInt(), 20);
    QCOMPARE(aliased.value("only").toInt(), 1);
    QCOMPARE(aliased.value("a/b").toInt(), 5);
    QCOMPARE(aliased.value("untouched"), QVariant(true));
    QVERIFY(!aliased.contains("x"));

    Options plain;
    QVERIFY(store.readModuleSetting(2, &plain));
    QCOMPARE(plain.value("rate").toInt(), 10);
    QVERIFY(!plain.contains("a/b"));
}

void tst_WSSettings::nullOptions()
{
    const QString file = path();
    WSSettings store(file);
    QVERIFY(!store.saveModuleSetting(0, static_cast<Options *>(nullptr)));
    QVERIFY(!store.readModuleSetting(0, static_cast<Options *>(nullptr)));
    QVERIFY(!store.saveModuleSetting(0, static_cast<ModuleOptions *>(nullptr)));
    QVERIFY(!store.readModuleSetting(0, static_cast<ModuleOptions *>(nullptr)));
    QVERIFY(!store.saveModuleGeometry(0, nullptr, "main"));
    QCOMPARE(store.group(), QString());
    store.sync();
    QVERIFY(!QFile::exists(file));
}

// clang-format off
void tst_WSSettings::allModulesSkipNullEntries_data()
{
    QTest::addColumn<bool>("moduleOptions");
    QTest::newRow("raw tables") << false;
    QTest::newRow("ModuleOptions") << true;
}
// clang-format on

void tst_WSSettings::allModulesSkipNullEntries()
{
    QFETCH(bool, moduleOptions);
    const QString file = path();

    QList<ModuleOptions> saved;
    for (int id = 0; id < 4; ++id)
        saved.append(ModuleOptions(Options {{"id", id}, {"name", QString("m%1").arg(id)}}));
    saved[1].insert(".alias", "second");

    const auto pointers = [](QList<ModuleOptions> &list) {
        QList<ModuleOptions *> result;
        for (ModuleOptions &options : list)
            result.append(&options);
        result[2] = nullptr;
        return result;
    };
    const auto tables = [](QList<ModuleOptions> &list) {
        QList<Options *> result;
        for (ModuleOptions &options : list)
            result.append(&options.hash);
        result[2] = nullptr;
        return result;
    };

    {
        WSSettings store(file);
        QVERIFY(moduleOptions ? store.saveAllModulesSetting(pointers(saved))
                              : store.saveAllModulesSetting(tables(saved)));
        QCOMPARE(store.group(), QString());
    }
    {
        WSSettings store(file);
        store.beginGroup("modules");
        QCOMPARE(store.childGroups(), QStringList({"id_0", "id_3", "second"}));
        store.endGroup();
    }

    QList<ModuleOptions> read;
    for (int id = 0; id < 4; ++id)
        read.append(ModuleOptions(Options {{".alias", saved.at(id).value(".alias")}}));
    read[0].hash.remove(".alias");
    read[2].insert("untouched", true);
    {
        WSSettings store(file);
        QVERIFY(moduleOptions ? store.readAllModulesSetting(pointers(read))
                              : store.readAllModulesSetting(tables(read)));
        QCOMPARE(store.group(), QString());
    }
    for (int id : {0, 1, 3}) {
        QCOMPARE(read.at(id).value("id").toInt(), id);
        QCOMPARE(read.at(id).value("name").toString(), QString("m%1").arg(id));
    }
    QStringList untouched = read.at(2).keys();
    untouched.sort();
    QCOMPARE(untouched, QStringList({".alias", "untouched"}));
}

void tst_WSSettings::windowBytes()
{
    const QString file = path();
    const QByteArray geometry("\x01\xd9\xd0\xcb\x00\x03", 6);
    const QByteArray state("state;with,separators\n", 22);
    {
        WSSettings store(file);
        QVERIFY(store.readMWGeometry().isEmpty());
        QVERIFY(store.readMWState().isEmpty());
        store.saveMWGeometry(geometry);
        store.saveMWState(state);
        // Written at once, not when the object goes away.
        QVERIFY(fileText(file).contains("[mainwindow]"));
    }
    WSSettings store(file);
    QCOMPARE(store.readMWGeometry(), geometry);
    QCOMPARE(store.readMWState(), state);
    QCOMPARE(store.group(), QString());
}

void tst_WSSettings::moduleGeometry()
{
    const QString file = path();
    QWidget widget;
    widget.setGeometry(40, 50, 320, 200);
    {
        WSSettings store(file);
        QVERIFY(store.readModuleGeometry(1, "main").isEmpty());
        QVERIFY(store.saveModuleGeometry(1, &widget, "main"));
        QCOMPARE(store.group(), QString());
    }
    WSSettings store(file);
    QCOMPARE(store.readModuleGeometry(1, "main"), widget.saveGeometry());
    QVERIFY(store.readModuleGeometry(1, "options").isEmpty());
    QVERIFY(store.readModuleGeometry(2, "main").isEmpty());

    QWidget restored;
    QVERIFY(restored.restoreGeometry(store.readModuleGeometry(1, "main")));
    QCOMPARE(restored.size(), widget.size());
}

QTEST_MAIN(tst_WSSettings)
#include "tst_wssettings.moc"
