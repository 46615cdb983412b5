#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

#include <sys/resource.h>

// Runs crash_helper once per fault and reads what a host's user would see: the report on standard
// error, and an exit by the signal that caused it.
class tst_ZtBacktrace : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void reportsFault_data();
    void reportsFault();
    void reportsStackOverflow_data();
    void reportsStackOverflow();

private:
    struct Child
    {
        QString output;
        QProcess::ExitStatus status = QProcess::NormalExit;
        int exitCode = -1;
    };
    Child runHelper(const QString &install, const QString &fault, bool stubAddr2line);
    // The text between the "==== STACK TRACE ====" line and the footer, or a null string when the
    // header, the footer or the error line before them is missing or out of order.
    static QString traceBetween(const QString &output, const QString &errorLine,
                                const QString &footer);

    QTemporaryDir stubDir;
};

void tst_ZtBacktrace::initTestCase()
{
    QVERIFY(QFileInfo(QStringLiteral(CRASH_HELPER)).isExecutable());
    // Every child dies by a signal; keep them from writing core files all over the build tree.
    struct rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);

    // An addr2line that shows the command line it was given, to check what the handler passes.
    QVERIFY(stubDir.isValid());
    QFile stub(stubDir.filePath(QStringLiteral("addr2line")));
    QVERIFY(stub.open(QIODevice::WriteOnly));
    stub.write("#!/bin/sh\necho \"addr2line-args: $*\"\n");
    stub.close();
    QVERIFY(stub.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
}

tst_ZtBacktrace::Child tst_ZtBacktrace::runHelper(const QString &install, const QString &fault,
                                                  bool stubAddr2line)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    // In the sanitizer build the runtime would otherwise claim these signals (and the alternate
    // stack) for its own reports; the handler under test must get them.
    env.insert(QStringLiteral("ASAN_OPTIONS"),
               QStringLiteral("handle_segv=0:handle_abort=0:handle_sigfpe=0:handle_sigill=0:"
                              "handle_sigbus=0:handle_sigtrap=0:use_sigaltstack=0:"
                              "detect_leaks=0"));
    if (stubAddr2line)
        env.insert(QStringLiteral("PATH"),
                   stubDir.path() + QLatin1Char(':') + env.value(QStringLiteral("PATH")));

    QProcess process;
    process.setProcessEnvironment(env);
    // Merged, so the external tool's standard output lands between the handler's lines.
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral(CRASH_HELPER), {install, fault});
    Child child;
    if (!process.waitForFinished(120000)) {
        process.kill();
        process.waitForFinished();
        child.output = QStringLiteral("<timed out>");
        return child;
    }
    child.output = QString::fromLocal8Bit(process.readAll());
    child.status = process.exitStatus();
    // For a child killed by a signal QProcess reports the signal's number as the exit code.
    child.exitCode = process.exitCode();
    return child;
}

QString tst_ZtBacktrace::traceBetween(const QString &output, const QString &errorLine,
                                      const QString &footer)
{
    const QString header = QStringLiteral("==== STACK TRACE ====\n");
    const int error = output.indexOf(errorLine + QLatin1Char('\n'));
    const int start = output.indexOf(header, error);
    const int end = output.indexOf(footer + QLatin1Char('\n'), start);
    if (error < 0 || start != error + errorLine.size() + 1 || end < 0)
        return QString();
    return output.mid(start + header.size(), end - start - header.size());
}

void tst_ZtBacktrace::reportsFault_data()
{
    QTest::addColumn<QString>("install");
    QTest::addColumn<QString>("fault");
    QTest::addColumn<int>("signal");
    QTest::addColumn<QString>("errorLine");
    // The function that faulted, named by the first frame of the trace when faultingFrameFirst
    // (for an abort the first frames are the C library's), and a function further out that the
    // walk must reach.
    QTest::addColumn<QString>("function");
    QTest::addColumn<bool>("faultingFrameFirst");
    QTest::addColumn<QString>("outerFunction");

    const QString named = QStringLiteral("named");
    QTest::newRow("access violation")
        << named << "access" << SIGSEGV << "Error: EXCEPTION_ACCESS_VIOLATION"
        << "faultAccessViolation" << true << "main";
    QTest::newRow("integer division by zero")
        << named << "intdiv" << SIGFPE << "Error: EXCEPTION_INT_DIVIDE_BY_ZERO"
        << "faultIntegerDivision" << true << "main";
    QTest::newRow("float division by zero")
        << named << "fltdiv" << SIGFPE << "Error: EXCEPTION_FLT_DIVIDE_BY_ZERO"
        << "faultFloatDivision" << true << "main";
    QTest::newRow("illegal instruction")
        << named << "illegal" << SIGILL << "Error: EXCEPTION_ILLEGAL_INSTRUCTION"
        << "faultIllegalInstruction" << true << "main";
    QTest::newRow("page of a truncated file")
        << named << "bus" << SIGBUS << "Error: EXCEPTION_IN_PAGE_ERROR"
        << "faultBusError" << true << "main";
    QTest::newRow("breakpoint") << named << "breakpoint" << SIGTRAP << "Error: EXCEPTION_BREAKPOINT"
                                << "faultBreakpoint" << true << "main";
    QTest::newRow("abort") << named << "abort" << SIGABRT << "Error: Unrecognized Exception"
                           << "faultAbort" << false << "main";
    QTest::newRow("fatal Qt message")
        << named << "qfatal" << SIGABRT << "Error: Unrecognized Exception"
        << "faultQtFatal" << false << "main";
    QTest::newRow("std::thread worker")
        << named << "stdthread" << SIGSEGV << "Error: EXCEPTION_ACCESS_VIOLATION"
        << "faultOnStdThread" << true << "";
    QTest::newRow("QThread worker")
        << named << "qthread" << SIGSEGV << "Error: EXCEPTION_ACCESS_VIOLATION"
        << "faultOnQThread" << true << "";
    QTest::newRow("inside a module library")
        << named << "module" << SIGSEGV << "Error: EXCEPTION_ACCESS_VIOLATION"
        << "crashInsideModule" << true << "main";
    QTest::newRow("installed without a program name")
        << "anonymous"
        << "access" << SIGSEGV << "Error: EXCEPTION_ACCESS_VIOLATION"
        << "faultAccessViolation" << true << "main";
}

void tst_ZtBacktrace::reportsFault()
{
    QFETCH(QString, install);
    QFETCH(QString, fault);
    QFETCH(int, signal);
    QFETCH(QString, errorLine);
    QFETCH(QString, function);
    QFETCH(bool, faultingFrameFirst);
    QFETCH(QString, outerFunction);

    const Child child = runHelper(install, fault, false);
    const QByteArray output = child.output.toLocal8Bit();

    QVERIFY2(child.status == QProcess::CrashExit, output.constData());
    QCOMPARE(child.exitCode, signal);

    const QString trace
        = traceBetween(child.output, errorLine, QStringLiteral("==== STACK TRACE DONE ===="));
    QVERIFY2(!trace.isNull(), output.constData());

    const QStringList frames = trace.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    QVERIFY2(frames.size() >= 2, output.constData());
    const QRegularExpression frameLine(QStringLiteral("^0x[0-9a-f]{8,}( \\S.*)?$"));
    for (const QString &frame : frames)
        QVERIFY2(frameLine.match(frame).hasMatch(), qPrintable(frame));

    const QRegularExpression named(QStringLiteral("\\b%1\\b").arg(function));
    if (faultingFrameFirst)
        QVERIFY2(frames.first().contains(named), output.constData());
    else
        QVERIFY2(trace.contains(named), output.constData());
    if (!outerFunction.isEmpty()) {
        const int at = trace.indexOf(named);
        const QRegularExpression outer(QStringLiteral("0x[0-9a-f]+ %1\\b").arg(outerFunction));
        QVERIFY2(trace.indexOf(outer, at + function.size()) > at, output.constData());
    }
}

void tst_ZtBacktrace::reportsStackOverflow_data()
{
    QTest::addColumn<QString>("install");
    QTest::addColumn<QString>("fault");
    QTest::addColumn<bool>("stubAddr2line");
    // What addr2line must print between the header and the footer, and what it must not.
    QTest::addColumn<QString>("expected");
    QTest::addColumn<QString>("absent");

    // The real tool names the recursing function only if it got the address relative to the
    // position-independent executable's load base.
    QTest::newRow("main thread") << "named"
                                 << "overflow" << false << "recurseForever"
                                 << "??";
    QTest::newRow("worker thread with its own signal stack")
        << "named"
        << "threadoverflow" << false << "recurseForever"
        << "??";
    QTest::newRow("program name cut to 256 characters")
        << "longname"
        << "overflow" << true
        << QStringLiteral("addr2line-args: -f -p -e %1 0x").arg(QString(256, QLatin1Char('n')))
        << "-cut-here";
    // No name was given and none is made up, so the tool cannot name the function.
    QTest::newRow("installed without a program name") << "anonymous"
                                                      << "overflow" << false << ""
                                                      << "recurseForever";
}

void tst_ZtBacktrace::reportsStackOverflow()
{
    QFETCH(QString, install);
    QFETCH(QString, fault);
    QFETCH(bool, stubAddr2line);
    QFETCH(QString, expected);
    QFETCH(QString, absent);

    const Child child = runHelper(install, fault, stubAddr2line);
    const QByteArray output = child.output.toLocal8Bit();

    QVERIFY2(child.status == QProcess::CrashExit, output.constData());
    QCOMPARE(child.exitCode, int(SIGSEGV));
    const QString trace
        = traceBetween(child.output, QStringLiteral("Error: EXCEPTION_STACK_OVERFLOW"),
                       QStringLiteral("==== STACK TRACE UNAVAILABLE ===="));
    QVERIFY2(!trace.isNull(), output.constData());
    QVERIFY2(trace.contains(expected), output.constData());
    QVERIFY2(!trace.contains(absent), output.constData());
    QVERIFY2(!child.output.contains(QLatin1String("STACK TRACE DONE")), output.constData());
}

QTEST_GUILESS_MAIN(tst_ZtBacktrace)
#include "tst_ztbacktrace.moc"
