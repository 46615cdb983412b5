#include <threadlauncher.h>
#include <threadloop.h>

#include <QAtomicInt>
#include <QMutex>
#include <QStringList>
#include <QTest>
#include <QThread>

#include <memory>

namespace {

// Collects debug lines so that the tests can see what the launcher reports at shutdown.
QMutex messagesMutex;
QStringList messages;
QtMessageHandler previousHandler = nullptr;

void collectMessages(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    {
        QMutexLocker locker(&messagesMutex);
        messages.append(text);
    }
    if (previousHandler)
        previousHandler(type, context, text);
}

int countMessages(const QString &prefix)
{
    QMutexLocker locker(&messagesMutex);
    int n = 0;
    for (const QString &m : qAsConst(messages))
        n += m.startsWith(prefix) ? 1 : 0;
    return n;
}

// Runs a slot in a worker thread that only returns when told to, or never.
class Sleeper : public QObject
{
    Q_OBJECT
public:
    QAtomicInt entered {0};
    QAtomicInt release {0};

public slots:
    void block()
    {
        entered.storeRelease(1);
        while (!release.loadAcquire())
            QThread::msleep(5);
    }
};

} // namespace

class tst_ThreadLauncher : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { previousHandler = qInstallMessageHandler(collectMessages); }
    void init()
    {
        QMutexLocker locker(&messagesMutex);
        messages.clear();
    }

    void placeAtCreatesThreadsOnDemand()
    {
        QObject owner;
        auto *launcher = new ThreadLauncher(&owner);

        QThread *first = launcher->placeAt(0);
        QVERIFY(first);
        QCOMPARE(launcher->threadCount(), 1);
        QVERIFY(first->isRunning());
        QVERIFY(first != QThread::currentThread());
        QCOMPARE(launcher->placeAt(0), first);
        QCOMPARE(launcher->threadCount(), 1);

        QThread *third = launcher->placeAt(2);
        QCOMPARE(launcher->threadCount(), 3);
        QCOMPARE(launcher->threadAt(2), third);
        QVERIFY(launcher->threadAt(1) != first && launcher->threadAt(1) != third);
        QVERIFY(launcher->threadAt(1)->isRunning());
    }

    void placeAtThreeOnFreshLauncherCreatesFour()
    {
        QObject owner;
        auto *launcher = new ThreadLauncher(&owner);
        launcher->placeAt(3);
        QCOMPARE(launcher->threadCount(), 4);
        QSet<QThread *> distinct;
        for (int i = 0; i < 4; ++i)
            distinct.insert(launcher->threadAt(i));
        QCOMPARE(distinct.size(), 4);
    }

    void negativeNumbersAndUnknownNumbers()
    {
        QObject owner;
        auto *launcher = new ThreadLauncher(&owner);
        QCOMPARE(launcher->placeAt(-1), launcher->thread());
        QCOMPARE(launcher->threadAt(-1), owner.thread());
        QCOMPARE(launcher->threadAt(0), nullptr);
        QCOMPARE(launcher->threadAt(7), nullptr);
        QCOMPARE(launcher->threadCount(), 0);
    }

    void objectsMovedToAThreadRunThere()
    {
        QObject owner;
        auto *launcher = new ThreadLauncher(&owner);
        QThread *worker = launcher->placeAt(1);

        QObject probe;
        probe.moveToThread(worker);
        QThread *ranIn = nullptr;
        QMetaObject::invokeMethod(
            &probe, [&ranIn] { ranIn = QThread::currentThread(); }, Qt::BlockingQueuedConnection);
        QCOMPARE(ranIn, worker);
        QThread *home = QThread::currentThread();
        QMetaObject::invokeMethod(
            &probe, [&probe, home] { probe.moveToThread(home); }, Qt::BlockingQueuedConnection);
    }

    void propagatorThreadIsSeparateAndAnnounced()
    {
        QObject owner;
        auto *launcher = new ThreadLauncher(&owner);
        QThread *ppg = launcher->getPpgThread();
        QVERIFY(ppg);
        QVERIFY(ppg->isRunning());
        QVERIFY(ppg != QThread::currentThread());
        QThread *module = launcher->placeAt(0);
        QVERIFY(module != ppg);
    }

    void idleThreadsEndWithoutTermination()
    {
        {
            QObject owner;
            auto *launcher = new ThreadLauncher(&owner);
            launcher->placeAt(2);
            launcher->getPpgThread();
            // The module threads go with the launcher: count their ends as they happen.
            int finished = 0;
            for (int i = 0; i < 3; ++i)
                connect(
                    launcher->threadAt(i), &QThread::finished, this, [&finished] { ++finished; },
                    Qt::DirectConnection);
            delete launcher;
            QCOMPARE(finished, 3);
        }
        QCOMPARE(countMessages(QStringLiteral("terminate thread")), 0);
    }

    void stuckThreadIsTerminatedAndWaitedFor()
    {
        QObject owner;
        auto *launcher = new ThreadLauncher(&owner);
        QThread *worker = launcher->placeAt(0);
        QThread *idle = launcher->placeAt(1);
        int finished = 0;
        for (QThread *t : {worker, idle})
            connect(
                t, &QThread::finished, this, [&finished] { ++finished; }, Qt::DirectConnection);

        auto *sleeper = new Sleeper;
        sleeper->moveToThread(worker);
        QMetaObject::invokeMethod(sleeper, "block", Qt::QueuedConnection);
        QTRY_VERIFY(sleeper->entered.loadAcquire());

        delete launcher;
        QCOMPARE(finished, 2);
        QCOMPARE(countMessages(QStringLiteral("terminate thread")), 1);
        // The terminated thread never returned from the slot; its object is ours to delete.
        delete sleeper;
    }

    void launcherWithoutOwnerCleansUpItsPropagatorThread()
    {
        auto launcher = std::make_unique<ThreadLauncher>(nullptr);
        QThread *ppg = launcher->getPpgThread();
        QVERIFY(ppg->isRunning());
        launcher->placeAt(0);
        launcher.reset();
        QCOMPARE(countMessages(QStringLiteral("terminate thread")), 0);
    }
};

QTEST_GUILESS_MAIN(tst_ThreadLauncher)
#include "tst_threadlauncher.moc"
