#include <syssettings.h>

#include <QColor>
#include <QDateTime>
#include <QHash>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

using Options = QHash<QString, QVariant>;

const QString fixture = QStringLiteral(ZT_SETTINGS_FIXTURES "/handwritten.ini");

// Reads hand-written INI files: each case writes the text as a user would and checks what the
// kernel would be told. Every case reads several values through one object, so a read that left
// a group open would show in the next.
class tst_SysSettings : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(dir.isValid()); }
    void mainWindow_data();
    void mainWindow();
    void moduleReads_data();
    void moduleReads();
    void moduleOptions();
    void replaceAliases_data();
    void replaceAliases();
    void commentFilter();
    void elementsAndConnections();
    void beginGroupModuleAuto_data();
    void beginGroupModuleAuto();
    void damagedValue_data();
    void damagedValue();
    void soundVariantsKept();

private:
    QString writeIni(const QByteArray &text);

    QTemporaryDir dir;
    int files = 0;
};

QString tst_SysSettings::writeIni(const QByteArray &text)
{
    const QString path = dir.filePath(QStringLiteral("sys%1.ini").arg(++files));
    QFile file(path);
    if (file.open(QIODevice::WriteOnly))
        file.write(text);
    return path;
}

// An invalid level or size means the key is absent and the flag must come back false.
void tst_SysSettings::mainWindow_data()
{
    QTest::addColumn<QByteArray>("ini");
    QTest::addColumn<QVariant>("level");
    QTest::addColumn<QVariant>("size");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("version");

    QTest::newRow("everything") << QByteArray("[mainwindow]\ntitle=Rig\nsubtitle=Lab\nversion=1.2\n"
                                              "loggerlevel=4\nloggersize=500\n")
                                << QVariant(4) << QVariant(500) << "Rig - Lab" << QString("1.2");
    QTest::newRow("title only keeps the dash")
        << QByteArray("[mainwindow]\ntitle=Rig\n") << QVariant() << QVariant() << "Rig - "
        << QString("Unknown");
    QTest::newRow("empty version; numbers that are not still count as set")
        << QByteArray("[mainwindow]\nversion=\nloggerlevel=high\nloggersize=\n") << QVariant(0)
        << QVariant(0) << "" << QString();
    QTest::newRow("utf-8 subtitle only")
        << QByteArray("[mainwindow]\nsubtitle=Стенд №1\n") << QVariant() << QVariant()
        << QString::fromUtf8("Стенд №1") << QString("Unknown");
}

void tst_SysSettings::mainWindow()
{
    QFETCH(QByteArray, ini);
    QFETCH(QVariant, level);
    QFETCH(QVariant, size);
    SysSettings settings(writeIni(ini));
    QTEST(settings.getTitle(), "title");
    QTEST(settings.readVersion(), "version");
    // Start each flag from the opposite of what is expected, so that an untouched flag shows.
    bool ok = !level.isValid();
    QCOMPARE(settings.getLoggerLevel(&ok), level.toInt());
    QCOMPARE(ok, level.isValid());
    ok = !size.isValid();
    QCOMPARE(settings.getLoggerBlockCount(&ok), size.toInt());
    QCOMPARE(ok, size.isValid());
}

void tst_SysSettings::moduleReads_data()
{
    QTest::addColumn<int>("id");
    QTest::addColumn<bool>("hasName");
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("thread");

    // See fixtures/handwritten.ini.
    QTest::newRow("thread not a number") << 0 << true << "Source" << 0;
    QTest::newRow("name under id, thread under alias") << 2 << true << "Numbered" << 2;
    QTest::newRow("alias group without name") << 5 << false << "" << 1;
    QTest::newRow("alias from a zz_ key") << 7 << true << "Scope" << -1;
    QTest::newRow("commented-out group") << 4 << false << "" << -1;
    QTest::newRow("neither group nor alias") << 9 << false << "" << -1;
}

void tst_SysSettings::moduleReads()
{
    QFETCH(int, id);
    SysSettings settings(fixture);
    QTEST(settings.isModuleNameContains(id), "hasName");
    QTEST(settings.readModuleName(id), "name");
    QTEST(settings.readModuleThread(id), "thread");
}

void tst_SysSettings::moduleOptions()
{
    SysSettings settings(fixture);
    // Single values: "id_2" wins over the alias group; a whole setting: the alias group wins.
    QCOMPARE(settings.readModuleOption(2, "rate").toString(), "10");
    // Unquoted commas give the module a list; only text reads join it.
    QCOMPARE(settings.readModuleOption(2, "modes").toStringList(), QStringList({"fast", "slow"}));
    Options second;
    QVERIFY(settings.readModuleSetting(2, &second));
    QCOMPARE(second.value("rate").toString(), "20");

    QVERIFY(!settings.readModuleSetting(0, nullptr));
    Options first {{"kept", 1}, {"gain", 7}};
    QVERIFY(settings.readModuleSetting(0, &first));
    QCOMPARE(first,
             (Options {{"kept", 1},
                       {"gain", "3"},
                       {".name", "Source"},
                       {".thread", "abc"},
                       {"deep/level", "1"},
                       {".alias", "id_0"}}));
    // Commented out for the walk, yet readable by exact name.
    QCOMPARE(settings.readModuleOption(0, "#gain").toString(), "99");

    QVERIFY(settings.isModuleMainLayout(2));
    QVERIFY(settings.isModuleWOptionsDialog(2));
    QVERIFY(!settings.isModuleMainLayout(0));

    // An empty alias must not make the module read the whole "modules" group.
    SysSettings emptyAlias(writeIni("[aliases]\nid_4=\n[modules]\nid_1\\x=1\n"));
    Options fourth;
    QVERIFY(emptyAlias.readModuleSetting(4, &fourth));
    QCOMPARE(fourth.keys(), QStringList {".alias"});
}

// Aliases: 2 gen, 3 g, 10 out. Kinds: c(onnection), a(ction). Menu, tool bar and action entries
// in place are checked on the hand-written file.
void tst_SysSettings::replaceAliases_data()
{
    QTest::addColumn<char>("kind");
    QTest::addColumn<QString>("entry");
    QTest::addColumn<QString>("expected");

    QTest::newRow("after ';', every occurrence")
        << 'c' << "id_1;a;gen;b;gen;c" << QString("id_1;a;id_2;b;id_2;c");
    QTest::newRow("at the start, inner ones of the same alias stay")
        << 'c' << "gen;a;gen;b;g;c" << QString("id_2;a;gen;b;id_3;c");
    QTest::newRow("needs the terminator") << 'c' << "id_1;a;gen" << QString("id_1;a;gen");
    QTest::newRow("alias that is a field word")
        << 'c' << "id_1;out;id_2;in" << QString("id_1;id_10;id_2;in");
    QTest::newRow("action alias without act:") << 'a' << "gen,go" << QString("gen,go");
}

void tst_SysSettings::replaceAliases()
{
    QFETCH(char, kind);
    QFETCH(QString, entry);
    SysSettings settings(writeIni("[aliases]\nid_2=gen\nid_3=g\nid_10=out\n"));
    const QStringList result = kind == 'c'
        ? settings.replaceAliasesToId({entry, entry}, "id_", ";", "")
        : settings.replaceAliasesToId({entry, entry}, "actid_", ",", "act:");
    QFETCH(QString, expected);
    QCOMPARE(result, QStringList({expected, expected}));
}

void tst_SysSettings::commentFilter()
{
    SysSettings settings(writeIni("[#old]\na=1\n[//older]\nb=2\n[;oldest]\nc=3\n"
                                  "[g]\nk=1\n#k=2\n//k=3\nsub\\y=5\n#sub2\\z=6\n//sub3\\w=7\n"));
    // A "//" name reaches the base as an unnamed group; that is filtered too.
    QCOMPARE(settings.childGroups(), QStringList {"g"});
    settings.beginGroup("g");
    QCOMPARE(settings.childKeys(), QStringList {"k"});
    QCOMPARE(settings.childGroups(), QStringList {"sub"});
    QCOMPARE(settings.allKeys(), QStringList({"k", "sub/y"}));
}

void tst_SysSettings::elementsAndConnections()
{
    SysSettings settings(fixture);
    // Text reads join what an unquoted comma split, blanks around the commas lost.
    QCOMPARE(settings.readVersion(), "2.0,beta");
    QCOMPARE(settings.readMenus(), QStringList({"file", "view"}));
    QCOMPARE(settings.readToolBarName("main"), "Main,tools");
    QStringList actions = settings.readActions();
    actions.sort();
    QCOMPARE(actions, QStringList({"2,start", "5,stop"}));
    QCOMPARE(settings.readMenusActions("file"), QStringList({"2,start", "5,stop"}));
    QCOMPARE(settings.readToolBarsActions("main"), QStringList({"7,zoom", "1,reset"}));
    QCOMPARE(settings.readToolBarsActions("file"), QStringList());
    // Sorted by key; the unquoted entry lost everything after its ';', the commented-out ones
    // are gone, aliases became identifiers where they stand as whole fields.
    const QStringList connections = settings.readConnections();
    QCOMPARE(connections.size(), 6);
    QCOMPARE(connections.first(), "gen");
    QCOMPARE(connections.mid(3),
             QStringList(
                 {"id_3;x,id_2;y", "actid_2,go;actstart;id_5;slot_go()", "generator;out;id_1;in"}));
}

void tst_SysSettings::beginGroupModuleAuto_data()
{
    QTest::addColumn<QString>("outer");
    QTest::addColumn<int>("id");
    QTest::addColumn<QString>("expected");

    QTest::newRow("alias") << "" << 2 << "gen";
    QTest::newRow("no aliases group below") << "widgets" << 2 << "widgets/id_2";
    QTest::newRow("nested aliases group") << "local" << 2 << "local/near";
    QTest::newRow("empty alias") << "local" << 5 << "local/id_5";
}

void tst_SysSettings::beginGroupModuleAuto()
{
    SysSettings settings(writeIni("[aliases]\nid_2=gen\n[widgets]\nid_2\\a=1\n"
                                  "[local]\naliases\\id_2=near\naliases\\id_5=\n"));
    QFETCH(QString, outer);
    if (!outer.isEmpty())
        settings.beginGroup(outer);
    QFETCH(int, id);
    settings.beginGroupModuleAuto(id);
    QTEST(settings.group(), "expected");
    settings.endGroup();
    QCOMPARE(settings.group(), outer);
}

// One damaged value on line 3 of an otherwise sound file: it reads as absent, is reported with
// its file and line, and every other value still reads. A list type given by name is in the
// kernel's loading test.
void tst_SysSettings::damagedValue_data()
{
    QTest::addColumn<QByteArray>("value");

    QTest::newRow("list count past the end")
        << QByteArray("@Variant(\\0\\0\\0\\t\\x7f\\xff\\xff\\xff)");
    QTest::newRow("string length past the end")
        << QByteArray("@Variant(\\0\\0\\0\\n\\0\\0\\x1\\0ab)");
    QTest::newRow("map count past the end, hex-escaped tag")
        << QByteArray("\\x40Variant(\\0\\0\\0\\b\\0\\xff\\0\\0)");
    QTest::newRow("as one element of a list")
        << QByteArray("a, @Variant(\\0\\0\\0\\v\\x10\\0\\0\\0)");
    QTest::newRow("date-time payload") << QByteArray("@DateTime(\\0\\0\\0\\t\\0\\x7f\\0\\0\\0)");
    QTest::newRow("unknown type name") << QByteArray("@Variant(\\0\\0\\0\\x7f\\0\\0\\0\\x4Zzz\\0)");
    QTest::newRow("type whose layout is not checked") << QByteArray("@Variant(\\0\\0\\0\\x41\\0)");
    QTest::newRow("nested too deeply") << "@Variant("
            + QByteArray("\\0\\0\\0\\t\\0\\0\\0\\x1").repeated(40) + "\\0\\0\\0\\x2\\0\\0\\0\\x1)";
}

void tst_SysSettings::damagedValue()
{
    QFETCH(QByteArray, value);
    const QString path = writeIni("[connections]\n01=\"id_0;out;id_1;in\"\n06=" + value
                                  + "\n07=\"id_1;out;id_2;in\"\n[mainwindow]\ntitle=Rig\n");
    QTest::ignoreMessage(
        QtWarningMsg, QRegularExpression("^Damaged value ignored: .*sys\\d+\\.ini:3, key \"06\""));
    SysSettings settings(path);
    QCOMPARE(settings.damagedValues().size(), 1);
    const SettingsFinding finding = settings.damagedValues().first();
    QCOMPARE(finding.fileName, path);
    QCOMPARE(finding.line, 3);
    QVERIFY(!finding.reason.isEmpty());
    QCOMPARE(settings.readConnections(), QStringList({"id_0;out;id_1;in", "id_1;out;id_2;in"}));
    QCOMPARE(settings.getTitle(), "Rig - ");

    // The file exactly as it was reported.
    QTest::ignoreMessage(QtWarningMsg,
                         QRegularExpression("^Damaged value ignored: .*:2, key \"06\""));
    SysSettings twoLines(writeIni("[connections]\n06=" + value + "\n"));
    QCOMPARE(twoLines.allKeys(), QStringList());
}

// Values that QSettings itself wrote with @Variant(...) pass the check and read as written.
void tst_SysSettings::soundVariantsKept()
{
    const QString path = dir.filePath("written.ini");
    const QVariantMap map {{"list", QVariantList {1, "two", QVariantList {3.5}}},
                           {"colour", QColor(10, 20, 30)},
                           {"when", QDateTime(QDate(2024, 5, 1), QTime(12, 0), Qt::UTC)},
                           {"bytes", QByteArray("\0\1)", 3)}};
    QSettings(path, QSettings::IniFormat).setValue("modules/id_0/map", map);
    SysSettings settings(path);
    QVERIFY(settings.damagedValues().isEmpty());
    QCOMPARE(settings.readModuleOption(0, "map").toMap(), map);
}

QTEST_GUILESS_MAIN(tst_SysSettings)
#include "tst_syssettings.moc"
