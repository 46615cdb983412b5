#include <logger.h>
#include <loggerwidget.h>
#include <ztmifound.h>

#include <QCoreApplication>
#include <QFile>
#include <QPointer>
#include <QRegExp>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTextBlock>
#include <QThread>
#include <QTimer>

#include <memory>
#include <new>
#include <optional>

// File lines and headers are checked byte for byte; only the time stamps are matched by pattern.

using LevelTable = QHash<QString, bool>;

namespace {

const QString header
    = QStringLiteral("\\n\\n={30} {5}\\d\\d\\.\\d\\d\\.\\d\\d \\d\\d:\\d\\d:\\d\\d {6}={29}\\n");

// A file line; the tag is made of the type letter, "(WW)" for "W".
QString fileLine(const QString &letter, const QString &source, const QString &text)
{
    return QRegularExpression::escape(QStringLiteral("(%1%1)").arg(letter))
        + QStringLiteral(" \\d\\d \\S+ \\d\\d:\\d\\d:\\d\\d ")
        + QRegularExpression::escape(source + QStringLiteral(":    ") + text + QLatin1Char('\n'));
}

QString screenLine(const QString &source, const QString &text)
{
    return QStringLiteral("\\d\\d:\\d\\d:\\d\\d ")
        + QRegularExpression::escape(source + QStringLiteral(": ") + text);
}

// The entries of a log file without their time stamps and the padding after the source:
// "(II) source: text".
QStringList fileEntries(const QString &path)
{
    QFile log(path);
    QStringList result;
    for (QString line : QString::fromUtf8(log.open(QIODevice::ReadOnly) ? log.readAll() : "")
                            .split(QLatin1Char('\n'))) {
        if (line.startsWith(QLatin1Char('(')))
            result.append(
                line.remove(QRegularExpression(QStringLiteral(" \\d\\d \\S+ [\\d:]{8}| {3}"))));
    }
    return result;
}

bool matches(const QString &subject, const QString &pattern)
{
    if (QRegularExpression(QRegularExpression::anchoredPattern(pattern)).match(subject).hasMatch())
        return true;
    qWarning().noquote() << "subject:" << subject << "\npattern:" << pattern;
    return false;
}

} // namespace

class tst_Logger : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { qRegisterMetaType<LevelTable>("QHash<QString,bool>"); }
    void init() { QVERIFY(dir.emplace().isValid()); }
    void writeFilter_data();
    void writeFilter();
    void sources_data();
    void sources();
    void widget();
    void view_data();
    void view();
    void flood_data();
    void flood();
    void fileBuffer_data();
    void fileBuffer();

private:
    std::optional<QTemporaryDir> dir;
};

void tst_Logger::writeFilter_data()
{
    QTest::addColumn<int>("levelWrite");
    QTest::addColumn<QString>("fileName"); // empty: setFile is not called
    QTest::addColumn<int>("level");
    QTest::addColumn<QString>("letter");
    QTest::addColumn<int>("file"); // -1 none, 0 header only, 1 header and line

    const QString log = QStringLiteral("zt.log");
    QTest::newRow("critical") << 4 << log << 1 << "C" << 1;
    QTest::newRow("error") << 4 << log << 2 << "E" << 1;
    QTest::newRow("warning") << 4 << log << 3 << "W" << 1;
    QTest::newRow("info at the limit") << 4 << log << 4 << "I" << 1;
    QTest::newRow("message past the limit") << 4 << log << 5 << "M" << 0;
    QTest::newRow("debug past the limit") << 4 << log << 6 << "D" << 0;
    QTest::newRow("message with filter 5") << 5 << log << 5 << "M" << 1;
    QTest::newRow("level 0 under the strictest filter") << 1 << log << 0 << "D" << 1;
    QTest::newRow("negative level") << 4 << log << -1 << "D" << 1;
    QTest::newRow("level 7 past the limit") << 4 << log << 7 << "D" << 0;
    QTest::newRow("level 7 with filter 7") << 7 << log << 7 << "D" << 1;
    QTest::newRow("write level 0") << 0 << log << 1 << "C" << -1;
    QTest::newRow("no file given") << 4 << "" << 1 << "C" << -1;
    QTest::newRow("path cannot be opened") << 4 << "missing/zt.log" << 1 << "C" << -1;
}

// A direct call has no sender: its source is "null". The file is opened twice, as by two runs:
// what it held stays, and each opening adds a header.
void tst_Logger::writeFilter()
{
    QFETCH(int, levelWrite);
    QFETCH(QString, fileName);
    QFETCH(int, level);
    QFETCH(QString, letter);
    QFETCH(int, file);

    QFile log(dir->filePath(QStringLiteral("zt.log")));
    QVERIFY(log.open(QIODevice::WriteOnly) && log.write("earlier run\n") > 0);
    log.close();
    Logger logger;
    logger.setLevelWrite(Logger::Level(levelWrite));
    for (int i = 0; i < 2 && !fileName.isEmpty(); ++i)
        logger.setFile(dir->filePath(fileName));
    QSignalSpy printed(&logger, &Logger::print);

    // Inner line breaks reach the view unchanged and the file indented by a tab.
    const QString text = QStringLiteral("Größe 5 %\n\n[ok]");
    logger.append(text, Logger::Level(level));
    // Asking for the view complains on every call while there is no open file.
    logger.getWidget();
    logger.getWidget();

    QCOMPARE(printed.count(), file < 0 ? 3 : 1);
    QVERIFY(matches(printed.first().at(0).toString(), screenLine("null", text)));
    QCOMPARE(printed.first().at(1).toString(), letter);
    if (file < 0) {
        QVERIFY(matches(printed.last().at(0).toString(),
                        screenLine("null", "can't open log_file !!!")));
        QCOMPARE(printed.last().at(1).toString(), QStringLiteral("E"));
    }
    QString expected = QStringLiteral("earlier run\\n");
    if (file >= 0)
        expected
            += header + header + (file ? fileLine(letter, "null", "Größe 5 %\n\t\n\t[ok]") : "");
    QVERIFY(log.open(QIODevice::ReadOnly));
    QVERIFY(matches(QString::fromUtf8(log.readAll()), expected));
}

// A module in the logger's thread is named by its live ".alias"; one on a worker by the alias
// recorded when it was loaded, since its options belong to its own thread. A record belongs to
// its module, not to its address. The one-argument state() logs at level 5.
void tst_Logger::sources_data()
{
    QTest::addColumn<QString>("sender"); // "module", "module, no level" or "other object"
    QTest::addColumn<bool>("onWorker");
    QTest::addColumn<QVariant>("recorded"); // given to registerSource; invalid: not recorded
    QTest::addColumn<QVariant>("alias"); // set by the module in its thread; invalid: undeclared
    QTest::addColumn<bool>("addressReused"); // a recorded module was there and is gone
    QTest::addColumn<QString>("source");

    const QVariant none;
    const QVariant gen("gen");
    const QString idForm = QStringLiteral("id_3 (gen)");
    QTest::newRow("alias") << "module" << false << none << gen << false << "gen";
    QTest::newRow("empty alias") << "module" << false << none << QVariant("") << false << idForm;
    QTest::newRow("state without level")
        << "module, no level" << false << none << gen << false << "gen";
    QTest::newRow("live alias over the record")
        << "module" << false << QVariant("loaded") << gen << false << "gen";
    QTest::newRow("not a module") << "other object" << false << gen << none << false << "null";
    QTest::newRow("worker: alias rewritten after the record")
        << "module" << true << gen << QVariant("renamed") << false << "gen";
    QTest::newRow("worker: empty record")
        << "module" << true << QVariant("") << gen << false << idForm;
    QTest::newRow("worker: no record") << "module" << true << none << gen << false << idForm;
    QTest::newRow("worker: record of a gone module")
        << "module" << true << none << none << true << idForm;
    QTest::newRow("worker: late end of a gone module spares the new record")
        << "module" << true << gen << none << true << "gen";
}

void tst_Logger::sources()
{
    QFETCH(QString, sender);
    QFETCH(bool, onWorker);
    QFETCH(QVariant, recorded);
    QFETCH(QVariant, alias);
    QFETCH(bool, addressReused);
    QFETCH(QString, source);

    Logger logger;
    alignas(ZtMIFound) unsigned char storage[sizeof(ZtMIFound)];
    if (addressReused) {
        // Ends on a thread of its own, so that the logger hears of it only later.
        auto *gone = new (storage) ZtMIFound(1);
        logger.registerSource(gone, QStringLiteral("gone"));
        std::unique_ptr<QThread> ender(QThread::create([gone] { gone->~ZtMIFound(); }));
        gone->moveToThread(ender.get());
        ender->start();
        QVERIFY(ender->wait(10000));
    }
    auto *module = new (storage) ZtMIFound(3);
    const auto destroy = qScopeGuard([module] { module->~ZtMIFound(); });
    module->setObjectName(QStringLiteral("gen"));
    if (alias.isValid())
        module->getOptions()->insert(QStringLiteral(".alias"), QString());
    QObject chatter;
    if (recorded.isValid())
        logger.registerSource(sender == "other object" ? &chatter : module, recorded.toString());
    // Connected by signature, as the kernel wires modules to its logger.
    QVERIFY(connect(module, SIGNAL(state(QString, Logger::Level)), &logger,
                    SLOT(append(QString, Logger::Level))));
    QVERIFY(connect(module, SIGNAL(state(QString)), &logger, SLOT(append(QString))));
    connect(&chatter, &QObject::objectNameChanged, &logger,
            QOverload<QString>::of(&Logger::append));
    QSignalSpy printed(&logger, &Logger::print);
    QThread worker;
    const auto stop = qScopeGuard([&worker, module] {
        if (!worker.isRunning())
            return;
        QMetaObject::invokeMethod(module, "moveMeToTheMainThread", Qt::BlockingQueuedConnection);
        worker.quit();
        worker.wait(10000);
    });
    if (onWorker) {
        worker.start();
        module->moveToThread(&worker);
    }

    const QString text = QStringLiteral("no data");
    QMetaObject::invokeMethod(module, [&] {
        if (alias.isValid())
            module->setOption(QStringLiteral(".alias"), alias);
        if (sender == "other object")
            chatter.setObjectName(text);
        else if (sender == "module")
            emit module->state(text, Logger::Warning);
        else
            emit module->state(text);
    });

    QTRY_COMPARE(printed.count(), 1);
    QVERIFY(matches(printed.first().at(0).toString(), screenLine(source, text)));
    QCOMPARE(printed.first().at(1).toString(), sender == "module" ? "W" : "M");
}

// The logger owns one view, made once, and hands its line limit on, also later.
void tst_Logger::widget()
{
    QWidget host;
    QPointer<QWidget> widget;
    {
        Logger logger;
        logger.setFile(dir->filePath(QStringLiteral("zt.log")));
        logger.setMaximumBlockCount(3);
        logger.createWidget(&host);
        widget = logger.getWidget();
        QCOMPARE(widget->parentWidget(), &host);
        logger.createWidget(&host);
        QCOMPARE(logger.getWidget(), widget.data());

        auto *view = static_cast<LoggerWidget *>(widget.data());
        for (const char *text : {"l1", "l2", "l3", "l4", "l5"})
            logger.append(QString::fromLatin1(text), Logger::Info);
        // Lines still waiting meet the new limit (the flood checks the limit set beforehand).
        logger.setMaximumBlockCount(2);
        QCOMPARE(view->view()->toPlainText().count(QLatin1Char('\n')), 1);
        QVERIFY(view->view()->toPlainText().endsWith(QStringLiteral("l5")));
    }
    QVERIFY(widget.isNull());
}

// Type boxes and the filter act only on lines that arrive after they changed.
void tst_Logger::view_data()
{
    // Steps split at ';': "=text" types into the filter; "-X", "~X", "+X" untick, partly tick,
    // tick box X; "X|text" prints a line of type X.
    QTest::addColumn<QString>("steps");
    QTest::addColumn<QString>("shown");

    const QString lines = QStringLiteral(";I|gen 1;I|other;I|12:00 genset: x");
    QTest::newRow("case-sensitive") << "=Gen" + lines << "";
    QTest::newRow("expression") << "=^\\d\\d:" + lines << "12:00 genset: x";
    QTest::newRow("invalid expression") << "=gen(" + lines << "";
    QTest::newRow("filter: later lines only")
        << "I|before;=gen(;I|gen( hidden;=gen;I|other;I|gen shown;=;I|after"
        << "before\ngen shown\nafter";
    QTest::newRow("types: later lines only")
        << "D|early debug;E|error 1;X|unknown type;|no type;+D;-E;D|late debug;E|error 2;~E;E|err 3"
        << "error 1\nlate debug\nerr 3";
}

void tst_Logger::view()
{
    QFETCH(QString, steps);
    QFETCH(QString, shown);

    LoggerWidget widget;
    QSignalSpy changed(&widget, &LoggerWidget::levelsChanged);
    for (const QString &step : steps.split(QLatin1Char(';'))) {
        const QString rest = step.mid(1);
        if (step.startsWith(QLatin1Char('='))) {
            widget.filterEdit()->clear();
            QTest::keyClicks(widget.filterEdit(), rest);
        } else if (const int state = QStringLiteral("-~+").indexOf(step.at(0)); state >= 0) {
            // A partly ticked box counts as ticked.
            const int count = changed.count();
            widget.levelBox(rest)->setCheckState(Qt::CheckState(state));
            QCOMPARE(changed.count(), count + 1);
            const LevelTable levels = changed.last().at(0).value<LevelTable>();
            QCOMPARE(levels.size(), 6);
            QCOMPARE(levels.value(rest), state != Qt::Unchecked);
        } else {
            widget.print(step.section(QLatin1Char('|'), 1), step.section(QLatin1Char('|'), 0, 0));
        }
    }
    QCOMPARE(widget.view()->toPlainText(), shown);
}

// Lines arrive faster than the view takes them in; it keeps exactly the last ones up to its
// limit, in order and with their colours, whichever way they arrive. A change of filter or
// boxes halfway applies to the lines that arrive after it, also when the earlier ones wait. The
// file has every line at levels 1 to 4, in order.
void tst_Logger::flood_data()
{
    // "direct", "7 per pass", "module thread" (queued calls) or "post" (a direct connection to the
    // thread-safe entry); what changes at line 2,500: "filter" or "boxes".
    QTest::addColumn<QString>("arrival");
    QTest::addColumn<QString>("change");
    for (const char *row : {"direct, boxes", "7 per pass, filter", "module thread, filter",
                            "module thread, boxes", "post, filter"})
        QTest::newRow(row) << QString(row).section(", ", 0, 0) << QString(row).section(", ", 1);
}

void tst_Logger::flood()
{
    QFETCH(QString, arrival);
    QFETCH(QString, change);
    constexpr int count = 5000;
    constexpr int limit = 1000;

    QWidget host;
    auto logger = std::make_unique<Logger>();
    logger->setFile(dir->filePath(QStringLiteral("zt.log")));
    logger->createWidget(&host);
    logger->setMaximumBlockCount(limit);
    auto *widget = static_cast<LoggerWidget *>(logger->getWidget());
    host.show();

    const auto text = [](int i) { return QStringLiteral("line %1").arg(i); };
    const auto level = [](int i) { return Logger::Level(i % 6 + 1); };
    const bool threaded = arrival == "module thread" || arrival == "post";
    const QString source = threaded ? "gen" : "null";
    QHash<QString, bool> shown
        = {{"C", true}, {"E", true}, {"W", true}, {"I", true}, {"M", true}, {"D", false}};
    const QString filter = QStringLiteral("[05]$");
    const auto changeSettings = [&] {
        if (change == "filter") {
            widget->filterEdit()->setText(filter);
        } else if (change == "boxes") {
            widget->levelBox("M")->setChecked(false);
            widget->levelBox("D")->setChecked(true);
        }
    };
    // What the view should show: the number and type letter of the lines that pass, in order.
    QVector<QPair<int, QString>> expected;
    for (int i = 0; i < count; ++i) {
        if (i == count / 2 && change == "boxes") {
            shown["M"] = false;
            shown["D"] = true;
        }
        const QString letter = Logger::levelLetter(level(i));
        const bool filtered = change == "filter" && i >= count / 2;
        if (shown.value(letter) && (!filtered || QRegExp(filter).indexIn(text(i)) >= 0))
            expected.append({i, letter});
    }

    if (threaded) {
        ZtMIFound module(3);
        module.setObjectName(QStringLiteral("gen"));
        // Named "gen" on its worker and once back in this thread.
        module.getOptions()->insert(QStringLiteral(".alias"), QStringLiteral("gen"));
        logger->registerSource(&module, QStringLiteral("gen"));
        Logger *sink = logger.get();
        if (arrival == "post")
            connect(
                &module, QOverload<QString, Logger::Level>::of(&ZtMIFound::state), sink,
                [sink, &module](QString line, Logger::Level level) {
                    sink->post(&module, line, level);
                },
                Qt::DirectConnection);
        else
            QVERIFY(connect(&module, SIGNAL(state(QString, Logger::Level)), sink,
                            SLOT(append(QString, Logger::Level))));
        QThread worker;
        worker.start();
        module.moveToThread(&worker);
        bool delivered = false;
        // Changed in the GUI thread once every entry before it has been delivered to the logger,
        // and before any after it.
        QMetaObject::invokeMethod(&module, [&] {
            for (int i = 0; i < count; ++i) {
                if (i == count / 2)
                    QMetaObject::invokeMethod(widget, changeSettings, Qt::BlockingQueuedConnection);
                emit module.state(text(i), level(i));
            }
            // Posted after every entry: once it has run, all of them have been delivered.
            QMetaObject::invokeMethod(logger.get(), [&] { delivered = true; });
            QMetaObject::invokeMethod(&module, "moveMeToTheMainThread", Qt::DirectConnection);
        });
        QTRY_VERIFY(delivered);
        QTRY_COMPARE(module.thread(), QThread::currentThread());
        worker.quit();
        QVERIFY(worker.wait(10000));
        const QString last = QStringLiteral(" gen: ") + text(expected.last().first);
        QTRY_VERIFY(widget->view()->document()->lastBlock().text().endsWith(last));
    } else {
        for (int i = 0; i < count; ++i) {
            if (i == count / 2)
                changeSettings();
            logger->append(text(i), level(i));
            if (arrival == "7 per pass" && i % 7 == 6)
                QCoreApplication::processEvents();
        }
    }

    // Each line in the colour of its type; "M" lines have none (alpha 0).
    const QHash<QString, QColor> colours {
        {"D", QColor(128, 128, 128)}, {"M", QColor(0, 0, 0, 0)},  {"I", QColor(180, 180, 180)},
        {"W", QColor(255, 255, 0)},   {"E", QColor(250, 170, 0)}, {"C", QColor(255, 100, 100)}};
    const QTextDocument *document = widget->view()->document();
    expected = expected.mid(qMax(0, expected.size() - limit));
    QCOMPARE(document->blockCount(), expected.size());
    int row = 0;
    for (QTextBlock block = document->begin(); block.isValid(); block = block.next(), ++row) {
        const QString want = QStringLiteral(" %1: %2").arg(source, text(expected.at(row).first));
        QVERIFY2(block.text().endsWith(want), qPrintable(block.text() + " <> " + want));
        QCOMPARE(block.begin().fragment().charFormat().background().color(),
                 colours.value(expected.at(row).second));
    }

    logger.reset();
    QStringList wanted;
    for (int i = 0; i < count; ++i) {
        if (level(i) <= Logger::Info)
            wanted.append(Logger::levelTag(level(i)) + ' ' + source + ": " + text(i));
    }
    QCOMPARE(fileEntries(dir->filePath(QStringLiteral("zt.log"))), wanted);
}

// Critical and Error entries are on disk when append() returns, with everything before them;
// the rest of a flood follows through the event loop, at quit or on destruction.
void tst_Logger::fileBuffer_data()
{
    QTest::addColumn<QString>("until"); // what has happened when the file is read

    QTest::newRow("an error line") << "error";
    QTest::newRow("a critical line") << "critical";
    QTest::newRow("posted from a thread, a critical line") << "posted critical";
    QTest::newRow("the event loop") << "events";
    QTest::newRow("destruction") << "destruction";
    // Last: a process quits once.
    QTest::newRow("quit") << "quit";
}

void tst_Logger::fileBuffer()
{
    QFETCH(QString, until);

    const QString path = dir->filePath(QStringLiteral("zt.log"));
    auto logger = std::make_unique<Logger>();
    logger->setFile(path);
    QStringList lines;
    for (int i = 0; i < 500; ++i)
        lines.append(QStringLiteral("(II) null: line %1").arg(i));
    if (until == "posted critical") {
        // Nothing runs this thread's event loop until the file has been read.
        std::unique_ptr<QThread> poster(QThread::create([&logger] {
            for (int i = 0; i < 500; ++i)
                logger->post(nullptr, QStringLiteral("line %1").arg(i), Logger::Info);
            logger->post(nullptr, QStringLiteral("last"), Logger::Critical);
        }));
        poster->start();
        QVERIFY(poster->wait(10000));
        lines.append(QStringLiteral("(CC) null: last"));
    } else {
        for (int i = 0; i < 500; ++i)
            logger->append(QStringLiteral("line %1").arg(i), Logger::Info);
    }
    if (until == "error" || until == "critical") {
        const Logger::Level level = until == "error" ? Logger::Error : Logger::Critical;
        logger->append(QStringLiteral("last"), level);
        lines.append(Logger::levelTag(level) + QStringLiteral(" null: last"));
    } else if (until == "destruction") {
        logger.reset();
    } else if (until == "quit") {
        QTimer::singleShot(0, qApp, &QCoreApplication::quit);
        QCoreApplication::exec();
    }

    if (until == "events")
        QTRY_COMPARE(fileEntries(path), lines);
    else
        QCOMPARE(fileEntries(path), lines);
}

QTEST_MAIN(tst_Logger)
#include "tst_logger.moc"
