#include "ztcheck.h"

#include "configchecker.h"
#include "systemgraph.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

const char usage[] = "usage: ztcheck [--modules DIR] [--format text|json] [--dot FILE] "
                     "[--png FILE] [--svg FILE] system.ini";

int usageError(QTextStream &err, const QString &why)
{
    err << "ztcheck: " << why << '\n' << usage << '\n';
    err.flush();
    return 2;
}

} // namespace

int ztcheck::run(const QStringList &args, QTextStream &out, QTextStream &err)
{
    QString modulesDir;
    QString format = QStringLiteral("text");
    QString dotFile;
    QString pngFile;
    QString svgFile;
    QString file;
    for (int i = 0; i < args.size(); ++i) {
        const QString &arg = args.at(i);
        const auto valueOf = [&](QString *target) {
            if (i + 1 >= args.size())
                return false;
            *target = args.at(++i);
            return true;
        };
        if (arg == QLatin1String("-h") || arg == QLatin1String("--help")) {
            out << usage << '\n';
            out.flush();
            return 0;
        }
        bool ok = true;
        if (arg == QLatin1String("--modules"))
            ok = valueOf(&modulesDir);
        else if (arg == QLatin1String("--format"))
            ok = valueOf(&format);
        else if (arg == QLatin1String("--dot"))
            ok = valueOf(&dotFile);
        else if (arg == QLatin1String("--png"))
            ok = valueOf(&pngFile);
        else if (arg == QLatin1String("--svg"))
            ok = valueOf(&svgFile);
        else if (arg.startsWith(QLatin1Char('-')) && arg.size() > 1)
            return usageError(err, QStringLiteral("unknown option %1").arg(arg));
        else if (file.isEmpty())
            file = arg;
        else
            return usageError(
                err, QStringLiteral("one settings file at a time (%1 and %2)").arg(file, arg));
        if (!ok)
            return usageError(err, QStringLiteral("%1 needs a value").arg(arg));
    }
    if (file.isEmpty())
        return usageError(err, QStringLiteral("no settings file given"));
    if (format != QLatin1String("text") && format != QLatin1String("json"))
        return usageError(err, QStringLiteral("unknown format \"%1\" (text or json)").arg(format));
    if (!modulesDir.isEmpty() && !QFileInfo(modulesDir).isDir())
        return usageError(err, QStringLiteral("modules folder %1 does not exist").arg(modulesDir));

    ConfigChecker checker(file, modulesDir);
    if (!checker.run()) {
        err << "ztcheck: cannot read " << file << ": " << checker.errorString() << '\n';
        err.flush();
        return 2;
    }
    if (!checker.modulesChecked())
        err << "ztcheck: note: no --modules folder given: libraries, module kinds, signals, "
               "slots, propagators, actions and options are not checked\n";

    const QList<Finding> findings = checker.findings();
    if (format == QLatin1String("json")) {
        QJsonArray list;
        for (const Finding &finding : findings)
            list.append(finding.toJson());
        const QJsonObject document {{QStringLiteral("file"), file},
                                    {QStringLiteral("modulesChecked"), checker.modulesChecked()},
                                    {QStringLiteral("findings"), list}};
        out << QJsonDocument(document).toJson(QJsonDocument::Indented);
    } else {
        for (const Finding &finding : findings)
            out << finding.format() << '\n';
    }
    out.flush();

    int status = checker.hasErrors() ? 1 : 0;
    if (!dotFile.isEmpty() || !pngFile.isEmpty() || !svgFile.isEmpty()) {
        const QString graph = SystemGraph::dot(QFileInfo(file).fileName(), checker.modules(),
                                               checker.connections());
        if (!dotFile.isEmpty()) {
            QFile dot(dotFile);
            if (!dot.open(QIODevice::WriteOnly | QIODevice::Truncate)
                || dot.write(graph.toUtf8()) < 0) {
                err << "ztcheck: cannot write " << dotFile << ": " << dot.errorString() << '\n';
                status = 2;
            }
        }
        const QList<QPair<QString, QString>> pictures {{QStringLiteral("png"), pngFile},
                                                       {QStringLiteral("svg"), svgFile}};
        for (const auto &picture : pictures) {
            if (picture.second.isEmpty())
                continue;
            QString why;
            if (!SystemGraph::render(graph, picture.first, picture.second, &why)) {
                err << "ztcheck: cannot write " << picture.second << ": " << why << '\n';
                status = 2;
            }
        }
    }
    err.flush();
    return status;
}
