#pragma once

#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

// Runs zthost as a child process in `workDir` (where its log file lands) and collects what it
// printed. The environment is the test's own, so sanitizer settings reach the child; the caller
// may adjust it (the platform, say).
struct ZtHostRun
{
    int exitCode = -1;
    QProcess::ExitStatus exitStatus = QProcess::CrashExit;
    bool finished = false;
    QString out;
    QString err;

    static ZtHostRun start(const QString &program, const QStringList &args, const QString &workDir,
                           const QProcessEnvironment &env
                           = QProcessEnvironment::systemEnvironment())
    {
        ZtHostRun run;
        QProcess process;
        process.setProgram(program);
        process.setArguments(args);
        process.setWorkingDirectory(workDir);
        process.setProcessEnvironment(env);
        process.start();
        // Generous: a sanitizer build starts slowly. This is a hang guard, not a speed check.
        run.finished = process.waitForFinished(120000);
        if (!run.finished) {
            process.kill();
            process.waitForFinished();
        }
        run.exitCode = process.exitCode();
        run.exitStatus = process.exitStatus();
        run.out = QString::fromUtf8(process.readAllStandardOutput());
        run.err = QString::fromUtf8(process.readAllStandardError());
        return run;
    }

    bool ok() const { return finished && exitStatus == QProcess::NormalExit && exitCode == 0; }
    QString report() const
    {
        return QStringLiteral("exit %1 (%2)\n--- stdout\n%3\n--- stderr (tail)\n%4")
            .arg(exitCode)
            .arg(finished ? QStringLiteral("finished") : QStringLiteral("killed"))
            .arg(out.right(4000), err.right(3000));
    }
};
