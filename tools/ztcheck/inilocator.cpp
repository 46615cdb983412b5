#include "inilocator.h"

#include <algorithm>

namespace {

// Splits off one logical line the way QSettings' INI reader does. Returns false at the end of
// the data; `equalsPos` is -1 for a line without an unquoted '='.
bool readIniLine(const QByteArray &data, int &dataPos, int &lineStart, int &lineLen, int &equalsPos)
{
    const int dataLen = data.size();
    bool inQuotes = false;
    equalsPos = -1;

    lineStart = dataPos;
    const auto isSpace = [](char c) {
        return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
    };
    while (lineStart < dataLen && isSpace(data.at(lineStart)))
        ++lineStart;

    int i = lineStart;
    while (i < dataLen) {
        const char ch = data.at(i);
        ++i;
        if (ch == '=') {
            if (!inQuotes && equalsPos == -1)
                equalsPos = i - 1;
        } else if (ch == '\n' || ch == '\r') {
            if (i == lineStart + 1) {
                ++lineStart;
            } else if (!inQuotes) {
                --i;
                break;
            }
        } else if (ch == '\\') {
            if (i < dataLen) {
                const char next = data.at(i++);
                if (i < dataLen) {
                    const char after = data.at(i);
                    if ((next == '\n' && after == '\r') || (next == '\r' && after == '\n'))
                        ++i;
                }
            }
        } else if (ch == '"') {
            inQuotes = !inQuotes;
        } else if (ch == ';') {
            if (i == lineStart + 1) {
                while (i < dataLen && data.at(i) != '\n' && data.at(i) != '\r')
                    ++i;
                while (i < dataLen && isSpace(data.at(i)))
                    ++i;
                lineStart = i;
            } else if (!inQuotes) {
                --i;
                break;
            }
        }
    }
    dataPos = i;
    lineLen = i - lineStart;
    return lineLen > 0;
}

int hexValue(const QByteArray &digits, bool *ok)
{
    return digits.toInt(ok, 16);
}

// '\' -> '/', %XX and %UXXXX -> the character; anything else as UTF-8.
QString unescapedKey(const QByteArray &key)
{
    QString result;
    int i = 0;
    const int to = key.size();
    while (i < to) {
        const char ch = key.at(i);
        if (ch == '\\') {
            result += QLatin1Char('/');
            ++i;
            continue;
        }
        if (ch != '%' || i == to - 1) {
            int j = i + 1;
            while (j < to && key.at(j) != '%' && key.at(j) != '\\')
                ++j;
            result += QString::fromUtf8(key.constData() + i, j - i);
            i = j;
            continue;
        }
        int digits = 2;
        int first = i + 1;
        if (key.at(i + 1) == 'U') {
            ++first;
            digits = 4;
        }
        bool ok = false;
        const int code = first + digits <= to ? hexValue(key.mid(first, digits), &ok) : 0;
        if (!ok) {
            result += QLatin1Char('%');
            ++i;
            continue;
        }
        result += QChar(code);
        i = first + digits;
    }
    return result;
}

// QSettings' normalised key: no empty parts.
QString normalised(const QString &path)
{
    return path.split(QLatin1Char('/'), Qt::SkipEmptyParts).join(QLatin1Char('/'));
}

} // namespace

IniLocator IniLocator::fromText(const QByteArray &text)
{
    IniLocator result;
    // Start offsets of the physical lines; '\r\n', '\n' and a lone '\r' each end one.
    QList<int> lineStarts {0};
    for (int i = 0; i < text.size(); ++i) {
        if (text.at(i) == '\n'
            || (text.at(i) == '\r' && (i + 1 >= text.size() || text.at(i + 1) != '\n')))
            lineStarts.append(i + 1);
    }
    const auto lineAt = [&lineStarts](int offset) {
        return int(std::upper_bound(lineStarts.cbegin(), lineStarts.cend(), offset)
                   - lineStarts.cbegin());
    };

    QString section;
    int dataPos = 0;
    int lineStart = 0;
    int lineLen = 0;
    int equalsPos = -1;
    while (readIniLine(text, dataPos, lineStart, lineLen, equalsPos)) {
        const int line = lineAt(lineStart);
        const char first = text.at(lineStart);
        if (first == '[') {
            const int close = text.indexOf(']', lineStart);
            QByteArray name;
            if (close == -1 || close >= lineStart + lineLen) {
                result.strayLines.append(line);
                name = text.mid(lineStart + 1, lineLen - 1);
            } else {
                name = text.mid(lineStart + 1, close - lineStart - 1);
            }
            name = name.trimmed();
            if (name.compare("general", Qt::CaseInsensitive) == 0)
                section.clear();
            else if (name.compare("%general", Qt::CaseInsensitive) == 0)
                section = QString::fromLatin1(name.mid(1));
            else
                section = unescapedKey(name);
            result.sections.append({section, line});
            continue;
        }
        if (equalsPos == -1) {
            if (first != ';')
                result.strayLines.append(line);
            continue;
        }
        int keyEnd = equalsPos;
        while (keyEnd > lineStart && (text.at(keyEnd - 1) == ' ' || text.at(keyEnd - 1) == '\t'))
            --keyEnd;
        Entry entry;
        entry.key = unescapedKey(text.mid(lineStart, keyEnd - lineStart));
        entry.path = normalised(section + QLatin1Char('/') + entry.key);
        entry.line = line;
        const int end = lineStart + lineLen;
        entry.value = text.mid(equalsPos + 1, end - equalsPos - 1);
        if (end < text.size() && text.at(end) == ';') {
            const QByteArray before = entry.value.trimmed();
            const char last = end > equalsPos + 1 ? text.at(end - 1) : ' ';
            if (!before.isEmpty() && !before.endsWith('"') && last != ' ' && last != '\t') {
                int stop = end + 1;
                while (stop < text.size() && text.at(stop) != '\n' && text.at(stop) != '\r')
                    ++stop;
                entry.cut = true;
                entry.cutText = text.mid(end + 1, stop - end - 1);
            }
        }
        result.entries.append(entry);
    }
    return result;
}

const IniLocator::Entry *IniLocator::find(const QString &path) const
{
    const QString wanted = normalised(path);
    for (int i = entries.size() - 1; i >= 0; --i) {
        if (entries.at(i).path == wanted)
            return &entries.at(i);
    }
    return nullptr;
}

int IniLocator::lineOf(const QString &path) const
{
    const Entry *entry = find(path);
    return entry ? entry->line : 0;
}

int IniLocator::lineOfGroup(const QString &path) const
{
    const QString wanted = normalised(path);
    for (const Section &section : sections) {
        if (section.name == wanted)
            return section.line;
    }
    const QString prefix = wanted + QLatin1Char('/');
    for (const Entry &entry : entries) {
        if (entry.path.startsWith(prefix))
            return entry.line;
    }
    return 0;
}
