#include "systemgraph.h"

#include <QMap>
#include <QProcess>
#include <QSet>
#include <QStandardPaths>
#include <QTextStream>

namespace {

QString quoted(const QString &text)
{
    QString escaped = text;
    escaped.replace(QLatin1Char('\\'), QLatin1String("\\\\"));
    escaped.replace(QLatin1Char('"'), QLatin1String("\\\""));
    escaped.replace(QLatin1Char('\n'), QLatin1String("\\n"));
    return QLatin1Char('"') + escaped + QLatin1Char('"');
}

QString node(int id)
{
    return QStringLiteral("m%1").arg(id);
}

// Wraps a long finding for an edge label.
QString wrapped(const QString &text, int width = 48)
{
    QString result;
    int column = 0;
    const QStringList words = text.split(QLatin1Char(' '));
    for (const QString &word : words) {
        if (column > 0 && column + word.size() > width) {
            result += QLatin1Char('\n');
            column = 0;
        } else if (column > 0) {
            result += QLatin1Char(' ');
            ++column;
        }
        result += word;
        column += word.size();
    }
    return result;
}

} // namespace

QString SystemGraph::dot(const QString &title, const QList<CheckedModule> &modules,
                         const QList<CheckedConnection> &connections)
{
    QString out;
    QTextStream s(&out);
    s << "digraph system {\n"
      << "  graph [label=" << quoted(title) << ", labelloc=t, fontname=\"Helvetica\", "
      << "rankdir=LR, compound=true];\n"
      << "  node [shape=box, style=\"rounded,filled\", fillcolor=white, fontname=\"Helvetica\", "
      << "fontsize=10];\n"
      << "  edge [fontname=\"Helvetica\", fontsize=9];\n";

    QSet<int> known;
    QMap<int, QList<CheckedModule>> byThread;
    for (const CheckedModule &module : modules) {
        known.insert(module.id);
        byThread[module.thread].append(module);
    }
    bool kernelUsed = false;
    bool loggerUsed = false;
    QSet<int> missing;
    for (const CheckedConnection &c : connections) {
        kernelUsed |= c.facility == QLatin1String("kernel");
        loggerUsed |= c.facility == QLatin1String("logger");
        for (int id : {c.from, c.to}) {
            if (id >= 0 && !known.contains(id))
                missing.insert(id);
        }
    }

    for (auto it = byThread.cbegin(); it != byThread.cend(); ++it) {
        const bool gui = it.key() < 0;
        s << "  subgraph cluster_" << (gui ? QStringLiteral("gui") : QString::number(it.key()))
          << " {\n    label="
          << quoted(gui ? QStringLiteral("GUI thread")
                        : QStringLiteral("worker thread %1").arg(it.key()))
          << "; style=filled; fillcolor=" << (gui ? "\"#eef3fb\"" : "\"#f3f3f3\"") << ";\n";
        for (const CheckedModule &m : it.value()) {
            QString label = (m.alias.isEmpty() ? QStringLiteral("id_%1").arg(m.id) : m.alias)
                + QStringLiteral("\n#%1 %2").arg(m.id).arg(m.library);
            if (!m.kind.isEmpty())
                label += QLatin1Char('\n') + m.kind;
            s << "    " << node(m.id) << " [label=" << quoted(label);
            if (!m.loaded)
                s << ", color=red, fontcolor=red, style=\"rounded,dashed\"";
            else if (m.kind == QLatin1String("extended"))
                s << ", fillcolor=\"#fff6dd\"";
            s << "];\n";
        }
        if (gui) {
            if (kernelUsed)
                s << "    kernel [label=\"kernel\", shape=ellipse];\n";
            if (loggerUsed)
                s << "    logger [label=\"log\", shape=note];\n";
        }
        s << "  }\n";
    }
    if (!byThread.contains(-1)) {
        if (kernelUsed)
            s << "  kernel [label=\"kernel\", shape=ellipse];\n";
        if (loggerUsed)
            s << "  logger [label=\"log\", shape=note];\n";
    }
    for (int id : qAsConst(missing))
        s << "  " << node(id) << " [label=" << quoted(QStringLiteral("id_%1\n(no module)").arg(id))
          << ", color=red, fontcolor=red, style=dashed];\n";

    for (const CheckedConnection &c : connections) {
        if (c.from < 0)
            continue; // nothing to draw it from: its finding says why
        QString to;
        if (!c.facility.isEmpty())
            to = c.facility;
        else if (c.to >= 0)
            to = node(c.to);
        else
            continue;
        QString style;
        switch (c.kind) {
        case CheckedConnection::Plain:
            style = QStringLiteral("color=black");
            break;
        case CheckedConnection::Stream:
            style = QStringLiteral("color=\"#1f5fbf\", penwidth=2");
            break;
        case CheckedConnection::Feedback:
            style = QStringLiteral("color=\"#2e8b3a\", penwidth=2, dir=both, arrowtail=odot");
            break;
        case CheckedConnection::Options:
            style = QStringLiteral("color=\"#7a5c99\", style=dotted");
            break;
        case CheckedConnection::Action:
            style = QStringLiteral("color=\"#c27400\", style=dashed");
            break;
        case CheckedConnection::Logger:
            style = QStringLiteral("color=gray50");
            break;
        case CheckedConnection::Unknown:
            style = QStringLiteral("color=black");
            break;
        }
        QString label = c.key + QStringLiteral(": ") + c.label;
        if (!c.problem.isEmpty()) {
            style = QStringLiteral("color=red, fontcolor=red, penwidth=2");
            label += QLatin1Char('\n') + wrapped(c.problem);
        }
        s << "  " << node(c.from) << " -> " << to
          << " [id=" << quoted(QStringLiteral("conn_") + c.key) << ", label=" << quoted(label)
          << ", " << style << "];\n";
    }
    s << "}\n";
    s.flush();
    return out;
}

QString SystemGraph::dotExecutable()
{
    return QStandardPaths::findExecutable(QStringLiteral("dot"));
}

bool SystemGraph::render(const QString &dotText, const QString &format, const QString &outFile,
                         QString *error)
{
    const QString program = dotExecutable();
    if (program.isEmpty()) {
        *error = QStringLiteral("Graphviz's dot is not installed (not found in PATH); install the "
                                "package graphviz, or write the graph with --dot and render it "
                                "elsewhere");
        return false;
    }
    QProcess dot;
    dot.start(program, {QStringLiteral("-T") + format, QStringLiteral("-o"), outFile});
    if (!dot.waitForStarted(10000)) {
        *error = QStringLiteral("dot did not start: ") + dot.errorString();
        return false;
    }
    dot.write(dotText.toUtf8());
    dot.closeWriteChannel();
    // A graph of a few dozen nodes takes well under a second; a minute means dot is stuck.
    if (!dot.waitForFinished(60000)) {
        dot.kill();
        dot.waitForFinished(5000);
        *error = QStringLiteral("dot did not finish within a minute and was stopped");
        return false;
    }
    if (dot.exitStatus() != QProcess::NormalExit || dot.exitCode() != 0) {
        *error = QStringLiteral("dot failed: ")
            + QString::fromLocal8Bit(dot.readAllStandardError()).trimmed();
        return false;
    }
    return true;
}
