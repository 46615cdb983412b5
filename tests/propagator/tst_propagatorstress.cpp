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
constexpr int Patience = 120000; // ms; a hang guard for the sanitizer build

// Expects from every producer the numbers 0, 1, 2, ... in order, each exactly once.
class Sink : public ZtMIStream
{
    Q_OBJECT

public:
    explicit Sink(int id)
        : ZtMIStream(id)
        , next(Producers, 0)
    { }

    QVector<int> next; // read by the test only once received is complete
    QAtomicInt received;
    QAtomicInt faults;

public slots:
    void StartProcessing(QVariantList data) override
    {
        const int producer = data.value(0).toInt();
        if (data.size() != 2 || producer < 0 || producer >= Producers
            || data.value(1).toInt() != next[producer])
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
    TestThread first, second;
    auto *fresh = first.adopt(new Sink(1));
    auto *all = second.adopt(new Sink(2));

    // Wired as the kernel wires consumers in other threads: queued, with their locks listed.
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

    for (Sink *sink : {fresh, all}) {
        QTRY_COMPARE_WITH_TIMEOUT(sink->received.loadAcquire(), Producers * ListsPerProducer,
                                  Patience);
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

    QAtomicInt done, wrong;
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
