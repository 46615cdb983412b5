#include "modlocker.h"
#include "pgcontainer.h"
#include "pgfbcontainer.h"
#include "propagatorfeedbackconcurrent.h"
#include "propagatorfeedbackdirect.h"
#include "propagatorstreambatched.h"
#include "propagatorstreamconcurrent.h"
#include "propagatorstreamdirect.h"
#include "propagatorstreamnull.h"
#include "tsanhandoff_p.h"
#include "ztdatawrapper.h"
#include "ztmiextended.h"
#include "ztmistream.h"

#include <QAtomicInt>
#include <QCoreApplication>
#include <QRegularExpression>
#include <QSemaphore>
#include <QSignalSpy>
#include <QTest>
#include <QThread>

#include <memory>
#include <mutex>
#include <vector>

namespace {

constexpr int Patience = 120000; // ms; a hang guard, generous for the sanitizer builds
const QByteArray bytes("\x01\x02payload", 9);
const QVariantList list {1, "two", 3.5};

// A worker thread with an event loop; adopted objects are deleted only after it has stopped.
// Its end is handed over to whoever waits for it, for the thread sanitizer (QThread::wait is
// not seen as a join).
struct TestThread : QThread
{
    TestThread() { start(); }
    ~TestThread() override
    {
        quit();
        wait();
        tsanAcquire(this);
        qDeleteAll(owned);
    }
    void run() override
    {
        exec();
        tsanRelease(this);
    }
    // Also hands what this thread did so far over to the worker, for the thread sanitizer: Qt's
    // queued calls into it are not seen as a hand-over.
    template<typename T>
    T *adopt(T *object)
    {
        object->moveToThread(this);
        owned.append(object);
        postQueuedCall(object, [] {});
        return object;
    }
    QList<QObject *> owned;
};

ZtDataArray sampleArray()
{
    ZtDataArray a, nested;
    nested.items.append(QVariant::fromValue(ZtDataY(-4)));
    a.items << QVariant::fromValue(ZtDataY(1.5, "y"))
            << QVariant::fromValue(ZtDataXY(2.0, 3.25, "xy")) << QVariant::fromValue(nested);
    return a;
}

QVariantList flatSample()
{
    return ZtDataWrapper::convArrayToList(sampleArray());
}

enum { Batched = Propagator::Null + 1 }; // a stream kind beside the propagator types

std::unique_ptr<PropagatorStream> makeStream(int kind)
{
    if (kind == Propagator::Direct)
        return std::make_unique<PropagatorStreamDirect>();
    if (kind == Propagator::Concurrent)
        return std::make_unique<PropagatorStreamConcurrent>();
    if (kind == Batched)
        return std::make_unique<PropagatorStreamBatched>();
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

// The server side of a feedback propagator: every answer is derived from its request so that a
// requester can tell its own answer from a stale one; a negative list read asks for the sample.
// With a gate, every answer waits for a permit of it (bounded), so the test decides when
// answers arrive.
char serverSetUp; // the hand-off point of Server's set-up, for the thread sanitizer

class Server : public QObject
{
public:
    // `ignore`: how many requests, the first ones, get no answer at all.
    explicit Server(PropagatorFeedback *p, QSemaphore *gate = nullptr, int ignore = 0)
        : ignore(ignore)
    {
        auto serve = [this, gate](auto answer) {
            return [this, gate, answer](auto request) {
                // The serving thread takes up what the constructor set up (these very
                // captures, the propagator) through Qt's queued call.
                tsanAcquire(&serverSetUp);
                entered.release();
                if (this->ignore > 0) {
                    --this->ignore;
                    return;
                }
                if (gate)
                    gate->tryAcquire(1, Patience);
                answer(request);
                answered.release();
            };
        };
        connect(p, &PropagatorFeedback::tryRead, this,
                serve([p](qlonglong pos) { p->readReturn(QByteArray::number(pos)); }));
        connect(p, &PropagatorFeedback::tryReadList, this, serve([p](qlonglong pos) {
                    p->readListReturn(pos < 0 ? flatSample() : QVariantList {pos, pos + 1});
                }));
        connect(p, &PropagatorFeedback::tryWrite, this,
                serve([p](const QByteArray &data) { p->writeReturn(data.toLongLong() * 2); }));
        connect(p, &PropagatorFeedback::tryWriteList, this, serve([p](const QVariantList &l) {
                    p->writeListReturn(l.value(0).toLongLong() * 3);
                }));
        tsanRelease(&serverSetUp);
    }
    QSemaphore entered; // one permit per request received
    QSemaphore answered; // one permit per answer given
    int ignore; // the serving thread's only
};

enum Request { Read, ReadList, Write, WriteList, ReadLater, ReadListLater, RequestKinds };

// One request of the given kind about i; true when the answer is the one Server gives to it.
bool request(PropagatorFeedback *p, int kind, qlonglong i)
{
    bool ok = false;
    switch (kind) {
    case Read:
        return p->read(i) == QByteArray::number(i);
    case ReadList:
        return p->readList(i) == QVariantList {i, i + 1};
    case Write:
        return p->write(QByteArray::number(i)) == i * 2;
    case WriteList:
        return p->writeList({i, "x"}) == i * 3;
    case ReadLater:
        return p->readLater(i) && p->waitLaterRead(Patience, &ok) == QByteArray::number(i) && ok;
    default:
        return p->readListLater(i) && p->waitLaterReadList(Patience, &ok) == QVariantList {i, i + 1}
        && ok;
    }
}

constexpr int StressRequests = 20000;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int BatchedLists = 100000; // per producer; the sanitizers make each list costly
#else
constexpr int BatchedLists = 500000;
#endif

// Records the number each list carries (its first item). Optionally held in its first slot call
// until released, or slowed down on every call, to let a queue build up.
class Recorder : public ZtMIStream
{
    Q_OBJECT

public:
    explicit Recorder(int id, bool holdFirst = false, int slowUs = 0)
        : ZtMIStream(id)
        , holdFirst(holdFirst)
        , slowUs(slowUs)
    {
        seen.reserve(BatchedLists);
    }
    // Whether the numbers came in increasing order, each once; `consecutive`: none missing.
    bool inOrder(bool consecutive) const
    {
        for (size_t i = 1; i < seen.size(); ++i) {
            if (consecutive ? seen[i] != seen[i - 1] + 1 : seen[i] <= seen[i - 1])
                return false;
        }
        return true;
    }

    const bool holdFirst;
    const int slowUs;
    std::vector<int> seen; // read by the test once `received` says all arrived
    QAtomicInt received;
    QSemaphore entered; // released when the held first call starts
    QSemaphore hold; // the held first call waits for a permit (bounded)

public slots:
    void StartProcessing(QVariantList data) override
    {
        if (holdFirst && seen.empty()) {
            entered.release();
            hold.tryAcquire(1, Patience);
        }
        if (slowUs)
            QThread::usleep(slowUs);
        seen.push_back(data.value(0).toInt());
        received.ref();
    }
};

// The warnings a channel gave, from whichever threads gave them.
class Warnings
{
public:
    explicit Warnings(Propagator *p)
        : connection(QObject::connect(
            p, &Propagator::warning, p,
            [this](const QString &text) {
                std::lock_guard<std::mutex> lock(guard);
                texts.append(text);
            },
            Qt::DirectConnection))
    { }
    ~Warnings() { QObject::disconnect(connection); }
    QStringList all() const
    {
        std::lock_guard<std::mutex> lock(guard);
        return texts;
    }

private:
    mutable std::mutex guard;
    QStringList texts;
    QMetaObject::Connection connection;
};

// A stream channel to `consumer`, wired as the kernel wires one across threads: the consumer's
// lock in the channel's list, the consumer's slot on trySendList with an automatic connection.
std::unique_ptr<PropagatorStream> channelTo(int kind, Recorder *consumer)
{
    std::unique_ptr<PropagatorStream> p = makeStream(kind);
    p->setObjectName("gen:out->sink:in");
    if (kind != Propagator::Direct)
        p->appendLocker(consumer->getLocker());
    QObject::connect(p.get(), &PropagatorStream::trySendList, consumer,
                     &ZtMIStream::StartProcessing);
    return p;
}

// A thread that sends the numbers first, first + 1, ... through p.
std::unique_ptr<QThread> producer(PropagatorStream *p, int count, int first = 0)
{
    std::unique_ptr<QThread> thread(QThread::create([p, count, first] {
        for (int n = first; n < first + count; ++n)
            p->sendList(QVariantList {n});
    }));
    thread->start();
    return thread;
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
    void lateAnswerIsDropped_data();
    void lateAnswerIsDropped();
    void concurrentRefusesWhileAnswerPending();
    void containersFallBackToNull();
    void setPropagator_data();
    void setPropagator();
    void countersMatchTraffic_data();
    void countersMatchTraffic();
    void queuePolicies_data();
    void queuePolicies();
    void blockedProducerReleased_data();
    void blockedProducerReleased();
    void batchedChannelsKeepEveryListInOrder();
    void batchedChannelDeletedWithListsWaiting();
    void batchedChannelReleasesDeliveredLists();
    void requestEndsWithoutAnswer_data();
    void requestEndsWithoutAnswer();
    void blockingRequestRefused_data();
    void blockingRequestRefused();
};

using Counts = QList<int>;

void tst_Propagator::streamEmissions_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<QString>("call");
    QTest::addColumn<Counts>("emitted");

    // Relayed lists (recvSendList) are never announced as a fresh stream.
    const QList<QPair<const char *, Counts>> calls {{"send", {1, 0, 0}},
                                                    {"sendList", {0, 1, 1}},
                                                    {"recvSend", {1, 0, 0}},
                                                    {"recvSendList", {0, 1, 0}},
                                                    {"sendArray(ZtDataArray)", {0, 1, 1}},
                                                    {"sendList(ZtDataArray)", {0, 1, 1}}};
    const char *kinds[] = {"direct", "concurrent", "null"}; // the type numbers 0, 1, 2
    for (int kind = 0; kind < 3; ++kind) {
        for (const auto &call : calls)
            QTest::addRow("%s %s", kinds[kind], call.first)
                << kind << call.first
                << (kind == Propagator::Null ? Counts {0, 0, 0} : call.second);
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
    QTest::addColumn<int>("childKind");
    QTest::addColumn<Counts>("emitted");

    QTest::newRow("direct child") << int(Propagator::Direct) << Counts {1, 1, 1};
    // Deliberately twice: from the child's own sendList and relayed by the parent's childSendList.
    QTest::newRow("concurrent child") << int(Propagator::Concurrent) << Counts {1, 1, 2};
    QTest::newRow("null child") << int(Propagator::Null) << Counts {0, 0, 0};
}

void tst_Propagator::childLinks()
{
    QFETCH(int, childKind);
    QFETCH(Counts, emitted);

    PropagatorStreamDirect parent, later;
    std::unique_ptr<PropagatorStream> child = makeStream(childKind);
    QVERIFY(parent.setChild(child.get()));
    // Set once; only direct stream propagators take a child.
    QVERIFY(!parent.setChild(&later));
    QCOMPARE(parent.getChild(), child.get());
    if (childKind != Propagator::Direct)
        QVERIFY(!child->setChild(&later));

    StreamSpies spies(child.get());
    StreamSpies own(&parent);
    for (const char *call : {"send", "sendList", "recvSend", "recvSendList"})
        invoke(&parent, call);

    // Relayed data stays with the parent's own consumers.
    QCOMPARE(own.counts(), (Counts {2, 2, 1}));
    QCOMPARE(spies.counts(), emitted);
    for (int i = 0; i < spies.stream.count(); ++i)
        QCOMPARE(spies.stream.at(i).first().toList(), list);
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
            result.append(!lock->tryLock());
            if (!result.last())
                lock->unlock();
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
    QTest::addColumn<bool>("serverKnown");
    QTest::newRow("direct, one thread") << false << false;
    QTest::newRow("concurrent, many requests across threads") << true << false;
    QTest::newRow("concurrent, emitted in the server's thread") << true << true;
}

void tst_Propagator::feedbackRoundTrips()
{
    QFETCH(bool, concurrent);
    QFETCH(bool, serverKnown);

    TestThread ppg, serverThread;
    PropagatorFeedbackDirect direct;
    PropagatorFeedback *p = &direct;
    std::unique_ptr<Server> directServer;
    QAtomicInt wrong;
    if (concurrent) {
        // As the kernel wires it: the propagator in a thread of its own, the server in another,
        // the requester in a third.
        auto *concurrentOne = ppg.adopt(new PropagatorFeedbackConcurrent);
        if (serverKnown)
            concurrentOne->setServerThread(&serverThread);
        p = concurrentOne;
        serverThread.adopt(new Server(p));
        std::unique_ptr<QThread> requester(QThread::create([&] {
            for (int i = 0; i < StressRequests; ++i)
                wrong.fetchAndAddRelaxed(!request(p, i % RequestKinds, i));
        }));
        requester->start();
        QVERIFY(requester->wait(Patience));
    } else {
        directServer.reset(new Server(&direct));
        const QRegularExpression warning("^read(List)?Later can work insufficient in Direct");
        for (int i = 0; i < 4; ++i) // readLater and readListLater twice each
            QTest::ignoreMessage(QtWarningMsg, warning);
        // The direct deferred read asks only when it is waited on.
        QSignalSpy asked(&direct, &PropagatorFeedback::tryRead);
        QVERIFY(direct.readLater(6));
        QCOMPARE(asked.count(), 0);
        bool ok = false;
        QVERIFY(direct.waitLaterRead(0, &ok) == "6" && ok && asked.count() == 1);
        for (int kind = 0; kind < RequestKinds; ++kind)
            wrong.fetchAndAddRelaxed(!request(p, kind, kind));
    }
    QCOMPARE(wrong.loadAcquire(), 0);

    // Data arrays travel flattened.
    QCOMPARE(p->writeArray(sampleArray()), p->writeList(flatSample()));
    QVERIFY(p->readArray(-1) == sampleArray());
    bool ok = false;
    QVERIFY(p->readListLater(-1));
    QVERIFY(p->waitLaterReadArray(Patience, &ok) == sampleArray() && ok);
}

void tst_Propagator::lateAnswerIsDropped_data()
{
    QTest::addColumn<bool>("listFirst");
    QTest::addColumn<int>("then");
    const char *names[] = {"read", "readList", "write", "writeList", "readLater", "readListLater"};
    for (bool listFirst : {false, true}) {
        for (int then = 0; then < RequestKinds; ++then)
            QTest::addRow("%s timed out, then %s", listFirst ? "readListLater" : "readLater",
                          names[then])
                << listFirst << then;
    }
}

void tst_Propagator::lateAnswerIsDropped()
{
    QFETCH(bool, listFirst);
    QFETCH(int, then);

    QSemaphore gate;
    TestThread ppg, serverThread;
    auto *p = ppg.adopt(new PropagatorFeedbackConcurrent);
    auto *server = serverThread.adopt(new Server(p, &gate));

    // The server holds the answer back until the deferred read has given up.
    bool ok = true;
    QVERIFY(listFirst ? p->readListLater(1) : p->readLater(1));
    QVERIFY(server->entered.tryAcquire(1, Patience));
    listFirst ? void(p->waitLaterReadList(0, &ok)) : void(p->waitLaterRead(0, &ok));
    QVERIFY(!ok);
    gate.release(StressRequests);
    QVERIFY(server->answered.tryAcquire(1, Patience));

    // The late answer goes to nobody: neither the next request nor the one after it.
    QVERIFY(request(p, then, 2));
    QVERIFY(request(p, ReadLater, 4));
}

void tst_Propagator::concurrentRefusesWhileAnswerPending()
{
    // Answers nobody asked for (a server pushing) wait to be collected, one permit each.
    PropagatorFeedbackConcurrent p;
    QSignalSpy reads(&p, &PropagatorFeedback::tryRead);
    p.readReturn("a");
    p.readListReturn({1});
    QVERIFY(!p.readLater(1) && !p.readListLater(1));
    bool ok = false;
    p.waitLaterRead(0, &ok);
    QVERIFY(ok);
    QVERIFY(!p.readLater(2)); // the second answer is still uncollected
    p.waitLaterReadList(0, &ok);
    QVERIFY(ok);

    QVERIFY(p.readLater(9));
    QCoreApplication::sendPostedEvents(&p);
    QCOMPARE(reads.count(), 1);
    QCOMPARE(reads.first().first().toLongLong(), 9);
}

void tst_Propagator::containersFallBackToNull()
{
    auto check = [](auto &&container, auto *real) {
        auto *fallBack = container.value("a");
        QVERIFY(fallBack && container.isNull("a"));
        QCOMPARE(fallBack->getType(), Propagator::Null);
        // Declared but unplugged, or undeclared: both give the one null propagator.
        container.hash.insert("a", nullptr);
        container.hash.insert("b", real);
        QVERIFY(container.isNull("a") && !container.isNull("b"));
        QCOMPARE(container.value("a"), fallBack);
        QCOMPARE(container.value("c"), fallBack);
        QCOMPARE(container.value("b"), real);
    };
    // The containers own only their null propagators: deleting real ones would be caught.
    PropagatorStreamDirect stream;
    PropagatorFeedbackDirect feedback;
    check(PGContainer(), &stream);
    check(PGFBContainer(), &feedback);
    // A request into an unplugged name gets the error answer, and nobody is asked.
    PGFBContainer none;
    QVERIFY(none.value("a")->read(1).isEmpty() && none.value("a")->write("x") == -1);
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
    QSignalSpy delivered(&stream, &PropagatorStream::trySendList);

    QCOMPARE(m.setPropagator(name, p, feedback), accepted);
    QCOMPARE(m.getPropagator(name, feedback), stored ? p : nullptr);
    QCOMPARE(m.getPropagator(name, !feedback), nullptr);
    QCOMPARE(m.names(), Device(2).names()); // no name is ever added

    // Clearing disconnects only a propagator that was really plugged in, and keeps the name.
    QVERIFY(m.clearPropagator(name, feedback));
    QCOMPARE(m.getPropagator(name, feedback), nullptr);
    stream.sendList({1});
    QCOMPARE(delivered.count(), stored && p == &stream ? 0 : 1);
    QCOMPARE(m.setPropagator(name, p, feedback), accepted);
}

void tst_Propagator::countersMatchTraffic_data()
{
    QTest::addColumn<int>("kind");
    QTest::newRow("direct") << int(Propagator::Direct);
    QTest::newRow("concurrent") << int(Propagator::Concurrent);
    QTest::newRow("batched") << int(Batched);
}

void tst_Propagator::countersMatchTraffic()
{
    QFETCH(int, kind);
    constexpr int Lists = 5000; // per producer
    constexpr int Second = 1000000; // the second producer's first number

    TestThread consumerThread;
    auto *consumer = consumerThread.adopt(new Recorder(1));
    auto p = channelTo(kind, consumer);
    p->send(bytes); // counted, delivered to nobody
    auto first = producer(p.get(), Lists);
    auto second = producer(p.get(), Lists, Second);
    QVERIFY(first->wait(Patience) && second->wait(Patience));
    QTRY_COMPARE_WITH_TIMEOUT(consumer->received.loadAcquire(), 2 * Lists, Patience);

    // Each producer's lists arrive once and in its order.
    std::vector<int> numbers[2];
    for (int n : consumer->seen)
        numbers[n >= Second].push_back(n);
    for (int i = 0; i < 2; ++i) {
        QCOMPARE(int(numbers[i].size()), Lists);
        QCOMPARE(numbers[i].front(), i * Second);
        QVERIFY(std::is_sorted(numbers[i].begin(), numbers[i].end()));
    }

    // Queued deliveries are confirmed after the fact: exact once the channel is quiet.
    QTRY_COMPARE_WITH_TIMEOUT(p->stats().deliveries, quint64(2 * Lists), Patience);
    const ChannelStats s = p->stats();
    QCOMPARE(s.lists, quint64(2 * Lists));
    QCOMPARE(s.arrays, quint64(1));
    QCOMPARE(s.dropped + s.requests + s.answers + s.timeouts + s.refused, quint64(0));
    if (kind == Propagator::Direct) {
        QCOMPARE(s.pending, -1);
        QCOMPARE(s.latencyMedianNs, -1);
    } else {
        QCOMPARE(s.pending, 0);
        QVERIFY(s.pendingHigh >= 0 && s.pendingHigh <= 2 * Lists + 1); // the lists and the array
        QVERIFY(s.latencyMedianNs >= 0 && s.latencyP99Ns >= s.latencyMedianNs);
    }
}

void tst_Propagator::queuePolicies_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<int>("policy");
    for (int kind : {int(Propagator::Concurrent), int(Batched)}) {
        for (int policy : {PropagatorStreamConcurrent::Block, PropagatorStreamConcurrent::Drop})
            QTest::addRow("%s, %s", kind == Batched ? "batched" : "concurrent",
                          policy == PropagatorStreamConcurrent::Block ? "block" : "drop")
                << kind << policy;
    }
}

void tst_Propagator::queuePolicies()
{
    QFETCH(int, kind);
    QFETCH(int, policy);
    constexpr int Lists = 400;
    constexpr int Limit = 16;
    const bool block = policy == PropagatorStreamConcurrent::Block;

    TestThread consumerThread;
    auto *consumer = consumerThread.adopt(new Recorder(1, false, 300));
    auto p = channelTo(kind, consumer);
    auto *channel = static_cast<PropagatorStreamConcurrent *>(p.get());
    channel->setQueueLimit(Limit, PropagatorStreamConcurrent::QueuePolicy(policy));
    Warnings warnings(channel);
    QVERIFY(producer(p.get(), Lists)->wait(Patience));

    // Every list is either received, in order, or counted as dropped.
    const ChannelStats sent = p->stats();
    QCOMPARE(sent.lists + sent.dropped, quint64(Lists));
    QTRY_COMPARE_WITH_TIMEOUT(quint64(consumer->received.loadAcquire()), sent.lists, Patience);
    QVERIFY(consumer->inOrder(block));
    QTRY_COMPARE_WITH_TIMEOUT(p->stats().deliveries, sent.lists, Patience);
    if (block) {
        QCOMPARE(sent.dropped, quint64(0));
        QVERIFY2(p->stats().pendingHigh <= Limit, qPrintable(QString::number(sent.pendingHigh)));
    } else {
        QVERIFY(sent.dropped > 0);
    }
    // The slow consumer made the producer run into the limit at once: one warning, naming the
    // channel, and none again within the second.
    QVERIFY(!warnings.all().isEmpty());
    const QString warning = warnings.all().first();
    QVERIFY2(warning.contains("\"gen:out->sink:in\"") && warning.contains("limit 16")
                 && warning.contains(block ? "policy=block" : "policy=drop"),
             qPrintable(warning));
}

void tst_Propagator::blockedProducerReleased_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<bool>("closing");
    for (int kind : {int(Propagator::Concurrent), int(Batched)}) {
        const char *name = kind == Batched ? "batched" : "concurrent";
        QTest::addRow("%s, close()", name) << kind << true;
        QTest::addRow("%s, the consumer's thread ends", name) << kind << false;
    }
}

void tst_Propagator::blockedProducerReleased()
{
    QFETCH(int, kind);
    QFETCH(bool, closing);
    constexpr int Lists = 100;
    constexpr int Limit = 4;

    TestThread consumerThread;
    auto *consumer = consumerThread.adopt(new Recorder(1, true));
    auto p = channelTo(kind, consumer);
    auto *channel = static_cast<PropagatorStreamConcurrent *>(p.get());
    channel->setQueueLimit(Limit, PropagatorStreamConcurrent::Block);
    auto thread = producer(p.get(), Lists);
    QVERIFY(consumer->entered.tryAcquire(1, Patience));
    // The producer fills the queue and waits: nothing but the row's event can release it.
    QTRY_COMPARE_WITH_TIMEOUT(p->stats().pending, qint64(Limit), Patience);
    QVERIFY(!thread->isFinished());

    if (closing) {
        channel->close();
        QVERIFY(thread->wait(Patience));
        consumer->hold.release();
        // Closed, the channel passes every list on without waiting.
        QTRY_COMPARE_WITH_TIMEOUT(consumer->received.loadAcquire(), Lists, Patience);
        QVERIFY(consumer->inOrder(true));
        QTRY_COMPARE_WITH_TIMEOUT(p->stats().pending, 0, Patience);
    } else {
        consumerThread.quit();
        consumer->hold.release();
        QVERIFY(consumerThread.wait(Patience));
        QVERIFY(thread->wait(Patience));
        const ChannelStats s = p->stats();
        QCOMPARE(s.lists + s.dropped, quint64(Lists));
    }
    QVERIFY(p->stats().pendingHigh >= Limit); // the full queue was seen
}

void tst_Propagator::batchedChannelsKeepEveryListInOrder()
{
    TestThread third, fourth;
    Recorder *consumers[] = {third.adopt(new Recorder(1)), fourth.adopt(new Recorder(2))};
    std::unique_ptr<PropagatorStream> channels[]
        = {channelTo(Batched, consumers[0]), channelTo(Batched, consumers[1])};
    std::unique_ptr<QThread> producers[]
        = {producer(channels[0].get(), BatchedLists), producer(channels[1].get(), BatchedLists)};
    for (int i = 0; i < 2; ++i)
        QVERIFY(producers[i]->wait(Patience));
    for (int i = 0; i < 2; ++i) {
        QTRY_COMPARE_WITH_TIMEOUT(consumers[i]->received.loadAcquire(), BatchedLists, Patience);
        QCOMPARE(consumers[i]->seen.front(), 0);
        QVERIFY(consumers[i]->inOrder(true));
        const ChannelStats s = channels[i]->stats();
        QCOMPARE(s.lists, quint64(BatchedLists));
        QCOMPARE(s.deliveries, quint64(BatchedLists));
        QCOMPARE(s.dropped, quint64(0));
        QCOMPARE(s.pending, 0);
    }
}

void tst_Propagator::batchedChannelDeletedWithListsWaiting()
{
    TestThread consumerThread;
    auto *consumer = consumerThread.adopt(new Recorder(1));
    QSemaphore blocked, hold;
    auto p = channelTo(Batched, consumer);

    // The consumer's thread is busy elsewhere: the lists and their wake-up wait.
    postQueuedCall(consumer, [&] {
        blocked.release();
        hold.tryAcquire(1, Patience);
    });
    QVERIFY(blocked.tryAcquire(1, Patience));
    for (int n = 0; n < 50; ++n)
        p->sendList({n});
    QCOMPARE(p->stats().pending, 50);
    p.reset();
    hold.release();

    // A wake-up that outlived its channel delivers nothing; once the consumer's thread has
    // ended, a channel into it drops what it is given instead of queueing it for nobody.
    auto late = channelTo(Batched, consumer);
    QSignalSpy warnings(late.get(), &Propagator::warning);
    consumerThread.quit();
    QVERIFY(consumerThread.wait(Patience));
    QCOMPARE(consumer->received.loadAcquire(), 0);
    late->sendList({1});
    QCOMPARE(late->stats().dropped, quint64(1));
    QCOMPARE(late->stats().lists, quint64(0));
    QCOMPARE(warnings.count(), 1);
}

// Once the consumer has caught up the channel holds no delivered list: a list sent again and
// again is shared with nobody but its sender.
void tst_Propagator::batchedChannelReleasesDeliveredLists()
{
    TestThread consumerThread;
    auto *consumer = consumerThread.adopt(new Recorder(1));
    auto p = channelTo(Batched, consumer);
    const QVariantList list {7};
    for (int n = 0; n < 300; ++n) // more than one block of the queue
        p->sendList(list);
    QTRY_COMPARE_WITH_TIMEOUT(consumer->received.loadAcquire(), 300, Patience);
    QTRY_VERIFY_WITH_TIMEOUT(list.isDetached(), Patience);
}

enum Ending { TimeOut, Close, ServerEnds };

void tst_Propagator::requestEndsWithoutAnswer_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<int>("ending");
    const char *names[] = {"read", "readList", "write", "writeList"};
    for (int kind : {Read, ReadList, Write, WriteList}) {
        QTest::addRow("%s, time-out", names[kind]) << kind << int(TimeOut);
        QTest::addRow("%s, close()", names[kind]) << kind << int(Close);
    }
    QTest::addRow("read, the server's thread ends") << int(Read) << int(ServerEnds);
}

// The error answer: empty data, -1.
bool errorAnswer(PropagatorFeedback *p, int kind, qlonglong i)
{
    switch (kind) {
    case Read:
        return p->read(i).isEmpty();
    case ReadList:
        return p->readList(i).isEmpty();
    case Write:
        return p->write(QByteArray::number(i)) == -1;
    default:
        return p->writeList({i}) == -1;
    }
}

void tst_Propagator::requestEndsWithoutAnswer()
{
    QFETCH(int, kind);
    QFETCH(int, ending);

    // As the kernel wires it, told the server's thread; the server ignores its first request.
    TestThread ppg, serverThread;
    auto *p = ppg.adopt(new PropagatorFeedbackConcurrent);
    p->setObjectName("ctl:dev->gen:dev");
    p->setServerThread(&serverThread);
    if (ending == TimeOut)
        p->setRequestTimeout(100);
    Warnings warnings(p);
    auto *server = serverThread.adopt(new Server(p, nullptr, 1));

    QAtomicInt failed;
    std::unique_ptr<QThread> requester(
        QThread::create([&] { failed.storeRelease(errorAnswer(p, kind, 1)); }));
    requester->start();
    QVERIFY(server->entered.tryAcquire(1, Patience));
    if (ending == Close)
        p->close();
    if (ending == ServerEnds) {
        serverThread.quit();
        QVERIFY(serverThread.wait(Patience));
    }
    QVERIFY(requester->wait(Patience));
    QVERIFY(failed.loadAcquire());

    const ChannelStats s = p->stats();
    if (ending == Close) {
        // Closed for good: the next blocking request is refused at once, quietly.
        QVERIFY(errorAnswer(p, kind, 2));
        QCOMPARE(p->stats().refused, quint64(1));
        QCOMPARE(s.timeouts, quint64(0));
        QCOMPARE(warnings.all().count(), 0);
        return;
    }
    QCOMPARE(s.timeouts, quint64(ending == TimeOut));
    QCOMPARE(warnings.all().count(), 1);
    const QString warning = warnings.all().first();
    QVERIFY2(warning.contains("\"ctl:dev->gen:dev\"")
                 && warning.contains(ending == TimeOut ? "100 ms" : "thread has ended"),
             qPrintable(warning));
    if (ending == ServerEnds) {
        // Nobody could answer any more: the next request does not wait either.
        QVERIFY(errorAnswer(p, kind, 2));
        return;
    }
    // The next request gets its own answer, not a stale one; so does the one after.
    QVERIFY(request(p, kind, 2));
    QVERIFY(request(p, (kind + 1) % RequestKinds, 3));
    const ChannelStats after = p->stats();
    QCOMPARE(after.requests, quint64(3));
    QCOMPARE(after.answers, quint64(2));
}

void tst_Propagator::blockingRequestRefused_data()
{
    QTest::addColumn<bool>("own");
    QTest::newRow("from the channel's own thread") << true;
    QTest::newRow("from the server's thread") << false;
}

void tst_Propagator::blockingRequestRefused()
{
    QFETCH(bool, own);

    TestThread ppg, serverThread;
    ppg.setObjectName("zt propagators");
    serverThread.setObjectName("zt2 gen,gain");
    auto *p = ppg.adopt(new PropagatorFeedbackConcurrent);
    p->setObjectName("ctl:dev->gen:dev");
    p->setServerThread(&serverThread);
    auto *server = serverThread.adopt(new Server(p));
    Warnings warnings(p);

    // Both would wait for ever for a request that thread itself would have to deliver.
    QSemaphore done;
    QByteArray answer("stale");
    qlonglong written = 0;
    postQueuedCall(own ? static_cast<QObject *>(p) : server, [&] {
        answer = p->read(1);
        written = p->write("2");
        tsanRelease(&answer);
        done.release();
    });
    QVERIFY(done.tryAcquire(1, Patience));
    tsanAcquire(&answer);
    QVERIFY(answer.isEmpty());
    QCOMPARE(written, qlonglong(-1));
    const ChannelStats s = p->stats();
    QCOMPARE(s.refused, quint64(2));
    QCOMPARE(s.requests, quint64(0));

    QCOMPARE(warnings.all().count(), 2);
    const QString warning = warnings.all().first();
    const QString thread = own ? "\"zt propagators\"" : "\"zt2 gen,gain\"";
    QVERIFY2(warning.contains("\"ctl:dev->gen:dev\"") && warning.contains(thread)
                 && warning.contains(own ? "own thread" : "server's thread"),
             qPrintable(warning));
    // From any other thread the channel works as before.
    QVERIFY(request(p, Read, 3));
}

QTEST_GUILESS_MAIN(tst_Propagator)
#include "tst_propagator.moc"
