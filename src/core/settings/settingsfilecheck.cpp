#include "settingsfilecheck_p.h"

#include <QDataStream>
#include <QFile>
#include <QMetaType>
#include <QSet>
#include <QStringList>
#include <QTextCodec>

namespace {

// Nested lists and maps deeper than this are refused: QDataStream recurses once per level, and no
// configuration nests anywhere near this far.
constexpr int maxDepth = 32;
// A file that still has damaged entries after this many passes is refused as a whole.
constexpr int maxPasses = 64;

// ----- Splitting the text into entries, as QSettings' INI reader does -----

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

bool isSpecial(char c)
{
    return c == '\n' || c == '\r' || c == '"' || c == ';' || c == '=' || c == '\\';
}

// How a line that starts with ';' ends. Qt has ended such a comment only at '\n' in some releases
// and at '\n' or '\r' in others; both readings are checked.
enum class CommentEnd { NewLineOnly, AnyLineBreak };

struct Entry
{
    int start = 0;
    int length = 0;
    int equals = -1; // offset of the first unquoted '=', -1 if none
};

// The next entry from pos on. Blank lines and ';' comment lines are skipped; a quoted part or a
// backslash carries an entry over a line break; an unquoted ';' ends it.
bool nextEntry(const QByteArray &data, int &pos, Entry &entry, CommentEnd commentEnd)
{
    const int size = data.size();
    const char *const p = data.constData();
    bool inQuotes = false;
    entry.equals = -1;
    int start = pos;
    while (start < size && isBlank(p[start]))
        ++start;

    int i = start;
    while (i < size) {
        const char ch = p[i++];
        if (!isSpecial(ch))
            continue;
        if (ch == '=') {
            if (!inQuotes && entry.equals == -1)
                entry.equals = i - 1;
        } else if (ch == '\n' || ch == '\r') {
            if (i == start + 1) {
                ++start;
            } else if (!inQuotes) {
                --i;
                break;
            }
        } else if (ch == '\\') {
            if (i < size) {
                const char next = p[i++];
                if (i < size) {
                    const char after = p[i];
                    if ((next == '\n' && after == '\r') || (next == '\r' && after == '\n'))
                        ++i;
                }
            }
        } else if (ch == '"') {
            inQuotes = !inQuotes;
        } else if (i == start + 1) { // ';' opening a comment line
            while (i < size && p[i] != '\n'
                   && (commentEnd == CommentEnd::NewLineOnly || p[i] != '\r'))
                ++i;
            if (commentEnd == CommentEnd::AnyLineBreak) {
                while (i < size && isBlank(p[i]))
                    ++i;
            }
            start = i;
        } else if (!inQuotes) { // ';' starting a comment after the entry
            --i;
            break;
        }
    }
    pos = i;
    entry.start = start;
    entry.length = i - start;
    return entry.length > 0;
}

// ----- Decoding a value's escapes, as QSettings' INI reader does -----

int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

char simpleEscape(char c)
{
    switch (c) {
    case 'a':
        return '\a';
    case 'b':
        return '\b';
    case 'f':
        return '\f';
    case 'n':
        return '\n';
    case 'r':
        return '\r';
    case 't':
        return '\t';
    case 'v':
        return '\v';
    case '"':
    case '?':
    case '\'':
    case '\\':
        return c;
    default:
        return 0;
    }
}

void chopBlanks(QString &text)
{
    int n = text.size();
    while (n > 0 && (text.at(n - 1) == QLatin1Char(' ') || text.at(n - 1) == QLatin1Char('\t')))
        --n;
    text.truncate(n);
}

// The strings a value decodes to: one, or the elements of an unquoted comma list. Trailing
// blanks are always trimmed here (QSettings keeps some of them), which can only make more values
// look like @Variant(...).
QStringList unescapedValue(const QByteArray &data, int from, int to, QTextCodec *codec)
{
    QStringList parts;
    const char *const p = data.constData();
    QString current;
    bool inQuotes = false;
    int i = from;
    const auto skipBlanks = [&] {
        while (i < to && (p[i] == ' ' || p[i] == '\t'))
            ++i;
    };
    skipBlanks();
    while (i < to) {
        const char ch = p[i];
        if (ch == '\\') {
            if (++i >= to)
                break;
            const char code = p[i++];
            if (const char plain = simpleEscape(code)) {
                current += QLatin1Char(plain);
            } else if (code == 'x') {
                if (i >= to)
                    break;
                if (hexValue(p[i]) < 0)
                    continue; // "\x" without digits is dropped
                quint32 value = 0;
                while (i < to && hexValue(p[i]) >= 0)
                    value = (value << 4) + quint32(hexValue(p[i++]));
                current += QChar(ushort(value & 0xffff));
            } else if (code >= '0' && code <= '7') {
                quint32 value = quint32(code - '0');
                while (i < to && p[i] >= '0' && p[i] <= '7')
                    value = (value << 3) + quint32(p[i++] - '0');
                current += QChar(ushort(value & 0xffff));
            } else if (code == '\n' || code == '\r') {
                if (i < to && (p[i] == '\n' || p[i] == '\r') && p[i] != code)
                    ++i;
            }
            // Any other escaped character is dropped.
        } else if (ch == '"') {
            ++i;
            inQuotes = !inQuotes;
            if (!inQuotes)
                skipBlanks();
        } else if (ch == ',' && !inQuotes) {
            chopBlanks(current);
            parts.append(current);
            current.clear();
            ++i;
            skipBlanks();
        } else {
            int j = i + 1;
            while (j < to && p[j] != '\\' && p[j] != '"' && p[j] != ',')
                ++j;
            current += codec ? codec->toUnicode(data.constData() + i, j - i)
                             : QString::fromLatin1(data.constData() + i, j - i);
            i = j;
        }
    }
    chopBlanks(current);
    parts.append(current);
    return parts;
}

// ----- Walking the QDataStream encoding of a variant -----

// Follows QDataStream's reading of a QVariant far enough to know that every length and count it
// will believe fits in the bytes that follow. Stops at the first problem and says what it was.
class VariantWalk
{
public:
    VariantWalk(const QByteArray &bytes, int version)
        : data(bytes)
        , version(version)
    { }

    QString check()
    {
        variant(0);
        return error;
    }

private:
    bool fail(const QString &why)
    {
        if (error.isEmpty())
            error = why;
        return false;
    }

    bool need(qint64 bytes)
    {
        if (bytes > qint64(data.size()) - pos)
            return fail(QStringLiteral("a length runs past the end of the value"));
        return true;
    }

    bool skip(qint64 bytes)
    {
        if (!need(bytes))
            return false;
        pos += int(bytes);
        return true;
    }

    bool u32(quint32 &value)
    {
        if (!need(4))
            return false;
        const auto *p = reinterpret_cast<const uchar *>(data.constData() + pos);
        value = (quint32(p[0]) << 24) | (quint32(p[1]) << 16) | (quint32(p[2]) << 8) | p[3];
        pos += 4;
        return true;
    }

    // A count of elements that each take at least minBytes.
    bool count(quint32 &n, int minBytes)
    {
        if (!u32(n))
            return false;
        if (qint64(n) * minBytes > qint64(data.size()) - pos)
            return fail(QStringLiteral("an element count runs past the end of the value"));
        return true;
    }

    bool bytes(QByteArray *out = nullptr)
    {
        quint32 length = 0;
        if (!u32(length))
            return false;
        if (length == 0xffffffffu)
            return true;
        if (!need(length))
            return false;
        if (out)
            *out = data.mid(pos, int(length));
        pos += int(length);
        return true;
    }

    bool string(QString *out = nullptr)
    {
        quint32 length = 0;
        if (!u32(length))
            return false;
        if (length == 0xffffffffu)
            return true;
        if (length % 2)
            return fail(QStringLiteral("a string has an odd number of bytes"));
        if (!need(length))
            return false;
        if (out) {
            out->clear();
            for (quint32 k = 0; k < length; k += 2)
                out->append(QChar(ushort((uchar(data.at(pos + int(k))) << 8)
                                         | uchar(data.at(pos + int(k) + 1)))));
        }
        pos += int(length);
        return true;
    }

    bool timeZone()
    {
        QString id;
        if (!string(&id))
            return false;
        if (id == QLatin1String("OffsetFromUtc"))
            return string() && skip(4) && string() && string() && skip(4) && string();
        // The identifier names a file under the zone database; anything that is not a plain
        // zone name could reach other files.
        for (const QChar c : qAsConst(id)) {
            if (!(c.isLetterOrNumber() && c.unicode() < 128) && c != QLatin1Char('_')
                && c != QLatin1Char('-') && c != QLatin1Char('+') && c != QLatin1Char('/'))
                return fail(QStringLiteral("a time zone name is not a zone name"));
        }
        if (id.contains(QLatin1String("..")) || id.startsWith(QLatin1Char('/')))
            return fail(QStringLiteral("a time zone name is not a zone name"));
        return true;
    }

    bool dateTime()
    {
        if (!skip(version < QDataStream::Qt_5_0 ? 4 : 8) || !skip(4) || !need(1))
            return false;
        const int timeSpec = data.at(pos++);
        if (version < QDataStream::Qt_5_2)
            return true;
        if (timeSpec == Qt::OffsetFromUTC)
            return skip(4);
        if (timeSpec == Qt::TimeZone)
            return timeZone();
        return true;
    }

    bool variant(int depth)
    {
        if (depth > maxDepth)
            return fail(QStringLiteral("lists or maps are nested too deeply"));
        quint32 type = 0;
        if (!u32(type))
            return false;
        if (version < QDataStream::Qt_5_0) {
            // Type numbers as Qt 4 wrote them.
            if (type == 127)
                type = QMetaType::User;
            else if (type >= 128 && type != QMetaType::User)
                type -= 97;
            else if (type == 75)
                type = QMetaType::QSizePolicy;
            else if (type > 75 && type <= 86)
                type -= 1;
        }
        if (version >= QDataStream::Qt_4_2 && !skip(1))
            return false;
        if (type == QMetaType::User) {
            QByteArray name;
            if (!bytes(&name))
                return false;
            // Resolved exactly as QVariant does, lenient normalisation included.
            type = quint32(QMetaType::type(name.constData()));
            if (type == QMetaType::UnknownType)
                return fail(QStringLiteral("unknown type name \"%1\"")
                                .arg(QString::fromLatin1(name.constData())));
        }
        return value(int(type), depth);
    }

    bool value(int type, int depth)
    {
        quint32 n = 0;
        switch (type) {
        case QMetaType::UnknownType:
            // An invalid variant is followed by an empty string.
            return string();
        case QMetaType::Bool:
        case QMetaType::Char:
        case QMetaType::SChar:
        case QMetaType::UChar:
            return skip(1);
        case QMetaType::Short:
        case QMetaType::UShort:
        case QMetaType::QChar:
            return skip(2);
        case QMetaType::Int:
        case QMetaType::UInt:
        case QMetaType::QTime:
            return skip(4);
        case QMetaType::Long:
        case QMetaType::ULong:
        case QMetaType::LongLong:
        case QMetaType::ULongLong:
        case QMetaType::Double:
        case QMetaType::QPoint:
        case QMetaType::QSize:
            return skip(8);
        case QMetaType::Float:
            return skip(version >= QDataStream::Qt_4_6 ? 8 : 4);
        case QMetaType::QDate:
            return skip(version < QDataStream::Qt_5_0 ? 4 : 8);
        case QMetaType::QRect:
        case QMetaType::QLine:
        case QMetaType::QPointF:
        case QMetaType::QSizeF:
        case QMetaType::QUuid:
            return skip(16);
        case QMetaType::QRectF:
        case QMetaType::QLineF:
            return skip(32);
        case QMetaType::QColor:
            return skip(11);
        case QMetaType::QFont:
            // Only the layout QSettings writes (stream version 4.0): family, then fixed fields.
            if (version >= QDataStream::Qt_4_3)
                return fail(QStringLiteral("a font in an unexpected layout"));
            return string() && skip(17);
        case QMetaType::QDateTime:
            return dateTime();
        case QMetaType::QString:
            return string();
        case QMetaType::QByteArray:
        case QMetaType::QUrl:
            return bytes();
        case QMetaType::QBitArray: {
            quint32 bits = 0;
            return u32(bits) && need((qint64(bits) + 7) / 8) && skip((qint64(bits) + 7) / 8);
        }
        case QMetaType::QStringList:
            if (!count(n, 4))
                return false;
            for (quint32 k = 0; k < n; ++k) {
                if (!string())
                    return false;
            }
            return true;
        case QMetaType::QByteArrayList:
            if (!count(n, 4))
                return false;
            for (quint32 k = 0; k < n; ++k) {
                if (!bytes())
                    return false;
            }
            return true;
        case QMetaType::QVariantList:
            if (!count(n, 4))
                return false;
            for (quint32 k = 0; k < n; ++k) {
                if (!variant(depth + 1))
                    return false;
            }
            return true;
        case QMetaType::QVariantMap:
        case QMetaType::QVariantHash:
            if (!count(n, 8))
                return false;
            for (quint32 k = 0; k < n; ++k) {
                if (!string() || !variant(depth + 1))
                    return false;
            }
            return true;
        default:
            return fail(QStringLiteral("a value of type %1 cannot be checked")
                            .arg(QString::fromLatin1(QMetaType::typeName(type))));
        }
    }

    const QByteArray data;
    const int version;
    int pos = 0;
    QString error;
};

// Why QSettings must not decode the text, or an empty string when it may.
QString checkDecoded(const QString &text)
{
    const QLatin1String variantTag("@Variant(");
    const QLatin1String dateTimeTag("@DateTime(");
    if (!text.endsWith(QLatin1Char(')')))
        return QString();
    if (text.startsWith(variantTag))
        return VariantWalk(text.midRef(variantTag.size()).toLatin1(), QDataStream::Qt_4_0).check();
    if (text.startsWith(dateTimeTag))
        return VariantWalk(text.midRef(dateTimeTag.size()).toLatin1(), QDataStream::Qt_5_6).check();
    return QString();
}

QString checkValue(const QByteArray &data, int from, int to)
{
    // Both readers set UTF-8, but a plain QSettings on the same file shares its parsed values
    // and decodes as Latin-1; the payload bytes differ between the two, so both are checked.
    static QTextCodec *const utf8 = QTextCodec::codecForName("UTF-8");
    for (QTextCodec *codec : {utf8, static_cast<QTextCodec *>(nullptr)}) {
        const QStringList parts = unescapedValue(data, from, to, codec);
        for (const QString &part : parts) {
            const QString why = checkDecoded(part);
            if (!why.isEmpty())
                return why;
        }
    }
    return QString();
}

} // namespace

SettingsFileCheck SettingsFileCheck::scan(const QByteArray &text, const QString &fileName)
{
    SettingsFileCheck result;
    result.cleanText = text;
    QByteArray &data = result.cleanText;
    QSet<int> reported;

    // A refused entry is blanked rather than cut out, so that offsets and line numbers stay
    // those of the original. Blanking can change how the rest of the text splits (a quote or a
    // backslash goes), so the text is checked again until a pass finds nothing.
    for (int passes = 0;; ++passes) {
        if (passes == maxPasses) {
            SettingsFinding all {fileName, 1, QString(),
                                 QStringLiteral("too many damaged values; the whole file is "
                                                "ignored")};
            result.findings.append(all);
            data.fill(' ');
            return result;
        }
        bool found = false;
        for (CommentEnd commentEnd : {CommentEnd::AnyLineBreak, CommentEnd::NewLineOnly}) {
            int pos = 0;
            Entry entry;
            while (nextEntry(data, pos, entry, commentEnd)) {
                if (entry.equals < 0)
                    continue;
                const QString why = checkValue(data, entry.equals + 1, entry.start + entry.length);
                if (why.isEmpty())
                    continue;
                found = true;
                if (!reported.contains(entry.start)) {
                    reported.insert(entry.start);
                    SettingsFinding finding;
                    finding.fileName = fileName;
                    finding.line = 1 + data.left(entry.start).count('\n');
                    finding.key = QString::fromUtf8(
                        data.mid(entry.start, entry.equals - entry.start).trimmed());
                    finding.reason = why;
                    result.findings.append(finding);
                }
                for (int k = entry.start; k < entry.start + entry.length; ++k) {
                    if (data.at(k) != '\n' && data.at(k) != '\r')
                        data[k] = ' ';
                }
            }
        }
        if (!found)
            return result;
    }
}

SettingsFileCheck SettingsFileCheck::scanFile(const QString &fileName)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly))
        return SettingsFileCheck();
    return scan(file.readAll(), fileName);
}
