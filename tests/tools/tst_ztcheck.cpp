#include <configchecker.h>
#include <inilocator.h>
#include <syssettings.h>
#include <ztcheck.h>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QSet>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

namespace {

// A small rig as people write it, valid for the example modules: every table row below breaks
// one thing in it. Line numbers are those of this text.
const char rig[] = R"ini(; A small rig: generator -> gain stage -> plot.
[mainwindow]
title=Rig
loggerlevel=4
loggersize=500

[aliases]
id_0=gen
id_1=gain
id_2=plot

[modules]
gen\.name=SignalGenerator
gen\.thread=0
gain\.name=Processing
gain\.thread=1
plot\.name=Plot

[widgets]
plot\ismainlayout=true

[mwelements]
menus\01=file
menunames\file=&File

[actions]
mwMenus\file\01=plot,quit

[connections]
; source;signal;target;slot
01="gen;signal_ImReady(QVariantList);gain;slot_StartProcessing(QVariantList)"
02="gain;signal_ImReady(QVariantList);plot;in"
03="act:plot,quit;actquit"
)ini";

// The same for the kernel's fixture plug-ins: a stream module and an extended one.
const char fixtureRig[] = R"ini([aliases]
id_0=src
id_1=ext
id_2=srv
[modules]
src\.name=teststream
ext\.name=testextended
ext\.thread=1
srv\.name=testextended
[connections]
01="src;signal_ImReady(QVariantList);ext;in"
02="ext;dev;srv;regs;feedback"
)ini";

const QString line31 = QStringLiteral(
    "01=\"gen;signal_ImReady(QVariantList);gain;slot_StartProcessing(QVariantList)\"");
const QString line32 = QStringLiteral("02=\"gain;signal_ImReady(QVariantList);plot;in\"");
const QString line33 = QStringLiteral("03=\"act:plot,quit;actquit\"");

QString connection(const QString &key, const QString &entry)
{
    return QStringLiteral("%1=\"%2\"").arg(key, entry);
}

QString findingsText(const QList<Finding> &findings)
{
    QStringList lines;
    for (const Finding &finding : findings)
        lines.append(finding.format());
    return lines.isEmpty() ? QStringLiteral("(no findings)") : lines.join(QLatin1Char('\n'));
}

} // namespace

class tst_ZtCheck : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir dir;
    int files = 0;

    QString write(const QByteArray &text)
    {
        const QString path = dir.filePath(QStringLiteral("system%1.ini").arg(++files));
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size())
            qFatal("cannot write %s", qPrintable(path));
        return path;
    }
    // `base` with `from` replaced by `to` (the first occurrence, which must exist).
    QString broken(const QString &base, const QString &from, const QString &to)
    {
        if (!base.contains(from))
            qFatal("the base text has no \"%s\"", qPrintable(from));
        QString text = base;
        text.replace(text.indexOf(from), from.size(), to);
        return write(text.toUtf8());
    }
    static QString exampleModules()
    {
#ifdef ZT_EXAMPLE_MODULES
        return QStringLiteral(ZT_EXAMPLE_MODULES);
#else
        return QString();
#endif
    }
    int run(const QStringList &args, QString *out, QString *err = nullptr)
    {
        QString errText;
        QTextStream outStream(out);
        QTextStream errStream(&errText);
        const int status = ztcheck::run(args, outStream, errStream);
        if (err)
            *err = errText;
        return status;
    }

private slots:
    void locator_data();
    void locator();
    void locatorFindsEveryKeyQSettingsReads();

    void findings_data();
    void findings();
    void repositoryFilesAreClean_data();
    void repositoryFilesAreClean();

    void commandLine_data();
    void commandLine();
    void json();
    void realProcess();

    void graphOfTheDemo();
    void failedEntryDrawnRed();
    void missingDotIsSaid();
};

void tst_ZtCheck::locator_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QString>("path");
    QTest::addColumn<int>("line");
    QTest::addColumn<bool>("cut");

    QTest::newRow("group and backslash")
        << QByteArray("[modules]\ngen\\.name=X\n") << "modules/gen/.name" << 2 << false;
    QTest::newRow("comment lines") << QByteArray("; c\n[a]\n; k=1\nk=v\n") << "a/k" << 4 << false;
    QTest::newRow("quoted value over two lines")
        << QByteArray("[a]\nk=\"one\ntwo\"\nm=1\n") << "a/m" << 4 << false;
    QTest::newRow("escaped line break")
        << QByteArray("[a]\nk=one\\\ntwo\nm=1\n") << "a/m" << 4 << false;
    QTest::newRow("unquoted semicolon cuts")
        << QByteArray("[c]\n01=id_0;x;id_1;y\n02=z\n") << "c/01" << 2 << true;
    QTest::newRow("quoted semicolon")
        << QByteArray("[c]\n01=\"a;b\" ; note\n") << "c/01" << 2 << false;
    QTest::newRow("percent escapes")
        << QByteArray("[a]\nk%20x%U0041=1\n") << "a/k xA" << 2 << false;
    QTest::newRow("general is the top level")
        << QByteArray("[General]\nk=1\n[b]\nj=2\n") << "k" << 2 << false;
    QTest::newRow("CRLF") << QByteArray("[a]\r\nk=1\r\nm=2\r\n") << "a/m" << 3 << false;
    QTest::newRow("the later of two") << QByteArray("[a]\nk=1\nk=2\n") << "a/k" << 3 << false;
    QTest::newRow("absent") << QByteArray("[a]\nk=1\n") << "a/j" << 0 << false;
}

void tst_ZtCheck::locator()
{
    QFETCH(QByteArray, text);
    QFETCH(QString, path);
    QFETCH(int, line);
    QFETCH(bool, cut);

    const IniLocator ini = IniLocator::fromText(text);
    QCOMPARE(ini.lineOf(path), line);
    if (line > 0)
        QCOMPARE(ini.find(path)->cut, cut);
}

// Every key QSettings reads from the repository's own settings files has a line.
void tst_ZtCheck::locatorFindsEveryKeyQSettingsReads()
{
    int checked = 0;
    for (const char *folder : {"docs", "examples", "tests"}) {
        QDirIterator it(QStringLiteral(ZT_SOURCE_DIR "/") + QLatin1String(folder),
                        {QStringLiteral("*.ini")}, QDir::Files, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            QFile file(path);
            QVERIFY(file.open(QIODevice::ReadOnly));
            const IniLocator ini = IniLocator::fromText(file.readAll());
            // SysSettings, because some of these files hold values plain QSettings must not
            // decode.
            const SysSettings settings(path);
            for (const QString &key : settings.QSettings::allKeys()) {
                QVERIFY2(ini.lineOf(key) > 0, qPrintable(path + QStringLiteral(": ") + key));
                ++checked;
            }
        }
    }
    QVERIFY(checked > 100);
}

// Each row breaks the rig in one place and must give exactly that one finding; rows tagged
// "modules: " are checked against module libraries (the example modules unless the row names
// the fixture plug-ins).
void tst_ZtCheck::findings_data()
{
    QTest::addColumn<QString>("from");
    QTest::addColumn<QString>("to");
    QTest::addColumn<int>("line");
    QTest::addColumn<bool>("error");
    QTest::addColumn<QString>("code");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("modulesDir");
    const QString fixtures = QStringLiteral(ZT_FIXTURE_MODULES);
    QString modules;
    const auto row = [&modules](const char *tag, const QString &from, const QString &to, int line,
                                bool error, const char *code, const QString &text,
                                const QString &dir = QString()) {
        const QByteArray name = (modules.isEmpty() ? QByteArray() : "modules: ") + tag;
        QTest::newRow(name.constData()) << from << to << line << error << QString::fromLatin1(code)
                                        << text << (dir.isEmpty() ? modules : dir);
    };
    const QString entry01 = QStringLiteral(
        "gen;signal_ImReady(QVariantList);gain;slot_StartProcessing(QVariantList)");

    row("unquoted connection", line31, QStringLiteral("01=") + entry01, 31, true,
        "unquoted-semicolon",
        "value of \"01\" ends at an unquoted ';': the kernel reads \"gen\" and takes the rest of "
        "the line for a comment (quote the whole value: 01=\"gen;signal_ImReady");
    row("three fields", line31, connection("01", "gen;signal_ImReady(QVariantList);id_1"), 31, true,
        "field-count", "has 3 fields; an entry is source;signal;target;slot");
    row("alias as the last field", line31,
        connection("01", "gen;signal_ImReady(QVariantList);gain"), 31, true, "alias-not-rewritten",
        "alias \"gain\" in connection");
    row("signal without prefix", line31,
        connection("01", "gen;ImReady(QVariantList);gain;slot_StartProcessing(QVariantList)"), 31,
        true, "missing-prefix", "\"ImReady(QVariantList)\" needs the prefix signal_");
    row("feedback on a signal/slot entry", line31, connection("01", entry01 + ";feedback"), 31,
        false, "ignored-feedback", "\"feedback\" is ignored");
    row("unknown connection option", line31, connection("01", entry01 + ";speed=fast"), 31, false,
        "connection-option", "unknown connection option \"speed=fast\" ignored");
    row("timeout on a stream", line32,
        connection("02", "gain;signal_ImReady(QVariantList);plot;in;timeout=500"), 32, false,
        "option-not-applicable", "option \"timeout=500\" has no effect on a stream");
    row("misspelt alias as source", line31, connection("01", "gne" + entry01.mid(3)), 31, true,
        "unknown-alias",
        "\"gne\" in connection \"gne;signal_ImReady(QVariantList);id_1;slot_StartProcessing("
        "QVariantList)\" is neither a module identifier (id_<number>) nor a defined alias (did "
        "you mean \"gen\"?)");
    row("two aliases for one module", "id_2=plot", "ab_2=view\nid_2=plot", 11, true,
        "duplicate-alias", "module 2 has two aliases, \"view\" (key \"ab_2\") and \"plot\"");
    row("alias key without a number", "id_2=plot", "id_2=plot\nplotter=plot2", 11, true,
        "bad-alias-key", "alias key \"plotter\" has no module number");
    row("connection to a module without .name", line31,
        connection("01",
                   "gen;signal_ImReady(QVariantList);id_7;slot_StartProcessing(QVariantList)"),
        31, true, "undefined-module", "names module 7, which has no .name");
    row("gap in the module numbers", "plot\\.name=Plot", "plot\\.name=Plot\nid_4\\.name=Plot", 18,
        true, "module-gap",
        "module 3 has no .name, so the kernel stops loading there and never loads module 4");
    row(".thread not a number", "gain\\.thread=1", "gain\\.thread=one", 16, true, "bad-thread",
        ".thread of module 1 (gain) is \"one\", not a number");
    row("two main layouts", "plot\\ismainlayout=true",
        "gen\\ismainlayout=true\nplot\\ismainlayout=true", 21, true, "main-layout-twice",
        "module 2 (plot) is flagged ismainlayout, and so is module 0 (gen) on line 20");
    row("logger level not a number", "loggerlevel=4", "loggerlevel=debug", 4, true, "bad-number",
        "loggerlevel is \"debug\", not a number");
    row("misspelt module group", "gain\\.thread=1", "gain\\.thread=1\ngian\\offset=0.5", 17, true,
        "unknown-module-group",
        "group \"gian\" in [modules] is neither id_<number> nor a defined alias; the kernel never "
        "reads it (did you mean \"gain\"?)");
    row("misspelt action keyword", line33, connection("03", "act:plot,quit;actqiut"), 33, true,
        "unknown-keyword", "(did you mean \"actquit\"?)");
    row("action entry without act:", line33, connection("03", "plot,quit;actquit"), 33, true,
        "unknown-action-entry", "must begin with act:<alias>,<action>");
    row("feedback on a signal", line32,
        connection("02", "gain;signal_ImReady(QVariantList);plot;in;feedback"), 32, true,
        "feedback-stream", "feedback joins two propagators");
    row("misspelt feedback", line32,
        connection("02", "gain;signal_ImReady(QVariantList);plot;in;feedbak"), 32, false,
        "extra-fields", "field \"feedbak\" is ignored (did you mean \"feedback\"?)");
    row("state signal to the log", line33,
        connection("03", "gen;signal_state(QString,Logger::Level);logger"), 33, false,
        "logger-obsolete", "already goes to the log");
    row("stray text line", "title=Rig", "title=Rig\nThis rig measures things.", 4, false,
        "stray-line", "neither [group], key=value nor a ';' comment");
    row("connection key set twice", line32, line32 + QLatin1Char('\n') + line32, 33, false,
        "duplicate-key", "\"connections/02\" is set again; the value on line 32 is lost");
    row("misspelt widget key", "plot\\ismainlayout=true",
        "plot\\ismainlayout=true\nplot\\wmian=Plot", 21, false, "unknown-widget-key",
        "\"wmian\" in [widgets] is not a widget setting; nothing reads it (did you mean "
        "\"wmain\"?)");
    row("flag that is not true or false", "plot\\ismainlayout=true", "plot\\ismainlayout=no", 20,
        false, "bad-bool", "ismainlayout is \"no\", which reads as true");
    row("menu that is not listed", "mwMenus\\file\\01=plot,quit",
        "mwMenus\\file\\01=plot,quit\nmwMenus\\edit\\01=plot,quit", 28, false, "unlisted-menu",
        "menu \"edit\" has actions but is not listed");

    // What only the modules' own declarations tell.
    modules = QStringLiteral("examples");
    row("misspelt library", "gen\\.name=SignalGenerator", "gen\\.name=SignalGeneratr", 13, true,
        "missing-library", "(did you mean \"SignalGenerator\"?)");
    row("unknown signal", line31,
        connection("01",
                   "gen;signal_ImReddy(QVariantList);gain;slot_StartProcessing(QVariantList)"),
        31, true, "unknown-signal",
        "module 0 (gen) has no signal ImReddy(QVariantList) (did you mean "
        "\"ImReady(QVariantList)\"?)");
    row("unknown slot, written unnormalised", line31,
        connection("01",
                   "gen;signal_ImReady(QVariantList);gain;slot_StartProcesing( QVariantList )"),
        31, true, "unknown-slot", "module 1 (gain) has no slot StartProcesing(QVariantList)");
    row("signal cannot call slot", line31,
        connection("01", "gen;signal_myStatus(QString);gain;slot_StartProcessing(QVariantList)"),
        31, true, "incompatible-signature",
        "signal myStatus(QString) cannot call slot StartProcessing(QVariantList)");
    row("undeclared stream propagator", line32,
        connection("02", "gain;signal_ImReady(QVariantList);plot;inn"), 32, true,
        "unknown-propagator",
        "module 2 (plot) declares no stream propagator \"inn\" (did you mean \"in\"?)");
    row("unknown action in a menu", "mwMenus\\file\\01=plot,quit", "mwMenus\\file\\01=plot,qiut",
        27, true, "unknown-action", "module 2 (plot) has no action \"qiut\" (menu \"file\")");
    row("misspelt option", "gain\\.thread=1", "gain\\.thread=1\ngain\\ofset=0.5", 17, false,
        "unknown-option",
        "module 1 (gain) has no option \"ofset\"; the kernel stores it but the module never "
        "reads it (did you mean \"offset\"?)");

    row("unknown module kind", "ext\\.name=testextended", "ext\\.name=testunknown", 7, true,
        "unknown-kind", "makes modules of the unknown kind \"ZtMIMystery\"", fixtures);
    row("not a module library", "ext\\.name=testextended", "ext\\.name=testforeign", 7, true,
        "bad-library", "it does not implement Zantor.ZtLibLevelInterface/1.2", fixtures);
    row("GUI module on a worker thread", "src\\.name=teststream",
        "src\\.name=testguithread\nsrc\\.thread=2", 7, false, "gui-thread-module",
        "module 0 (src) needs the GUI thread; .thread=2 is ignored", fixtures);
}

void tst_ZtCheck::findings()
{
    QFETCH(QString, from);
    QFETCH(QString, to);
    QFETCH(int, line);
    QFETCH(bool, error);
    QFETCH(QString, code);
    QFETCH(QString, text);
    QFETCH(QString, modulesDir);
    if (modulesDir == QLatin1String("examples"))
        modulesDir = exampleModules();
    if (modulesDir.isEmpty() && QByteArray(QTest::currentDataTag()).startsWith("modules: "))
        QSKIP("the example modules are not built");

    const QString base
        = QString::fromUtf8(modulesDir == QLatin1String(ZT_FIXTURE_MODULES) ? fixtureRig : rig);
    const QString path = broken(base, from, to);
    ConfigChecker checker(path, modulesDir);
    QVERIFY(checker.run());
    const QList<Finding> findings = checker.findings();
    QVERIFY2(findings.size() == 1, qPrintable(findingsText(findings)));
    const Finding &finding = findings.first();
    QCOMPARE(finding.line, line);
    QCOMPARE(finding.severity, error ? Finding::Error : Finding::Warning);
    QCOMPARE(finding.code, code);
    QVERIFY2(finding.format().contains(text), qPrintable(finding.format()));
    QVERIFY(finding.format().startsWith(path + QLatin1Char(':') + QString::number(line)));
    QCOMPARE(checker.hasErrors(), error);
}

void tst_ZtCheck::repositoryFilesAreClean_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QString>("modulesDir");

    // The two test rigs need no row: every row of findings() expects its own finding only.
    QTest::newRow("the demo with the example modules")
        << QStringLiteral(ZT_SOURCE_DIR "/examples/demo/system.ini") << exampleModules();
    // Every settings file shipped as an example or as documentation.
    for (const char *folder : {"docs", "examples"}) {
        QDirIterator it(QStringLiteral(ZT_SOURCE_DIR "/") + QLatin1String(folder),
                        {QStringLiteral("*.ini")}, QDir::Files, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            QTest::newRow(qPrintable(QDir(QStringLiteral(ZT_SOURCE_DIR)).relativeFilePath(path)))
                << path << QString();
        }
    }
}

void tst_ZtCheck::repositoryFilesAreClean()
{
    QFETCH(QString, file);
    QFETCH(QString, modulesDir);
    if (QByteArray(QTest::currentDataTag()).contains("example modules") && modulesDir.isEmpty())
        QSKIP("the example modules are not built");

    ConfigChecker checker(file, modulesDir);
    QVERIFY(checker.run());
    QVERIFY2(checker.findings().isEmpty(), qPrintable(findingsText(checker.findings())));
}

void tst_ZtCheck::commandLine_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("out");
    QTest::addColumn<QString>("err");

    const QString clean = write(rig);
    const QString error = broken(rig, line31, QStringLiteral("01=gen;signal_x();gain;slot_y()"));
    const QString warning = broken(
        rig, line32, connection("02", "gain;signal_ImReady(QVariantList);plot;in;speed=fast"));

    QTest::newRow("clean") << QStringList {clean} << 0 << QString()
                           << "note: no --modules folder given";
    QTest::newRow("an error") << QStringList {error} << 1
                              << error + ":31: error: value of \"01\" ends at an unquoted ';'"
                              << QString();
    QTest::newRow("warnings only")
        << QStringList {warning} << 0 << warning + ":32: warning: connection" << QString();
    QTest::newRow("no file") << QStringList {} << 2 << QString() << "no settings file given";
    QTest::newRow("unreadable file") << QStringList {dir.filePath(QStringLiteral("none.ini"))} << 2
                                     << QString() << "cannot read";
    QTest::newRow("two files") << QStringList {clean, error} << 2 << QString()
                               << "one settings file at a time";
    QTest::newRow("unknown format")
        << QStringList {QStringLiteral("--format"), QStringLiteral("xml"), clean} << 2 << QString()
        << "unknown format \"xml\"";
    QTest::newRow("option without value")
        << QStringList {clean, QStringLiteral("--dot")} << 2 << QString() << "--dot needs a value";
    QTest::newRow("unknown option") << QStringList {QStringLiteral("--modles"), clean} << 2
                                    << QString() << "unknown option --modles";
    QTest::newRow("missing modules folder")
        << QStringList {QStringLiteral("--modules"), dir.filePath(QStringLiteral("nowhere")), clean}
        << 2 << QString() << "does not exist";
}

void tst_ZtCheck::commandLine()
{
    QFETCH(QStringList, args);
    QFETCH(int, status);
    QFETCH(QString, out);
    QFETCH(QString, err);

    QString outText;
    QString errText;
    QCOMPARE(run(args, &outText, &errText), status);
    if (out.isEmpty())
        QVERIFY2(outText.isEmpty(), qPrintable(outText));
    else
        QVERIFY2(outText.startsWith(out), qPrintable(outText));
    QVERIFY2(errText.contains(err), qPrintable(errText));
}

void tst_ZtCheck::json()
{
    const QString file = broken(rig, "gain\\.thread=1", "gain\\.thread=one");
    QString out;
    QCOMPARE(run({QStringLiteral("--format"), QStringLiteral("json"), file}, &out), 1);
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(out.toUtf8(), &error);
    QCOMPARE(error.error, QJsonParseError::NoError);
    QCOMPARE(document.object().value(QStringLiteral("modulesChecked")).toBool(), false);
    const QJsonArray findings = document.object().value(QStringLiteral("findings")).toArray();
    QCOMPARE(findings.size(), 1);
    const QJsonObject finding = findings.first().toObject();
    QCOMPARE(finding.value(QStringLiteral("file")).toString(), file);
    QCOMPARE(finding.value(QStringLiteral("line")).toInt(), 16);
    QCOMPARE(finding.value(QStringLiteral("severity")).toString(), QStringLiteral("error"));
    QCOMPARE(finding.value(QStringLiteral("code")).toString(), QStringLiteral("bad-thread"));
    QVERIFY(finding.value(QStringLiteral("text")).toString().startsWith(".thread of module 1"));
    QVERIFY(finding.value(QStringLiteral("hint")).toString().contains("GUI thread"));
}

// The installed tool, as a user runs it.
void tst_ZtCheck::realProcess()
{
    const QString file = broken(rig, line31, QStringLiteral("01=gen;signal_x();gain;slot_y()"));
    QProcess tool;
    tool.start(QStringLiteral(ZTCHECK_EXE), {file});
    QVERIFY(tool.waitForFinished(60000));
    QCOMPARE(tool.exitStatus(), QProcess::NormalExit);
    QCOMPARE(tool.exitCode(), 1);
    const QString out = QString::fromLocal8Bit(tool.readAllStandardOutput());
    QVERIFY2(out.startsWith(file + QStringLiteral(":31: error: ")), qPrintable(out));
}

void tst_ZtCheck::graphOfTheDemo()
{
    const QString dot = QStandardPaths::findExecutable(QStringLiteral("dot"));
    if (dot.isEmpty())
        QSKIP("Graphviz's dot is not installed");
    const QString dotFile = dir.filePath(QStringLiteral("demo.dot"));
    const QString pngFile = dir.filePath(QStringLiteral("demo.png"));
    const QString svgFile = dir.filePath(QStringLiteral("demo.svg"));
    QStringList args {QStringLiteral("--dot"),
                      dotFile,
                      QStringLiteral("--png"),
                      pngFile,
                      QStringLiteral("--svg"),
                      svgFile,
                      QStringLiteral(ZT_SOURCE_DIR "/examples/demo/system.ini")};
    if (!exampleModules().isEmpty())
        args << QStringLiteral("--modules") << exampleModules();
    QString out;
    QCOMPARE(run(args, &out), 0);

    // Parsed back: one node per module, one edge per connection entry, by their ids.
    QFile file(dotFile);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QString graph = QString::fromUtf8(file.readAll());
    QSet<QString> nodes;
    QRegularExpressionMatchIterator it
        = QRegularExpression(QStringLiteral("^\\s*(m\\d+) \\[label=\"([^\"]*)\""),
                             QRegularExpression::MultilineOption)
              .globalMatch(graph);
    while (it.hasNext()) {
        const QRegularExpressionMatch m = it.next();
        nodes.insert(m.captured(1) + QLatin1Char(' ')
                     + m.captured(2).section(QLatin1String("\\n"), 0, 1));
    }
    QCOMPARE(nodes,
             (QSet<QString> {"m0 gen\\n#0 SignalGenerator", "m1 gain\\n#1 Processing",
                             "m2 plot\\n#2 Plotter", "m3 poller\\n#3 Poller",
                             "m4 device\\n#4 RegisterDevice", "m5 shift\\n#5 Processing",
                             "m6 monitor\\n#6 Processing"}));
    QSet<QString> edges;
    it = QRegularExpression(QStringLiteral("-> \\w+ \\[id=\"conn_(\\d+)\"")).globalMatch(graph);
    while (it.hasNext())
        edges.insert(it.next().captured(1));
    QSet<QString> keys;
    for (int key = 1; key <= 14; ++key)
        keys.insert(QStringLiteral("%1").arg(key, 2, 10, QLatin1Char('0')));
    QCOMPARE(edges, keys);
    QVERIFY(!graph.contains(QLatin1String("color=red")));

    // Valid for dot, and the pictures are real.
    QProcess check;
    check.start(dot, {QStringLiteral("-Tcanon"), dotFile});
    QVERIFY(check.waitForFinished(60000));
    QCOMPARE(check.exitCode(), 0);
    QFile png(pngFile);
    QVERIFY(png.open(QIODevice::ReadOnly));
    QVERIFY(png.size() > 1000);
    QCOMPARE(png.read(8), QByteArray("\x89PNG\r\n\x1a\n"));
    QFile svg(svgFile);
    QVERIFY(svg.open(QIODevice::ReadOnly));
    QVERIFY(svg.readAll().contains("<svg"));
}

void tst_ZtCheck::failedEntryDrawnRed()
{
    const QString file = broken(
        rig, line31,
        connection("01",
                   "gen;signal_ImReady(QVariantList);id_7;slot_StartProcessing(QVariantList)"));
    const QString dotFile = dir.filePath(QStringLiteral("broken.dot"));
    QString out;
    QCOMPARE(run({QStringLiteral("--dot"), dotFile, file}, &out), 1);
    QFile dot(dotFile);
    QVERIFY(dot.open(QIODevice::ReadOnly));
    const QStringList lines = QString::fromUtf8(dot.readAll()).split(QLatin1Char('\n'));
    const QStringList edge = lines.filter(QStringLiteral("id=\"conn_01\""));
    QCOMPARE(edge.size(), 1);
    QVERIFY2(edge.first().contains(QLatin1String("color=red"))
                 && edge.first().contains(QLatin1String("which has no .name")),
             qPrintable(edge.first()));
    QVERIFY(lines.filter(QRegularExpression(QStringLiteral("^\\s*m7 .*no module"))).size() == 1);
    QVERIFY(lines.filter(QStringLiteral("id=\"conn_02\"")).first().contains("color=\"#1f5fbf\""));
}

void tst_ZtCheck::missingDotIsSaid()
{
    const QByteArray path = qgetenv("PATH");
    qputenv("PATH", dir.path().toLocal8Bit());
    QString out;
    QString err;
    const int status = run(
        {QStringLiteral("--png"), dir.filePath(QStringLiteral("x.png")), write(rig)}, &out, &err);
    qputenv("PATH", path);
    QCOMPARE(status, 2);
    QVERIFY2(err.contains(QLatin1String("Graphviz's dot is not installed")), qPrintable(err));
}

QTEST_MAIN(tst_ZtCheck)
#include "tst_ztcheck.moc"
