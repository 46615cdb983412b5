#include <logger.h>
#include <loggerwidget.h>
#include <ztmifound.h>

#include <QFile>
#include <QPointer>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTextEdit>
#include <QThread>

#include <memory>

// The log file is read by people and by tools that grep it: its lines and headers are checked
// byte for byte, only the time stamps are matched by pattern.

namespace {

const QString headerPattern
    = QStringLiteral("\\n\\n={30} {5}\\d\\d\\.\\d\\d\\.\\d\\d \\d\\d:\\d\\d:\\d\\d {6}={29}\\n");

QString linePattern(const QString &tag, const QString &source, const QString &text)
{
    return QRegularExpression::escape(tag) + QStringLiteral(" \\d\\d \\S+ \\d\\d:\\d\\d:\\d\\d ")
        + QRegularExpression::escape(source + QStringLiteral(":    ") + text + QLatin1Char('\n'));
}

QString printPattern(const QString &source, const QString &text)
{
    return QStringLiteral("\\d\\d:\\d\\d:\\d\\d ")
        + QRegularExpression::escape(source + QStringLiteral(": ") + text);
}

bool wholeMatch(const QString &pattern, const QString &subject)
{
    const QRegularExpression expression(QRegularExpression::anchoredPattern(pattern));
    if (!expression.isValid())
        qWarning() << expression.errorString();
    const bool matched = expression.match(subject).hasMatch();
    if (!matched)
        qWarning().noquote() << "subject:" << subject << "\npattern:" << pattern;
    return matched;
}

QString readAll(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    return QString::fromUtf8(file.readAll());
}

// Something that is not a module but reports through the logger all the same.
class Chatter : public QObject
{
    Q_OBJECT

signals:
    void say(QString text);
};

} // namespace

class tst_Logger : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void levelTypeRegistered();
    void header();
    void writeFilter_data();
    void writeFilter();
    void unopenedFile_data();
    void unopenedFile();
    void multiLine();
    void sourceName_data();
    void sourceName();
    void moduleOnWorkerThread();
    void setFileTwiceAppends();
    void widgetLineLimit();
    void ownsWidget();

private:
    std::unique_ptr<QTemporaryDir> dir;
    QString path;
};

void tst_Logger::init()
{
    dir = std::make_unique<QTemporaryDir>();
    QVERIFY(dir->isValid());
    path = dir->filePath(QStringLiteral("zt.log"));
}

void tst_Logger::levelTypeRegistered()
{
    Logger logger;
    QCOMPARE(QMetaType::type("Logger::Level"), qMetaTypeId<Logger::Level>());
    QCOMPARE(logger.objectName(), QStringLiteral("logger"));
}

void tst_Logger::header()
{
    Logger logger;
    logger.setFile(path);

    QVERIFY(wholeMatch(headerPattern, readAll(path)));
}

void tst_Logger::writeFilter_data()
{
    QTest::addColumn<int>("levelWrite");
    QTest::addColumn<int>("level");
    QTest::addColumn<QString>("tag"); // empty: not written
    QTest::addColumn<QString>("letter");

    QTest::newRow("critical") << 4 << 1 << "(CC)"
                              << "C";
    QTest::newRow("error") << 4 << 2 << "(EE)"
                           << "E";
    QTest::newRow("warning") << 4 << 3 << "(WW)"
                             << "W";
    QTest::newRow("info at the limit") << 4 << 4 << "(II)"
                                       << "I";
    QTest::newRow("message past the limit") << 4 << 5 << ""
                                            << "M";
    QTest::newRow("debug past the limit") << 4 << 6 << ""
                                          << "D";
    QTest::newRow("level 0 always written") << 4 << 0 << "(DD)"
                                            << "D";
    QTest::newRow("level 0 under the strictest filter") << 1 << 0 << "(DD)"
                                                        << "D";
    QTest::newRow("negative level") << 4 << -1 << "(DD)"
                                    << "D";
    QTest::newRow("level 7 past the limit") << 4 << 7 << ""
                                            << "D";
    QTest::newRow("message with filter 6") << 6 << 5 << "(MM)"
                                           << "M";
    QTest::newRow("debug with filter 6") << 6 << 6 << "(DD)"
                                         << "D";
    QTest::newRow("level 7 with filter 7") << 7 << 7 << "(DD)"
                                           << "D";
    QTest::newRow("error under filter 1") << 1 << 2 << ""
                                          << "E";
}

void tst_Logger::writeFilter()
{
    QFETCH(int, levelWrite);
    QFETCH(int, level);
    QFETCH(QString, tag);
    QFETCH(QString, letter);

    Logger logger;
    logger.setLevelWrite(Logger::Level(levelWrite));
    logger.setFile(path);
    QSignalSpy printed(&logger, &Logger::print);

    const QString text = QStringLiteral("Größe 5 % [ok]");
    logger.append(text, Logger::Level(level));

    QCOMPARE(printed.count(), 1);
    QVERIFY(
        wholeMatch(printPattern(QStringLiteral("null"), text), printed.first().at(0).toString()));
    QCOMPARE(printed.first().at(1).toString(), letter);

    QString expected = headerPattern;
    if (!tag.isEmpty())
        expected += linePattern(tag, QStringLiteral("null"), text);
    QVERIFY(wholeMatch(expected, readAll(path)));
}

void tst_Logger::unopenedFile_data()
{
    QTest::addColumn<int>("levelWrite");
    QTest::addColumn<QString>("fileName"); // empty: setFile not called
    QTest::addColumn<int>("complaints");

    QTest::newRow("write level 0") << 0 << "zt.log" << 2;
    QTest::newRow("no file given") << 4 << "" << 2;
    QTest::newRow("path cannot be opened") << 4 << "missing/zt.log" << 2;
    QTest::newRow("file open") << 4 << "zt.log" << 0;
}

void tst_Logger::unopenedFile()
{
    QFETCH(int, levelWrite);
    QFETCH(QString, fileName);
    QFETCH(int, complaints);

    Logger logger;
    logger.setLevelWrite(Logger::Level(levelWrite));
    const QString filePath = dir->filePath(fileName);
    if (!fileName.isEmpty())
        logger.setFile(filePath);
    QSignalSpy printed(&logger, &Logger::print);

    // The complaint repeats on every call while the file is not open.
    logger.getWidget();
    logger.getWidget();

    QCOMPARE(printed.count(), complaints);
    for (const QList<QVariant> &entry : qAsConst(printed)) {
        QVERIFY(wholeMatch(
            printPattern(QStringLiteral("null"), QStringLiteral("can't open log_file !!!")),
            entry.at(0).toString()));
        QCOMPARE(entry.at(1).toString(), QStringLiteral("E"));
    }
    if (levelWrite == 0)
        QVERIFY(!QFile::exists(filePath));
}

void tst_Logger::multiLine()
{
    Logger logger;
    logger.setFile(path);
    logger.createWidget(nullptr);
    QSignalSpy printed(&logger, &Logger::print);

    logger.append(QStringLiteral("first\nsecond\n\nlast"), Logger::Warning);

    QVERIFY(
        wholeMatch(printPattern(QStringLiteral("null"), QStringLiteral("first\nsecond\n\nlast")),
                   printed.first().at(0).toString()));
    QVERIFY(wholeMatch(headerPattern
                           + linePattern(QStringLiteral("(WW)"), QStringLiteral("null"),
                                         QStringLiteral("first\n\tsecond\n\t\n\tlast")),
                       readAll(path)));
    auto *view = static_cast<LoggerWidget *>(logger.getWidget())->view();
    QVERIFY(view->toPlainText().endsWith(QStringLiteral(": first\nsecond\n\nlast")));
}

void tst_Logger::sourceName_data()
{
    QTest::addColumn<QVariant>("alias"); // invalid: the module declares no ".alias"
    QTest::addColumn<bool>("withLevel");
    QTest::addColumn<QString>("source");
    QTest::addColumn<QString>("tag");

    QTest::newRow("alias") << QVariant("gen") << true << "gen"
                           << "(WW)";
    QTest::newRow("empty alias") << QVariant("") << true << "id_3 (gen)"
                                 << "(WW)";
    QTest::newRow("no alias option") << QVariant() << true << "id_3 (gen)"
                                     << "(WW)";
    QTest::newRow("state without level") << QVariant("gen") << false << "gen"
                                         << "(MM)";
}

void tst_Logger::sourceName()
{
    QFETCH(QVariant, alias);
    QFETCH(bool, withLevel);
    QFETCH(QString, source);
    QFETCH(QString, tag);

    Logger logger;
    logger.setLevelWrite(Logger::Debug);
    logger.setFile(path);
    ZtMIFound module(3);
    module.setup();
    module.setObjectName(QStringLiteral("gen"));
    if (alias.isValid())
        module.getOptions()->insert(QStringLiteral(".alias"), alias);
    // Connected by signature, as the kernel wires modules to its logger.
    QVERIFY(connect(&module, SIGNAL(state(QString, Logger::Level)), &logger,
                    SLOT(append(QString, Logger::Level))));
    QVERIFY(connect(&module, SIGNAL(state(QString)), &logger, SLOT(append(QString))));
    QSignalSpy printed(&logger, &Logger::print);

    if (withLevel)
        emit module.state(QStringLiteral("no data"), Logger::Warning);
    else
        emit module.state(QStringLiteral("no data"));

    QCOMPARE(printed.count(), 1);
    QVERIFY(wholeMatch(printPattern(source, QStringLiteral("no data")),
                       printed.first().at(0).toString()));
    QVERIFY(wholeMatch(headerPattern + linePattern(tag, source, QStringLiteral("no data")),
                       readAll(path)));
}

void tst_Logger::moduleOnWorkerThread()
{
    Logger logger;
    logger.setFile(path);
    Chatter chatter;
    connect(&chatter, &Chatter::say, &logger, QOverload<QString>::of(&Logger::append));
    auto *module = new ZtMIFound(7);
    module->setup();
    connect(module, QOverload<QString, Logger::Level>::of(&ZtMIFound::state), &logger,
            QOverload<QString, Logger::Level>::of(&Logger::append));
    QThread *printThread = nullptr;
    connect(&logger, &Logger::print, [&printThread] { printThread = QThread::currentThread(); });
    QSignalSpy printed(&logger, &Logger::print);

    QThread worker;
    worker.start();
    module->moveToThread(&worker);
    QMetaObject::invokeMethod(
        module, [module] { emit module->state(QStringLiteral("from afar"), Logger::Error); },
        Qt::QueuedConnection);

    QTRY_COMPARE(printed.count(), 1);
    QCOMPARE(printThread, QThread::currentThread());
    QVERIFY(
        wholeMatch(printPattern(QStringLiteral("id_7 (ZtMIFound)"), QStringLiteral("from afar")),
                   printed.first().at(0).toString()));

    // A sender that is not a module is "null", like a direct call.
    emit chatter.say(QStringLiteral("hello"));
    QVERIFY(wholeMatch(headerPattern
                           + linePattern(QStringLiteral("(EE)"), QStringLiteral("id_7 (ZtMIFound)"),
                                         QStringLiteral("from afar")),
                       readAll(path)));
    QVERIFY(wholeMatch(printPattern(QStringLiteral("null"), QStringLiteral("hello")),
                       printed.last().at(0).toString()));
    QCOMPARE(printed.last().at(1).toString(), QStringLiteral("M"));

    QMetaObject::invokeMethod(module, "moveMeToTheMainThread", Qt::BlockingQueuedConnection);
    worker.quit();
    worker.wait();
    delete module;
}

void tst_Logger::setFileTwiceAppends()
{
    {
        QFile old(path);
        QVERIFY(old.open(QIODevice::WriteOnly));
        old.write("earlier run\n");
    }
    Logger logger;
    logger.setFile(path);
    logger.append(QStringLiteral("one"), Logger::Critical);
    logger.setFile(path);
    logger.append(QStringLiteral("two"), Logger::Info);

    QVERIFY(wholeMatch(
        QStringLiteral("earlier run\\n") + headerPattern
            + linePattern(QStringLiteral("(CC)"), QStringLiteral("null"), QStringLiteral("one"))
            + headerPattern
            + linePattern(QStringLiteral("(II)"), QStringLiteral("null"), QStringLiteral("two")),
        readAll(path)));
}

void tst_Logger::widgetLineLimit()
{
    Logger logger;
    logger.setFile(path);
    logger.setMaximumBlockCount(3);
    logger.createWidget(nullptr);
    auto *widget = static_cast<LoggerWidget *>(logger.getWidget());
    QVERIFY(widget);

    for (const char *text : {"l1", "l2", "l3", "l4"})
        logger.append(QString::fromLatin1(text), Logger::Info);
    QCOMPARE(widget->view()->document()->blockCount(), 3);
    QVERIFY(!widget->view()->toPlainText().contains(QStringLiteral("l1")));

    // A later limit reaches the existing view.
    logger.setMaximumBlockCount(2);
    logger.append(QStringLiteral("l5"), Logger::Info);
    QCOMPARE(widget->view()->document()->blockCount(), 2);
}

void tst_Logger::ownsWidget()
{
    QWidget host;
    QPointer<QWidget> widget;
    {
        Logger logger;
        logger.setFile(path);
        logger.createWidget(&host);
        widget = logger.getWidget();
        QVERIFY(widget);
        QCOMPARE(widget->parentWidget(), &host);
        logger.createWidget(&host);
        QCOMPARE(logger.getWidget(), widget.data());
    }
    QVERIFY(widget.isNull());
}

QTEST_MAIN(tst_Logger)
#include "tst_logger.moc"
