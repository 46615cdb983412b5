#pragma once

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

#include <memory>

// One thing wrong (error) or probably wrong (warning) in a system settings file, at the line
// where it stands. `code` is a stable word for editors and CI; `hint` says what was probably
// meant and may be empty.
struct Finding
{
    enum Severity { Warning, Error };

    QString file;
    int line = 0;
    Severity severity = Error;
    QString code;
    QString text;
    QString hint;

    // "FILE:LINE: error|warning: text (hint)"
    QString format() const;
    QJsonObject toJson() const;
};

// What the checker learnt about one configured module, for the graph.
struct CheckedModule
{
    int id = -1;
    QString alias; // empty when the module has none
    QString library; // the ".name" value
    int thread = -1; // the worker thread; -1 for the GUI thread
    QString kind; // "stream", "extended", or empty when not known
    bool loaded = false; // the kernel would load it (it stands before any gap in the numbers)
};

// One connection entry, classified the way the kernel would treat it.
struct CheckedConnection
{
    enum Kind { Plain, Stream, Feedback, Options, Action, Logger, Unknown };

    QString key; // its key in the "connections" group
    int line = 0;
    QString entry; // with aliases rewritten, as the kernel sees it
    Kind kind = Unknown;
    int from = -1; // module numbers; -1 when the entry names none
    int to = -1; // -1 with a kernel facility (`facility`) or no target
    QString facility; // "logger" or "kernel"
    QString label; // short text for an edge: what is joined to what
    QString problem; // the text of the first error found in this entry
};

// Checks a system settings file the way the kernel reads it: through SysSettings (aliases
// rewritten, commented-out names skipped), entry by entry as loadModules, makeConnections and
// the window builders would take it, and reports every finding at its line. With a modules
// folder it also loads each module library as the kernel does (QPluginLoader, same interface),
// makes a module of it and checks kinds, signatures, propagator, action and option names
// against the real module; the module objects live as long as the checker.
//
// Runs in the thread that owns the application object; module libraries that make actions or
// widgets need a QApplication.
class ConfigChecker
{
public:
    explicit ConfigChecker(const QString &fileName, const QString &modulesDir = QString());
    ~ConfigChecker();
    ConfigChecker(const ConfigChecker &) = delete;
    ConfigChecker &operator=(const ConfigChecker &) = delete;

    // False when the file cannot be read (errorString() says why); the checks need a file.
    bool run();
    QString errorString() const;

    // In file order (by line, then in the order they were found).
    QList<Finding> findings() const;
    bool hasErrors() const;
    // False without a modules folder: kinds, signatures, propagators, actions and options were
    // not checked.
    bool modulesChecked() const;

    QList<CheckedModule> modules() const;
    QList<CheckedConnection> connections() const;

private:
    class Private;
    std::unique_ptr<Private> d;
};
