// Propagators against the plain Qt mechanisms they are built on, measured side by side between
// the same two threads (this one and one worker with an event loop):
//   stream   PropagatorStreamConcurrent::sendList into a consumer module in the worker thread
//            vs a plain queued signal-to-slot connection carrying the same list (messages/s);
//   feedback PropagatorFeedbackConcurrent::read answered by a server in the worker thread
//            vs a bare round trip of QCoreApplication::postEvent and a QSemaphore (latency);
//   direct   PropagatorStreamDirect::sendList vs a direct signal-to-slot call (same thread).
// The pairs run interleaved in several rounds, alternating which side goes first, so that a
// change of machine load hits both sides; each printed ratio is the median of the per-round
// ratios.

#include "propagatorfeedbackconcurrent.h"
#include "propagatorstreamconcurrent.h"
#include "propagatorstreamdirect.h"
#include "ztmistream.h"

#include <QCoreApplication>
#include <QEvent>
#include <QSemaphore>
#include <QThread>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr int Batch = 1000; // lists per measured iteration of the stream pair
constexpr int Rounds = 9;
constexpr int RequestEvent = 1001;

QVariantList smallList()
{
    return QVariantList {1, 2.5, QStringLiteral("abc")};
}

// The consumer module, wired as the kernel wires a stream consumer in another thread.
class Sink : public ZtMIStream
{
    Q_OBJECT

public:
    Sink()
        : ZtMIStream(0)
    { }

    // Called only while the worker is idle, before the lists of a batch are sent; the posting
    // of the first list orders these writes before the worker reads them.
    void expect(int n)
    {
        received = 0;
        target = n;
    }
    void waitForAll() { done.acquire(); }

public slots:
    void StartProcessing(QVariantList data) override
    {
        benchmark::DoNotOptimize(data.size());
        if (++received == target)
            done.release();
    }

private:
    int received = 0;
    int target = 0;
    QSemaphore done;
};

class Source : public QObject
{
    Q_OBJECT

signals:
    void out(QVariantList list);
};

class Counter : public QObject
{
    Q_OBJECT

public:
    long long n = 0;

public slots:
    void take(QVariantList list) { n += list.size(); }
};

class Server : public QObject
{
    Q_OBJECT

public:
    explicit Server(PropagatorFeedback *p)
        : QObject(p)
        , p(p)
        , reply(16, 'r')
    {
        connect(p, &PropagatorFeedback::tryRead, this, &Server::onRead);
    }

public slots:
    void onRead(qlonglong) { p->readReturn(reply); }

private:
    PropagatorFeedback *p;
    QByteArray reply;
};

// The least that a cross-thread request and answer can cost with Qt: one posted event, one
// semaphore.
class Echo : public QObject
{
public:
    QSemaphore answered;

    bool event(QEvent *e) override
    {
        if (e->type() == RequestEvent) {
            answered.release();
            return true;
        }
        return QObject::event(e);
    }
};

struct Environment
{
    Environment()
    {
        worker.start();
        sink = new Sink;
        sink->moveToThread(&worker);
        stream.appendLocker(sink->getLocker());
        QObject::connect(&stream, &PropagatorStream::trySendList, sink,
                         &ZtMIStream::StartProcessing);
        QObject::connect(&source, &Source::out, sink, &ZtMIStream::StartProcessing,
                         Qt::QueuedConnection);

        feedback = new PropagatorFeedbackConcurrent;
        new Server(feedback);
        feedback->moveToThread(&worker);
        echo = new Echo;
        echo->moveToThread(&worker);
    }
    ~Environment()
    {
        worker.quit();
        worker.wait();
        delete echo;
        delete feedback;
        delete sink;
    }

    QThread worker;
    Sink *sink;
    Source source;
    PropagatorStreamConcurrent stream;
    PropagatorFeedbackConcurrent *feedback;
    Echo *echo;
};

Environment *env = nullptr;

void streamPlain(benchmark::State &state)
{
    const QVariantList list = smallList();
    for (auto _ : state) {
        env->sink->expect(Batch);
        for (int i = 0; i < Batch; ++i)
            emit env->source.out(list);
        env->sink->waitForAll();
    }
    state.SetItemsProcessed(state.iterations() * Batch);
}

void streamPropagator(benchmark::State &state)
{
    const QVariantList list = smallList();
    for (auto _ : state) {
        env->sink->expect(Batch);
        for (int i = 0; i < Batch; ++i)
            env->stream.sendList(list);
        env->sink->waitForAll();
    }
    state.SetItemsProcessed(state.iterations() * Batch);
}

void feedbackPlain(benchmark::State &state)
{
    for (auto _ : state) {
        QCoreApplication::postEvent(env->echo, new QEvent(QEvent::Type(RequestEvent)));
        env->echo->answered.acquire();
    }
}

void feedbackPropagator(benchmark::State &state)
{
    qlonglong pos = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(env->feedback->read(pos++));
}

void directPlain(benchmark::State &state)
{
    Source source;
    Counter counter;
    QObject::connect(&source, &Source::out, &counter, &Counter::take, Qt::DirectConnection);
    const QVariantList list = smallList();
    for (auto _ : state)
        emit source.out(list);
    benchmark::DoNotOptimize(counter.n);
}

void directPropagator(benchmark::State &state)
{
    PropagatorStreamDirect p;
    Counter counter;
    QObject::connect(&p, &PropagatorStream::trySendList, &counter, &Counter::take,
                     Qt::DirectConnection);
    const QVariantList list = smallList();
    for (auto _ : state)
        p.sendList(list);
    benchmark::DoNotOptimize(counter.n);
}

struct Pair
{
    const char *name;
    void (*plain)(benchmark::State &);
    void (*propagator)(benchmark::State &);
    bool throughput; // compare messages per second, else time per call
    const char *target;
};

const Pair pairs[] = {
    {"stream", streamPlain, streamPropagator, true, ">= 0.9"},
    {"feedback", feedbackPlain, feedbackPropagator, false, "<= 1.2"},
    {"direct", directPlain, directPropagator, false, "none, reported"},
};

std::string runName(const char *pair, const char *side, int round)
{
    return std::string(pair) + "/" + side + "/round:" + std::to_string(round);
}

// Keeps, per benchmark name, the figure that the ratio is built from.
class Collector : public benchmark::ConsoleReporter
{
public:
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs) {
            if (run.run_type != Run::RT_Iteration || run.error_occurred)
                continue;
            const auto items = run.counters.find("items_per_second");
            perSecond[run.run_name.function_name]
                = items != run.counters.end() ? double(items->second) : 0.0;
            timePerCall[run.run_name.function_name] = run.GetAdjustedRealTime();
            cpuPerCall[run.run_name.function_name] = run.GetAdjustedCPUTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }

    std::map<std::string, double> perSecond;
    std::map<std::string, double> timePerCall;
    std::map<std::string, double> cpuPerCall; // of this thread only: the producer/requester
};

double median(std::vector<double> v)
{
    if (v.empty())
        return 0.0;
    std::sort(v.begin(), v.end());
    const size_t mid = v.size() / 2;
    return v.size() % 2 ? v[mid] : (v[mid - 1] + v[mid]) / 2;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    Environment environment;
    env = &environment;

    for (int round = 0; round < Rounds; ++round) {
        for (const Pair &pair : pairs) {
            // Alternate which side goes first, so that neither always inherits a warm or a
            // disturbed machine from the run before it.
            for (int side = 0; side < 2; ++side) {
                const bool propagator = (side + round) % 2 == 1;
                const std::string name
                    = runName(pair.name, propagator ? "propagator" : "plain", round);
                auto *b = benchmark::RegisterBenchmark(name.c_str(),
                                                       propagator ? pair.propagator : pair.plain);
                b->UseRealTime()->MinTime(0.2);
                b->Unit(pair.throughput ? benchmark::kMicrosecond : benchmark::kNanosecond);
            }
        }
    }

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);

    std::printf("\nRatios, propagator against plain Qt (median of %d rounds):\n", Rounds);
    for (const Pair &pair : pairs) {
        std::vector<double> ratios;
        std::vector<double> cpuRatios;
        std::string rounds;
        for (int round = 0; round < Rounds; ++round) {
            const std::string plain = runName(pair.name, "plain", round);
            const std::string prop = runName(pair.name, "propagator", round);
            if (!collector.timePerCall.count(plain) || !collector.timePerCall.count(prop))
                continue;
            const double r = pair.throughput
                ? collector.perSecond[prop] / collector.perSecond[plain]
                : collector.timePerCall[prop] / collector.timePerCall[plain];
            ratios.push_back(r);
            cpuRatios.push_back(collector.cpuPerCall[prop] / collector.cpuPerCall[plain]);
            char buf[16];
            std::snprintf(buf, sizeof buf, " %.3f", r);
            rounds += buf;
        }
        if (ratios.empty())
            continue;
        std::printf("  %-8s %s ratio %.3f (target %s); rounds:%s\n", pair.name,
                    pair.throughput ? "messages/s" : "time/call ", median(ratios), pair.target,
                    rounds.c_str());
        // Not the target figure; shows the sending side's own cost when wall time is noisy.
        std::printf("  %-8s calling thread's CPU time per call, ratio %.3f\n", pair.name,
                    median(cpuRatios));
    }
    env = nullptr;
    return 0;
}

#include "bench_propagator.moc"
