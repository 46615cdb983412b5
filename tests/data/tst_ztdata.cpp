#include <ztdataarray.h>
#include <ztdataconverter.h>
#include <ztdatawrapper.h>

#include <QByteArrayList>
#include <QProcess>
#include <QtTest>

#include <algorithm>
#include <functional>
#include <limits>

namespace {
const QDateTime stamp(QDate(2023, 1, 2), QTime(3, 4, 5), Qt::UTC);
const QVariant terminator;

QVariant y(const QVariant &value, const QString &name = QString(), const QPen &pen = QPen(),
           int style = -1, const QDateTime &timestamp = QDateTime())
{
    return QVariant::fromValue(ZtDataY(value, name, pen, style, timestamp));
}

QVariant xy(const QVariant &x, const QVariant &yv, const QString &name = QString(),
            const QPen &pen = QPen(), int style = -1, const QDateTime &timestamp = QDateTime())
{
    return QVariant::fromValue(ZtDataXY(x, yv, name, pen, style, timestamp));
}

ZtDataArray arrayOf(const QVariantList &items, const QString &name = QString(),
                    const QPen &pen = QPen(), int style = -1,
                    const QDateTime &timestamp = QDateTime())
{
    ZtDataArray array;
    array.items = items;
    array.setName(name);
    array.setPen(pen);
    array.setStyle(style);
    array.setTimestamp(timestamp);
    return array;
}

QVariant nested(const ZtDataArray &array)
{
    return QVariant::fromValue(array);
}

// A flat list with the type of every entry; QVariantList's own == calls 1 and 1.0 equal.
QString typed(const QVariantList &list)
{
    QStringList parts;
    for (const QVariant &v : list) {
        if (v.userType() == QMetaType::QVariantList)
            parts << QLatin1Char('[') + typed(v.toList()) + QLatin1Char(']');
        else
            parts << QString::fromLatin1(v.isValid() ? v.typeName() : "invalid") + QLatin1Char(':')
                    + v.toString();
    }
    return parts.join(QLatin1String(", "));
}

template<typename T>
QVariant convertTo(const QVariant &v)
{
    return QVariant::fromValue(ZtDataConverter::convertFromVariant<QVector<T>>(v));
}

class ForeignItem : public ZtDataItem
{
public:
    ForeignItem()
        : ZtDataItem(QString(), QPen(), -1, QDateTime())
    { }
    int type() const override { return 7; }
};

// Nothing has registered the types in a fresh process; one construction must be enough for
// variants and queued calls by name.
int registers(std::function<void()> construct, std::initializer_list<const char *> names)
{
    const auto known = [names] {
        return std::count_if(names.begin(), names.end(), [](const char *name) {
            return QMetaType::type(name) != QMetaType::UnknownType;
        });
    };
    if (known() != 0)
        return 2;
    construct();
    return known() == int(names.size()) ? 0 : 1;
}

// Cases that end the process, or need a fresh one, run in a child copy of this executable that
// this variable selects. Each has the message it must die with, or none when it must exit with 0.
constexpr const char *childSelector = "ZTCORE_TEST_CHILD_CASE";
using ChildCases = QMap<QByteArray, QPair<QByteArray, std::function<int()>>>;

ChildCases childCaseTable()
{
    const QByteArray unsupported("ZtDataConverter::convertFromVariant, unsupported type");
    const QByteArray failed("ZtDataWrapper::convListToArray: conversion failed");
    const QByteArray unknownEntry("ZtDataWrapper::convListToArray: unknown type");
    // A child case that returns at all has failed to end the process.
    const auto run = [](std::function<void()> call) {
        return [call] {
            call();
            return 3;
        };
    };
    const auto read = [run](const QVariantList &list) {
        return run([list] { ZtDataWrapper::convListToArray(list); });
    };
    const auto convert = [run](const QVariant &v) {
        return run([v] { ZtDataConverter::convertFromVariant<QVector<qint32>>(v); });
    };
    return {
        {"value registers its type",
         {{}, [] { return registers([] { ZtDataY y; }, {"ZtDataY"}); }}},
        {"array registers all types",
         {{},
          [] {
              return registers([] { ZtDataArray a; }, {"ZtDataArray", "ZtDataXY", "ZtDataY"});
          }}},
        {"unknown item type", {"ZtDataArray::itemType: unknown item type", run([] {
                                   const ZtDataArray array = arrayOf({y(1), QVariant(42)});
                                   array.itemType(0);
                                   array.itemType(1);
                               })}},
        {"replace with unknown item",
         {"ZtDataArray::replace( int, ZtDataItem*): unknown type", run([] {
              ZtDataArray array = arrayOf({y(1)});
              ForeignItem foreign;
              array.replace(0, &foreign);
          })}},
        {"convert a string", {unsupported, convert(QStringLiteral("1,2"))}},
        {"write a plain value", {"ZtDataWrapper::convArrayToList: unknown type", run([] {
                                     ZtDataWrapper::convArrayToList(arrayOf({y(1), QVariant(2.0)}));
                                 })}},
        {"read a name before any item", {failed, read({QStringLiteral("n"), 1.0})}},
        {"read a name after a terminator", {failed, read({1.0, terminator, QStringLiteral("n")})}},
        {"read a second timestamp", {failed, read({1.0, stamp, stamp})}},
        {"read a map", {unknownEntry, read({1.0, QVariantMap {{QStringLiteral("k"), 1}}})}},
        // Made in the child: making the item here would register its type too early.
        {"read an item variant",
         {unknownEntry, run([] { ZtDataWrapper::convListToArray({y(1.0)}); })}},
    };
}
} // namespace

// Failure messages show arrays in their flat form.
char *toString(const ZtDataArray &array)
{
    return qstrdup(qPrintable(typed(ZtDataWrapper::convArrayToList(array))));
}

class tst_ZtData : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { ZtDataWrapper(); } // registers the vector types under their names
    void flagsFollowValues_data();
    void flagsFollowValues();
    void itemAccess();
    void replace_data();
    void replace();
    void equalityComparesValueTypes();

    void convertFromVariant_data();
    void convertFromVariant();
    void heldVectorsAreShared();
    void arrayToList_data();
    void arrayToList();
    void listToArray_data();
    void listToArray();

    void childCases_data();
    void childCases();
};

void tst_ZtData::flagsFollowValues_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QPen>("pen");
    QTest::addColumn<int>("style");
    QTest::addColumn<QDateTime>("timestamp");
    QTest::addColumn<QVector<bool>>("flags"); // name, pen, style, timestamp

    QTest::newRow("nothing set") << QString(QLatin1String("")) << QPen() << -1 << QDateTime()
                                 << QVector<bool> {false, false, false, false};
    QTest::newRow("pen width only") << QString() << QPen(QBrush(Qt::black), 2) << -1 << QDateTime()
                                    << QVector<bool> {false, true, false, false};
    QTest::newRow("all set") << QStringLiteral("n") << QPen(Qt::red) << 3 << stamp
                             << QVector<bool> {true, true, true, true};
}

void tst_ZtData::flagsFollowValues()
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
    // Setters recompute each flag, starting from the opposite state; copies keep them.
    ZtDataArray array = arrayOf({}, QStringLiteral("x"), QPen(Qt::blue), 9, stamp.addDays(1));
    array.setName(name);
    array.setPen(pen);
    array.setStyle(style);
    array.setTimestamp(timestamp);
    QCOMPARE(flagsOf(ZtDataArray(array)), flags);
}

void tst_ZtData::itemAccess()
{
    ZtDataArray array
        = arrayOf({y(1, QStringLiteral("first")), nested(ZtDataArray()),
                   y(2, QString(), QPen(Qt::red), 4, stamp), xy(5, 6, QStringLiteral("point"))});
    const QVector<int> types {2, 0, 2, 1};
    for (int i = 0; i < types.size(); ++i) {
        QCOMPARE(array.itemType(i), types.at(i));
        QCOMPARE(array.isItemArray(i), types.at(i) == 0);
    }

    // One scratch object per item class, refilled on each call and detached from the items.
    QCOMPARE(array.itemDataPointer(1), nullptr);
    ZtDataItem *first = array.itemDataPointer(0);
    ZtDataItem *second = array.itemDataPointer(2);
    QCOMPARE(second, first);
    QVERIFY(*static_cast<ZtDataY *>(second) == array.items.at(2).value<ZtDataY>());
    ZtDataItem *point = array.itemDataPointer(3);
    QVERIFY(point != first);
    QVERIFY(*static_cast<ZtDataXY *>(point) == array.items.at(3).value<ZtDataXY>());
    QCOMPARE(static_cast<ZtDataY *>(first)->getY(), QVariant(2));
    point->setName(QStringLiteral("changed"));
    QCOMPARE(array.items.at(3).value<ZtDataXY>().getName(), QStringLiteral("point"));
    ZtDataArray copy(array);
    QVERIFY(copy.itemDataPointer(0) != array.itemDataPointer(0));
}

void tst_ZtData::replace_data()
{
    QTest::addColumn<int>("position");
    QTest::addColumn<QVariant>("replacement");

    QTest::newRow("value over point") << 1 << y(9, QStringLiteral("v"));
    QTest::newRow("point over value") << 0 << xy(1.5, 2.5);
    QTest::newRow("array at the end") << 2 << nested(arrayOf({y(3)}, QStringLiteral("nested")));
}

void tst_ZtData::replace()
{
    QFETCH(int, position);
    QFETCH(QVariant, replacement);

    ZtDataArray source = arrayOf({replacement});
    ZtDataArray nestedArray = replacement.value<ZtDataArray>();
    const ZtDataItem *item = source.isItemArray(0) ? &nestedArray : source.itemDataPointer(0);

    ZtDataArray array = arrayOf({y(1), xy(2, 3), nested(ZtDataArray())});
    ZtDataArray expected = array;
    expected.items[position] = replacement;
    array.replace(position, item);
    QCOMPARE(array, expected);
}

void tst_ZtData::equalityComparesValueTypes()
{
    // QVariant calls 1 and 1.0 equal; a receiver would still see a different type.
    QVERIFY(ZtDataY(1) != ZtDataY(1.0));
    QVERIFY(ZtDataXY(1, 2) != ZtDataXY(1.0, 2));
    const ZtDataY &point = ZtDataXY(0, 2);
    QVERIFY(point != ZtDataY(2));
    // Sample vectors compare by their samples.
    QVERIFY(ZtDataY(QVariant::fromValue(QVector<double> {1, 2}))
            == ZtDataY(QVariant::fromValue(QVector<double> {1, 2})));
    // Nested arrays compare with their attributes.
    QVERIFY(arrayOf({nested(ZtDataArray())}) == arrayOf({nested(ZtDataArray())}));
    QVERIFY(arrayOf({nested(ZtDataArray())}) != arrayOf({nested(arrayOf({}, {}, {}, 1))}));
}

void tst_ZtData::convertFromVariant_data()
{
    QTest::addColumn<QVariant>("input");
    QTest::addColumn<QVariant>("expected"); // of the target vector type

    QTest::newRow("double to qint32 truncates toward zero")
        << QVariant::fromValue(QVector<double> {1.9, -1.9, 0.5})
        << QVariant::fromValue(QVector<qint32> {1, -1, 0});
    QTest::newRow("qint64 to qint8 keeps low bits")
        << QVariant::fromValue(QVector<qint64> {0x1ff, -129, 256})
        << QVariant::fromValue(QVector<qint8> {-1, 127, 0});
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    QTest::newRow("NaN to 0") << QVariant::fromValue(QVector<double> {nan, -nan})
                              << QVariant::fromValue(QVector<qint32> {0, 0});
    QTest::newRow("double saturates to qint8")
        << QVariant::fromValue(QVector<double> {128.0, -129.0, 1e300, -inf})
        << QVariant::fromValue(QVector<qint8> {127, -128, 127, -128});
    QTest::newRow("double saturates to qint32")
        << QVariant::fromValue(QVector<double> {2147483648.0, -2147483649.0})
        << QVariant::fromValue(QVector<qint32> {2147483647, -2147483647 - 1});
    QTest::newRow("double saturates to qint64 at 2^63")
        << QVariant::fromValue(
               QVector<double> {9223372036854775808.0, -9223372036854775808.0, -1e19})
        << QVariant::fromValue(QVector<qint64> {std::numeric_limits<qint64>::max(),
                                                std::numeric_limits<qint64>::min(),
                                                std::numeric_limits<qint64>::min()});
    QTest::newRow("qint64 to double exact at 2^53")
        << QVariant::fromValue(QVector<qint64> {Q_INT64_C(9007199254740992), -1})
        << QVariant::fromValue(QVector<double> {9007199254740992.0, -1.0});
}

void tst_ZtData::convertFromVariant()
{
    QFETCH(QVariant, input);
    QFETCH(QVariant, expected);
    // Found by the names the vector types are registered under.
    const QHash<int, QVariant (*)(const QVariant &)> convert {
        {QMetaType::type("QVector<qint8>"), &convertTo<qint8>},
        {QMetaType::type("QVector<qint16>"), &convertTo<qint16>},
        {QMetaType::type("QVector<qint32>"), &convertTo<qint32>},
        {QMetaType::type("QVector<qint64>"), &convertTo<qint64>},
        {QMetaType::type("QVector<double>"), &convertTo<double>},
    };
    QVERIFY(convert.contains(expected.userType()));
    // Element lists through the registered sequential converters; QVariant cannot compare the
    // vectors themselves.
    const QVariantList actual = convert.value(expected.userType())(input).value<QVariantList>();
    QVERIFY(!actual.isEmpty());
    QCOMPARE(actual, expected.value<QVariantList>());
}

void tst_ZtData::heldVectorsAreShared()
{
    const QVector<double> samples(1000, 2.5);
    const QVariant held = QVariant::fromValue(samples);
    QVERIFY(ZtDataConverter::convertFromVariant<QVector<double>>(held).isSharedWith(samples));
    // extractFromVariant never converts: another element type gives an empty vector.
    const ZtDataY item;
    QVERIFY(item.extractFromVariant<QVector<double>>(held).isSharedWith(samples));
    QVERIFY(item.extractFromVariant<QVector<qint32>>(held).isEmpty());
    QVERIFY(item.extractFromVariant<QVector<double>>(QVariant(1.0)).isEmpty());
}

void tst_ZtData::arrayToList_data()
{
    QTest::addColumn<ZtDataArray>("array");
    QTest::addColumn<QVariantList>("expected");

    QTest::newRow("bare values are terminated")
        << arrayOf({y(1), y(2)}) << QVariantList {1, terminator, 2, terminator};
    QTest::newRow("no terminator once an attribute was written")
        << arrayOf({y(1, QStringLiteral("n")), y(2), y(3)})
        << QVariantList {1, QStringLiteral("n"), 2, 3};
    QTest::newRow("terminators before the first attribute only")
        << arrayOf({y(1), y(2, QString(), QPen(), 0), y(3)})
        << QVariantList {1, terminator, 2, 0, 3};
    QTest::newRow("point with style")
        << arrayOf({xy(0.5, 3, QString(), QPen(), 2)}) << QVariantList {0.5, 3, 2};
    QTest::newRow("points never terminated")
        << arrayOf({xy(1, 2), y(3), xy(4, 5)}) << QVariantList {1, 2, 3, terminator, 4, 5};
    QTest::newRow("attributes in fixed order")
        << arrayOf({y(1.5, QStringLiteral("a"), QPen(Qt::red), 7, stamp)})
        << QVariantList {1.5, QStringLiteral("a"), QVariant::fromValue(QPen(Qt::red)), 7, stamp};
    QTest::newRow("nested array with its attributes")
        << arrayOf({nested(arrayOf({y(1)}, QStringLiteral("curve"), QPen(), 4))})
        << QVariantList {QVariant(QVariantList {1, terminator}), QStringLiteral("curve"), 4};
    QTest::newRow("each nesting level has its own terminator rule")
        << arrayOf({y(1, QStringLiteral("a")), nested(arrayOf({y(2)})), y(3)})
        << QVariantList {1, QStringLiteral("a"), QVariant(QVariantList {2, terminator}), 3};
    QTest::newRow("outer attributes are not written")
        << arrayOf({}, QStringLiteral("outer"), QPen(Qt::red), 1, stamp) << QVariantList {};
}

void tst_ZtData::arrayToList()
{
    QFETCH(ZtDataArray, array);
    QFETCH(QVariantList, expected);
    QCOMPARE(typed(ZtDataWrapper::convArrayToList(array)), typed(expected));
}

void tst_ZtData::listToArray_data()
{
    QTest::addColumn<QVariantList>("list");
    QTest::addColumn<ZtDataArray>("expected");

    // Pinned readings of lists that more than one array writes.
    QTest::newRow("value with style 2 reads as the point (1, 2)")
        << QVariantList {1, 2} << arrayOf({xy(1, 2)});
    QTest::newRow("point with style but no name reads as point and value")
        << QVariantList {1.0, 2.0, 3} << arrayOf({xy(1.0, 2.0), y(3)});
    QTest::newRow("int after a nested array is its style")
        << QVariantList {QVariant(QVariantList {}), 3} << arrayOf({nested(arrayOf({}, {}, {}, 3))});
    QTest::newRow("int before a terminator is a value")
        << QVariantList {QVariant(QVariantList {}), 3, terminator}
        << arrayOf({nested(ZtDataArray()), y(3)});
    QTest::newRow("int after a name is a style")
        << QVariantList {1.5, QStringLiteral("a"), 3}
        << arrayOf({y(1.5, QStringLiteral("a"), QPen(), 3)});
    QTest::newRow("byte-array list is one value and takes a name")
        << QVariantList {QVariant::fromValue(QByteArrayList {"a", "b"}), QStringLiteral("n")}
        << arrayOf({y(QVariant::fromValue(QByteArrayList {"a", "b"}), QStringLiteral("n"))});
    QTest::newRow("stray terminators are skipped")
        << QVariantList {terminator, 1.0, 2.0, terminator, terminator} << arrayOf({xy(1.0, 2.0)});
    QTest::newRow("pending value ends at a nested array")
        << QVariantList {1.0, QVariant(QVariantList {2.0, terminator})}
        << arrayOf({y(1.0), nested(arrayOf({y(2.0)}))});
}

void tst_ZtData::listToArray()
{
    QFETCH(QVariantList, list);
    QFETCH(ZtDataArray, expected);
    QCOMPARE(ZtDataWrapper::convListToArray(list), expected);
}

void tst_ZtData::childCases_data()
{
    QTest::addColumn<QByteArray>("childCase");
    QTest::addColumn<QByteArray>("message");
    const ChildCases cases = childCaseTable();
    for (auto it = cases.cbegin(); it != cases.cend(); ++it)
        QTest::newRow(it.key().constData()) << it.key() << it.value().first;
}

void tst_ZtData::childCases()
{
    QFETCH(QByteArray, childCase);
    QFETCH(QByteArray, message);
    QProcess child;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QLatin1String(childSelector), QString::fromLatin1(childCase));
    child.setProcessEnvironment(env);
    child.start(QCoreApplication::applicationFilePath(), QStringList());
    QVERIFY(child.waitForFinished(120000));
    const bool clean = child.exitStatus() == QProcess::NormalExit && child.exitCode() == 0;
    // A dying child must print the message; a sanitizer build may add its own report.
    const QByteArray err = child.readAllStandardError();
    QVERIFY2(message.isEmpty() ? clean : !clean && err.contains(message), err.constData());
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QByteArray selected = qgetenv(childSelector);
    if (!selected.isEmpty()) {
        const ChildCases cases = childCaseTable();
        return cases.contains(selected) ? cases.value(selected).second() : 4;
    }
    tst_ZtData test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_ztdata.moc"
