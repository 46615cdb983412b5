#include "childcase.h"

#include <ztdataarray.h>
#include <ztdataxy.h>
#include <ztdatay.h>

#include <QSignalSpy>
#include <QThread>
#include <QtTest>

namespace {
// An item kind the arrays do not know.
class ForeignItem : public ZtDataItem
{
public:
    ForeignItem()
        : ZtDataItem(QString(), QPen(), -1, QDateTime())
    { }
    int type() const override { return 7; }
};

const QDateTime stamp = QDateTime(QDate(2024, 5, 6), QTime(7, 8, 9), Qt::UTC);
} // namespace

// Emits arrays from its own thread so that they cross a queued connection.
class ArraySender : public QObject
{
    Q_OBJECT
public slots:
    void send(int count)
    {
        ZtDataArray curve;
        curve.setName(QStringLiteral("curve"));
        for (int i = 0; i < count; ++i)
            curve.items.append(QVariant::fromValue(ZtDataXY(i, i * 0.5)));
        ZtDataArray outer;
        outer.items.append(QVariant::fromValue(curve));
        outer.items.append(QVariant::fromValue(ZtDataY(7, QStringLiteral("total"))));
        emit arrayReady(outer);
        emit pointReady(ZtDataXY(1, 2, QStringLiteral("p")));
    }
signals:
    void arrayReady(ZtDataArray array);
    void pointReady(ZtDataXY point);
};

class tst_ZtDataArray : public QObject
{
    Q_OBJECT

private slots:
    void flagsFollowValues_data();
    void flagsFollowValues();
    void itemTypeAgreesWithIsItemArray();
    void itemDataPointerUsesScratchItems();
    void replaceChangesOnlyOnePosition_data();
    void replaceChangesOnlyOnePosition();
    void copiesAreIndependentAndComparable();
    void equalityIsStrictAboutValueTypes();
    void extractFromVariant();
    void arraysCrossThreads();
    void typesAreRegisteredByConstruction_data();
    void typesAreRegisteredByConstruction();
    void programmingErrorsEndTheProcess_data();
    void programmingErrorsEndTheProcess();
};

void tst_ZtDataArray::flagsFollowValues_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QPen>("pen");
    QTest::addColumn<int>("style");
    QTest::addColumn<QDateTime>("timestamp");
    QTest::addColumn<QVector<bool>>("flags"); // name, pen, style, timestamp

    QTest::newRow("nothing set") << QString() << QPen() << -1 << QDateTime()
                                 << QVector<bool> {false, false, false, false};
    QTest::newRow("empty but not null name")
        << QString(QLatin1String("")) << QPen() << -1 << QDateTime()
        << QVector<bool> {false, false, false, false};
    QTest::newRow("style 0 is set")
        << QString() << QPen() << 0 << QDateTime() << QVector<bool> {false, false, true, false};
    QTest::newRow("all set") << QStringLiteral("n") << QPen(Qt::red) << 3 << stamp
                             << QVector<bool> {true, true, true, true};
    QTest::newRow("pen differing only in width")
        << QString() << QPen(QBrush(Qt::black), 2) << -1 << QDateTime()
        << QVector<bool> {false, true, false, false};
    QTest::newRow("epoch timestamp is set")
        << QString() << QPen() << -1 << QDateTime::fromMSecsSinceEpoch(0, Qt::UTC)
        << QVector<bool> {false, false, false, true};
}

void tst_ZtDataArray::flagsFollowValues()
{
    QFETCH(QString, name);
    QFETCH(QPen, pen);
    QFETCH(int, style);
    QFETCH(QDateTime, timestamp);
    QFETCH(QVector<bool>, flags);

    auto flagsOf = [](const ZtDataItem &item) {
        return QVector<bool> {item.isNameSet(), item.isPenSet(), item.isStyleSet(),
                              item.isTimestampSet()};
    };

    // Through the constructors of each concrete class.
    QCOMPARE(flagsOf(ZtDataY(1.0, name, pen, style, timestamp)), flags);
    QCOMPARE(flagsOf(ZtDataXY(0, 1.0, name, pen, style, timestamp)), flags);

    // Through the setters, starting from the opposite state so that each flag must change.
    ZtDataArray array;
    array.setName(QStringLiteral("x"));
    array.setPen(QPen(Qt::blue));
    array.setStyle(9);
    array.setTimestamp(stamp.addDays(1));
    array.setName(name);
    array.setPen(pen);
    array.setStyle(style);
    array.setTimestamp(timestamp);
    QCOMPARE(flagsOf(array), flags);

    // The copy keeps the flags.
    ZtDataArray copy(array);
    QCOMPARE(flagsOf(copy), flags);
}

void tst_ZtDataArray::itemTypeAgreesWithIsItemArray()
{
    ZtDataArray array;
    array.items << QVariant::fromValue(ZtDataY(1)) << QVariant::fromValue(ZtDataArray())
                << QVariant::fromValue(ZtDataXY(1, 2)) << QVariant::fromValue(ZtDataY(2.0));
    const QVector<int> expected {2, 0, 1, 2};
    for (int i = 0; i < array.items.size(); ++i) {
        QCOMPARE(array.itemType(i), expected.at(i));
        QCOMPARE(array.isItemArray(i), array.itemType(i) == 0);
    }
}

void tst_ZtDataArray::itemDataPointerUsesScratchItems()
{
    ZtDataArray array;
    array.items << QVariant::fromValue(ZtDataY(1, QStringLiteral("first")))
                << QVariant::fromValue(ZtDataArray())
                << QVariant::fromValue(ZtDataY(2, QString(), QPen(Qt::red), 4, stamp))
                << QVariant::fromValue(ZtDataXY(5, 6, QStringLiteral("point")));

    QCOMPARE(array.itemDataPointer(1), nullptr);

    ZtDataItem *first = array.itemDataPointer(0);
    QVERIFY(first);
    const ZtDataY firstValue = *static_cast<ZtDataY *>(first);
    ZtDataItem *second = array.itemDataPointer(2);
    QCOMPARE(second, first); // one scratch value per array
    QCOMPARE(*static_cast<ZtDataY *>(second), array.items.at(2).value<ZtDataY>());
    QCOMPARE(firstValue, array.items.at(0).value<ZtDataY>());

    // A point goes to the other scratch object and leaves the value scratch alone.
    ZtDataItem *point = array.itemDataPointer(3);
    QVERIFY(point != first);
    QCOMPARE(point->type(), 1);
    QCOMPARE(*static_cast<ZtDataXY *>(point), array.items.at(3).value<ZtDataXY>());
    QCOMPARE(static_cast<ZtDataY *>(first)->getY(), QVariant(2));

    // Writes through the pointer stay in the scratch object.
    point->setName(QStringLiteral("changed"));
    QCOMPARE(array.items.at(3).value<ZtDataXY>().getName(), QStringLiteral("point"));

    // A copy has its own scratch objects.
    ZtDataArray copy(array);
    QVERIFY(copy.itemDataPointer(0) != array.itemDataPointer(0));
}

void tst_ZtDataArray::replaceChangesOnlyOnePosition_data()
{
    QTest::addColumn<int>("position");
    QTest::addColumn<QVariant>("replacement");

    ZtDataArray nested;
    nested.setName(QStringLiteral("nested"));
    nested.items << QVariant::fromValue(ZtDataY(3));
    QTest::newRow("value over point") << 1 << QVariant::fromValue(ZtDataY(9, QStringLiteral("v")));
    QTest::newRow("point over value") << 0 << QVariant::fromValue(ZtDataXY(1.5, 2.5));
    QTest::newRow("array over array") << 2 << QVariant::fromValue(nested);
    QTest::newRow("array at the end") << 3 << QVariant::fromValue(nested);
}

void tst_ZtDataArray::replaceChangesOnlyOnePosition()
{
    QFETCH(int, position);
    QFETCH(QVariant, replacement);

    ZtDataArray array;
    array.items << QVariant::fromValue(ZtDataY(1)) << QVariant::fromValue(ZtDataXY(2, 3))
                << QVariant::fromValue(ZtDataArray()) << QVariant::fromValue(ZtDataY(4));
    const ZtDataArray before = array;

    // Through a base pointer, as a module holding an itemDataPointer() result would call it.
    const ZtDataItem *item = nullptr;
    ZtDataY y;
    ZtDataXY xy;
    ZtDataArray a;
    if (replacement.userType() == qMetaTypeId<ZtDataY>())
        item = &(y = replacement.value<ZtDataY>());
    else if (replacement.userType() == qMetaTypeId<ZtDataXY>())
        item = &(xy = replacement.value<ZtDataXY>());
    else
        item = &(a = replacement.value<ZtDataArray>());
    array.replace(position, item);

    QCOMPARE(array.items.size(), before.items.size());
    for (int i = 0; i < array.items.size(); ++i) {
        ZtDataArray lhs, rhs;
        lhs.items << array.items.at(i);
        rhs.items << (i == position ? replacement : before.items.at(i));
        QVERIFY2(lhs == rhs, qPrintable(QStringLiteral("position %1").arg(i)));
    }
}

void tst_ZtDataArray::copiesAreIndependentAndComparable()
{
    ZtDataArray inner;
    inner.items << QVariant::fromValue(ZtDataXY(1, 2));
    ZtDataArray array;
    array.setStyle(2);
    array.items << QVariant::fromValue(inner);

    ZtDataArray copy = array;
    QVERIFY(copy == array);

    ZtDataArray changedInner = inner;
    changedInner.items << QVariant::fromValue(ZtDataY(3));
    copy.replace(0, &changedInner);
    QVERIFY(copy != array);
    QCOMPARE(array.items.at(0).value<ZtDataArray>().items.size(), 1);

    ZtDataArray restyled = array;
    restyled.setStyle(-1);
    QVERIFY(restyled != array);

    // Assignment keeps working type tests in the target.
    ZtDataArray assigned;
    assigned = array;
    QCOMPARE(assigned.itemType(0), 0);
    QVERIFY(assigned == array);
}

void tst_ZtDataArray::equalityIsStrictAboutValueTypes()
{
    // QVariant itself calls 1 and 1.0 equal; data items do not, a receiver would see a
    // different type.
    QVERIFY(ZtDataY(1) != ZtDataY(1.0));
    QVERIFY(ZtDataXY(1, 2) != ZtDataXY(1.0, 2));
    QVERIFY(ZtDataXY(1, 2) == ZtDataXY(1, 2));
    // A point and a value with the same y are different items.
    const ZtDataY &pointAsValue = ZtDataXY(0, 2);
    QVERIFY(!(pointAsValue == ZtDataY(2)));

    ZtDataArray a, b;
    a.items << QVariant::fromValue(ZtDataY(2));
    b.items << QVariant::fromValue(ZtDataXY(0, 2));
    QVERIFY(a != b);
}

void tst_ZtDataArray::extractFromVariant()
{
    const ZtDataY item;
    const QVector<qint16> samples {1, -2, 3};
    const QVariant held = QVariant::fromValue(samples);

    const QVector<qint16> extracted = item.extractFromVariant<QVector<qint16>>(held);
    QCOMPARE(extracted, samples);
    QCOMPARE(extracted.constData(), samples.constData());

    QVERIFY(item.extractFromVariant<QVector<qint32>>(held).isEmpty());
    QVERIFY(item.extractFromVariant<QVector<double>>(QVariant(1.0)).isEmpty());
    QVERIFY(item.extractFromVariant<QVector<qint8>>(QVariant()).isEmpty());
}

void tst_ZtDataArray::arraysCrossThreads()
{
    QThread thread;
    ArraySender sender;
    sender.moveToThread(&thread);
    thread.start();

    QSignalSpy arrays(&sender, &ArraySender::arrayReady);
    QSignalSpy points(&sender, &ArraySender::pointReady);
    // Queued by name, as the kernel connects modules with SIGNAL/SLOT strings.
    QVERIFY(QMetaObject::invokeMethod(&sender, "send", Qt::QueuedConnection, Q_ARG(int, 3)));

    QTRY_COMPARE(arrays.count(), 1);
    QTRY_COMPARE(points.count(), 1);
    thread.quit();
    thread.wait();

    const ZtDataArray received = arrays.at(0).at(0).value<ZtDataArray>();
    QCOMPARE(received.items.size(), 2);
    QCOMPARE(received.itemType(0), 0);
    const ZtDataArray curve = received.items.at(0).value<ZtDataArray>();
    QCOMPARE(curve.getName(), QStringLiteral("curve"));
    QCOMPARE(curve.items.size(), 3);
    QCOMPARE(curve.items.at(2).value<ZtDataXY>(), ZtDataXY(2, 1.0));
    QCOMPARE(points.at(0).at(0).value<ZtDataXY>(), ZtDataXY(1, 2, QStringLiteral("p")));
}

void tst_ZtDataArray::typesAreRegisteredByConstruction_data()
{
    QTest::addColumn<QByteArray>("childCase");
    QTest::newRow("value") << QByteArrayLiteral("register-y");
    QTest::newRow("point") << QByteArrayLiteral("register-xy");
    QTest::newRow("array") << QByteArrayLiteral("register-array");
}

void tst_ZtDataArray::typesAreRegisteredByConstruction()
{
    QFETCH(QByteArray, childCase);
    QVERIFY(ChildCase::succeeds(childCase));
}

void tst_ZtDataArray::programmingErrorsEndTheProcess_data()
{
    QTest::addColumn<QByteArray>("childCase");
    QTest::addColumn<QByteArray>("message");
    QTest::newRow("unknown item type")
        << QByteArrayLiteral("item-type")
        << QByteArrayLiteral("ZtDataArray::itemType: unknown item type");
    QTest::newRow("replace with unknown item")
        << QByteArrayLiteral("replace")
        << QByteArrayLiteral("ZtDataArray::replace( int, ZtDataItem*): unknown type");
}

void tst_ZtDataArray::programmingErrorsEndTheProcess()
{
    QFETCH(QByteArray, childCase);
    QFETCH(QByteArray, message);
    QVERIFY(ChildCase::diesWith(childCase, message));
}

namespace {
// In a fresh process nothing has registered the types yet; constructing one item must be
// enough to make variants and queued calls by name.
int registeredByName(std::initializer_list<const char *> names)
{
    for (const char *name : names) {
        if (QMetaType::type(name) == QMetaType::UnknownType)
            return 1;
    }
    return 0;
}

int childRegisterY()
{
    if (QMetaType::type("ZtDataY") != QMetaType::UnknownType)
        return 2; // the check below would prove nothing
    ZtDataY y(1);
    return registeredByName({"ZtDataY"});
}

int childRegisterXY()
{
    if (QMetaType::type("ZtDataXY") != QMetaType::UnknownType)
        return 2;
    ZtDataXY xy;
    return registeredByName({"ZtDataXY"});
}

int childRegisterArray()
{
    if (QMetaType::type("ZtDataArray") != QMetaType::UnknownType)
        return 2;
    ZtDataArray array;
    return registeredByName({"ZtDataArray", "ZtDataXY", "ZtDataY"});
}

int childItemType()
{
    ZtDataArray array;
    array.items << QVariant::fromValue(ZtDataY(1)) << QVariant(42);
    array.itemType(0);
    array.itemType(1);
    return 3;
}

int childReplace()
{
    ZtDataArray array;
    array.items << QVariant::fromValue(ZtDataY(1));
    ForeignItem foreign;
    array.replace(0, &foreign);
    return 3;
}
} // namespace

int main(int argc, char **argv)
{
    return ChildCase::main<tst_ZtDataArray>(argc, argv,
                                            {{"register-y", childRegisterY},
                                             {"register-xy", childRegisterXY},
                                             {"register-array", childRegisterArray},
                                             {"item-type", childItemType},
                                             {"replace", childReplace}});
}

#include "tst_ztdataarray.moc"
