#include "childcase.h"

#include <ztdataarray.h>

#include <QSignalSpy>
#include <QThread>
#include <QtTest>

namespace {
const QDateTime stamp(QDate(2024, 5, 6), QTime(7, 8, 9), Qt::UTC);

class ForeignItem : public ZtDataItem
{
public:
    ForeignItem()
        : ZtDataItem(QString(), QPen(), -1, QDateTime())
    { }
    int type() const override { return 7; }
};
} // namespace

// Emits from its own thread, so that what arrives has crossed a queued connection.
class ArraySender : public QObject
{
    Q_OBJECT
public slots:
    void send()
    {
        ZtDataArray curve;
        curve.setName(QStringLiteral("curve"));
        curve.items << QVariant::fromValue(ZtDataXY(1, 0.5));
        ZtDataArray outer;
        outer.items << QVariant::fromValue(curve) << QVariant::fromValue(ZtDataY(7));
        emit arrayReady(outer);
    }
signals:
    void arrayReady(ZtDataArray array);
};

class tst_ZtDataArray : public QObject
{
    Q_OBJECT

private slots:
    void flagsFollowValues_data();
    void flagsFollowValues();
    void itemAccess();
    void replace_data();
    void replace();
    void equalityComparesValueTypes();
    void extractFromVariant();
    void arraysCrossThreads();
    void childCases_data();
    void childCases();
};

void tst_ZtDataArray::flagsFollowValues_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QPen>("pen");
    QTest::addColumn<int>("style");
    QTest::addColumn<QDateTime>("timestamp");
    QTest::addColumn<QVector<bool>>("flags"); // name, pen, style, timestamp

    QTest::newRow("nothing set") << QString(QLatin1String("")) << QPen() << -1 << QDateTime()
                                 << QVector<bool> {false, false, false, false};
    QTest::newRow("style 0") << QString() << QPen() << 0 << QDateTime()
                             << QVector<bool> {false, false, true, false};
    QTest::newRow("pen width only") << QString() << QPen(QBrush(Qt::black), 2) << -1 << QDateTime()
                                    << QVector<bool> {false, true, false, false};
    QTest::newRow("epoch timestamp")
        << QString() << QPen() << -1 << QDateTime::fromMSecsSinceEpoch(0, Qt::UTC)
        << QVector<bool> {false, false, false, true};
    QTest::newRow("all set") << QStringLiteral("n") << QPen(Qt::red) << 3 << stamp
                             << QVector<bool> {true, true, true, true};
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

    QCOMPARE(flagsOf(ZtDataXY(0, 1.0, name, pen, style, timestamp)), flags);
    // Setters recompute each flag, starting from the opposite state.
    ZtDataArray array;
    array.setName(QStringLiteral("x"));
    array.setPen(QPen(Qt::blue));
    array.setStyle(9);
    array.setTimestamp(stamp.addDays(1));
    array.setName(name);
    array.setPen(pen);
    array.setStyle(style);
    array.setTimestamp(timestamp);
    QCOMPARE(flagsOf(ZtDataArray(array)), flags);
}

void tst_ZtDataArray::itemAccess()
{
    ZtDataArray array;
    array.items << QVariant::fromValue(ZtDataY(1, QStringLiteral("first")))
                << QVariant::fromValue(ZtDataArray())
                << QVariant::fromValue(ZtDataY(2, QString(), QPen(Qt::red), 4, stamp))
                << QVariant::fromValue(ZtDataXY(5, 6, QStringLiteral("point")));
    const QVector<int> types {2, 0, 2, 1};
    for (int i = 0; i < types.size(); ++i) {
        QCOMPARE(array.itemType(i), types.at(i));
        QCOMPARE(array.isItemArray(i), types.at(i) == 0);
    }

    QCOMPARE(array.itemDataPointer(1), nullptr);
    ZtDataItem *first = array.itemDataPointer(0);
    ZtDataItem *second = array.itemDataPointer(2);
    QCOMPARE(second, first);
    QVERIFY(*static_cast<ZtDataY *>(second) == array.items.at(2).value<ZtDataY>());
    ZtDataItem *point = array.itemDataPointer(3);
    QVERIFY(point != first);
    QVERIFY(*static_cast<ZtDataXY *>(point) == array.items.at(3).value<ZtDataXY>());
    QCOMPARE(static_cast<ZtDataY *>(first)->getY(), QVariant(2)); // untouched by the point

    point->setName(QStringLiteral("changed"));
    QCOMPARE(array.items.at(3).value<ZtDataXY>().getName(), QStringLiteral("point"));
    ZtDataArray copy(array);
    QVERIFY(copy.itemDataPointer(0) != array.itemDataPointer(0));
}

void tst_ZtDataArray::replace_data()
{
    QTest::addColumn<int>("position");
    QTest::addColumn<QVariant>("replacement");

    ZtDataArray nested;
    nested.setName(QStringLiteral("nested"));
    nested.items << QVariant::fromValue(ZtDataY(3));
    QTest::newRow("value over point") << 1 << QVariant::fromValue(ZtDataY(9, QStringLiteral("v")));
    QTest::newRow("point over value") << 0 << QVariant::fromValue(ZtDataXY(1.5, 2.5));
    QTest::newRow("array at the end") << 2 << QVariant::fromValue(nested);
}

void tst_ZtDataArray::replace()
{
    QFETCH(int, position);
    QFETCH(QVariant, replacement);

    ZtDataArray source;
    source.items << replacement;
    ZtDataArray nested = replacement.value<ZtDataArray>();
    const ZtDataItem *item = source.isItemArray(0) ? &nested : source.itemDataPointer(0);

    ZtDataArray array;
    array.items << QVariant::fromValue(ZtDataY(1)) << QVariant::fromValue(ZtDataXY(2, 3))
                << QVariant::fromValue(ZtDataArray());
    ZtDataArray expected = array;
    expected.items[position] = replacement;
    array.replace(position, item);
    QVERIFY(array == expected);
}

void tst_ZtDataArray::equalityComparesValueTypes()
{
    // QVariant calls 1 and 1.0 equal; a receiver would still see a different type.
    QVERIFY(ZtDataY(1) != ZtDataY(1.0));
    QVERIFY(ZtDataXY(1, 2) != ZtDataXY(1.0, 2));
    const ZtDataY &point = ZtDataXY(0, 2);
    QVERIFY(point != ZtDataY(2));
    // Sample vectors compare by their samples.
    QVERIFY(ZtDataY(QVariant::fromValue(QVector<double> {1, 2}))
            == ZtDataY(QVariant::fromValue(QVector<double> {1, 2})));

    ZtDataArray a, b;
    a.items << QVariant::fromValue(ZtDataArray());
    b = a;
    QVERIFY(a == b);
    ZtDataArray styled;
    styled.setStyle(1);
    b.items[0] = QVariant::fromValue(styled);
    QVERIFY(a != b);
}

void tst_ZtDataArray::extractFromVariant()
{
    const ZtDataY item;
    const QVector<qint16> samples {1, -2, 3};
    const QVariant held = QVariant::fromValue(samples);
    QCOMPARE(item.extractFromVariant<QVector<qint16>>(held).constData(), samples.constData());
    QVERIFY(item.extractFromVariant<QVector<qint32>>(held).isEmpty());
    QVERIFY(item.extractFromVariant<QVector<double>>(QVariant(1.0)).isEmpty());
}

void tst_ZtDataArray::arraysCrossThreads()
{
    QThread thread;
    ArraySender sender;
    sender.moveToThread(&thread);
    thread.start();
    QSignalSpy spy(&sender, &ArraySender::arrayReady);
    QVERIFY(QMetaObject::invokeMethod(&sender, "send", Qt::QueuedConnection));
    QTRY_COMPARE(spy.count(), 1);
    thread.quit();
    thread.wait();

    const ZtDataArray received = spy.at(0).at(0).value<ZtDataArray>();
    QCOMPARE(received.items.size(), 2);
    const ZtDataArray curve = received.items.at(0).value<ZtDataArray>();
    QCOMPARE(curve.getName(), QStringLiteral("curve"));
    QVERIFY(curve.items.at(0).value<ZtDataXY>() == ZtDataXY(1, 0.5));
}

void tst_ZtDataArray::childCases_data()
{
    QTest::addColumn<QByteArray>("childCase");
    QTest::addColumn<QByteArray>("fatalMessage");
    QTest::newRow("value registers its type") << QByteArrayLiteral("register-y") << QByteArray();
    QTest::newRow("array registers all types")
        << QByteArrayLiteral("register-array") << QByteArray();
    QTest::newRow("unknown item type")
        << QByteArrayLiteral("item-type")
        << QByteArrayLiteral("ZtDataArray::itemType: unknown item type");
    QTest::newRow("replace with unknown item")
        << QByteArrayLiteral("replace")
        << QByteArrayLiteral("ZtDataArray::replace( int, ZtDataItem*): unknown type");
}

void tst_ZtDataArray::childCases()
{
    QFETCH(QByteArray, childCase);
    QFETCH(QByteArray, fatalMessage);
    QVERIFY(ChildCase::check(childCase, fatalMessage));
}

namespace {
// Nothing has registered the types in a fresh process; one construction must be enough for
// variants and queued calls by name.
int registers(std::function<void()> construct, std::initializer_list<const char *> names)
{
    for (const char *name : names) {
        if (QMetaType::type(name) != QMetaType::UnknownType)
            return 2;
    }
    construct();
    for (const char *name : names) {
        if (QMetaType::type(name) == QMetaType::UnknownType)
            return 1;
    }
    return 0;
}
} // namespace

int main(int argc, char **argv)
{
    const ChildCase::Cases cases {
        {"register-y", [] { return registers([] { ZtDataY y; }, {"ZtDataY"}); }},
        {"register-array",
         [] {
             return registers([] { ZtDataArray a; }, {"ZtDataArray", "ZtDataXY", "ZtDataY"});
         }},
        {"item-type",
         [] {
             ZtDataArray array;
             array.items << QVariant::fromValue(ZtDataY(1)) << QVariant(42);
             array.itemType(0);
             array.itemType(1);
             return 3;
         }},
        {"replace",
         [] {
             ZtDataArray array;
             array.items << QVariant::fromValue(ZtDataY(1));
             ForeignItem foreign;
             array.replace(0, &foreign);
             return 3;
         }},
    };
    return ChildCase::main<tst_ZtDataArray>(argc, argv, cases);
}

#include "tst_ztdataarray.moc"
