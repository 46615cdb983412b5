#include "testmodule.h"

#include <wabstractoptions.h>

#include <QDialogButtonBox>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>

// The options widget commits or discards the user's edits through its button box; the module
// base and the host window rely on what happens, and in which order, on Ok and on Cancel.

class tst_Widgets : public QObject
{
    Q_OBJECT

private slots:
    void buttonBoxShape();
    void buttons_data();
    void buttons();
};

void tst_Widgets::buttonBoxShape()
{
    TestOptions widget(nullptr);
    auto *box = widget.findChild<QDialogButtonBox *>(QStringLiteral("buttonBox"));
    QVERIFY(box);
    QCOMPARE(int(box->standardButtons()), 0x400400);
}

void tst_Widgets::buttons_data()
{
    QTest::addColumn<int>("button");
    QTest::addColumn<QStringList>("calls");
    QTest::addColumn<int>("changed");
    QTest::addColumn<int>("reads");

    QTest::newRow("Ok") << int(QDialogButtonBox::Ok) << QStringList {"options.write", "changed"}
                        << 1 << 0;
    QTest::newRow("Cancel") << int(QDialogButtonBox::Cancel) << QStringList {"options.read"} << 0
                            << 1;
}

void tst_Widgets::buttons()
{
    QFETCH(int, button);
    QFETCH(QStringList, calls);
    QFETCH(int, changed);
    QFETCH(int, reads);

    CallLog log;
    TestOptions widget(&log);
    QSignalSpy changedSpy(&widget, &WAbstractOptions::changed);
    connect(&widget, &WAbstractOptions::changed,
            [&log] { log.calls << QStringLiteral("changed"); });
    widget.show();
    QVERIFY(QTest::qWaitForWindowExposed(&widget));

    auto *box = widget.findChild<QDialogButtonBox *>(QStringLiteral("buttonBox"));
    QVERIFY(box);
    QPushButton *pushButton = box->button(QDialogButtonBox::StandardButton(button));
    QVERIFY(pushButton);
    QTest::mouseClick(pushButton, Qt::LeftButton);

    QCOMPARE(log.calls, calls);
    QCOMPARE(changedSpy.count(), changed);
    QCOMPARE(widget.readCount, reads);
    QCOMPARE(widget.writeCount, 1 - reads);
}

QTEST_MAIN(tst_Widgets)
#include "tst_widgets.moc"
