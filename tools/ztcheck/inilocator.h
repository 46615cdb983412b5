#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

// Where things stand in an INI file. QSettings forgets line numbers as it reads, so this walks
// the text itself with QSettings' own grammar: a line that starts with ';' is a comment, an
// unquoted ';' ends an entry and turns the rest of the line into a comment, '"' quotes may span
// lines, a '\' escapes the next character (a line break included), '\' in a key is a group
// separator and %XX / %UXXXX escape characters, "[General]" is the top level.
//
// Keys are reported as QSettings names them: the section and the key joined by '/', with empty
// parts dropped ("[modules]" + "gen\.name" -> "modules/gen/.name").
class IniLocator
{
public:
    struct Entry
    {
        QString path; // section/key as QSettings names it
        QString key; // the key as written (escapes decoded), without the section
        int line = 0; // 1-based line on which the entry starts
        QByteArray value; // the raw value text, from after '=' to where the entry ended
        // An unquoted ';' right after value text ended the entry: what followed it on the
        // line (`cutText`) was read as a comment.
        bool cut = false;
        QByteArray cutText;
    };
    struct Section
    {
        QString name; // decoded; empty for [General]
        int line = 0;
    };

    static IniLocator fromText(const QByteArray &text);

    // The entry QSettings keeps for `path` (the last one written), or null.
    const Entry *find(const QString &path) const;
    // The line of that entry; 0 when the file has no such key.
    int lineOf(const QString &path) const;
    // The first line of an entry below the group `path` ("modules/gen"), or of the section
    // header itself; 0 when there is none.
    int lineOfGroup(const QString &path) const;

    QList<Entry> entries; // in file order, duplicates included
    QList<Section> sections; // in file order
    QList<int> strayLines; // lines that are neither a section, an entry nor a comment
};
