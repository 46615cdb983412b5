#pragma once

#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>

// How one zthost run ended (exit code -1: killed or crashed).
struct HostedRun
{
    int exitCode = -1;
    QString out;
    QString err;

    bool ok() const { return exitCode == 0; }
    QString report() const
    {
        return QString("exit %1\n--- stdout\n%2\n--- stderr (tail)\n%3")
            .arg(QString::number(exitCode), out.right(4000), err.right(3000));
    }
};

// zthost (the test's ZTHOST) as a child process, started in `dir` with its state file there,
// so that its log and state files land there too. Without a display it chooses the offscreen
// platform by itself; with `onDisplay` it runs on a virtual X display through xvfb-run. Its
// standard output (every log line) is collected as it comes, so that a test can wait for what a
// module says.
class HostedZtHost
{
public:
    static QString xvfbRun() { return QStandardPaths::findExecutable("xvfb-run"); }

    HostedZtHost(const QString &dir, const QStringList &args, bool onDisplay = false)
    {
        QDir().mkpath(dir);
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        for (const char *variable : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
            env.remove(variable);
        // No session bus and no GL driver: both lie outside these tests and leak under the
        // sanitizers.
        env.insert("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent");
        env.insert("QT_XCB_GL_INTEGRATION", "none");
        process.setProcessEnvironment(env);
        process.setWorkingDirectory(dir);
        const QStringList all = QStringList {"--state", dir + "/state.ini"} + args;
        if (onDisplay)
            process.start(xvfbRun(),
                          QStringList {"-a", "-s", "-screen 0 1280x1024x24", ZTHOST} + all);
        else
            process.start(ZTHOST, all);
        process.waitForStarted();
    }
    ~HostedZtHost() { kill(); }

    QString output()
    {
        run.out += QString::fromUtf8(process.readAllStandardOutput());
        run.err += QString::fromUtf8(process.readAllStandardError());
        return run.out;
    }
    // Waits until the output matches (from `from` on) and returns the match; an empty match
    // after `ms` or when the process ended without it. A hang guard, not a speed check.
    QRegularExpressionMatch waitFor(const QString &pattern, int ms = 60000, int from = 0)
    {
        const QRegularExpression re(pattern);
        QElapsedTimer clock;
        clock.start();
        for (;;) {
            const QRegularExpressionMatch m = re.match(output(), from);
            if (m.hasMatch() || clock.elapsed() > ms)
                return m;
            if (process.state() == QProcess::NotRunning)
                return re.match(output(), from);
            process.waitForReadyRead(100);
        }
    }
    void kill()
    {
        if (process.state() != QProcess::NotRunning) {
            process.kill();
            process.waitForFinished();
        }
        output();
    }
    // Waits for the end, killing the process after `ms` (a hang guard, generous for the
    // sanitizer build; not a speed check).
    HostedRun finish(int ms = 120000)
    {
        if (process.waitForFinished(ms) && process.exitStatus() == QProcess::NormalExit)
            run.exitCode = process.exitCode();
        kill();
        return run;
    }

private:
    QProcess process;
    HostedRun run;
};

inline HostedRun runHosted(const QString &dir, const QStringList &args, bool onDisplay = false)
{
    return HostedZtHost(dir, args, onDisplay).finish();
}
