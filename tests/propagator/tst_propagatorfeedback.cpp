#include "propagatorfeedbackconcurrent.h"
#include "propagatorfeedbackdirect.h"
#include "propagatorfeedbacknull.h"
#include "propagatortest.h"

#include <QCoreApplication>
#include <QEvent>
#include <QSignalSpy>
#include <QTest>

#include <memory>

class tst_PropagatorFeedback : public QObject
{
    Q_OBJECT

private slots:
    void roundTrips_data();
    void roundTrips();
    void directWithoutServer();
    void directDeferredRead_data();
    void directDeferredRead();
    void concurrentDeferredRead();
    void concurrentTimeout_data();
    void concurrentTimeout();
    void concurrentRefusesWhileAnswerPending();
    void requestEvents_data();
    void requestEvents();
    void nullAnswersNothing();
};

void tst_PropagatorFeedback::roundTrips_data()
{
    QTest::addColumn<bool>("concurrent");
    QTest::newRow("direct, same thread") << false;
    QTest::newRow("concurrent, server in another thread") << true;
}

void tst_PropagatorFeedback::roundTrips()
{
    QFETCH(bool, concurrent);

    TestThread serverThread;
    std::unique_ptr<PropagatorFeedback> direct;
    PropagatorFeedback *p;
    if (concurrent) {
        p = new PropagatorFeedbackConcurrent;
        new Server(p);
        serverThread.adopt(p);
    } else {
        direct = std::make_unique<PropagatorFeedbackDirect>();
        p = direct.get();
        new Server(p);
    }
    QSignalSpy writes(p, &PropagatorFeedback::tryWrite);

    QCOMPARE(p->read(7), QByteArray("7"));
    QCOMPARE(p->readList(3), (QVariantList {3, 4}));
    QCOMPARE(p->write("21"), 42);
    QCOMPARE(p->writeList({7, "x"}), 21);
    QCOMPARE(p->read(-12), QByteArray("-12"));
    QCOMPARE(p->writeArray(sampleArray()), p->writeList(flatSample()));
    QVERIFY(p->readArray(-1) == ZtDataWrapper::convListToArray(p->readList(-1)));
    QVERIFY(p->waitForBytesWritten(0));
    QTRY_COMPARE(writes.count(), 1);
    QCOMPARE(writes.first().first().toByteArray(), QByteArray("21"));
}

void tst_PropagatorFeedback::directWithoutServer()
{
    PropagatorFeedbackDirect p;
    QCOMPARE(p.read(5), QByteArray());
    QCOMPARE(p.readList(5), QVariantList());
    // Nobody set a result: write answers the position of the last read.
    QCOMPARE(p.write("x"), 5);
}

void tst_PropagatorFeedback::directDeferredRead_data()
{
    QTest::addColumn<bool>("list");
    QTest::addColumn<QString>("warning");
    QTest::newRow("bytes") << false
                           << "readLater can work insufficient in DirectConnect proparator";
    QTest::newRow("list") << true
                          << "readListLater can work insufficient in DirectConnect proparator";
}

void tst_PropagatorFeedback::directDeferredRead()
{
    QFETCH(bool, list);
    QFETCH(QString, warning);

    PropagatorFeedbackDirect p;
    new Server(&p);
    QSignalSpy reads(&p, list ? &PropagatorFeedback::tryReadList : &PropagatorFeedback::tryRead);

    QTest::ignoreMessage(QtWarningMsg, warning.toLatin1().constData());
    QVERIFY(list ? p.readListLater(5) : p.readLater(5));
    QCOMPARE(reads.count(), 0);

    bool ok = false;
    if (list)
        QCOMPARE(p.waitLaterReadList(100, &ok), (QVariantList {5, 6}));
    else
        QCOMPARE(p.waitLaterRead(100, &ok), QByteArray("5"));
    QVERIFY(ok);
    QCOMPARE(reads.count(), 1);
    QCOMPARE(reads.first().first().toLongLong(), 5);
}

void tst_PropagatorFeedback::concurrentDeferredRead()
{
    TestThread serverThread;
    auto *p = new PropagatorFeedbackConcurrent;
    new Server(p);
    serverThread.adopt(p);

    bool ok = false;
    QVERIFY(p->readLater(5));
    QCOMPARE(p->waitLaterRead(-1, &ok), QByteArray("5"));
    QVERIFY(ok);

    ok = false;
    QVERIFY(p->readListLater(6));
    QCOMPARE(p->waitLaterReadList(-1, &ok), (QVariantList {6, 7}));
    QVERIFY(ok);

    ok = false;
    QVERIFY(p->readListLater(-1));
    QVERIFY(p->waitLaterReadArray(-1, &ok) == sampleArray());
    QVERIFY(ok);
}

void tst_PropagatorFeedback::concurrentTimeout_data()
{
    QTest::addColumn<bool>("list");
    QTest::newRow("bytes") << false;
    QTest::newRow("list") << true;
}

void tst_PropagatorFeedback::concurrentTimeout()
{
    QFETCH(bool, list);

    // A live event loop but nobody serving: the request is delivered and never answered.
    TestThread serverThread;
    auto *p = serverThread.adopt(new PropagatorFeedbackConcurrent);
    QVERIFY(list ? p->readListLater(1) : p->readLater(1));

    bool ok = true;
    if (list)
        QCOMPARE(p->waitLaterReadList(10, &ok), QVariantList());
    else
        QCOMPARE(p->waitLaterRead(10, &ok), QByteArray());
    QVERIFY(!ok);
}

void tst_PropagatorFeedback::concurrentRefusesWhileAnswerPending()
{
    PropagatorFeedbackConcurrent p;
    QSignalSpy reads(&p, &PropagatorFeedback::tryRead);
    QSignalSpy listReads(&p, &PropagatorFeedback::tryReadList);

    p.readReturn("a");
    p.readListReturn({1});
    QVERIFY(!p.readLater(1));
    QVERIFY(!p.readListLater(1));

    bool ok = false;
    p.waitLaterRead(0, &ok);
    QVERIFY(ok);
    QVERIFY(!p.readLater(2)); // the second answer is still uncollected
    p.waitLaterReadList(0, &ok);
    QVERIFY(ok);
    p.waitLaterRead(0, &ok);
    QVERIFY(!ok);

    QCoreApplication::sendPostedEvents(&p);
    QCOMPARE(reads.count(), 0);
    QCOMPARE(listReads.count(), 0);

    QVERIFY(p.readLater(9));
    QCoreApplication::sendPostedEvents(&p);
    QCOMPARE(reads.count(), 1);
    QCOMPARE(reads.first().first().toLongLong(), 9);
}

void tst_PropagatorFeedback::requestEvents_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("signal"); // index into the four try* spies, -1 for none
    QTest::addColumn<QVariant>("argument");

    QTest::newRow("1001 read") << 1001 << 0 << QVariant(qlonglong(42));
    QTest::newRow("1002 list read") << 1002 << 1 << QVariant(qlonglong(42));
    QTest::newRow("1003 write") << 1003 << 2 << QVariant(QByteArray("bytes"));
    QTest::newRow("1004 list write") << 1004 << 3 << QVariant(QVariantList {"l"});
    QTest::newRow("1005 not a request") << 1005 << -1 << QVariant();
}

void tst_PropagatorFeedback::requestEvents()
{
    QFETCH(int, type);
    QFETCH(int, signal);
    QFETCH(QVariant, argument);

    PropagatorFeedbackConcurrent p;
    p.writeReturn(42);
    p.readReturn("bytes");
    p.readListReturn({"l"});
    QSignalSpy spies[] = {QSignalSpy(&p, &PropagatorFeedback::tryRead),
                          QSignalSpy(&p, &PropagatorFeedback::tryReadList),
                          QSignalSpy(&p, &PropagatorFeedback::tryWrite),
                          QSignalSpy(&p, &PropagatorFeedback::tryWriteList)};

    QEvent e(static_cast<QEvent::Type>(type));
    const bool handled = p.event(&e);
    if (signal >= 0)
        QVERIFY(handled);
    for (int i = 0; i < 4; ++i)
        QCOMPARE(spies[i].count(), i == signal ? 1 : 0);
    if (signal >= 0)
        QCOMPARE(spies[signal].first().first(), argument);
}

void tst_PropagatorFeedback::nullAnswersNothing()
{
    PropagatorFeedbackNull p;
    QSignalSpy reads(&p, &PropagatorFeedback::tryRead);
    p.readReturn("a");
    p.writeReturn(3);

    QCOMPARE(p.read(1), QByteArray());
    QCOMPARE(p.readList(1), QVariantList());
    QVERIFY(!p.readLater(1));
    QVERIFY(!p.readListLater(1));
    QCOMPARE(p.write("abc"), -1);
    QCOMPARE(p.writeList({1}), -1);
    QCOMPARE(p.writeArray(sampleArray()), -1);
    QVERIFY(!p.waitForBytesWritten(0));
    bool ok = true;
    QCOMPARE(p.waitLaterRead(0, &ok), QByteArray());
    QCOMPARE(p.waitLaterReadList(0, &ok), QVariantList());
    QVERIFY(ok);
    QVERIFY(!p.setChild(&p));
    QCOMPARE(reads.count(), 0);
}

QTEST_GUILESS_MAIN(tst_PropagatorFeedback)
#include "tst_propagatorfeedback.moc"
