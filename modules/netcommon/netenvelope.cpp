#include "netenvelope.h"

#include <QColor>
#include <QDateTime>
#include <QPen>
#include <QRandomGenerator>
#include <QtEndian>

#include <atomic>
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

// Writes through a raw pointer into a buffer that keeps its capacity from one envelope to the
// next: no per-byte size checks and, after the first message, no allocation.
class Writer
{
public:
    explicit Writer(QByteArray &buffer, int expected)
        : out(buffer)
    {
        if (out.capacity() < expected)
            out.reserve(expected);
        // resize() to a smaller size keeps the allocation, so the whole capacity is usable.
        out.resize(qMax(1, out.capacity()));
        base = out.data();
        cap = out.size();
    }

    // The envelope's bytes; the buffer's capacity stays for the next one.
    void finish() { out.resize(len); }

    char *room(int n)
    {
        if (n > cap - len) {
            cap = qMax(len + n, 2 * cap);
            out.resize(cap);
            base = out.data();
        }
        char *at = base + len;
        len += n;
        return at;
    }

    void head(int major, quint64 v)
    {
        const char m = char(major << 5);
        if (v < 24) {
            *room(1) = char(m | char(v));
        } else if (v <= 0xff) {
            char *at = room(2);
            at[0] = char(m | 24);
            at[1] = char(v);
        } else if (v <= 0xffff) {
            char *at = room(3);
            at[0] = char(m | 25);
            qToBigEndian<quint16>(quint16(v), at + 1);
        } else if (v <= 0xffffffffu) {
            char *at = room(5);
            at[0] = char(m | 26);
            qToBigEndian<quint32>(quint32(v), at + 1);
        } else {
            char *at = room(9);
            at[0] = char(m | 27);
            qToBigEndian<quint64>(v, at + 1);
        }
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
        char *at = room(9);
        at[0] = char(0xfb);
        quint64 bits;
        std::memcpy(&bits, &v, sizeof bits);
        qToBigEndian<quint64>(bits, at + 1);
    }
    void raw(const char *s, int n)
    {
        head(Text, quint64(n));
        std::memcpy(room(n), s, size_t(n));
    }
    void text(const QString &s)
    {
        // Topics and keys are ASCII: written straight, without a UTF-8 copy.
        const QChar *c = s.constData();
        const int n = s.size();
        int ascii = 0;
        while (ascii < n && c[ascii].unicode() < 0x80)
            ++ascii;
        if (ascii == n) {
            head(Text, quint64(n));
            char *at = room(n);
            for (int i = 0; i < n; ++i)
                at[i] = char(c[i].unicode());
            return;
        }
        const QByteArray utf8 = s.toUtf8();
        raw(utf8.constData(), utf8.size());
    }
    void text(const char *s) { raw(s, int(std::strlen(s))); }
    void bytes(const QByteArray &b)
    {
        head(Bytes, quint64(b.size()));
        std::memcpy(room(b.size()), b.constData(), size_t(b.size()));
    }
    void simple(int v) { *room(1) = char(0xe0 | v); }

    template<typename T>
    void typed(const QVariant &v, quint64 tag)
    {
        const QVector<T> values = v.value<QVector<T>>();
        head(Tag, tag);
        head(Bytes, quint64(values.size()) * sizeof(T));
        qToLittleEndian<T>(values.constData(), values.size(), room(values.size() * int(sizeof(T))));
    }

    bool list(const QVariantList &list, QString *error)
    {
        head(Array, quint64(list.size()));
        for (const QVariant &v : list) {
            // Samples are mostly doubles, held in the variant itself: no call into QVariant.
            const QVariant::Private &d = v.data_ptr();
            if (d.type == QMetaType::Double && !d.is_shared) {
                real(d.data.d);
                continue;
            }
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

private:
    QByteArray &out;
    char *base = nullptr;
    int len = 0;
    int cap = 0;
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

    // Reads n items into *out. A list that no one else holds (the receiver of the previous
    // message kept no copy) is overwritten in place: its variant nodes, one heap block each, are
    // neither freed nor allocated again.
    bool list(quint64 n, QVariantList *out, int depth)
    {
        if (n > quint64(end - p)) // every item takes a byte at least
            return fail(QStringLiteral("truncated CBOR"));
        const int count = int(n);
        if (!soleHolder(*out))
            *out = QVariantList();
        if (out->size() > count)
            out->erase(out->begin() + count, out->end());
        const int reused = out->size();
        out->reserve(count);
        QVariantList::iterator it = out->begin();
        for (int i = 0; i < count; ++i) {
            // Samples are mostly doubles: straight in, without the general path's temporary.
            if (end - p >= 9 && *p == 0xfb) {
                const quint64 bits = qFromBigEndian<quint64>(p + 1);
                p += 9;
                double d;
                std::memcpy(&d, &bits, sizeof d);
                if (i >= reused) {
                    out->append(QVariant(d));
                    continue;
                }
                QVariant::Private &slot = it[i].data_ptr();
                if (slot.type == QMetaType::Double && !slot.is_shared) {
                    slot.data.d = d;
                    slot.is_null = false;
                } else {
                    it[i] = QVariant(d);
                }
                continue;
            }
            QVariant v;
            if (!value(&v, depth + 1))
                return false;
            if (i < reused)
                it[i] = std::move(v);
            else
                out->append(v);
        }
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

bool encode(const Envelope &e, QByteArray *out, QString *error)
{
    Writer w(*out, 64 + (e.isList ? e.list.size() * 9 : e.bytes.size()));
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
    if (!e.isList) {
        w.bytes(e.bytes);
    } else if (!w.list(e.list, error)) {
        out->resize(0);
        return false;
    }
    w.finish();
    return true;
}

QByteArray encode(const Envelope &e, QString *error)
{
    QByteArray out;
    if (!encode(e, &out, error))
        return QByteArray(); // nothing half-written leaves here
    return out;
}

namespace {

enum Key { KindKey, IdKey, SeqKey, TopicKey, OpKey, PosKey, DataKey, OtherKey };

Key keyOf(const char *s, quint64 n)
{
    static const struct
    {
        const char *name;
        Key key;
    } keys[] = {{"k", KindKey}, {"id", IdKey},   {"seq", SeqKey},  {"topic", TopicKey},
                {"op", OpKey},  {"pos", PosKey}, {"data", DataKey}};
    for (const auto &k : keys) {
        if (std::strlen(k.name) == n && std::memcmp(k.name, s, n) == 0)
            return k.key;
    }
    return OtherKey;
}

// The topic of the previous envelope is kept when the new one is the same (ASCII) text, as it
// is on a stream: no string is made per message.
void setTopic(QString *topic, const char *s, int n)
{
    if (topic->size() == n) {
        const QChar *c = topic->constData();
        int i = 0;
        while (i < n && uchar(s[i]) < 0x80 && c[i].unicode() == uchar(s[i]))
            ++i;
        if (i == n)
            return;
    }
    *topic = QString::fromUtf8(s, n);
}

} // namespace

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
    bool hasData = false;
    e->isList = true;
    e->bytes.clear();
    for (quint64 i = 0; i < n; ++i) {
        quint64 size = 0;
        const char *name = nullptr;
        if (!r.head(&major, &size, &info))
            break;
        if (major != Text) {
            r.fail(QStringLiteral("a map key that is not text"));
            break;
        }
        if (!r.span(size, &name))
            break;
        const Key key = keyOf(name, size);
        if (key == OtherKey) {
            if (!r.skip()) // a newer sender's key
                break;
            continue;
        }
        if (key == DataKey) {
            hasData = true;
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
            QVariant v;
            if (!r.value(&v))
                break;
            e->isList = false;
            e->list.clear();
            e->bytes = v.toByteArray();
            continue;
        }
        if (key == TopicKey) {
            const uchar *at = r.p;
            quint64 length = 0;
            const char *text = nullptr;
            if (!r.head(&major, &length, &info))
                break;
            if (major == Text) {
                if (!r.span(length, &text))
                    break;
                setTopic(&e->topic, text, int(length));
                continue;
            }
            r.p = at;
        }
        QVariant v;
        if (!r.value(&v))
            break;
        switch (key) {
        case KindKey:
            e->kind = v.toInt();
            hasKind = v.type() == QVariant::Int;
            break;
        case IdKey:
            e->id = v.toLongLong();
            break;
        case SeqKey:
            e->seq = v.toLongLong();
            break;
        case OpKey:
            e->op = v.toInt();
            break;
        case PosKey:
            e->pos = v.toLongLong();
            break;
        case TopicKey:
            e->topic = v.toString();
            break;
        default:
            break;
        }
    }
    if (!r.error.isEmpty()) {
        *error = r.error;
        return false;
    }
    if (!hasData)
        e->list.clear();
    if (!hasKind) {
        *error = QStringLiteral("not an envelope (a CBOR map with \"k\")");
        return false;
    }
    return true;
}

bool soleHolder(const QVariantList &list)
{
    // The reference count is read relaxed; the other holder's release of it is then paired with
    // the fence below. The thread sanitizer does not model fences (and warns about them).
    if (!list.isDetached())
        return false;
#if !defined(__SANITIZE_THREAD__)
    std::atomic_thread_fence(std::memory_order_acquire);
#endif
    return true;
}

qint64 randomId()
{
    return qint64(QRandomGenerator::system()->generate64() >> 1);
}

} // namespace NetWire
