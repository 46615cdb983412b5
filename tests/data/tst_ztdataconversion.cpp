#include "childcase.h"

#include <ztdataarray.h>
#include <ztdataconverter.h>
#include <ztdatawrapper.h>

#include <QByteArrayList>
#include <QRandomGenerator>
#include <QSequentialIterable>
#include <QtTest>

namespace {
const QDateTime stamp = QDateTime(QDate(2023, 1, 2), QTime(3, 4, 5), Qt::UTC);
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
} // namespace

// Failure messages show arrays in their flat form.
char *toString(const ZtDataArray &array)
{
    return qstrdup(qPrintable(typed(ZtDataWrapper::convArrayToList(array))));
}

namespace {
template<typename T>
QVariant convertTo(const QVariant &v)
{
    return QVariant::fromValue(ZtDataConverter::convertFromVariant<QVector<T>>(v));
}

QVariant convertTo(const QByteArray &target, const QVariant &v)
{
    if (target == "qint8")
        return convertTo<qint8>(v);
    if (target == "qint16")
        return convertTo<qint16>(v);
    if (target == "qint32")
        return convertTo<qint32>(v);
    if (target == "qint64")
        return convertTo<qint64>(v);
    return convertTo<double>(v);
}
} // namespace

class tst_ZtDataConversion : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void vectorTypesReadAsLists();
    void convertFromVariant_data();
    void convertFromVariant();
    void convertFromVariantSharesHeldVector();
    void arrayToList_data();
    void arrayToList();
    void listToArray_data();
    void listToArray();
    void generatedArraysRoundTrip();
    void programmingErrorsEndTheProcess_data();
    void programmingErrorsEndTheProcess();
};

void tst_ZtDataConversion::initTestCase()
{
    ZtDataWrapper wrapper;
}

void tst_ZtDataConversion::vectorTypesReadAsLists()
{
    const QList<QPair<const char *, QVariant>> vectors {
        {"QVector<qint8>", QVariant::fromValue(QVector<qint8> {-3, 4})},
        {"QVector<qint16>", QVariant::fromValue(QVector<qint16> {-300, 4})},
        {"QVector<qint32>", QVariant::fromValue(QVector<qint32> {7, 4})},
        {"QVector<qint64>", QVariant::fromValue(QVector<qint64> {Q_INT64_C(1) << 40, 4})},
        {"QVector<double>", QVariant::fromValue(QVector<double> {0.5, 4})},
    };
    for (const auto &vector : vectors) {
        QCOMPARE(QMetaType::type(vector.first), vector.second.userType());
        QVERIFY(vector.second.canConvert<QVariantList>());
        const QSequentialIterable iterable = vector.second.value<QSequentialIterable>();
        QCOMPARE(iterable.size(), 2);
        QCOMPARE(iterable.at(1).toInt(), 4);
    }
}

void tst_ZtDataConversion::convertFromVariant_data()
{
    QTest::addColumn<QByteArray>("target");
    QTest::addColumn<QVariant>("input");
    QTest::addColumn<QVariant>("expected");

    QTest::newRow("double to qint32 truncates toward zero")
        << QByteArrayLiteral("qint32") << QVariant::fromValue(QVector<double> {1.9, -1.9, 0.5})
        << QVariant::fromValue(QVector<qint32> {1, -1, 0});
    QTest::newRow("double to qint8")
        << QByteArrayLiteral("qint8") << QVariant::fromValue(QVector<double> {-128.7, 127.2})
        << QVariant::fromValue(QVector<qint8> {-128, 127});
    QTest::newRow("qint64 to qint8 keeps low bits")
        << QByteArrayLiteral("qint8") << QVariant::fromValue(QVector<qint64> {0x1ff, -129, 256})
        << QVariant::fromValue(QVector<qint8> {-1, 127, 0});
    QTest::newRow("qint32 to qint16 keeps low bits")
        << QByteArrayLiteral("qint16") << QVariant::fromValue(QVector<qint32> {70000, -32769})
        << QVariant::fromValue(QVector<qint16> {4464, 32767});
    QTest::newRow("qint8 to qint64 sign-extends")
        << QByteArrayLiteral("qint64") << QVariant::fromValue(QVector<qint8> {-128, 127})
        << QVariant::fromValue(QVector<qint64> {-128, 127});
    QTest::newRow("qint64 to double exact at 2^53")
        << QByteArrayLiteral("double")
        << QVariant::fromValue(QVector<qint64> {Q_INT64_C(9007199254740992), -1})
        << QVariant::fromValue(QVector<double> {9007199254740992.0, -1.0});
    QTest::newRow("same type") << QByteArrayLiteral("qint16")
                               << QVariant::fromValue(QVector<qint16> {1, 2})
                               << QVariant::fromValue(QVector<qint16> {1, 2});
}

void tst_ZtDataConversion::convertFromVariant()
{
    QFETCH(QByteArray, target);
    QFETCH(QVariant, input);
    QFETCH(QVariant, expected);

    const QVariant actual = convertTo(target, input);
    QCOMPARE(actual.userType(), expected.userType());
    // Compare element lists: the vectors' own == is not known to QVariant.
    QCOMPARE(actual.value<QVariantList>(), expected.value<QVariantList>());
}

void tst_ZtDataConversion::convertFromVariantSharesHeldVector()
{
    const QVector<double> samples(1000, 2.5);
    const QVariant v = QVariant::fromValue(samples);
    const QVector<double> same = ZtDataConverter::convertFromVariant<QVector<double>>(v);
    QCOMPARE(same.constData(), samples.constData());
    QVERIFY(same.isSharedWith(samples));

    const QVector<qint32> converted = ZtDataConverter::convertFromVariant<QVector<qint32>>(v);
    QCOMPARE(converted.size(), samples.size());
    QCOMPARE(converted.first(), 2);
}

void tst_ZtDataConversion::arrayToList_data()
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

void tst_ZtDataConversion::arrayToList()
{
    QFETCH(ZtDataArray, array);
    QFETCH(QVariantList, expected);
    QCOMPARE(typed(ZtDataWrapper::convArrayToList(array)), typed(expected));
}

void tst_ZtDataConversion::listToArray_data()
{
    QTest::addColumn<QVariantList>("list");
    QTest::addColumn<ZtDataArray>("expected");

    // Pinned readings of lists that more than one array writes.
    QTest::newRow("value with style 2 reads as the point (1, 2)")
        << QVariantList {1, 2} << arrayOf({xy(1, 2)});
    QTest::newRow("point with style but no name reads as point and value")
        << QVariantList {1.0, 2.0, 3} << arrayOf({xy(1.0, 2.0), y(3)});
    QTest::newRow("values pair from the left")
        << QVariantList {1.0, 2.0, 3.0} << arrayOf({xy(1.0, 2.0), y(3.0)});
    QTest::newRow("int after a nested array is its style")
        << QVariantList {QVariant(QVariantList {}), 3} << arrayOf({nested(arrayOf({}, {}, {}, 3))});
    QTest::newRow("int before a terminator is a value")
        << QVariantList {QVariant(QVariantList {}), 3, terminator}
        << arrayOf({nested(ZtDataArray()), y(3)});
    QTest::newRow("int after a name is a style")
        << QVariantList {1.5, QStringLiteral("a"), 3}
        << arrayOf({y(1.5, QStringLiteral("a"), QPen(), 3)});
    QTest::newRow("int after a pen is a style")
        << QVariantList {1, 2, QVariant::fromValue(QPen(Qt::red)), 3}
        << arrayOf({xy(1, 2, QString(), QPen(Qt::red), 3)});
    QTest::newRow("int after a style is a value")
        << QVariantList {1.5, QStringLiteral("a"), 3, 4}
        << arrayOf({y(1.5, QStringLiteral("a"), QPen(), 3), y(4)});
    QTest::newRow("int after a timestamp is a value")
        << QVariantList {QVariant(QVariantList {}), stamp, 4}
        << arrayOf({nested(arrayOf({}, {}, {}, -1, stamp)), y(4)});
    QTest::newRow("int values pair into points")
        << QVariantList {1, 2, 3, 4} << arrayOf({xy(1, 2), xy(3, 4)});
    QTest::newRow("string list is one value")
        << QVariantList {QStringList {QStringLiteral("a"), QStringLiteral("b")}, terminator}
        << arrayOf({y(QStringList {QStringLiteral("a"), QStringLiteral("b")})});
    QTest::newRow("byte-array list is one value and takes a name")
        << QVariantList {QVariant::fromValue(QByteArrayList {"a", "b"}), QStringLiteral("n")}
        << arrayOf({y(QVariant::fromValue(QByteArrayList {"a", "b"}), QStringLiteral("n"))});
    QTest::newRow("string list and byte-array list make a point")
        << QVariantList {QStringList {QStringLiteral("x")},
                         QVariant::fromValue(QByteArrayList {"y"})}
        << arrayOf(
               {xy(QStringList {QStringLiteral("x")}, QVariant::fromValue(QByteArrayList {"y"}))});
    QTest::newRow("sample vector is one value")
        << QVariantList {QVariant::fromValue(QVector<double> {1, 2}), terminator}
        << arrayOf({y(QVariant::fromValue(QVector<double> {1, 2}))});
    QTest::newRow("stray terminators are skipped")
        << QVariantList {terminator, 1.0, 2.0, terminator, terminator} << arrayOf({xy(1.0, 2.0)});
    QTest::newRow("pending value ends at a nested array")
        << QVariantList {1.0, QVariant(QVariantList {2.0, terminator})}
        << arrayOf({y(1.0), nested(arrayOf({y(2.0)}))});
    QTest::newRow("nested array takes all attributes")
        << QVariantList {QVariant(QVariantList {1.0, 2.0}), QStringLiteral("c"),
                         QVariant::fromValue(QPen(Qt::green)), 5, stamp}
        << arrayOf(
               {nested(arrayOf({xy(1.0, 2.0)}, QStringLiteral("c"), QPen(Qt::green), 5, stamp))});
    QTest::newRow("empty list") << QVariantList {} << ZtDataArray();
}

void tst_ZtDataConversion::listToArray()
{
    QFETCH(QVariantList, list);
    QFETCH(ZtDataArray, expected);
    QCOMPARE(ZtDataWrapper::convListToArray(list), expected);
}

namespace {
// Builds arrays of the class that reads back equal, as documented with ZtDataWrapper.
class ArrayGenerator
{
public:
    explicit ArrayGenerator(quint32 seed)
        : rng(seed)
    { }

    ZtDataArray array(int depth)
    {
        ZtDataArray result;
        bool attributeWritten = false; // the writer's terminator rule, per nesting level
        bool previousOpenForStyle = false;
        bool previousUnterminatedBareValue = false;
        const int count = int(rng.bounded(0, 9));
        for (int i = 0; i < count; ++i) {
            const bool arrayAllowed = depth < 3;
            int kind = int(rng.bounded(0, arrayAllowed ? 5 : 4)); // 0-1 value, 2-3 point, 4 array
            if (previousUnterminatedBareValue) {
                if (!arrayAllowed)
                    break;
                kind = 4;
            }
            ZtDataItem *item;
            ZtDataY valueItem;
            ZtDataXY pointItem;
            ZtDataArray arrayItem;
            QVariant first;
            if (kind == 4) {
                arrayItem = array(depth + 1);
                item = &arrayItem;
            } else if (kind >= 2) {
                first = value();
                pointItem = ZtDataXY(first, value());
                item = &pointItem;
            } else {
                first = value();
                valueItem = ZtDataY(first);
                item = &valueItem;
            }
            attributes(*item);
            const bool hasAttribute = item->isNameSet() || item->isPenSet() || item->isStyleSet()
                || item->isTimestampSet();
            const bool terminated = kind < 2 && !hasAttribute && !attributeWritten;
            if (previousOpenForStyle && first.userType() == QMetaType::Int && !terminated)
                first = double(first.toInt()) + 0.25;
            if (kind == 4) {
                result.items << QVariant::fromValue(arrayItem);
            } else if (kind >= 2) {
                pointItem.setX(first);
                result.items << QVariant::fromValue(pointItem);
            } else {
                valueItem.setY(first);
                result.items << QVariant::fromValue(valueItem);
            }
            attributeWritten = attributeWritten || hasAttribute;
            previousOpenForStyle = (kind == 4 || item->isNameSet() || item->isPenSet())
                && !item->isStyleSet() && !item->isTimestampSet();
            previousUnterminatedBareValue = kind < 2 && !hasAttribute && attributeWritten;
        }
        return result;
    }

private:
    QVariant value()
    {
        switch (rng.bounded(0, 9)) {
        case 0:
        case 1:
            return int(rng.bounded(-1000, 1000));
        case 2:
            return qint64(rng.generate64());
        case 3:
            return bool(rng.bounded(0, 2));
        case 4:
            return QByteArray::number(rng.generate());
        case 5:
            return QStringList {QString::number(rng.generate()), QStringLiteral("s")};
        case 6:
            return QVariant::fromValue(QVector<double> {rng.generateDouble(), -1.0});
        case 7:
            return QVariant::fromValue(QVector<qint16> {qint16(rng.bounded(0, 30000))});
        default:
            return rng.generateDouble() * 1000.0 - 500.0;
        }
    }

    void attributes(ZtDataItem &item)
    {
        const bool isArray = item.type() == 0;
        if (rng.bounded(0, 3) == 0)
            item.setName(QStringLiteral("n%1").arg(rng.bounded(0, 100)));
        if (rng.bounded(0, 4) == 0)
            item.setPen(QPen(QColor::fromRgb(rng.generate()), rng.bounded(0, 5)));
        if (rng.bounded(0, 4) == 0) {
            item.setStyle(int(rng.bounded(0, 10)));
            if (!isArray && !item.isNameSet() && !item.isPenSet())
                item.setName(QStringLiteral("styled"));
        }
        if (rng.bounded(0, 4) == 0)
            item.setTimestamp(
                QDateTime::fromMSecsSinceEpoch(qint64(rng.generate()) * 1000, Qt::UTC));
    }

    QRandomGenerator rng;
};
} // namespace

void tst_ZtDataConversion::generatedArraysRoundTrip()
{
    ArrayGenerator generator(20240506);
    int items = 0;
    for (int round = 0; round < 3000; ++round) {
        const ZtDataArray array = generator.array(0);
        items += array.items.size();
        const ZtDataArray back
            = ZtDataWrapper::convListToArray(ZtDataWrapper::convArrayToList(array));
        if (!(back == array))
            QFAIL(qPrintable(
                QStringLiteral("round %1 read back as %2")
                    .arg(round)
                    .arg(QString::fromLatin1(QScopedArrayPointer<char>(toString(back)).data()))));
    }
    QVERIFY(items > 3000); // the generator really produced material
}

namespace {
const QByteArray failed("ZtDataWrapper::convListToArray: conversion failed");
const QByteArray unknownEntry("ZtDataWrapper::convListToArray: unknown type");

// Lists that convListToArray must refuse, by child case name, with the expected message.
QHash<QByteArray, QPair<QVariantList, QByteArray>> refusedLists()
{
    return {
        {"name before any item", {{QStringLiteral("n"), 1.0}, failed}},
        {"name after a terminator", {{1.0, QVariant(), QStringLiteral("n")}, failed}},
        {"name after pen",
         {{1.0, QVariant::fromValue(QPen(Qt::red)), QStringLiteral("n")}, failed}},
        {"second timestamp", {{1.0, stamp, stamp}, failed}},
        {"map entry", {{1.0, QVariantMap {{QStringLiteral("k"), 1}}}, unknownEntry}},
        {"item variant entry", {{QVariant::fromValue(ZtDataY(1.0))}, unknownEntry}},
    };
}
} // namespace

void tst_ZtDataConversion::programmingErrorsEndTheProcess_data()
{
    QTest::addColumn<QByteArray>("childCase");
    QTest::addColumn<QByteArray>("message");

    const QByteArray unsupported("ZtDataConverter::convertFromVariant, unsupported type");
    QTest::newRow("convert a string") << QByteArrayLiteral("convert-string") << unsupported;
    QTest::newRow("convert an unsigned vector")
        << QByteArrayLiteral("convert-uint-vector") << unsupported;
    QTest::newRow("array holding a plain value")
        << QByteArrayLiteral("write-plain")
        << QByteArrayLiteral("ZtDataWrapper::convArrayToList: unknown type");
    const auto lists = refusedLists();
    for (auto it = lists.cbegin(); it != lists.cend(); ++it)
        QTest::newRow(it.key().constData()) << it.key() << it.value().second;
}

void tst_ZtDataConversion::programmingErrorsEndTheProcess()
{
    QFETCH(QByteArray, childCase);
    QFETCH(QByteArray, message);
    QVERIFY(ChildCase::check(childCase, message));
}

int main(int argc, char **argv)
{
    ChildCase::Cases cases {
        {"convert-string",
         [] {
             ZtDataConverter::convertFromVariant<QVector<qint32>>(QStringLiteral("1,2"));
             return 3;
         }},
        {"convert-uint-vector",
         [] {
             ZtDataConverter::convertFromVariant<QVector<double>>(
                 QVariant::fromValue(QVector<quint32> {1}));
             return 3;
         }},
        {"write-plain",
         [] {
             ZtDataArray array;
             array.items << QVariant::fromValue(ZtDataY(1)) << QVariant(2.0);
             ZtDataWrapper::convArrayToList(array);
             return 3;
         }},
    };
    for (const QByteArray &name : refusedLists().keys()) {
        cases.insert(name, [name] {
            ZtDataWrapper::convListToArray(refusedLists().value(name).first);
            return 3;
        });
    }
    return ChildCase::main<tst_ZtDataConversion>(argc, argv, cases);
}

#include "tst_ztdataconversion.moc"
