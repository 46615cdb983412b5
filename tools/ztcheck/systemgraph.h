#pragma once

#include "configchecker.h"

#include <QList>
#include <QString>

// The wiring of a system as a Graphviz graph: modules as nodes (alias, number, library, kind),
// grouped in one cluster per thread (the GUI thread and each worker thread), one edge per
// connection entry styled by what the kernel makes of it. Entries with an error are drawn red
// and labelled with the first error. Every edge carries the entry's key as its id ("conn_<key>"),
// every module node is "m<number>".
class SystemGraph
{
public:
    static QString dot(const QString &title, const QList<CheckedModule> &modules,
                       const QList<CheckedConnection> &connections);

    // Graphviz's dot in PATH, or empty.
    static QString dotExecutable();
    // Runs dot on `dotText`, writing `format` ("png", "svg") to `outFile`. False with a reason.
    static bool render(const QString &dotText, const QString &format, const QString &outFile,
                       QString *error);
};
