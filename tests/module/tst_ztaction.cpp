#include <ztaction.h>

#include <QSignalSpy>
#include <QTest>

#include <cmath>
#include <limits>

// Each setter of ZtAction emits only its own overload of valueChanged and only on a real change,
// so that a menu, a tool bar and a module observing one value never feed back into each other.

namespace {

const double notANumber = std::numeric_limits<double>::quiet_NaN();

struct Spies
{
    explicit Spies(ZtAction *action)
        : asInt(action, QOverload<int>::of(&ZtAction::valueChanged))
        , asDouble(action, QOverload<double>::of(&ZtAction::valueChanged))
        , asVariant(action, QOverload<QVariant>::of(&ZtAction::valueChanged))
    { }

    QSignalSpy asInt;
    QSignalSpy asDouble;
    QSignalSpy asVariant;
};

} // namespace

class tst_ZtAction : public QObject
{
    Q_OBJECT

private slots:
    void setValue_data();
    void setValue();
    void repeatedValues();
};

void tst_ZtAction::setValue_data()
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

void tst_ZtAction::setValue()
{
    QFETCH(QVariant, initial);
    QFETCH(QString, setter);
    QFETCH(QVariant, value);
    QFETCH(bool, emits);

    ZtAction action;
    action.setData(initial);
    Spies spies(&action);

    if (setter == QLatin1String("int"))
        action.setValue(value.toInt());
    else if (setter == QLatin1String("double"))
        action.setValue(value.toDouble());
    else
        action.setValue(value);

    const int expected = emits ? 1 : 0;
    QCOMPARE(spies.asInt.count(), setter == QLatin1String("int") ? expected : 0);
    QCOMPARE(spies.asDouble.count(), setter == QLatin1String("double") ? expected : 0);
    QCOMPARE(spies.asVariant.count(), setter == QLatin1String("variant") ? expected : 0);

    if (!emits)
        return;
    // The emitted value is what was stored.
    QSignalSpy &spy = setter == QLatin1String("int")
        ? spies.asInt
        : (setter == QLatin1String("double") ? spies.asDouble : spies.asVariant);
    const QVariant emitted = spy.first().at(0);
    if (std::isnan(value.toDouble())) {
        QVERIFY(std::isnan(emitted.toDouble()));
        QVERIFY(std::isnan(action.data().toDouble()));
    } else {
        QCOMPARE(emitted, value);
        QCOMPARE(action.data(), value);
    }
}

void tst_ZtAction::repeatedValues()
{
    ZtAction action;
    Spies spies(&action);

    action.setValue(5);
    action.setValue(5);
    QCOMPARE(spies.asInt.count(), 1);

    // A NaN never equals anything, itself included: each store is announced.
    action.setValue(notANumber);
    action.setValue(notANumber);
    QCOMPARE(spies.asDouble.count(), 2);

    action.setValue(QVariant(QStringLiteral("x")));
    action.setValue(QVariant(QStringLiteral("x")));
    QCOMPARE(spies.asVariant.count(), 1);
    QCOMPARE(spies.asInt.count(), 1);
}

QTEST_MAIN(tst_ZtAction)
#include "tst_ztaction.moc"
