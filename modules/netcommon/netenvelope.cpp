#include "netenvelope.h"

#include <QColor>
#include <QDateTime>
#include <QPen>
#include <QRandomGenerator>
#include <QtEndian>

#include <cmath>
#include <cstring>
#include <limits>

// Written and read by hand, straight from and into variants: CBOR's few major types are simple,
// and both the QCborValue tree and the CBOR stream classes cost more per value than the whole
// socket traffic does for long lists. Definite lengths only, as Qt and cbor2 write them.
namespace NetWire {

namespace {

// RFC 8746 typed-array tags of the little-endian element types we carry.
enum TypedArrayTag : quint64 { Int8 = 72, Int16LE = 77, Int32LE = 78, Int64LE = 79, DoubleLE = 86 };
enum Major {
    UnsignedInt = 0,
    NegativeInt = 1,
    Bytes = 2,
    Text = 3,
    Array = 4,
    Map = 5,
    Tag = 6,
    Simple = 7
};
constexpr quint64 DateTimeTag = 0;
constexpr quint64 EpochTag = 1;
constexpr int MaxDepth = 64;

class Writer
{
public:
    QByteArray out;

    void head(int major, quint64 v)
    {
        const char m = char(major << 5);
        if (v < 24) {
            out.append(char(m | char(v)));
        } else if (v <= 0xff) {
            out.append(char(m | 24));
            out.append(char(v));
        } else if (v <= 0xffff) {
            out.append(char(m | 25));
            big<quint16>(quint16(v));
        } else if (v <= 0xffffffffu) {
            out.append(char(m | 26));
            big<quint32>(quint32(v));
        } else {
            out.append(char(m | 27));
            big<quint64>(v);
        }
    }
    template<typename T>
    void big(T v)
    {
        char b[sizeof(T)];
        qToBigEndian<T>(v, b);
        out.append(b, int(sizeof(T)));
    }
    void integer(qint64 v)
    {
        if (v >= 0)
            head(UnsignedInt, quint64(v));
        else
            head(NegativeInt, quint64(-1 - v));
    }
    void real(double v)
    {
        out.append(char(0xfb));
        quint64 bits;
        std::memcpy(&bits, &v, sizeof bits);
        big<quint64>(bits);
    }
    void text(const QString &s)
    {
        const QByteArray utf8 = s.toUtf8();
        head(Text, quint64(utf8.size()));
        out.append(utf8);
    }
    void text(const char *s)
    {
        const int n = int(std::strlen(s));
        head(Text, quint64(n));
        out.append(s, n);
    }
    void bytes(const QByteArray &b)
    {
        head(Bytes, quint64(b.size()));
        out.append(b);
    }
    void simple(int v) { out.append(char(0xe0 | v)); }

    template<typename T>
    void typed(const QVariant &v, quint64 tag)
    {
        const QVector<T> values = v.value<QVector<T>>();
        head(Tag, tag);
        head(Bytes, quint64(values.size()) * sizeof(T));
        const int at = out.size();
        out.resize(at + values.size() * int(sizeof(T)));
        qToLittleEndian<T>(values.constData(), values.size(), out.data() + at);
    }

    bool list(const QVariantList &list, QString *error)
    {
        head(Array, quint64(list.size()));
        for (const QVariant &v : list) {
            if (!value(v, error))
                return false;
        }
        return true;
    }

    bool value(const QVariant &v, QString *error)
    {
        const int type = v.userType();
        switch (type) {
        case QMetaType::UnknownType:
            simple(23); // undefined: the terminator of a bare value
            return true;
        case QMetaType::Bool:
            simple(v.toBool() ? 21 : 20);
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
            integer(v.toLongLong());
            return true;
        case QMetaType::ULong:
        case QMetaType::ULongLong:
            head(UnsignedInt, v.toULongLong());
            return true;
        case QMetaType::Float:
        case QMetaType::Double:
            real(v.toDouble());
            return true;
        case QMetaType::QString:
            text(*static_cast<const QString *>(v.constData()));
            return true;
        case QMetaType::QByteArray:
            bytes(*static_cast<const QByteArray *>(v.constData()));
            return true;
        case QMetaType::QDateTime: {
            QDateTime dt = v.toDateTime();
            // Local times carry their offset, so that the far end reads the same instant.
            if (dt.timeSpec() == Qt::LocalTime || dt.timeSpec() == Qt::TimeZone)
                dt = dt.toOffsetFromUtc(dt.offsetFromUtc());
            head(Tag, DateTimeTag);
            text(dt.toString(Qt::ISODateWithMs));
            return true;
        }
        case QMetaType::QVariantList:
            return list(*static_cast<const QVariantList *>(v.constData()), error);
        case QMetaType::QPen: {
            const QPen pen = v.value<QPen>();
            head(Map, 3);
            text("colour");
            text(pen.color().name(QColor::HexArgb));
            text("width");
            real(pen.widthF());
            text("style");
            integer(pen.style());
            return true;
        }
        default:
            if (type == qMetaTypeId<QVector<double>>()) {
                typed<double>(v, DoubleLE);
                return true;
            }
            if (type == qMetaTypeId<QVector<qint32>>()) {
                typed<qint32>(v, Int32LE);
                return true;
            }
            if (type == qMetaTypeId<QVector<qint64>>()) {
                typed<qint64>(v, Int64LE);
                return true;
            }
            if (type == qMetaTypeId<QVector<qint16>>()) {
                typed<qint16>(v, Int16LE);
                return true;
            }
            if (type == qMetaTypeId<QVector<qint8>>()) {
                typed<qint8>(v, Int8);
                return true;
            }
            break;
        }
        *error = QStringLiteral("cannot send a value of type %1")
                     .arg(QString::fromLatin1(v.typeName() ? v.typeName() : "unknown"));
        return false;
    }
};

class Reader
{
public:
    Reader(const QByteArray &bytes)
        : p(reinterpret_cast<const uchar *>(bytes.constData()))
        , end(p + bytes.size())
    { }

    const uchar *p;
    const uchar *end;
    QString error;

    bool fail(const QString &why)
    {
        if (error.isEmpty())
            error = why;
        return false;
    }

    // One item's head: major type, argument, and for major 7 the additional information.
    bool head(int *major, quint64 *arg, int *info)
    {
        if (p >= end)
            return fail(QStringLiteral("truncated CBOR"));
        *major = *p >> 5;
        *info = *p & 0x1f;
        ++p;
        int n = 0;
        if (*info < 24) {
            *arg = quint64(*info);
            return true;
        }
        switch (*info) {
        case 24:
            n = 1;
            break;
        case 25:
            n = 2;
            break;
        case 26:
            n = 4;
            break;
        case 27:
            n = 8;
            break;
        default:
            return fail(QStringLiteral("indefinite lengths are not supported"));
        }
        if (end - p < n)
            return fail(QStringLiteral("truncated CBOR"));
        quint64 v = 0;
        for (int i = 0; i < n; ++i)
            v = (v << 8) | p[i];
        p += n;
        *arg = v;
        return true;
    }

    bool span(quint64 n, const char **start)
    {
        if (quint64(end - p) < n)
            return fail(QStringLiteral("truncated CBOR"));
        *start = reinterpret_cast<const char *>(p);
        p += n;
        return true;
    }

    bool string(int major, quint64 n, QVariant *out)
    {
        const char *s = nullptr;
        if (!span(n, &s))
            return false;
        if (major == Text)
            *out = QString::fromUtf8(s, int(n));
        else
            *out = QByteArray(s, int(n));
        return true;
    }

    bool textItem(QString *out)
    {
        int major = 0, info = 0;
        quint64 n = 0;
        QVariant v;
        if (!head(&major, &n, &info))
            return false;
        if (major != Text)
            return fail(QStringLiteral("a map key that is not text"));
        if (!string(major, n, &v))
            return false;
        *out = v.toString();
        return true;
    }

    static double half(quint16 h)
    {
        const int e = (h >> 10) & 0x1f;
        const int m = h & 0x3ff;
        const double v = e == 0 ? std::ldexp(m, -24)
            : e == 31           ? (m ? std::numeric_limits<double>::quiet_NaN()
                                     : std::numeric_limits<double>::infinity())
                                : std::ldexp(m + 1024, e - 25);
        return (h & 0x8000) ? -v : v;
    }

    bool list(quint64 n, QVariantList *out, int depth)
    {
        if (n > quint64(end - p)) // every item takes a byte at least
            return fail(QStringLiteral("truncated CBOR"));
        QVariantList items;
        items.reserve(int(n));
        for (quint64 i = 0; i < n; ++i) {
            // Samples are mostly doubles: straight in, without the general path's temporary.
            if (end - p >= 9 && *p == 0xfb) {
                quint64 bits = 0;
                for (int k = 1; k <= 8; ++k)
                    bits = (bits << 8) | p[k];
                p += 9;
                double d;
                std::memcpy(&d, &bits, sizeof d);
                items.append(QVariant(d));
                continue;
            }
            QVariant v;
            if (!value(&v, depth + 1))
                return false;
            items.append(v);
        }
        *out = items;
        return true;
    }

    template<typename T>
    bool typed(quint64 n, QVariant *out)
    {
        const char *s = nullptr;
        if (!span(n, &s))
            return false;
        if (n % sizeof(T) != 0)
            return fail(QStringLiteral("a typed array of a broken length"));
        QVector<T> values(int(n / sizeof(T)));
        qFromLittleEndian<T>(s, values.size(), values.data());
        *out = QVariant::fromValue(values);
        return true;
    }

    bool pen(quint64 n, QVariant *out, int depth)
    {
        QColor colour;
        double width = -1;
        qint64 style = Qt::SolidLine;
        for (quint64 i = 0; i < n; ++i) {
            QString key;
            QVariant v;
            if (!textItem(&key) || !value(&v, depth + 1))
                return false;
            if (key == QLatin1String("colour"))
                colour = QColor(v.toString());
            else if (key == QLatin1String("width") && v.canConvert<double>())
                width = v.toDouble();
            else if (key == QLatin1String("style"))
                style = v.toLongLong();
        }
        if (!colour.isValid() || width < 0)
            return fail(QStringLiteral("a map that is not a pen"));
        *out = QPen(QBrush(colour), width, Qt::PenStyle(style));
        return true;
    }

    // Reads past one item of any kind (the value of a key we do not know).
    bool skip(int depth = 0)
    {
        if (depth > MaxDepth)
            return fail(QStringLiteral("nested too deep"));
        int major = 0, info = 0;
        quint64 arg = 0;
        const char *ignored = nullptr;
        if (!head(&major, &arg, &info))
            return false;
        switch (major) {
        case Bytes:
        case Text:
            return span(arg, &ignored);
        case Array:
        case Map:
            if (arg > quint64(end - p))
                return fail(QStringLiteral("truncated CBOR"));
            for (quint64 i = 0; i < (major == Map ? 2 * arg : arg); ++i) {
                if (!skip(depth + 1))
                    return false;
            }
            return true;
        case Tag:
            return skip(depth + 1);
        default:
            return true; // integers and simple values: the head was all of it
        }
    }

    bool value(QVariant *out, int depth = 0)
    {
        if (depth > MaxDepth)
            return fail(QStringLiteral("nested too deep"));
        int major = 0, info = 0;
        quint64 arg = 0;
        if (!head(&major, &arg, &info))
            return false;
        switch (major) {
        case UnsignedInt:
            if (arg <= quint64(std::numeric_limits<int>::max()))
                *out = int(arg);
            else if (arg <= quint64(std::numeric_limits<qint64>::max()))
                *out = qint64(arg);
            else
                *out = arg;
            return true;
        case NegativeInt:
            if (arg > quint64(std::numeric_limits<qint64>::max()))
                return fail(QStringLiteral("an integer out of range"));
            if (arg < quint64(std::numeric_limits<int>::max()))
                *out = int(-1 - qint64(arg));
            else
                *out = -1 - qint64(arg);
            return true;
        case Bytes:
        case Text:
            return string(major, arg, out);
        case Array: {
            QVariantList nested;
            if (!list(arg, &nested, depth))
                return false;
            *out = nested;
            return true;
        }
        case Map:
            return pen(arg, out, depth);
        case Tag: {
            if (arg == DateTimeTag || arg == EpochTag) {
                QVariant v;
                if (!value(&v, depth + 1))
                    return false;
                const QDateTime dt = arg == DateTimeTag
                    ? QDateTime::fromString(v.toString(), Qt::ISODateWithMs)
                    : QDateTime::fromMSecsSinceEpoch(qint64(v.toDouble() * 1000), Qt::UTC);
                if (!dt.isValid())
                    return fail(QStringLiteral("a date-time that does not parse"));
                *out = dt;
                return true;
            }
            int innerMajor = 0, innerInfo = 0;
            quint64 n = 0;
            if (!head(&innerMajor, &n, &innerInfo))
                return false;
            if (innerMajor == Bytes) {
                switch (arg) {
                case Int8:
                    return typed<qint8>(n, out);
                case Int16LE:
                    return typed<qint16>(n, out);
                case Int32LE:
                    return typed<qint32>(n, out);
                case Int64LE:
                    return typed<qint64>(n, out);
                case DoubleLE:
                    return typed<double>(n, out);
                default:
                    break;
                }
            }
            return fail(QStringLiteral("unknown CBOR tag %1").arg(arg));
        }
        default: // Simple
            switch (info) {
            case 20:
            case 21:
                *out = info == 21;
                return true;
            case 22:
            case 23:
                *out = QVariant(); // null and undefined
                return true;
            case 25:
                *out = half(quint16(arg));
                return true;
            case 26: {
                const quint32 bits = quint32(arg);
                float f;
                std::memcpy(&f, &bits, sizeof f);
                *out = double(f);
                return true;
            }
            case 27: {
                double d;
                std::memcpy(&d, &arg, sizeof d);
                *out = d;
                return true;
            }
            default:
                return fail(QStringLiteral("unknown CBOR simple value %1").arg(info));
            }
        }
    }
};

} // namespace

QByteArray encode(const Envelope &e, QString *error)
{
    Writer w;
    w.out.reserve(64 + (e.isList ? e.list.size() * 9 : e.bytes.size()));
    w.head(Map, e.kind == Data ? 5 : 6);
    w.text("k");
    w.integer(e.kind);
    w.text("id");
    w.integer(e.id);
    w.text("seq");
    w.integer(e.seq);
    if (e.kind == Data) {
        w.text("topic");
        w.text(e.topic);
    } else {
        w.text("op");
        w.integer(e.op);
        w.text("pos");
        w.integer(e.pos);
    }
    w.text("data");
    if (!e.isList)
        w.bytes(e.bytes);
    else if (!w.list(e.list, error))
        return QByteArray(); // nothing half-written leaves here
    return w.out;
}

bool decode(const QByteArray &bytes, Envelope *e, QString *error)
{
    Reader r(bytes);
    int major = 0, info = 0;
    quint64 n = 0;
    if (!r.head(&major, &n, &info) || major != Map) {
        *error = QStringLiteral("not an envelope (a CBOR map with \"k\")");
        return false;
    }
    bool hasKind = false;
    e->isList = true;
    e->list.clear();
    e->bytes.clear();
    for (quint64 i = 0; i < n; ++i) {
        QString key;
        QVariant v;
        if (!r.textItem(&key))
            break;
        if (key == QLatin1String("data")) {
            // The list is read in place, without a detour through a variant.
            const uchar *at = r.p;
            quint64 count = 0;
            if (!r.head(&major, &count, &info))
                break;
            if (major == Array) {
                if (!r.list(count, &e->list, 0))
                    break;
                continue;
            }
            r.p = at;
            if (!r.value(&v))
                break;
            e->isList = false;
            e->bytes = v.toByteArray();
            continue;
        }
        static const QStringList known {"k", "id", "seq", "op", "pos", "topic"};
        if (!known.contains(key)) {
            if (!r.skip()) // a newer sender's key
                break;
            continue;
        }
        if (!r.value(&v))
            break;
        if (key == QLatin1String("k")) {
            e->kind = v.toInt();
            hasKind = v.type() == QVariant::Int;
        } else if (key == QLatin1String("id"))
            e->id = v.toLongLong();
        else if (key == QLatin1String("seq"))
            e->seq = v.toLongLong();
        else if (key == QLatin1String("op"))
            e->op = v.toInt();
        else if (key == QLatin1String("pos"))
            e->pos = v.toLongLong();
        else if (key == QLatin1String("topic"))
            e->topic = v.toString();
    }
    if (!r.error.isEmpty()) {
        *error = r.error;
        return false;
    }
    if (!hasKind) {
        *error = QStringLiteral("not an envelope (a CBOR map with \"k\")");
        return false;
    }
    return true;
}

qint64 randomId()
{
    return qint64(QRandomGenerator::system()->generate64() >> 1);
}

} // namespace NetWire
