#include "modlocker.h"
#include "pgcontainer.h"
#include "pgfbcontainer.h"
#include "propagatorfeedbackconcurrent.h"
#include "propagatorfeedbackdirect.h"
#include "propagatorfeedbacknull.h"
#include "propagatorstreamconcurrent.h"
#include "propagatorstreamdirect.h"
#include "propagatorstreamnull.h"
#include "propagatortest.h"
#include "ztmiextended.h"
#include "ztmistream.h"

#include <QCoreApplication>
#include <QEvent>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

#include <memory>

namespace {

const QByteArray bytes("\x01\x02payload", 9);
const QVariantList list {1, "two", 3.5};

std::unique_ptr<PropagatorStream> makeStream(int kind)
{
    if (kind == Propagator::Direct)
        return std::make_unique<PropagatorStreamDirect>();
    if (kind == Propagator::Concurrent)
        return std::make_unique<PropagatorStreamConcurrent>();
    return std::make_unique<PropagatorStreamNull>();
}

// Calls an entry point through the meta-object, as an upstream propagator or the kernel does
// (recvSend and recvSendList are protected). "...(ZtDataArray)" calls pass sampleArray().
void invoke(PropagatorStream *p, const QString &call)
{
    const QByteArray name = call.section('(', 0, 0).toLatin1();
    bool ok;
    if (call.endsWith("(ZtDataArray)"))
        ok = QMetaObject::invokeMethod(p, name, Qt::DirectConnection,
                                       Q_ARG(ZtDataArray, sampleArray()));
    else if (call.endsWith("List"))
        ok = QMetaObject::invokeMethod(p, name, Qt::DirectConnection, Q_ARG(QVariantList, list));
    else
        ok = QMetaObject::invokeMethod(p, name, Qt::DirectConnection, Q_ARG(QByteArray, bytes));
    QVERIFY2(ok, qPrintable(call));
}

// What a stream propagator emitted: trySend, trySendList, streamSendList.
struct StreamSpies
{
    explicit StreamSpies(PropagatorStream *p)
        : bytes(p, &PropagatorStream::trySend)
        , lists(p, &PropagatorStream::trySendList)
        , stream(p, &PropagatorStream::streamSendList)
    { }
    QList<int> counts() const { return {bytes.count(), lists.count(), stream.count()}; }
    QSignalSpy bytes;
    QSignalSpy lists;
    QSignalSpy stream;
};

// Declares one stream name "out" and one feedback name "dev", as a module does in initOptions.
class Device : public ZtMIExtended
{
    Q_OBJECT

public:
    explicit Device(int id)
        : ZtMIExtended(id)
    {
        streams.hash.insert("out", nullptr);
        feedbacks.hash.insert("dev", nullptr);
    }
    QStringList names() const { return streams.hash.keys() + feedbacks.hash.keys(); }
};

template<typename Container, typename Real>
void checkFallBack()
{
    Real real;
    {
        Container c; // owns only its null propagator: deleting real would be caught
        auto *fallBack = c.value("a");
        QVERIFY(fallBack && c.isNull("a"));
        QCOMPARE(fallBack->getType(), Propagator::Null);
        // Declared but unplugged, or undeclared: both give the one null propagator.
        c.hash.insert("a", nullptr);
        c.hash.insert("b", &real);
        QVERIFY(c.isNull("a") && !c.isNull("b"));
        QCOMPARE(c.value("a"), fallBack);
        QCOMPARE(c.value("c"), fallBack);
        QCOMPARE(c.value("b"), &real);
    }
}

} // namespace

class tst_Propagator : public QObject
{
    Q_OBJECT

private slots:
    void streamEmissions_data();
    void streamEmissions();
    void childLinks_data();
    void childLinks();
    void moduleLocksHeldDuringEmission_data();
    void moduleLocksHeldDuringEmission();
    void feedbackRoundTrips_data();
    void feedbackRoundTrips();
    void concurrentTimeout();
    void concurrentRefusesWhileAnswerPending();
    void requestEvents_data();
    void requestEvents();
    void answersWithoutServer();
    void moduleKinds();
    void containersFallBackToNull();
    void setPropagator_data();
    void setPropagator();
    void clearPropagator();
};

using Counts = QList<int>;

void tst_Propagator::streamEmissions_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<QString>("call");
    QTest::addColumn<Counts>("emitted");

    const QList<QPair<const char *, int>> kinds {{"direct", Propagator::Direct},
                                                 {"concurrent", Propagator::Concurrent},
                                                 {"null", Propagator::Null}};
    for (const auto &k : kinds) {
        const int on = k.second == Propagator::Null ? 0 : 1;
        QTest::addRow("%s send", k.first) << k.second << "send" << Counts {on, 0, 0};
        QTest::addRow("%s sendList", k.first) << k.second << "sendList" << Counts {0, on, on};
        QTest::addRow("%s recvSend", k.first) << k.second << "recvSend" << Counts {on, 0, 0};
        // Relayed lists are never announced as a fresh stream.
        QTest::addRow("%s recvSendList", k.first)
            << k.second << "recvSendList" << Counts {0, on, 0};
        QTest::addRow("%s sendArray", k.first)
            << k.second << "sendArray(ZtDataArray)" << Counts {0, on, on};
        QTest::addRow("%s sendList(array)", k.first)
            << k.second << "sendList(ZtDataArray)" << Counts {0, on, on};
    }
}

void tst_Propagator::streamEmissions()
{
    QFETCH(int, kind);
    QFETCH(QString, call);
    QFETCH(Counts, emitted);

    auto p = makeStream(kind);
    StreamSpies spies(p.get());
    invoke(p.get(), call);

    QCOMPARE(spies.counts(), emitted);
    const QVariantList expected = call.contains("ZtDataArray") ? flatSample() : list;
    if (emitted[0])
        QCOMPARE(spies.bytes.first().first().toByteArray(), bytes);
    if (emitted[1])
        QCOMPARE(spies.lists.first().first().toList(), expected);
    if (emitted[2])
        QCOMPARE(spies.stream.first().first().toList(), expected);
}

void tst_Propagator::childLinks_data()
{
    QTest::addColumn<int>("childKind"); // -1: a feedback propagator
    QTest::addColumn<bool>("linked");
    QTest::addColumn<Counts>("emitted");

    QTest::newRow("direct child") << int(Propagator::Direct) << true << Counts {1, 1, 1};
    // Deliberately twice: from the child's own sendList and relayed by the parent's childSendList.
    QTest::newRow("concurrent child") << int(Propagator::Concurrent) << true << Counts {1, 1, 2};
    QTest::newRow("null child") << int(Propagator::Null) << true << Counts {0, 0, 0};
    QTest::newRow("feedback child") << -1 << false << Counts();
}

void tst_Propagator::childLinks()
{
    QFETCH(int, childKind);
    QFETCH(bool, linked);
    QFETCH(Counts, emitted);

    PropagatorStreamDirect parent, later;
    std::unique_ptr<Propagator> child;
    if (childKind < 0) {
        child = std::make_unique<PropagatorFeedbackDirect>();
        const QRegularExpression noSlot("QObject::connect: No such slot .*");
        QTest::ignoreMessage(QtWarningMsg, noSlot);
        QTest::ignoreMessage(QtWarningMsg, noSlot);
    } else {
        child = makeStream(childKind);
    }
    QCOMPARE(parent.setChild(child.get()), linked);
    // Set once, even when linking failed; only direct stream propagators take a child.
    QVERIFY(!parent.setChild(&later));
    QCOMPARE(parent.getChild(), child.get());
    if (childKind != Propagator::Direct)
        QVERIFY(!child->setChild(&later));

    auto *streamChild = qobject_cast<PropagatorStream *>(child.get());
    std::unique_ptr<StreamSpies> spies(streamChild ? new StreamSpies(streamChild) : nullptr);
    StreamSpies own(&parent);
    for (const char *call : {"send", "sendList", "recvSend", "recvSendList"})
        invoke(&parent, call);

    // Relayed data stays with the parent's own consumers.
    QCOMPARE(own.counts(), (Counts {2, 2, 1}));
    QCOMPARE(spies ? spies->counts() : Counts(), emitted);
    for (int i = 0; spies && i < spies->stream.count(); ++i)
        QCOMPARE(spies->stream.at(i).first().toList(), list);
}

void tst_Propagator::moduleLocksHeldDuringEmission_data()
{
    QTest::addColumn<QString>("call");
    QTest::addColumn<QList<bool>>("held"); // plain, stream, extended module
    for (const char *call : {"send", "sendList", "recvSend"})
        QTest::newRow(call) << call << QList<bool> {true, true, true};
    // Deliberately asymmetric: relayed lists lock only extended modules.
    QTest::newRow("recvSendList") << "recvSendList" << QList<bool> {false, false, true};
}

void tst_Propagator::moduleLocksHeldDuringEmission()
{
    QFETCH(QString, call);
    QFETCH(QList<bool>, held);

    ZtMIFound plain(1);
    ZtMIStream stream(2);
    ZtMIExtended extended(3);
    const QList<ModLocker *> locks {plain.getLocker(), stream.getLocker(), extended.getLocker()};
    PropagatorStreamConcurrent p;
    for (ModLocker *lock : locks)
        p.appendLocker(lock);

    // A direct consumer runs inside the emission; the locks are not recursive, so tryLock from
    // this thread fails exactly when a lock is held.
    auto isHeld = [&] {
        QList<bool> result;
        for (ModLocker *lock : locks) {
            const bool free = lock->tryLock();
            if (free)
                lock->unlock();
            result.append(!free);
        }
        return result;
    };
    QList<QList<bool>> seen;
    connect(&p, &PropagatorStream::trySend, this, [&] { seen << isHeld(); });
    connect(&p, &PropagatorStream::trySendList, this, [&] { seen << isHeld(); });

    invoke(&p, call);
    QCOMPARE(seen, QList<QList<bool>> {held});
    QCOMPARE(isHeld(), (QList<bool> {false, false, false}));
}

void tst_Propagator::feedbackRoundTrips_data()
{
    QTest::addColumn<bool>("concurrent");
    QTest::newRow("direct, same thread") << false;
    QTest::newRow("concurrent, server in another thread") << true;
}

void tst_Propagator::feedbackRoundTrips()
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
    QSignalSpy reads(p, &PropagatorFeedback::tryRead);

    QCOMPARE(p->read(7), QByteArray("7"));
    QCOMPARE(p->readList(3), (QVariantList {3, 4}));
    QCOMPARE(p->write("21"), 42);
    QCOMPARE(p->writeList({7, "x"}), 21);
    QCOMPARE(p->writeArray(sampleArray()), p->writeList(flatSample()));
    QVERIFY(p->readArray(-1) == sampleArray());
    QVERIFY(p->waitForBytesWritten(0));

    // Deferred reads; the direct variant warns and asks the server only when waited on.
    if (!concurrent) {
        QTest::ignoreMessage(QtWarningMsg,
                             "readLater can work insufficient in DirectConnect proparator");
        QTest::ignoreMessage(QtWarningMsg,
                             "readListLater can work insufficient in DirectConnect proparator");
    }
    QTRY_COMPARE(reads.count(), 1);
    bool ok = false;
    QVERIFY(p->readLater(5));
    if (!concurrent)
        QCOMPARE(reads.count(), 1);
    QCOMPARE(p->waitLaterRead(-1, &ok), QByteArray("5"));
    QVERIFY(ok);
    QTRY_COMPARE(reads.count(), 2);
    QCOMPARE(reads.last().first().toLongLong(), 5);

    ok = false;
    QVERIFY(p->readListLater(-1));
    QVERIFY(p->waitLaterReadArray(-1, &ok) == sampleArray());
    QVERIFY(ok);
}

void tst_Propagator::concurrentTimeout()
{
    // A live event loop but nobody serving: requests are delivered and never answered.
    TestThread serverThread;
    auto *p = serverThread.adopt(new PropagatorFeedbackConcurrent);
    bool ok = true;
    QVERIFY(p->readLater(1));
    QCOMPARE(p->waitLaterRead(10, &ok), QByteArray());
    QVERIFY(!ok);
    ok = true;
    QVERIFY(p->readListLater(1));
    QCOMPARE(p->waitLaterReadList(10, &ok), QVariantList());
    QVERIFY(!ok);
}

void tst_Propagator::concurrentRefusesWhileAnswerPending()
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
    QVERIFY(!p.readLater(2)); // the list answer is still uncollected
    p.waitLaterReadList(0, &ok);
    QVERIFY(ok);
    p.waitLaterRead(0, &ok);
    QVERIFY(!ok);

    QCoreApplication::sendPostedEvents(&p);
    QCOMPARE(reads.count() + listReads.count(), 0);
    QVERIFY(p.readLater(9));
    QCoreApplication::sendPostedEvents(&p);
    QCOMPARE(reads.count(), 1);
    QCOMPARE(reads.first().first().toLongLong(), 9);
}

void tst_Propagator::requestEvents_data()
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

void tst_Propagator::requestEvents()
{
    QFETCH(int, type);
    QFETCH(int, signal);
    QFETCH(QVariant, argument);

    PropagatorFeedbackConcurrent p;
    p.writeReturn(42);
    p.readReturn("bytes");
    p.readListReturn({"l"});
    QSignalSpy spies[] = {{&p, &PropagatorFeedback::tryRead},
                          {&p, &PropagatorFeedback::tryReadList},
                          {&p, &PropagatorFeedback::tryWrite},
                          {&p, &PropagatorFeedback::tryWriteList}};

    QEvent e(static_cast<QEvent::Type>(type));
    const bool handled = p.event(&e);
    QVERIFY(handled || signal < 0);
    for (int i = 0; i < 4; ++i)
        QCOMPARE(spies[i].count(), i == signal ? 1 : 0);
    if (signal >= 0)
        QCOMPARE(spies[signal].first().first(), argument);
}

void tst_Propagator::answersWithoutServer()
{
    // Nobody answered: the direct write answers the position of the last read.
    PropagatorFeedbackDirect direct;
    direct.writeReturn(3);
    QCOMPARE(direct.read(5), QByteArray());
    QCOMPARE(direct.readList(5), QVariantList());
    QCOMPARE(direct.write("x"), 5);

    PropagatorFeedbackNull p;
    QSignalSpy reads(&p, &PropagatorFeedback::tryRead);
    p.readReturn("a");
    p.writeReturn(3);
    QCOMPARE(p.read(1), QByteArray());
    QCOMPARE(p.readList(1), QVariantList());
    QCOMPARE(p.write("x"), -1);
    QCOMPARE(p.writeList({1}), -1);
    QVERIFY(!p.readLater(1) && !p.readListLater(1));
    QVERIFY(!p.waitForBytesWritten(0));
    QCOMPARE(p.waitLaterRead(0, nullptr), QByteArray());
    QVERIFY(!p.setChild(&p));
    QCOMPARE(reads.count(), 0);
}

void tst_Propagator::moduleKinds()
{
    // Copies keep their kind; stream modules, copies included, report their status as state.
    ZtMIStream stream(1);
    ZtMIStream streamCopy(stream);
    ZtMIExtended extended(2);
    ZtMIExtended extendedCopy(extended);
    for (ZtMIFound *m : {&extended, &extendedCopy})
        QCOMPARE(m->property("mt").toInt(), 1);
    for (ZtMIStream *m : {&stream, &streamCopy}) {
        QCOMPARE(m->property("mt").toInt(), 0);
        QSignalSpy states(m, QOverload<QString>::of(&ZtMIFound::state));
        emit m->myStatus("x");
        QCOMPARE(states.count(), 1);
    }
}

void tst_Propagator::containersFallBackToNull()
{
    checkFallBack<PGContainer, PropagatorStreamDirect>();
    checkFallBack<PGFBContainer, PropagatorFeedbackDirect>();
}

void tst_Propagator::setPropagator_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("feedback");
    QTest::addColumn<bool>("giveFeedback");
    QTest::addColumn<bool>("accepted");
    QTest::addColumn<bool>("stored");

    QTest::newRow("stream into stream name") << "out" << false << false << true << true;
    QTest::newRow("feedback into feedback name") << "dev" << true << true << true << true;
    QTest::newRow("stream into feedback name") << "dev" << true << false << true << false;
    QTest::newRow("feedback into stream name") << "out" << false << true << true << false;
    QTest::newRow("undeclared name") << "nope" << false << false << false << false;
    QTest::newRow("name of the other container") << "out" << true << true << false << false;
}

void tst_Propagator::setPropagator()
{
    QFETCH(QString, name);
    QFETCH(bool, feedback);
    QFETCH(bool, giveFeedback);
    QFETCH(bool, accepted);
    QFETCH(bool, stored);

    Device m(1);
    PropagatorStreamDirect stream;
    PropagatorFeedbackDirect fb;
    Propagator *p = giveFeedback ? static_cast<Propagator *>(&fb) : &stream;

    QCOMPARE(m.setPropagator(name, p, feedback), accepted);
    QCOMPARE(m.getPropagator(name, feedback), stored ? p : nullptr);
    QCOMPARE(m.getPropagator(name, !feedback), nullptr);
    QCOMPARE(m.names(), Device(2).names()); // no name is ever added
}

void tst_Propagator::clearPropagator()
{
    Device m(1);
    PropagatorStreamDirect out;
    QSignalSpy delivered(&out, &PropagatorStream::trySendList);
    QVERIFY(m.setPropagator("out", &out, false));

    // Clearing an empty or undeclared name touches nobody's connections.
    QVERIFY(m.clearPropagator("dev", true));
    QVERIFY(m.clearPropagator("nope", false));
    out.sendList({1});
    QCOMPARE(delivered.count(), 1);

    QVERIFY(m.clearPropagator("out", false));
    QCOMPARE(m.getPropagator("out", false), nullptr);
    out.sendList({2});
    QCOMPARE(delivered.count(), 1);
    // The name stays declared and can be plugged again.
    QVERIFY(m.setPropagator("out", &out, false));
}

QTEST_GUILESS_MAIN(tst_Propagator)
#include "tst_propagator.moc"
