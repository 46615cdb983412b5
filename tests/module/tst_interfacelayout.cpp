#include <optisync.h>
#include <optisyncdiffer.h>
#include <optisyncsame.h>
#include <wabstractmain.h>
#include <wabstractoptions.h>
#include <wabstractstate.h>
#include <ztaction.h>
#include <ztmifound.h>

#include <QMetaMethod>
#include <QMetaProperty>
#include <QTest>

// Module libraries are compiled against these classes and connect to them by signature and
// index: a method moved, renamed or turned from slot into signal breaks every plug-in built
// before the change. These checks pin the meta-object layout that plug-ins see.

namespace {

QString describe(const QMetaMethod &method)
{
    QString kind;
    switch (method.methodType()) {
    case QMetaMethod::Signal:
        kind = QStringLiteral("signal");
        break;
    case QMetaMethod::Slot:
        kind = QStringLiteral("slot");
        break;
    default:
        kind = QStringLiteral("method");
        break;
    }
    return kind + QLatin1Char(' ') + QString::fromLatin1(method.methodSignature());
}

} // namespace

Q_DECLARE_METATYPE(const QMetaObject *)

class tst_InterfaceLayout : public QObject
{
    Q_OBJECT

private slots:
    void methods_data();
    void methods();
    void moduleProperties();
};

void tst_InterfaceLayout::methods_data()
{
    QTest::addColumn<const QMetaObject *>("metaObject");
    QTest::addColumn<QStringList>("expected");

    QTest::newRow("ZtMIFound") << &ZtMIFound::staticMetaObject
                               << QStringList {"signal state(QString,Logger::Level)",
                                               "signal state(QString)",
                                               "signal closeWMain()",
                                               "signal closeWOptions()",
                                               "signal sendOptions(ModuleOptions)",
                                               "slot init()",
                                               "slot final()",
                                               "slot updateWMain()",
                                               "slot updateWOptions()",
                                               "slot setOptionsFromList(QVariantList)",
                                               "slot recvOptions(ModuleOptions)",
                                               "slot applyOptions()",
                                               "slot actForOptionsChanged()",
                                               "slot moveMeToTheMainThread()"};
    QTest::newRow("WAbstractMain") << &WAbstractMain::staticMetaObject
                                   << QStringList {"slot readOptions()", "slot writeOptions()"};
    QTest::newRow("WAbstractOptions")
        << &WAbstractOptions::staticMetaObject
        << QStringList {"signal changed()", "slot readOptions()", "slot writeOptions()"};
    QTest::newRow("WAbstractState") << &WAbstractState::staticMetaObject << QStringList {};
    QTest::newRow("ZtAction") << &ZtAction::staticMetaObject
                              << QStringList {
                                     "signal valueChanged(int)",      "signal valueChanged(double)",
                                     "signal valueChanged(QVariant)", "slot setValue(int)",
                                     "slot setValue(double)",         "slot setValue(QVariant)"};
    QTest::newRow("OptiSync") << &OptiSync::staticMetaObject
                              << QStringList {"signal sendOptions(ModuleOptions)",
                                              "slot recvOptions(ModuleOptions)"};
}

void tst_InterfaceLayout::methods()
{
    QFETCH(const QMetaObject *, metaObject);
    QFETCH(QStringList, expected);

    QStringList actual;
    for (int i = metaObject->methodOffset(); i < metaObject->methodCount(); ++i)
        actual << describe(metaObject->method(i));
    QCOMPARE(actual, expected);
}

void tst_InterfaceLayout::moduleProperties()
{
    const QMetaObject &mo = ZtMIFound::staticMetaObject;
    QCOMPARE(mo.propertyCount() - mo.propertyOffset(), 2);

    const QMetaProperty needGui = mo.property(mo.propertyOffset());
    QCOMPARE(needGui.name(), "isneedthreadgui");
    QCOMPARE(needGui.type(), QVariant::Bool);

    const QMetaProperty kind = mo.property(mo.propertyOffset() + 1);
    QCOMPARE(kind.name(), "mt");
    QVERIFY(kind.isEnumType());

    for (const QMetaProperty &property : {needGui, kind}) {
        QVERIFY(property.isReadable());
        QVERIFY(!property.isWritable());
        QVERIFY(property.isStored());
        QVERIFY(property.isDesignable());
        QVERIFY(property.isScriptable());
    }

    // What the kernel reads from a fresh module through the property system.
    ZtMIFound module(0);
    QCOMPARE(module.property("isneedthreadgui"), QVariant(false));
    QCOMPARE(module.property("mt").toInt(), -1);
    QVERIFY(!module.setProperty("mt", 1));
    QCOMPARE(module.property("mt").toInt(), -1);
}

QTEST_GUILESS_MAIN(tst_InterfaceLayout)
#include "tst_interfacelayout.moc"
