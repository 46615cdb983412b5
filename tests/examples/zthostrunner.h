#pragma once

#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

// Runs zthost (or xvfb-run zthost) to the end in `workDir`, where its log file lands.
struct ZtHostRun
{
    bool finished = false;
    int exitCode = -1;
    QString out;
    QString err;

    ZtHostRun() = default;
    ZtHostRun(const QString &program, const QStringList &args, const QString &workDir,
              const QProcessEnvironment &env)
    {
        QProcess process;
        process.setWorkingDirectory(workDir);
        process.setProcessEnvironment(env);
        process.start(program, args);
        // A hang guard, generous for the sanitizer build; not a speed check.
        finished = process.waitForFinished(120000) && process.exitStatus() == QProcess::NormalExit;
        if (!finished)
            process.kill();
        process.waitForFinished();
        exitCode = process.exitCode();
        out = QString::fromUtf8(process.readAllStandardOutput());
        err = QString::fromUtf8(process.readAllStandardError());
    }

    bool ok() const { return finished && exitCode == 0; }
    QString report() const
    {
        return QString("exit %1%2\n--- stdout\n%3\n--- stderr (tail)\n%4")
            .arg(exitCode)
            .arg(finished ? "" : " (killed or crashed)", out.right(4000), err.right(3000));
    }
};
