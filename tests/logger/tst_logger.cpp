#include <logger.h>
#include <loggerwidget.h>
#include <ztmifound.h>

#include <QCheckBox>
#include <QFile>
#include <QLineEdit>
#include <QPointer>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTextBlock>
#include <QTextEdit>
#include <QThread>

#include <memory>

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

bool wholeMatch(const QString &pattern, const QString &subject)
{
    if (QRegularExpression(QRegularExpression::anchoredPattern(pattern)).match(subject).hasMatch())
        return true;
    qWarning().noquote() << "subject:" << subject << "\npattern:" << pattern;
    return false;
}

QString readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

} // namespace

class tst_Logger : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { qRegisterMetaType<LevelTable>("QHash<QString,bool>"); }
    void init();
    void writeFilter_data();
    void writeFilter();
    void unopenedFile_data();
    void unopenedFile();
    void sourceName_data();
    void sourceName();
    void setFileTwiceAppends();
    void widget();
    void typeBoxes_data();
    void typeBoxes();
    void boxesStackedAtTheRight();
    void tickingAndUnticking();
    void filter_data();
    void filter();

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

void tst_Logger::writeFilter_data()
{
    QTest::addColumn<int>("levelWrite");
    QTest::addColumn<int>("level");
    QTest::addColumn<bool>("written");
    QTest::addColumn<QString>("letter");

    QTest::newRow("critical") << 4 << 1 << true << "C";
    QTest::newRow("error") << 4 << 2 << true << "E";
    QTest::newRow("warning") << 4 << 3 << true << "W";
    QTest::newRow("info at the limit") << 4 << 4 << true << "I";
    QTest::newRow("message past the limit") << 4 << 5 << false << "M";
    QTest::newRow("debug past the limit") << 4 << 6 << false << "D";
    QTest::newRow("level 0 under the strictest filter") << 1 << 0 << true << "D";
    QTest::newRow("negative level") << 4 << -1 << true << "D";
    QTest::newRow("level 7 past the limit") << 4 << 7 << false << "D";
    QTest::newRow("message with filter 6") << 6 << 5 << true << "M";
    QTest::newRow("debug with filter 6") << 6 << 6 << true << "D";
    QTest::newRow("level 7 with filter 7") << 7 << 7 << true << "D";
}

void tst_Logger::writeFilter()
{
    QFETCH(int, levelWrite);
    QFETCH(int, level);
    QFETCH(bool, written);
    QFETCH(QString, letter);

    Logger logger;
    QCOMPARE(logger.objectName(), QStringLiteral("logger"));
    logger.setLevelWrite(Logger::Level(levelWrite));
    logger.setFile(path);
    QSignalSpy printed(&logger, &Logger::print);

    // Inner line breaks reach the view unchanged and the file indented by a tab.
    const QString text = QStringLiteral("Größe 5 %\n\n[ok]");
    logger.append(text, Logger::Level(level));

    QCOMPARE(printed.count(), 1);
    QVERIFY(wholeMatch(screenLine(QStringLiteral("null"), text), printed.first().at(0).toString()));
    QCOMPARE(printed.first().at(1).toString(), letter);
    const QString line = written ? fileLine(letter, "null", "Größe 5 %\n\t\n\t[ok]") : QString();
    QVERIFY(wholeMatch(header + line, readAll(path)));
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
        QVERIFY(wholeMatch(screenLine(QStringLiteral("null"), "can't open log_file !!!"),
                           entry.at(0).toString()));
        QCOMPARE(entry.at(1).toString(), QStringLiteral("E"));
    }
    if (levelWrite == 0)
        QVERIFY(!QFile::exists(filePath));
}

// The source "null" stands for a sender that is not a module.
void tst_Logger::sourceName_data()
{
    QTest::addColumn<QVariant>("alias"); // invalid: the module declares no ".alias"
    QTest::addColumn<bool>("withLevel");
    QTest::addColumn<bool>("onWorker");
    QTest::addColumn<QString>("source");

    QTest::newRow("alias") << QVariant("gen") << true << false << "gen";
    QTest::newRow("empty alias") << QVariant("") << true << false << "id_3 (gen)";
    QTest::newRow("no alias option") << QVariant() << true << false << "id_3 (gen)";
    QTest::newRow("state without level") << QVariant("gen") << false << false << "gen";
    QTest::newRow("module on a worker thread") << QVariant() << true << true << "id_3 (gen)";
    QTest::newRow("not a module") << QVariant() << false << false << "null";
}

void tst_Logger::sourceName()
{
    QFETCH(QVariant, alias);
    QFETCH(bool, withLevel);
    QFETCH(bool, onWorker);
    QFETCH(QString, source);

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
    QObject chatter;
    connect(&chatter, &QObject::objectNameChanged, &logger,
            QOverload<QString>::of(&Logger::append));
    QThread *printThread = nullptr;
    connect(&logger, &Logger::print, [&printThread] { printThread = QThread::currentThread(); });
    QSignalSpy printed(&logger, &Logger::print);
    QThread worker;
    if (onWorker) {
        worker.start();
        module.moveToThread(&worker);
    }

    const QString text = QStringLiteral("no data");
    QMetaObject::invokeMethod(&module, [&] {
        if (source == QLatin1String("null"))
            chatter.setObjectName(text);
        else if (withLevel)
            emit module.state(text, Logger::Warning);
        else
            emit module.state(text);
    });

    QTRY_COMPARE(printed.count(), 1);
    QCOMPARE(printThread, QThread::currentThread());
    QVERIFY(wholeMatch(screenLine(source, text), printed.first().at(0).toString()));
    const QString letter = withLevel ? QStringLiteral("W") : QStringLiteral("M");
    QVERIFY(wholeMatch(header + fileLine(letter, source, text), readAll(path)));
    if (onWorker) {
        QMetaObject::invokeMethod(&module, "moveMeToTheMainThread", Qt::BlockingQueuedConnection);
        worker.quit();
        worker.wait();
    }
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

    QVERIFY(wholeMatch(QStringLiteral("earlier run\\n") + header + fileLine("C", "null", "one")
                           + header + fileLine("I", "null", "two"),
                       readAll(path)));
}

// The logger owns one view, made once, and hands its line limit on, also later.
void tst_Logger::widget()
{
    QWidget host;
    QPointer<QWidget> widget;
    {
        Logger logger;
        logger.setFile(path);
        logger.setMaximumBlockCount(3);
        logger.createWidget(&host);
        widget = logger.getWidget();
        QVERIFY(widget);
        QCOMPARE(widget->parentWidget(), &host);
        logger.createWidget(&host);
        QCOMPARE(logger.getWidget(), widget.data());

        QTextEdit *view = static_cast<LoggerWidget *>(widget.data())->view();
        for (const char *text : {"l1", "l2", "l3", "l4"})
            logger.append(QString::fromLatin1(text), Logger::Info);
        // The oldest lines go first.
        QCOMPARE(view->document()->blockCount(), 3);
        QVERIFY(!view->toPlainText().contains(QStringLiteral("l1")));
        logger.setMaximumBlockCount(2);
        logger.append(QStringLiteral("l5"), Logger::Info);
        QCOMPARE(view->document()->blockCount(), 2);
    }
    QVERIFY(widget.isNull());
}

// The view: type boxes and the filter act only on lines that arrive after they changed.
void tst_Logger::typeBoxes_data()
{
    QTest::addColumn<QString>("letter");
    QTest::addColumn<bool>("checked");
    QTest::addColumn<QColor>("color");

    QTest::newRow("D") << "D" << false << QColor(128, 128, 128, 255);
    QTest::newRow("M") << "M" << true << QColor(0, 0, 0, 0);
    QTest::newRow("I") << "I" << true << QColor(180, 180, 180, 255);
    QTest::newRow("W") << "W" << true << QColor(255, 255, 0, 255);
    QTest::newRow("E") << "E" << true << QColor(250, 170, 0, 255);
    QTest::newRow("C") << "C" << true << QColor(255, 100, 100, 255);
}

void tst_Logger::typeBoxes()
{
    QFETCH(QString, letter);
    QFETCH(bool, checked);
    QFETCH(QColor, color);

    LoggerWidget widget;
    QCheckBox *box = widget.levelBox(letter);
    QVERIFY(box);
    QCOMPARE(box->text(), letter);
    QCOMPARE(box->isChecked(), checked);
    QVERIFY(box->autoFillBackground());
    QCOMPARE(box->palette().color(QPalette::Active, QPalette::Button), color);
    QCOMPARE(box->palette().color(QPalette::Inactive, QPalette::Button), color);

    box->setChecked(true);
    widget.print(QStringLiteral("line"), letter);
    QCOMPARE(widget.view()->toPlainText(), QStringLiteral("line"));
    // The line gets the box's colour; for "M" that is no colour at all (alpha 0).
    const QTextBlock block = widget.view()->document()->lastBlock();
    QCOMPARE(block.begin().fragment().charFormat().background().color(), color);
}

void tst_Logger::boxesStackedAtTheRight()
{
    LoggerWidget widget;
    widget.resize(400, 400);
    widget.show();
    QVERIFY(QTest::qWaitForWindowExposed(&widget));

    int previousY = -1;
    for (const char *letter : {"D", "M", "I", "W", "E", "C"}) {
        QCheckBox *box = widget.levelBox(QString::fromLatin1(letter));
        QVERIFY2(box->y() > previousY && box->x() > widget.view()->geometry().right(), letter);
        previousY = box->y();
    }
    // The spacer above pushes the boxes down to the bottom; the filter sits under the view.
    QVERIFY(widget.levelBox(QStringLiteral("D"))->y() > widget.height() / 4);
    QVERIFY(widget.filterEdit()->y() > widget.view()->geometry().bottom());
}

void tst_Logger::tickingAndUnticking()
{
    LoggerWidget widget;
    QSignalSpy changed(&widget, &LoggerWidget::levelsChanged);
    const auto print = [&widget](const char *text, const char *type) {
        widget.print(QString::fromLatin1(text), QString::fromLatin1(type));
    };
    print("early debug", "D");
    print("error 1", "E");
    print("unknown type", "X");
    print("no type", "");

    widget.levelBox(QStringLiteral("D"))->click();
    widget.levelBox(QStringLiteral("E"))->click();
    QCOMPARE(changed.count(), 2);
    const LevelTable expected {{"C", true}, {"E", false}, {"W", true},
                               {"I", true}, {"M", true},  {"D", true}};
    QCOMPARE(changed.last().at(0).value<LevelTable>(), expected);
    print("late debug", "D");
    print("error 2", "E");

    // A partly checked box counts as checked.
    widget.levelBox(QStringLiteral("E"))->setCheckState(Qt::PartiallyChecked);
    QCOMPARE(changed.last().at(0).value<LevelTable>().value(QStringLiteral("E")), true);
    print("error 3", "E");

    QCOMPARE(widget.view()->toPlainText(), QStringLiteral("error 1\nlate debug\nerror 3"));
}

void tst_Logger::filter_data()
{
    QTest::addColumn<QStringList>("steps"); // "=text" types into the filter, else a line arrives
    QTest::addColumn<QString>("shown");

    const QStringList lines {"gen 1", "other", "12:00 genset: x"};
    QTest::newRow("no filter") << lines << "gen 1\nother\n12:00 genset: x";
    QTest::newRow("plain word") << QStringList {"=gen"} + lines << "gen 1\n12:00 genset: x";
    QTest::newRow("case-sensitive") << QStringList {"=Gen"} + lines << "";
    QTest::newRow("expression") << QStringList {"=^\\d\\d:"} + lines << "12:00 genset: x";
    QTest::newRow("invalid expression") << QStringList {"=gen("} + lines << "";
    QTest::newRow("later lines only") << QStringList {"before", "=gen(",     "gen( hidden", "=gen",
                                                      "other",  "gen shown", "=",           "after"}
                                      << "before\ngen shown\nafter";
}

void tst_Logger::filter()
{
    QFETCH(QStringList, steps);
    QFETCH(QString, shown);

    LoggerWidget widget;
    for (const QString &step : qAsConst(steps)) {
        if (step.startsWith(QLatin1Char('='))) {
            widget.filterEdit()->clear();
            QTest::keyClicks(widget.filterEdit(), step.mid(1));
        } else {
            widget.print(step, QStringLiteral("I"));
        }
    }
    QCOMPARE(widget.view()->toPlainText(), shown);
}

QTEST_MAIN(tst_Logger)
#include "tst_logger.moc"
