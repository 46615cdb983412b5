#include "ztmodulemetadata.h"

#include <cstring>

// Out of line on purpose: every loaded plug-in reads its metadata through these, and code inlined
// into a plug-in binds each Qt function it calls once per plug-in (lazy binding searches all of
// the plug-in's dependencies), which costs more than the reading itself.

namespace {

// A reader of just the CBOR that moc writes: definite lengths inside, unsigned integer and text
// keys, UTF-8 text values. Anything else (indefinite lengths below the top level, nesting deeper
// than a sane limit, a head running past the bound) makes it give up, and the caller falls back
// on Qt's complete reader. Qt's own QCborStreamReader costs over a thousand instructions per
// string here, more than the rest of a module's metadata handling together.
class CborCursor
{
public:
    CborCursor(const char *data, int limit)
        : p(reinterpret_cast<const uchar *>(data))
        , end(p + limit)
    { }

    enum Major { Unsigned = 0, Negative, Bytes, Text, Array, Map, Tag, Simple };

    // The major type of the next item, -1 at the bound.
    int peekMajor() const { return p < end ? *p >> 5 : -1; }

    // The start of a map of indefinite length, as moc writes the top level.
    bool enterIndefiniteMap()
    {
        if (p >= end || *p != 0xbf)
            return false;
        ++p;
        return true;
    }
    // The end of an item of indefinite length.
    bool leaveIndefinite()
    {
        if (p >= end || *p != 0xff)
            return false;
        ++p;
        return true;
    }

    // The head of the next item: its major type and argument (a length, a count or a value).
    // False for an indefinite length and for reserved encodings.
    bool head(int *major, quint64 *argument)
    {
        if (p >= end)
            return false;
        const uchar initial = *p++;
        *major = initial >> 5;
        const int info = initial & 0x1f;
        if (info < 24) {
            *argument = quint64(info);
            return true;
        }
        if (info > 27)
            return false;
        const int bytes = 1 << (info - 24);
        if (end - p < bytes)
            return false;
        quint64 value = 0;
        for (int i = 0; i < bytes; ++i)
            value = value << 8 | *p++;
        *argument = value;
        return true;
    }

    // The bytes of a string whose head said `length`.
    bool take(quint64 length, const char **data)
    {
        if (quint64(end - p) < length)
            return false;
        *data = reinterpret_cast<const char *>(p);
        p += length;
        return true;
    }

    // Passes over one whole item.
    bool skip(int depth = 0)
    {
        int major = 0;
        quint64 argument = 0;
        if (depth > 32 || !head(&major, &argument))
            return false;
        const char *ignored = nullptr;
        switch (major) {
        case Bytes:
        case Text:
            return take(argument, &ignored);
        case Array:
        case Map: {
            const quint64 items = major == Map ? 2 * argument : argument;
            for (quint64 i = 0; i < items; ++i) {
                if (!skip(depth + 1))
                    return false;
            }
            return true;
        }
        case Tag:
            return skip(depth + 1);
        default:
            return true;
        }
    }

    // A text item; its bytes stay where they are.
    bool text(const char **data, quint64 *length)
    {
        int major = 0;
        return head(&major, length) && major == Text && take(*length, data);
    }

private:
    const uchar *p;
    const uchar *end;
};

bool equals(const char *data, quint64 length, const char *key)
{
    return length == std::strlen(key) && std::memcmp(data, key, length) == 0;
}

// The module's own entries under "MetaData", as text.
struct Entries
{
    QString name, kind, version, description, interfaceType, interfaceVersion;
};

// Like Qt's JSON form read by fromPluginMetaData(), a value that is not text reads as empty.
bool readEntries(CborCursor &in, Entries *entries)
{
    int major = 0;
    quint64 pairs = 0;
    if (!in.head(&major, &pairs) || major != CborCursor::Map)
        return false;
    for (quint64 i = 0; i < pairs; ++i) {
        const char *key = nullptr;
        quint64 keyLength = 0;
        if (in.peekMajor() == CborCursor::Text) {
            if (!in.text(&key, &keyLength))
                return false;
        } else if (!in.skip()) {
            return false;
        }
        const auto is = [&](const char *name) { return key && equals(key, keyLength, name); };
        QString *target = is("name") ? &entries->name
            : is("kind")             ? &entries->kind
            : is("version")          ? &entries->version
            : is("description")      ? &entries->description
            : is("interfaceType")    ? &entries->interfaceType
            : is("interfaceVersion") ? &entries->interfaceVersion
                                     : nullptr;
        if (target && in.peekMajor() == CborCursor::Text) {
            const char *value = nullptr;
            quint64 length = 0;
            if (!in.text(&value, &length))
                return false;
            *target = QString::fromUtf8(value, int(length));
        } else {
            if (target)
                target->clear();
            if (!in.skip())
                return false;
        }
    }
    return true;
}

} // namespace

ZtModuleMetaData ZtModuleMetaData::fromEmbedded(QtPluginMetaDataFunction query)
{
    ZtModuleMetaData result;
    if (readRaw(query(), &result))
        return result;
    return fromPluginMetaData(QStaticPlugin {nullptr, query}.metaData());
}

bool ZtModuleMetaData::readRaw(const char *raw, ZtModuleMetaData *result)
{
    static const char signature[] = "QTMETADATA !";
    const int signatureLength = int(sizeof signature) - 1;
    if (!raw || std::memcmp(raw, signature, signatureLength) != 0 || raw[signatureLength] != 0
        || raw[signatureLength + 1] != QT_VERSION_MAJOR)
        return false;
    // The size of the embedded bytes is not passed along; the map ends itself, and the reader
    // never looks past its end. The bound only turns a map that never ends into an error (Qt's
    // own reader of the same bytes allows INT_MAX).
    CborCursor in(raw + signatureLength + 4, 1 << 20);
    const bool indefinite = in.enterIndefiniteMap();
    quint64 pairs = 0;
    if (!indefinite) {
        int major = 0;
        if (!in.head(&major, &pairs) || major != CborCursor::Map)
            return false;
    }

    bool iidOk = false;
    Entries entries;
    for (quint64 i = 0; indefinite ? !in.leaveIndefinite() : i < pairs; ++i) {
        // Qt's own entries have small integer keys (2 "IID", 4 "MetaData"); text keys are taken
        // as Qt's JSON form would name them.
        enum { Other, Iid, Data } key = Other;
        if (in.peekMajor() == CborCursor::Unsigned) {
            int major = 0;
            quint64 number = 0;
            if (!in.head(&major, &number))
                return false;
            key = number == 2 ? Iid : number == 4 ? Data : Other;
        } else if (in.peekMajor() == CborCursor::Text) {
            const char *text = nullptr;
            quint64 length = 0;
            if (!in.text(&text, &length))
                return false;
            key = equals(text, length, "IID")      ? Iid
                : equals(text, length, "MetaData") ? Data
                                                   : Other;
        } else if (!in.skip()) {
            return false;
        }

        if (key == Iid && in.peekMajor() == CborCursor::Text) {
            const char *text = nullptr;
            quint64 length = 0;
            if (!in.text(&text, &length))
                return false;
            iidOk = equals(text, length, ZtLibLevelInterface_iid);
        } else if (key == Data && in.peekMajor() == CborCursor::Map) {
            // A later "MetaData" replaces an earlier one, as in Qt's JSON form.
            entries = Entries();
            if (!readEntries(in, &entries))
                return false;
        } else {
            if (key == Iid)
                iidOk = false;
            else if (key == Data)
                entries = Entries();
            if (!in.skip())
                return false;
        }
    }

    *result = ZtModuleMetaData();
    if (!iidOk) {
        result->error = QStringLiteral("not a ZtCore module library");
        return true;
    }
    result->error.clear();
    result->name = entries.name;
    result->kind = entries.kind;
    result->version = entries.version;
    result->description = entries.description;
    result->interfaceType = entries.interfaceType;
    result->interfaceVersion = packVersion(entries.interfaceVersion);
    if (result->name.isEmpty())
        result->error = QStringLiteral("no module metadata");
    return true;
}
