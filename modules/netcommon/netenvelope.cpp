#include "netenvelope.h"

#include <QCborMap>
#include <QColor>
#include <QDateTime>
#include <QPen>
#include <QRandomGenerator>
#include <QtEndian>

#include <cstring>

namespace NetWire {

namespace {

const QString kKind = QStringLiteral("k");
const QString kId = QStringLiteral("id");
const QString kSeq = QStringLiteral("seq");
const QString kTopic = QStringLiteral("topic");
const QString kOp = QStringLiteral("op");
const QString kPos = QStringLiteral("pos");
const QString kData = QStringLiteral("data");
const QString kColour = QStringLiteral("colour");
const QString kWidth = QStringLiteral("width");
const QString kStyle = QStringLiteral("style");

// RFC 8746 typed-array tags of the little-endian element types we carry.
enum TypedArrayTag : quint64 { Int8 = 72, Int16LE = 77, Int32LE = 78, Int64LE = 79, DoubleLE = 86 };

template<typename T>
QCborValue typedArray(const QVector<T> &values, quint64 tag)
{
    QByteArray bytes(values.size() * int(sizeof(T)), Qt::Uninitialized);
    qToLittleEndian<T>(values.constData(), values.size(), bytes.data());
    return QCborValue(QCborTag(tag), QCborValue(bytes));
}

template<typename T>
bool fromTypedArray(const QByteArray &bytes, QVariant *out)
{
    if (bytes.size() % int(sizeof(T)) != 0)
        return false;
    QVector<T> values(bytes.size() / int(sizeof(T)));
    qFromLittleEndian<T>(bytes.constData(), values.size(), values.data());
    *out = QVariant::fromValue(values);
    return true;
}

bool encodeValue(const QVariant &v, QCborValue *out, QString *error)
{
    const int type = v.userType();
    switch (type) {
    case QMetaType::UnknownType:
        *out = QCborValue(QCborValue::Undefined);
        return true;
    case QMetaType::Bool:
        *out = QCborValue(v.toBool());
        return true;
    case QMetaType::Int:
    case QMetaType::Short:
    case QMetaType::Char:
    case QMetaType::SChar:
    case QMetaType::UChar:
    case QMetaType::UShort:
    case QMetaType::UInt:
    case QMetaType::Long:
    case QMetaType::LongLong:
        *out = QCborValue(v.toLongLong());
        return true;
    case QMetaType::ULong:
    case QMetaType::ULongLong:
        if (v.toULongLong() > quint64(std::numeric_limits<qint64>::max()))
            break;
        *out = QCborValue(v.toLongLong());
        return true;
    case QMetaType::Float:
    case QMetaType::Double:
        *out = QCborValue(v.toDouble());
        return true;
    case QMetaType::QString:
        *out = QCborValue(v.toString());
        return true;
    case QMetaType::QByteArray:
        *out = QCborValue(v.toByteArray());
        return true;
    case QMetaType::QDateTime:
        *out = QCborValue(v.toDateTime());
        return true;
    case QMetaType::QVariantList: {
        QCborArray nested;
        if (!encodeList(v.toList(), &nested, error))
            return false;
        *out = QCborValue(nested);
        return true;
    }
    case QMetaType::QPen: {
        const QPen pen = v.value<QPen>();
        QCborMap map;
        map.insert(kColour, pen.color().name(QColor::HexArgb));
        map.insert(kWidth, pen.widthF());
        map.insert(kStyle, int(pen.style()));
        *out = QCborValue(map);
        return true;
    }
    default:
        if (type == qMetaTypeId<QVector<double>>()) {
            *out = typedArray(v.value<QVector<double>>(), DoubleLE);
            return true;
        }
        if (type == qMetaTypeId<QVector<qint32>>()) {
            *out = typedArray(v.value<QVector<qint32>>(), Int32LE);
            return true;
        }
        if (type == qMetaTypeId<QVector<qint64>>()) {
            *out = typedArray(v.value<QVector<qint64>>(), Int64LE);
            return true;
        }
        if (type == qMetaTypeId<QVector<qint16>>()) {
            *out = typedArray(v.value<QVector<qint16>>(), Int16LE);
            return true;
        }
        if (type == qMetaTypeId<QVector<qint8>>()) {
            *out = typedArray(v.value<QVector<qint8>>(), Int8);
            return true;
        }
        break;
    }
    *error = QStringLiteral("cannot send a value of type %1")
                 .arg(QString::fromLatin1(v.typeName() ? v.typeName() : "unknown"));
    return false;
}

bool decodeValue(const QCborValue &c, QVariant *out, QString *error)
{
    switch (c.type()) {
    case QCborValue::Undefined:
    case QCborValue::Null:
        *out = QVariant();
        return true;
    case QCborValue::False:
    case QCborValue::True:
        *out = c.toBool();
        return true;
    case QCborValue::Integer: {
        const qint64 n = c.toInteger();
        if (n >= std::numeric_limits<int>::min() && n <= std::numeric_limits<int>::max())
            *out = int(n);
        else
            *out = n;
        return true;
    }
    case QCborValue::Double:
        *out = c.toDouble();
        return true;
    case QCborValue::String:
        *out = c.toString();
        return true;
    case QCborValue::ByteArray:
        *out = c.toByteArray();
        return true;
    case QCborValue::DateTime:
        *out = c.toDateTime();
        return out->toDateTime().isValid();
    case QCborValue::Array: {
        QVariantList nested;
        if (!decodeList(c.toArray(), &nested, error))
            return false;
        *out = nested;
        return true;
    }
    case QCborValue::Map: {
        const QCborMap map = c.toMap();
        const QColor colour(map.value(kColour).toString());
        if (!colour.isValid() || !(map.value(kWidth).isDouble() || map.value(kWidth).isInteger())) {
            *error = QStringLiteral("a map that is not a pen");
            return false;
        }
        QPen pen(QBrush(colour), map.value(kWidth).toDouble(),
                 Qt::PenStyle(map.value(kStyle).toInteger(Qt::SolidLine)));
        *out = pen;
        return true;
    }
    case QCborValue::Tag: {
        const QByteArray bytes = c.taggedValue().toByteArray();
        bool ok = false;
        switch (quint64(c.tag())) {
        case Int8:
            ok = fromTypedArray<qint8>(bytes, out);
            break;
        case Int16LE:
            ok = fromTypedArray<qint16>(bytes, out);
            break;
        case Int32LE:
            ok = fromTypedArray<qint32>(bytes, out);
            break;
        case Int64LE:
            ok = fromTypedArray<qint64>(bytes, out);
            break;
        case DoubleLE:
            ok = fromTypedArray<double>(bytes, out);
            break;
        default:
            break;
        }
        if (ok && c.taggedValue().isByteArray())
            return true;
        *error = QStringLiteral("unknown CBOR tag %1").arg(quint64(c.tag()));
        return false;
    }
    default:
        break;
    }
    *error = QStringLiteral("unexpected CBOR value of type 0x%1").arg(int(c.type()), 0, 16);
    return false;
}

} // namespace

bool encodeList(const QVariantList &list, QCborArray *out, QString *error)
{
    // Built aside, so that a refused value leaves nothing half-encoded behind.
    QCborArray array;
    for (const QVariant &v : list) {
        QCborValue c;
        if (!encodeValue(v, &c, error))
            return false;
        array.append(c);
    }
    *out = array;
    return true;
}

bool decodeList(const QCborArray &array, QVariantList *out, QString *error)
{
    QVariantList list;
    list.reserve(int(array.size()));
    for (const QCborValue &c : array) {
        QVariant v;
        if (!decodeValue(c, &v, error))
            return false;
        list.append(v);
    }
    *out = list;
    return true;
}

QByteArray encode(const Envelope &e)
{
    QCborMap map;
    map.insert(kKind, e.kind);
    map.insert(kId, e.id);
    map.insert(kSeq, e.seq);
    if (e.kind == Data)
        map.insert(kTopic, e.topic);
    else {
        map.insert(kOp, e.op);
        map.insert(kPos, e.pos);
    }
    map.insert(kData, e.data);
    return map.toCborValue().toCbor();
}

bool decode(const QByteArray &bytes, Envelope *e, QString *error)
{
    QCborParserError parseError;
    const QCborValue value = QCborValue::fromCbor(bytes, &parseError);
    if (parseError.error != QCborError::NoError) {
        *error = QStringLiteral("not CBOR: %1").arg(parseError.errorString());
        return false;
    }
    const QCborMap map = value.toMap();
    const QCborValue kind = map.value(kKind);
    if (!value.isMap() || !kind.isInteger()) {
        *error = QStringLiteral("not an envelope (a CBOR map with \"k\")");
        return false;
    }
    e->kind = int(kind.toInteger());
    e->id = map.value(kId).toInteger();
    e->seq = map.value(kSeq).toInteger();
    e->topic = map.value(kTopic).toString();
    e->op = int(map.value(kOp).toInteger());
    e->pos = map.value(kPos).toInteger();
    e->data = map.value(kData);
    return true;
}

qint64 randomId()
{
    return qint64(QRandomGenerator::system()->generate64() >> 1);
}

} // namespace NetWire
