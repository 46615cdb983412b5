#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

#include <sys/resource.h>

// Runs crash_helper once per fault and checks what a host's user would see: the report on
// standard error, and an exit by the signal that caused it. The helper runs from a folder whose
// name a shell would split and execute; nothing may come of that.
class tst_ZtBacktrace : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void reportsFault_data();
    void reportsFault();

private:
    QTemporaryDir workDir;
    QString helper;
};

void tst_ZtBacktrace::initTestCase()
{
    // Every child dies by a signal; keep them from writing core files all over the build tree.
    struct rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    QVERIFY(workDir.isValid());
    const QString oddDir = workDir.filePath("dir with blank; touch pwned; :");
    helper = oddDir + "/crash_helper";
    QVERIFY(QDir().mkpath(oddDir) && QFile::copy(CRASH_HELPER, helper));
    // An addr2line that shows the arguments it was given.
    QVERIFY(QDir().mkpath(workDir.filePath("stub")));
    QFile stub(workDir.filePath("stub/addr2line"));
    QVERIFY(stub.open(QIODevice::WriteOnly));
    stub.write("#!/bin/sh\necho \"addr2line-args: $*\"\n");
    stub.close();
    QVERIFY(stub.setPermissions(QFile::ReadOwner | QFile::ExeOwner));
}

void tst_ZtBacktrace::reportsFault_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QString>("name"); // as the helper installs it: empty for its own path
    QTest::addColumn<int>("signal");
    QTest::addColumn<QString>("error");
    // Faults: the function that the first frame names (after the C library's frames for an
    // abort). Stack overflows: what addr2line prints.
    QTest::addColumn<QString>("expected");
    // The faulting thread's system name in the line after the error line.
    QTest::addColumn<QString>("thread");

    const auto row
        = [](const char *tag, const char *fault, const QString &name, int signal, const char *error,
             const char *expected, const char *thread = "crash_helper") {
              QTest::newRow(tag) << fault << name << signal << "Error: " + QString(error)
                                 << expected << thread;
          };
    row("access violation", "access", "", SIGSEGV, "EXCEPTION_ACCESS_VIOLATION",
        "faultAccessViolation");
    row("integer division by zero", "intdiv", "", SIGFPE, "EXCEPTION_INT_DIVIDE_BY_ZERO",
        "faultIntegerDivision");
    row("illegal instruction", "illegal", "", SIGILL, "EXCEPTION_ILLEGAL_INSTRUCTION",
        "faultIllegalInstruction");
    row("page of a truncated file", "bus", "", SIGBUS, "EXCEPTION_IN_PAGE_ERROR", "faultBusError");
    row("abort", "abort", "", SIGABRT, "Unrecognized Exception", "faultAbort");
    row("worker thread", "stdthread", "", SIGSEGV, "EXCEPTION_ACCESS_VIOLATION",
        "faultOnStdThread");
    // "zt1 generator,gain", cut to the 15 bytes the system keeps.
    row("launcher thread named after its modules", "namedthread", "", SIGSEGV,
        "EXCEPTION_ACCESS_VIOLATION", "faultOnStdThread", "zt1 generator,g");
    row("inside a module library, no program name", "module", "-", SIGSEGV,
        "EXCEPTION_ACCESS_VIOLATION", "crashInsideModule");
    // addr2line names the function only if given the address relative to the load base.
    row("stack overflow", "overflow", "", SIGSEGV, "EXCEPTION_STACK_OVERFLOW", "recurseForever");
    row("stack overflow on a worker thread", "threadoverflow", "", SIGSEGV,
        "EXCEPTION_STACK_OVERFLOW", "recurseForever");
    row("stack overflow, program name cut to 256 characters", "overflow",
        QString(256, 'n') + "-cut-here", SIGSEGV, "EXCEPTION_STACK_OVERFLOW",
        "addr2line-args: -f -p -e n{256} 0x");
    // No name was given and none is made up, so the tool cannot name the function.
    row("stack overflow without a program name", "overflow", "-", SIGSEGV,
        "EXCEPTION_STACK_OVERFLOW", "^(?![\\s\\S]*recurseForever)");
}

void tst_ZtBacktrace::reportsFault()
{
    QFETCH(QString, fault);
    QFETCH(QString, name);
    QFETCH(int, signal);
    QFETCH(QString, error);
    QFETCH(QString, expected);
    QFETCH(QString, thread);

    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    // Keep the sanitizer runtime off these signals and the alternate stack.
    env.insert("ASAN_OPTIONS",
               "handle_segv=0:handle_abort=0:handle_sigfpe=0:handle_sigill=0:handle_sigbus=0:"
               "handle_sigtrap=0:use_sigaltstack=0:detect_leaks=0");
    if (name.size() > 256)
        env.insert("PATH", workDir.filePath("stub") + ':' + env.value("PATH"));
    QProcess child;
    child.setProcessEnvironment(env);
    child.setWorkingDirectory(workDir.path());
    // Merged, so the external tool's output lands between the handler's lines.
    child.setProcessChannelMode(QProcess::MergedChannels);
    child.start(helper, name.isEmpty() ? QStringList {fault} : QStringList {fault, name});
    QVERIFY(child.waitForStarted());
    const qint64 pid = child.processId();
    QVERIFY(child.waitForFinished(120000));
    const QByteArray report = child.readAll();
    QVERIFY2(child.exitStatus() == QProcess::CrashExit, report);
    QCOMPARE(child.exitCode(), signal); // QProcess's exit code of a crash is the signal
    QVERIFY(!QFile::exists(workDir.filePath("pwned")));

    // The error line, the thread line, the header, the trace, the footer. The main thread's id
    // is the process id; any other thread's is not.
    const bool overflow = error.endsWith("STACK_OVERFLOW");
    const QRegularExpressionMatch match
        = QRegularExpression("(?:^|\n)" + QRegularExpression::escape(error)
                             + "\nthread: " + QRegularExpression::escape(thread)
                             + " \\(tid (\\d+)\\)\n==== STACK TRACE ====\n([\\s\\S]*?)"
                               "==== STACK TRACE "
                             + (overflow ? "UNAVAILABLE" : "DONE") + " ====\n")
              .match(QString::fromLocal8Bit(report));
    QVERIFY2(match.hasMatch(), report);
    QCOMPARE(match.captured(1).toLongLong() == pid, !fault.contains("thread"));
    const QString trace = match.captured(2);
    if (overflow) {
        QVERIFY2(trace.contains(QRegularExpression(expected)), report);
        return;
    }
    const QStringList frames = trace.split('\n', Qt::SkipEmptyParts);
    QVERIFY2(frames.size() >= 2, report);
    for (const QString &frame : frames)
        QVERIFY2(QRegularExpression("^0x[0-9a-f]{8,}( \\S.*)?$").match(frame).hasMatch(),
                 qPrintable(frame));
    QVERIFY2((signal == SIGABRT ? trace : frames.first()).contains(expected), report);
    // The walk goes on to main, except on a worker thread.
    if (!fault.contains("thread"))
        QVERIFY2(trace.indexOf(QRegularExpression("0x[0-9a-f]+ main\\b"), trace.indexOf(expected))
                     > 0,
                 report);
}

QTEST_GUILESS_MAIN(tst_ZtBacktrace)
#include "tst_ztbacktrace.moc"
