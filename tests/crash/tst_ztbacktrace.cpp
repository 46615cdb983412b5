#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

#include <sys/resource.h>

// Runs crash_helper once per fault and checks what a host's user would see: the report on
// standard error, and an exit by the signal that caused it.
class tst_ZtBacktrace : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void reportsFault_data();
    void reportsFault();

private:
    QTemporaryDir stubDir;
};

void tst_ZtBacktrace::initTestCase()
{
    // Every child dies by a signal; keep them from writing core files all over the build tree.
    struct rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    // An addr2line that shows the command line it was given.
    QVERIFY(stubDir.isValid());
    QFile stub(stubDir.filePath("addr2line"));
    QVERIFY(stub.open(QIODevice::WriteOnly));
    stub.write("#!/bin/sh\necho \"addr2line-args: $*\"\n");
    stub.close();
    QVERIFY(stub.setPermissions(QFile::ReadOwner | QFile::ExeOwner));
}

void tst_ZtBacktrace::reportsFault_data()
{
    QTest::addColumn<QString>("install");
    QTest::addColumn<QString>("fault");
    QTest::addColumn<int>("signal");
    QTest::addColumn<QString>("error");
    // Faults: the function that the first frame names (after the C library's frames for an
    // abort). Stack overflows: what addr2line prints, and what it must not.
    QTest::addColumn<QString>("expected");
    QTest::addColumn<QString>("absent");

    const struct
    {
        const char *row, *install, *fault;
        int signal;
        const char *error, *expected, *absent;
    } rows[] = {
        {"access violation", "named", "access", SIGSEGV, "ACCESS_VIOLATION", "faultAccessViolation",
         ""},
        {"integer division by zero", "named", "intdiv", SIGFPE, "INT_DIVIDE_BY_ZERO",
         "faultIntegerDivision", ""},
        {"float division by zero", "named", "fltdiv", SIGFPE, "FLT_DIVIDE_BY_ZERO",
         "faultFloatDivision", ""},
        {"illegal instruction", "named", "illegal", SIGILL, "ILLEGAL_INSTRUCTION",
         "faultIllegalInstruction", ""},
        {"page of a truncated file", "named", "bus", SIGBUS, "IN_PAGE_ERROR", "faultBusError", ""},
        {"breakpoint", "named", "breakpoint", SIGTRAP, "BREAKPOINT", "faultBreakpoint", ""},
        {"abort", "named", "abort", SIGABRT, nullptr, "faultAbort", ""},
        {"fatal Qt message", "named", "qfatal", SIGABRT, nullptr, "faultQtFatal", ""},
        {"worker thread", "named", "stdthread", SIGSEGV, "ACCESS_VIOLATION", "faultOnStdThread",
         ""},
        {"inside a module library", "named", "module", SIGSEGV, "ACCESS_VIOLATION",
         "crashInsideModule", ""},
        {"installed without a program name", "anonymous", "access", SIGSEGV, "ACCESS_VIOLATION",
         "faultAccessViolation", ""},
        // addr2line names the function only if given the address relative to the load base.
        {"stack overflow", "named", "overflow", SIGSEGV, "STACK_OVERFLOW", "recurseForever", "??"},
        {"stack overflow on a worker thread", "named", "threadoverflow", SIGSEGV, "STACK_OVERFLOW",
         "recurseForever", "??"},
        {"stack overflow, program name cut to 256 characters", "longname", "overflow", SIGSEGV,
         "STACK_OVERFLOW", "addr2line-args: -f -p -e nnn", "-cut-here"},
        // No name was given and none is made up, so the tool cannot name the function.
        {"stack overflow without a program name", "anonymous", "overflow", SIGSEGV,
         "STACK_OVERFLOW", "", "recurseForever"},
    };
    for (const auto &r : rows) {
        QString expected = r.expected;
        if (qstrcmp(r.install, "longname") == 0)
            expected = expected.replace("nnn", QString(256, 'n')) + " 0x";
        QTest::newRow(r.row) << r.install << r.fault << r.signal
                             << (r.error ? "Error: EXCEPTION_" + QString(r.error)
                                         : QString("Error: Unrecognized Exception"))
                             << expected << r.absent;
    }
}

void tst_ZtBacktrace::reportsFault()
{
    QFETCH(QString, install);
    QFETCH(QString, fault);
    QFETCH(int, signal);
    QFETCH(QString, error);
    QFETCH(QString, expected);
    QFETCH(QString, absent);

    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    // Keep the sanitizer runtime off these signals and the alternate stack.
    env.insert("ASAN_OPTIONS",
               "handle_segv=0:handle_abort=0:handle_sigfpe=0:handle_sigill=0:handle_sigbus=0:"
               "handle_sigtrap=0:use_sigaltstack=0:detect_leaks=0");
    if (install == "longname")
        env.insert("PATH", stubDir.path() + ':' + env.value("PATH"));
    QProcess child;
    child.setProcessEnvironment(env);
    // Merged, so the external tool's output lands between the handler's lines.
    child.setProcessChannelMode(QProcess::MergedChannels);
    child.start(CRASH_HELPER, {install, fault});
    QVERIFY(child.waitForFinished(120000));
    const QString output = QString::fromLocal8Bit(child.readAll());
    const QByteArray bytes = output.toLocal8Bit();
    const char *report = bytes.constData();
    QVERIFY2(child.exitStatus() == QProcess::CrashExit, report);
    QCOMPARE(child.exitCode(), signal); // QProcess's exit code of a crash is the signal

    // The error line, then the header right after it, then the trace, then the footer.
    const bool overflow = error.endsWith("STACK_OVERFLOW");
    const QString header = "==== STACK TRACE ====\n";
    const QString footer
        = overflow ? "==== STACK TRACE UNAVAILABLE ====\n" : "==== STACK TRACE DONE ====\n";
    const int at = output.indexOf(error + '\n');
    QVERIFY2(at >= 0 && output.indexOf(header) == at + error.size() + 1, report);
    const int start = at + error.size() + 1 + header.size();
    const int end = output.indexOf(footer, start);
    QVERIFY2(end >= 0, report);
    const QString trace = output.mid(start, end - start);

    if (overflow) {
        QVERIFY2(trace.contains(expected) && !trace.contains(absent), report);
        QVERIFY2(!output.contains("STACK TRACE DONE"), report);
        return;
    }
    const QStringList frames = trace.split('\n', Qt::SkipEmptyParts);
    QVERIFY2(frames.size() >= 2, report);
    for (const QString &frame : frames)
        QVERIFY2(QRegularExpression("^0x[0-9a-f]{8,}( \\S.*)?$").match(frame).hasMatch(),
                 qPrintable(frame));
    const QRegularExpression named("\\b" + expected + "\\b");
    QVERIFY2((signal == SIGABRT ? trace : frames.first()).contains(named), report);
    // The walk goes on to main, except on a worker thread.
    if (!fault.contains("thread"))
        QVERIFY2(trace.indexOf(QRegularExpression("0x[0-9a-f]+ main\\b"), trace.indexOf(named)) > 0,
                 report);
}

QTEST_GUILESS_MAIN(tst_ZtBacktrace)
#include "tst_ztbacktrace.moc"
