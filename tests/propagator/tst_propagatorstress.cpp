#include "propagatorfeedbackconcurrent.h"
#include "propagatorstreamconcurrent.h"
#include "propagatortest.h"
#include "ztmistream.h"

#include <QAtomicInt>
#include <QTest>
#include <QThread>
#include <QVector>

#include <memory>
#include <vector>

namespace {

constexpr int Producers = 4;
constexpr int ListsPerProducer = 25000;
constexpr int Requests = 20000;
constexpr int Patience = 120000; // ms; generous for the sanitizer build, never reached normally

// A consumer module that expects, from every producer, the numbers 0, 1, 2, ... in order, each
// exactly once. Anything else counts as a fault.
class Sink : public ZtMIStream
{
    Q_OBJECT

public:
    explicit Sink(int id)
        : ZtMIStream(id)
        , next(Producers, 0)
    { }

    QVector<int> next; // read by the test only after received reached its final value
    QAtomicInt received;
    QAtomicInt faults;

public slots:
    void StartProcessing(QVariantList data) override
    {
        const int producer = data.value(0).toInt();
        const int number = data.value(1).toInt();
        if (data.size() != 2 || producer < 0 || producer >= Producers || number != next[producer])
            faults.ref();
        else
            ++next[producer];
        received.ref();
    }
};

bool requestOnce(PropagatorFeedback *p, qlonglong i)
{
    bool ok = false;
    switch (i % 5) {
    case 0:
        return p->read(i) == QByteArray::number(i);
    case 1:
        return p->readList(i) == QVariantList {i, i + 1};
    case 2:
        return p->write(QByteArray::number(i)) == i * 2;
    case 3:
        return p->writeList({i, "x"}) == i * 3;
    default:
        return p->readLater(i) && p->waitLaterRead(-1, &ok) == QByteArray::number(i) && ok;
    }
}

} // namespace

class tst_PropagatorStress : public QObject
{
    Q_OBJECT

private slots:
    void streamKeepsEveryListOnceAndInOrder();
    void feedbackMatchesEveryAnswer();
};

void tst_PropagatorStress::streamKeepsEveryListOnceAndInOrder()
{
    TestThread first;
    TestThread second;
    auto *fresh = first.adopt(new Sink(1));
    auto *all = second.adopt(new Sink(2));

    // Wired as the kernel wires consumers in other threads: automatic connections, so the
    // calls are queued into the consumers' threads, and the consumers' locks in the list.
    PropagatorStreamConcurrent p;
    p.appendLocker(fresh->getLocker());
    p.appendLocker(all->getLocker());
    connect(&p, &PropagatorStream::streamSendList, fresh, &ZtMIStream::StartProcessing);
    connect(&p, &PropagatorStream::trySendList, all, &ZtMIStream::StartProcessing);

    std::vector<std::unique_ptr<QThread>> producers;
    for (int id = 0; id < Producers; ++id) {
        producers.emplace_back(QThread::create([&p, id] {
            for (int n = 0; n < ListsPerProducer; ++n)
                p.sendList(QVariantList {id, n});
        }));
        producers.back()->start();
    }
    for (auto &producer : producers)
        QVERIFY(producer->wait());

    const int total = Producers * ListsPerProducer;
    QTRY_COMPARE_WITH_TIMEOUT(fresh->received.loadAcquire(), total, Patience);
    QTRY_COMPARE_WITH_TIMEOUT(all->received.loadAcquire(), total, Patience);
    for (Sink *sink : {fresh, all}) {
        QCOMPARE(sink->faults.loadAcquire(), 0);
        QCOMPARE(sink->next, QVector<int>(Producers, ListsPerProducer));
    }
}

void tst_PropagatorStress::feedbackMatchesEveryAnswer()
{
    TestThread serverThread;
    auto *p = new PropagatorFeedbackConcurrent;
    new Server(p);
    serverThread.adopt(p);

    QAtomicInt done;
    QAtomicInt wrong;
    std::unique_ptr<QThread> requester(QThread::create([&] {
        for (int i = 0; i < Requests; ++i) {
            if (!requestOnce(p, i))
                wrong.ref();
            done.ref();
        }
    }));
    requester->start();

    QVERIFY(requester->wait(Patience));
    QCOMPARE(done.loadAcquire(), Requests);
    QCOMPARE(wrong.loadAcquire(), 0);
}

QTEST_GUILESS_MAIN(tst_PropagatorStress)
#include "tst_propagatorstress.moc"
