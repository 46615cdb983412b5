#include "debuglines.h"
#include "tsanhandoff_p.h"

#include <threadlauncher.h>

#include <QAtomicInt>
#include <QCoreApplication>
#include <QFile>
#include <QProcess>
#include <QTest>
#include <QThread>

#include <cstdio>
#include <cstdlib>

#include <sys/syscall.h>
#include <unistd.h>

// The system's id of `thread` (a launcher thread with a running loop), asked inside it; 0 if it
// did not answer.
static long systemIdOf(QThread *thread)
{
    QAtomicInteger<long> tid;
    auto *inThread = new QObject;
    inThread->moveToThread(thread);
    postQueuedCall(inThread, [&tid, inThread] {
        tid.storeRelease(static_cast<long>(syscall(SYS_gettid)));
        inThread->deleteLater();
    });
    // A hang guard only.
    for (int i = 0; i < 10000 && tid.loadAcquire() == 0; ++i)
        QThread::msleep(1);
    return tid.loadAcquire();
}

static QByteArray systemNameOf(long tid)
{
    QFile comm(QStringLiteral("/proc/self/task/%1/comm").arg(tid));
    if (!comm.open(QIODevice::ReadOnly))
        return "(no comm)";
    return comm.readAll().trimmed();
}

// Run as a child process by stuckThreadsAtShutdown (ZT_LAUNCHER_CHILD set): thread 1 sleeps in
// a slot for ever (cancellable), thread 2 spins without a cancellation point (cannot be ended).
static int stuckChild()
{
    int argc = 1;
    char program[] = "tst_threadlauncher";
    char *argv[] = {program, nullptr};
    QCoreApplication app(argc, argv);
    auto *launcher = new ThreadLauncher;
    QObject sleeper;
    QObject spinner;
    sleeper.moveToThread(launcher->placeAt(1));
    spinner.moveToThread(launcher->placeAt(2));
    launcher->setThreadModules(1, {"gen", "gain"});
    launcher->setThreadModules(2, {"plot"});
    QAtomicInt entered;
    postQueuedCall(&sleeper, [&entered] {
        entered.fetchAndAddRelease(1);
        for (;;)
            QThread::msleep(5);
    });
    static volatile bool spin = true;
    postQueuedCall(&spinner, [&entered] {
        entered.fetchAndAddRelease(1);
        while (spin) { }
    });
    while (entered.loadAcquire() != 2)
        QThread::yieldCurrentThread();
    delete launcher;
    std::fprintf(stderr, "launcher gone\n");
    std::fflush(stderr);
    // The spinning thread still runs; leave without waiting for anything.
    std::_Exit(0);
}

class tst_ThreadLauncher : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { DebugLines::install(); }

    void placesThreadsAndEndsThem()
    {
        DebugLines::clear();
        QObject owner;
        auto *launcher = new ThreadLauncher(&owner);
        QCOMPARE(launcher->placeAt(-1), launcher->thread());
        QCOMPARE(launcher->threadAt(-1), owner.thread());

        QThread *first = launcher->placeAt(0);
        QVERIFY(first && first != QThread::currentThread());
        QCOMPARE(launcher->placeAt(0), first);
        QCOMPARE(launcher->threadCount(), 1);

        // Asking for thread 3 creates the missing ones in between.
        QThread *fourth = launcher->placeAt(3);
        QCOMPARE(launcher->threadCount(), 4);
        QCOMPARE(launcher->threadAt(3), fourth);
        QCOMPARE(launcher->threadAt(7), nullptr);
        QVERIFY(fourth != first && fourth != launcher->getPpgThread());
        // Each runs an event loop: a call posted there is answered.
        QVERIFY(systemIdOf(fourth) != 0);

        // Idle threads leave their loops when asked, nothing terminated, the propagator thread
        // too. Deleting a QThread that still runs aborts: getting past this line means they ended.
        QThread *ppg = launcher->getPpgThread();
        delete launcher;
        QVERIFY(ppg->isFinished());
        QCOMPARE(DebugLines::all().filter("terminat").size(), 0);
    }

    // Object and system names: set on a running thread, before the thread exists, changed, cut
    // to the system's 15 bytes but never inside a character.
    void threadNames_data()
    {
        QTest::addColumn<int>("number");
        QTest::addColumn<QStringList>("modules");
        QTest::addColumn<bool>("beforeStart");
        QTest::addColumn<QString>("objectName");
        QTest::addColumn<QByteArray>("systemName");
        QTest::newRow("two modules") << 2 << QStringList {"gen", "gain"} << false << "zt2 gen,gain"
                                     << QByteArray("zt2 gen,gain");
        QTest::newRow("named before the thread exists")
            << 1 << QStringList {"gen"} << true << "zt1 gen" << QByteArray("zt1 gen");
        QTest::newRow("no modules") << 0 << QStringList {} << false << "zt0" << QByteArray("zt0");
        QTest::newRow("cut to 15 bytes") << 1 << QStringList {"generator", "gain"} << false
                                         << "zt1 generator,gain" << QByteArray("zt1 generator,g");
        QTest::newRow("cut before a two-byte character")
            << 1 << QStringList {QString::fromUtf8("abcdefghij\xc3\xa9")} << false
            << QString::fromUtf8("zt1 abcdefghij\xc3\xa9") << QByteArray("zt1 abcdefghij");
    }

    void threadNames()
    {
        QFETCH(int, number);
        QFETCH(QStringList, modules);
        QFETCH(bool, beforeStart);
        QFETCH(QString, objectName);
        QFETCH(QByteArray, systemName);

        QObject owner;
        auto *launcher = new ThreadLauncher(&owner);
        QThread *ppg = launcher->getPpgThread();
        if (beforeStart)
            launcher->setThreadModules(number, modules);
        QThread *thread = launcher->placeAt(number);
        const long tid = systemIdOf(thread);
        if (!beforeStart) {
            // Renamed while running: the last name wins.
            launcher->setThreadModules(number, {"earlier"});
            launcher->setThreadModules(number, modules);
        }
        QCOMPARE(thread->objectName(), objectName);
        QTRY_COMPARE(systemNameOf(tid), systemName);
        QCOMPARE(ppg->objectName(), QString("zt propagators"));
        QCOMPARE(systemNameOf(systemIdOf(ppg)), QByteArray("zt propagators"));
        delete launcher;
    }

    // In a child process: both stuck threads are named with their modules before either is
    // terminated (they share one grace), the one that cannot be ended is left running, and the
    // process gets past the launcher.
    void stuckThreadsAtShutdown()
    {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        // Termination unwinds the thread with pthread_cancel; the sanitizers lose track of the
        // unwinding stack and abort at random. The normal build runs this case.
        QSKIP("thread termination is not supported under the sanitizers");
#endif
        QProcess child;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("ZT_LAUNCHER_CHILD", "stuck");
        child.setProcessEnvironment(env);
        child.start(QCoreApplication::applicationFilePath(), QStringList());
        // A hang guard, not a speed check.
        QVERIFY(child.waitForFinished(60000));
        const QString err = QString::fromLocal8Bit(child.readAllStandardError());
        QVERIFY2(child.exitStatus() == QProcess::NormalExit && child.exitCode() == 0,
                 qPrintable(err));
        const int first = err.indexOf("terminating thread 1 (zt1 gen,gain): modules gen, gain did "
                                      "not return to its event loop");
        const int second
            = err.indexOf("terminating thread 2 (zt2 plot): modules plot did not return to its "
                          "event loop");
        const int leftRunning = err.indexOf("thread 2 (zt2 plot) could not be ended; it is left "
                                            "running");
        QVERIFY2(first >= 0 && second > first && leftRunning > second, qPrintable(err));
        QVERIFY2(!err.contains("thread 1 (zt1 gen,gain) could not be ended"), qPrintable(err));
        QVERIFY2(err.indexOf("launcher gone") > leftRunning, qPrintable(err));
    }
};

int main(int argc, char **argv)
{
    if (qEnvironmentVariable("ZT_LAUNCHER_CHILD") == QLatin1String("stuck"))
        return stuckChild();
    QCoreApplication app(argc, argv);
    tst_ThreadLauncher test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_threadlauncher.moc"
