#include <loggerwidget.h>

#include <QCheckBox>
#include <QLineEdit>
#include <QSignalSpy>
#include <QTest>
#include <QTextBlock>
#include <QTextEdit>

// What the user sees of the log: colours by type, types hidden by check box, a regular-expression
// filter. Changes affect only lines that arrive afterwards.

namespace {

using LevelTable = QHash<QString, bool>;

QColor lastLineBackground(LoggerWidget &widget)
{
    const QTextBlock block = widget.view()->document()->lastBlock();
    return block.begin().fragment().charFormat().background().color();
}

} // namespace

class tst_LoggerWidget : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void typeBoxes_data();
    void typeBoxes();
    void boxesStackedAtTheRight();
    void debugHiddenUntilTicked();
    void partlyCheckedCountsAsChecked();
    void unknownTypeNeverShown();
    void untickingHidesLaterLines();
    void regexFilter_data();
    void regexFilter();
    void filterAppliesToLaterLines();
    void blockCountDropsOldest();
};

void tst_LoggerWidget::initTestCase()
{
    // What a host does to receive the table through a spy or a queued connection.
    qRegisterMetaType<LevelTable>("QHash<QString,bool>");
}

void tst_LoggerWidget::typeBoxes_data()
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

void tst_LoggerWidget::typeBoxes()
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
    QCOMPARE(lastLineBackground(widget), color);
}

void tst_LoggerWidget::boxesStackedAtTheRight()
{
    LoggerWidget widget;
    widget.resize(400, 400);
    widget.show();
    QVERIFY(QTest::qWaitForWindowExposed(&widget));

    int previousY = -1;
    for (const char *letter : {"D", "M", "I", "W", "E", "C"}) {
        QCheckBox *box = widget.levelBox(QString::fromLatin1(letter));
        QVERIFY2(box->y() > previousY, letter);
        QVERIFY(box->x() > widget.view()->geometry().right());
        previousY = box->y();
    }
    // The spacer above pushes the boxes down to the bottom.
    QVERIFY(widget.levelBox(QStringLiteral("D"))->y() > widget.height() / 4);
    QVERIFY(widget.height() - widget.levelBox(QStringLiteral("C"))->geometry().bottom() < 30);
    QVERIFY(widget.filterEdit()->y() > widget.view()->geometry().bottom());
}

void tst_LoggerWidget::debugHiddenUntilTicked()
{
    LoggerWidget widget;
    widget.print(QStringLiteral("early debug"), QStringLiteral("D"));
    QCOMPARE(widget.view()->toPlainText(), QString());

    widget.levelBox(QStringLiteral("D"))->click();
    QCOMPARE(widget.view()->toPlainText(), QString());
    widget.print(QStringLiteral("late debug"), QStringLiteral("D"));
    QCOMPARE(widget.view()->toPlainText(), QStringLiteral("late debug"));
}

void tst_LoggerWidget::partlyCheckedCountsAsChecked()
{
    LoggerWidget widget;
    QSignalSpy changed(&widget, &LoggerWidget::levelsChanged);
    widget.levelBox(QStringLiteral("D"))->setCheckState(Qt::PartiallyChecked);

    QCOMPARE(changed.count(), 1);
    QCOMPARE(changed.first().at(0).value<LevelTable>().value(QStringLiteral("D")), true);
    widget.print(QStringLiteral("debug"), QStringLiteral("D"));
    QCOMPARE(widget.view()->toPlainText(), QStringLiteral("debug"));
}

void tst_LoggerWidget::unknownTypeNeverShown()
{
    LoggerWidget widget;
    widget.print(QStringLiteral("odd"), QStringLiteral("X"));
    widget.print(QStringLiteral("odd"), QString());
    QCOMPARE(widget.view()->toPlainText(), QString());
}

void tst_LoggerWidget::untickingHidesLaterLines()
{
    LoggerWidget widget;
    QSignalSpy changed(&widget, &LoggerWidget::levelsChanged);
    widget.print(QStringLiteral("error 1"), QStringLiteral("E"));

    widget.levelBox(QStringLiteral("E"))->click();

    QCOMPARE(changed.count(), 1);
    const QHash<QString, bool> expected {{"C", true}, {"E", false}, {"W", true},
                                         {"I", true}, {"M", true},  {"D", false}};
    QCOMPARE(changed.first().at(0).value<LevelTable>(), expected);

    widget.print(QStringLiteral("error 2"), QStringLiteral("E"));
    widget.print(QStringLiteral("warning"), QStringLiteral("W"));
    QCOMPARE(widget.view()->toPlainText(), QStringLiteral("error 1\nwarning"));
}

void tst_LoggerWidget::regexFilter_data()
{
    QTest::addColumn<QString>("filter");
    QTest::addColumn<QString>("shown");

    const QString all = QStringLiteral("gen 1\nother\n12:00 genset: x");
    QTest::newRow("no filter") << "" << all;
    QTest::newRow("plain word") << "gen"
                                << "gen 1\n12:00 genset: x";
    QTest::newRow("case-sensitive") << "Gen"
                                    << "";
    QTest::newRow("expression") << "^\\d\\d:"
                                << "12:00 genset: x";
    QTest::newRow("invalid expression") << "gen("
                                        << "";
}

void tst_LoggerWidget::regexFilter()
{
    QFETCH(QString, filter);
    QFETCH(QString, shown);

    LoggerWidget widget;
    QTest::keyClicks(widget.filterEdit(), filter);
    for (const char *line : {"gen 1", "other", "12:00 genset: x"})
        widget.print(QString::fromLatin1(line), QStringLiteral("I"));

    QCOMPARE(widget.view()->toPlainText(), shown);
}

void tst_LoggerWidget::filterAppliesToLaterLines()
{
    LoggerWidget widget;
    widget.print(QStringLiteral("before"), QStringLiteral("I"));
    QTest::keyClicks(widget.filterEdit(), QStringLiteral("gen("));
    widget.print(QStringLiteral("gen( hidden while invalid"), QStringLiteral("I"));
    QTest::keyClick(widget.filterEdit(), Qt::Key_Backspace);
    widget.print(QStringLiteral("other"), QStringLiteral("I"));
    widget.print(QStringLiteral("gen shown"), QStringLiteral("I"));
    widget.filterEdit()->clear();
    widget.print(QStringLiteral("after"), QStringLiteral("I"));

    QCOMPARE(widget.view()->toPlainText(), QStringLiteral("before\ngen shown\nafter"));
}

void tst_LoggerWidget::blockCountDropsOldest()
{
    LoggerWidget widget;
    widget.setMaximumBlockCount(3);
    for (const char *line : {"one", "two", "three", "four"})
        widget.print(QString::fromLatin1(line), QStringLiteral("W"));

    QCOMPARE(widget.view()->toPlainText(), QStringLiteral("two\nthree\nfour"));
}

QTEST_MAIN(tst_LoggerWidget)
#include "tst_loggerwidget.moc"
