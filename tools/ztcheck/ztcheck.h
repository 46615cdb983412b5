#pragma once

#include <QStringList>
#include <QTextStream>

// The command line of the configuration checker, for the ztcheck tool and for hosts that offer
// the same check (zthost --check):
//
//   ztcheck [--modules DIR] [--format text|json] [--dot FILE] [--png FILE] [--svg FILE] FILE
//
// `args` are the arguments after the program name. Findings go to `out` (text: one
// "FILE:LINE: error|warning: text (hint)" line each; json: one document), notes and usage
// errors to `err`. Returns 0 when there is no error (warnings allowed), 1 when there is an
// error, 2 for a usage error, a file that cannot be read, or a graph that could not be written.
//
// Needs an application object; with --modules, module libraries that make actions or widgets
// need a QApplication.
namespace ztcheck {
int run(const QStringList &args, QTextStream &out, QTextStream &err);
}
