#include "debuglines.h"

#include <threadlauncher.h>

#include <QAtomicInt>
#include <QTest>
#include <QThread>

// Says where it ran, then goes; a slot rather than a lambda keeps the call free of state that two
// threads share.
class Probe : public QObject
{
    Q_OBJECT

public:
    static QAtomicPointer<QThread> pinged;

public slots:
    void ping()
    {
        pinged.storeRelease(QThread::currentThread());
        deleteLater();
    }
};

QAtomicPointer<QThread> Probe::pinged;

class tst_ThreadLauncher : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { DebugLines::install(); }

    void placeAtAndThreadAt()
    {
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

        // Each runs an event loop: queued calls reach objects moved there.
        auto *probe = new Probe;
        probe->moveToThread(fourth);
        QMetaObject::invokeMethod(probe, "ping", Qt::QueuedConnection);
        QTRY_COMPARE(Probe::pinged.loadAcquire(), fourth);
    }

    // Idle threads leave their loops when asked; only one stuck in a slot is terminated, with the
    // debug line, and waited for. The propagator thread ends too, with or without an owner.
    void endsThreadsWithTheLauncher_data()
    {
        QTest::addColumn<bool>("owned");
        QTest::addColumn<bool>("stuck");
        QTest::newRow("idle") << true << false;
        QTest::newRow("idle, no owner") << false << false;
        QTest::newRow("one stuck in a slot") << true << true;
    }

    void endsThreadsWithTheLauncher()
    {
        QFETCH(bool, owned);
        QFETCH(bool, stuck);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        // Termination unwinds the thread with pthread_cancel; the sanitizers lose track of the
        // unwinding stack and abort at random. The normal build runs this case.
        if (stuck)
            QSKIP("thread termination is not supported under the sanitizers");
#endif
        DebugLines::clear();
        QObject owner;
        auto *launcher = new ThreadLauncher(owned ? &owner : nullptr);
        QThread *ppg = launcher->getPpgThread();
        QThread *worker = launcher->placeAt(1);
        QVERIFY(ppg != worker && ppg != launcher->threadAt(0));

        QObject sleeper;
        QAtomicInt entered;
        if (stuck) {
            sleeper.moveToThread(worker);
            QMetaObject::invokeMethod(
                &sleeper,
                [&entered] {
                    entered.storeRelease(1);
                    for (;;)
                        QThread::msleep(5);
                },
                Qt::QueuedConnection);
            QTRY_VERIFY(entered.loadAcquire());
        }

        // The module loops go with the launcher, and deleting a QThread that still runs aborts:
        // getting past this line means they have ended.
        delete launcher;
        if (owned)
            QVERIFY(ppg->isFinished());
        QCOMPARE(DebugLines::all().filter("terminate thread").size(), stuck ? 1 : 0);
    }
};

QTEST_GUILESS_MAIN(tst_ThreadLauncher)
#include "tst_threadlauncher.moc"
