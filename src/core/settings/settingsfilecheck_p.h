#pragma once

#include "settingsfinding.h"

#include <QByteArray>
#include <QList>
#include <QString>

// Looks for values in INI text that QSettings must not be allowed to decode.
//
// QSettings turns a value written as @Variant(...) or @DateTime(...) into a QVariant by reading
// the bytes between the parentheses with QDataStream, and QDataStream believes the element counts
// it finds there: a damaged count makes it reserve gigabytes and the process dies of
// std::bad_alloc before any caller sees a value. QSettings decodes a whole INI section the first
// time any key in it is read, so one such value takes every read with it, and there is no way to
// tell QSettings to skip a key.
//
// The check therefore runs on the file's text before QSettings sees it. It splits the text into
// entries and decodes each value's escapes the way QSettings' INI reader does, and for every
// @Variant/@DateTime payload walks the QDataStream encoding of the variant, checking each length
// and count against the bytes that remain. Only the types QSettings itself writes there are
// walked (numbers, text, byte arrays, lists, maps, hashes, dates and times, URLs, UUIDs,
// geometry, colours and fonts); a payload of any other type, or nested deeper than a sane
// configuration would, is refused as well, since its layout cannot be checked. @ByteArray(...)
// values carry no lengths and pass unchanged.
//
// Where the check is unsure how QSettings splits or decodes a line, it errs on the side of
// refusing: it checks every line that has an '=' (section headers included), trims every
// trailing blank before looking for the closing parenthesis, and checks the shortest payload
// QSettings could see.
class SettingsFileCheck
{
public:
    // Checks text as read from fileName (the name only labels the findings).
    static SettingsFileCheck scan(const QByteArray &text, const QString &fileName);
    // Reads and checks the file; a missing or unreadable file is clean (QSettings treats it as
    // empty).
    static SettingsFileCheck scanFile(const QString &fileName);

    bool isClean() const { return findings.isEmpty(); }

    QList<SettingsFinding> findings;
    // The text with every refused entry cut out; the rest is byte for byte the original.
    QByteArray cleanText;
};
