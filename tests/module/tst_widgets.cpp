#include "testmodule.h"

#include <wabstractoptions.h>
#include <ztaction.h>

#include <QDialogButtonBox>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>

#include <limits>

namespace {
const double notANumber = std::numeric_limits<double>::quiet_NaN();
} // namespace

class tst_Widgets : public QObject
{
    Q_OBJECT

private slots:
    void buttons_data();
    void buttons();
    void setValue_data();
    void setValue();
};

// Ok commits the user's edits and announces them; Cancel reloads the module's values.
void tst_Widgets::buttons_data()
{
    QTest::addColumn<int>("button");
    QTest::addColumn<QStringList>("calls");

    QTest::newRow("Ok") << int(QDialogButtonBox::Ok) << QStringList {"options.write", "changed"};
    QTest::newRow("Cancel") << int(QDialogButtonBox::Cancel) << QStringList {"options.read"};
}

void tst_Widgets::buttons()
{
    QFETCH(int, button);
    QFETCH(QStringList, calls);

    QStringList log;
    TestOptions widget(&log, QStringLiteral("options"));
    connect(&widget, &WAbstractOptions::changed, [&log] { log << QStringLiteral("changed"); });
    widget.show();
    QVERIFY(QTest::qWaitForWindowExposed(&widget));

    auto *box = widget.findChild<QDialogButtonBox *>(QStringLiteral("buttonBox"));
    QVERIFY(box);
    QCOMPARE(int(box->standardButtons()), 0x400400);
    QTest::mouseClick(box->button(QDialogButtonBox::StandardButton(button)), Qt::LeftButton);

    QCOMPARE(log, calls);
}

// Each setter emits only its own overload of valueChanged, and only on a real change, so that a
// menu, a tool bar and a module observing one value never feed back into each other.
void tst_Widgets::setValue_data()
{
    QTest::addColumn<QVariant>("initial");
    QTest::addColumn<QString>("setter");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<bool>("emits");

    QTest::newRow("int same") << QVariant(5) << "int" << QVariant(5) << false;
    QTest::newRow("int different") << QVariant(5) << "int" << QVariant(6) << true;
    QTest::newRow("int 0 on empty data") << QVariant() << "int" << QVariant(0) << false;
    QTest::newRow("int 0 on non-number") << QVariant("abc") << "int" << QVariant(0) << false;
    QTest::newRow("int on double data") << QVariant(2.2) << "int" << QVariant(2) << false;
    QTest::newRow("double 2.5 on int 2") << QVariant(2) << "double" << QVariant(2.5) << true;
    QTest::newRow("double 2.0 on int 2") << QVariant(2) << "double" << QVariant(2.0) << false;
    QTest::newRow("double 0 on empty data") << QVariant() << "double" << QVariant(0.0) << false;
    QTest::newRow("double NaN on NaN")
        << QVariant(notANumber) << "double" << QVariant(notANumber) << true;
    QTest::newRow("double NaN on 1") << QVariant(1.0) << "double" << QVariant(notANumber) << true;
    QTest::newRow("double 1 on NaN") << QVariant(notANumber) << "double" << QVariant(1.0) << true;
    QTest::newRow("variant same") << QVariant("on") << "variant" << QVariant("on") << false;
    QTest::newRow("variant different") << QVariant("on") << "variant" << QVariant("off") << true;
    QTest::newRow("variant onto empty") << QVariant() << "variant" << QVariant(0) << true;
    QTest::newRow("variant empty on empty") << QVariant() << "variant" << QVariant() << false;
}

void tst_Widgets::setValue()
{
    QFETCH(QVariant, initial);
    QFETCH(QString, setter);
    QFETCH(QVariant, value);
    QFETCH(bool, emits);

    ZtAction action;
    action.setData(initial);
    QSignalSpy asInt(&action, QOverload<int>::of(&ZtAction::valueChanged));
    QSignalSpy asDouble(&action, QOverload<double>::of(&ZtAction::valueChanged));
    QSignalSpy asVariant(&action, QOverload<QVariant>::of(&ZtAction::valueChanged));
    QSignalSpy *own = &asVariant;
    if (setter == QLatin1String("int")) {
        own = &asInt;
        action.setValue(value.toInt());
    } else if (setter == QLatin1String("double")) {
        own = &asDouble;
        action.setValue(value.toDouble());
    } else {
        action.setValue(value);
    }

    QCOMPARE(own->count(), emits ? 1 : 0);
    QCOMPARE(asInt.count() + asDouble.count() + asVariant.count(), own->count());
    if (emits) {
        // Compared as text so that a stored NaN matches.
        QCOMPARE(own->first().at(0).toString(), value.toString());
        QCOMPARE(action.data().toString(), value.toString());
        QCOMPARE(action.data().userType(), value.userType());
    }
}

QTEST_MAIN(tst_Widgets)
#include "tst_widgets.moc"
