// Propagators against the plain Qt mechanisms they are built on, measured side by side between
// the same two threads (this one and one worker with an event loop):
//   stream   PropagatorStreamConcurrent::sendList into a consumer module in the worker thread
//            vs a plain queued signal-to-slot connection carrying the same list (messages/s);
//   feedback PropagatorFeedbackConcurrent::read answered by a server in the worker thread
//            vs a bare round trip of QCoreApplication::postEvent and a QSemaphore (latency);
//   direct   PropagatorStreamDirect::sendList vs a direct signal-to-slot call (same thread);
//   batched  PropagatorStreamBatched::sendList vs PropagatorStreamConcurrent::sendList, lists of
//            8 doubles into the same consumer (messages/s; "plain" is the concurrent one here).
// The pairs run interleaved in several rounds, alternating which side goes first, so that a
// change of machine load hits both sides; each printed ratio is the median of the per-round
// ratios.
//
// The channel statistics are measured against the same program built with the counting
// compiled out (bench_propagator_nostats): `bench_propagator --stats-vs-nostats=<that program>`
// runs both, in turns, as child processes (`--stream-child`) that each time the stream pair for
// a while and print their messages per second.

#include "propagatorfeedbackconcurrent.h"
#include "propagatorstreambatched.h"
#include "propagatorstreamconcurrent.h"
#include "propagatorstreamdirect.h"
#include "ztmistream.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEvent>
#include <QProcess>
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

QVariantList eightDoubles()
{
    QVariantList list;
    for (int i = 0; i < 8; ++i)
        list.append(0.5 * i);
    return list;
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
        batched.appendLocker(sink->getLocker());
        QObject::connect(&batched, &PropagatorStream::trySendList, sink,
                         &ZtMIStream::StartProcessing);

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
    PropagatorStreamBatched batched;
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

template<typename Send>
void batches(benchmark::State &state, Send send)
{
    const QVariantList list = eightDoubles();
    for (auto _ : state) {
        env->sink->expect(Batch);
        for (int i = 0; i < Batch; ++i)
            send(list);
        env->sink->waitForAll();
    }
    state.SetItemsProcessed(state.iterations() * Batch);
}

void streamConcurrentEight(benchmark::State &state)
{
    batches(state, [](const QVariantList &list) { env->stream.sendList(list); });
}

void streamBatchedEight(benchmark::State &state)
{
    batches(state, [](const QVariantList &list) { env->batched.sendList(list); });
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
    {"batched", streamConcurrentEight, streamBatchedEight, true, "none, reported"},
};

double median(std::vector<double> v);

// Lists per second through the stream pair's plain side or its propagator, for about `ms`.
double listsPerSecond(bool propagator, int ms)
{
    const QVariantList list = smallList();
    QElapsedTimer clock;
    clock.start();
    qint64 lists = 0;
    while (clock.elapsed() < ms) {
        env->sink->expect(Batch);
        for (int i = 0; i < Batch; ++i) {
            if (propagator)
                env->stream.sendList(list);
            else
                emit env->source.out(list);
        }
        env->sink->waitForAll();
        lists += Batch;
    }
    return double(lists) * 1e9 / double(clock.nsecsElapsed());
}

// One child's share: alternating turns of both sides; prints the median of each.
int streamChild()
{
    std::vector<double> plain, propagator;
    listsPerSecond(true, 50); // warm up
    for (int turn = 0; turn < 6; ++turn) {
        const bool first = turn % 2;
        (first ? propagator : plain).push_back(listsPerSecond(first, 100));
        (first ? plain : propagator).push_back(listsPerSecond(!first, 100));
    }
    // The lists the channel counted: none in the program built without the statistics.
    std::printf("plain %.0f propagator %.0f counted %llu\n", median(plain), median(propagator),
                static_cast<unsigned long long>(env->stream.stats().lists));
    return 0;
}

// Runs this program and `other` (the counting compiled out) as children, in turns that
// alternate which goes first; prints the medians and spreads of the ratios.
int statsVsNoStats(const QString &other, int pairs)
{
    const auto run = [](const QString &program, double &plain, double &propagator, bool counting) {
        QProcess child;
        child.start(program, {QStringLiteral("--stream-child")});
        if (!child.waitForFinished(120000) || child.exitCode() != 0)
            return false;
        const QList<QByteArray> f = child.readAllStandardOutput().simplified().split(' ');
        if (f.size() != 6 || (f.at(5).toULongLong() > 0) != counting)
            return false;
        plain = f.at(1).toDouble();
        propagator = f.at(3).toDouble();
        return true;
    };
    const QString self = QCoreApplication::applicationFilePath();
    std::vector<double> versusOff, versusPlain, offVersusPlain;
    for (int pair = 0; pair < pairs; ++pair) {
        double plainOn = 0, on = 0, plainOff = 0, off = 0;
        const bool onFirst = pair % 2 == 0;
        if (!run(onFirst ? self : other, onFirst ? plainOn : plainOff, onFirst ? on : off, onFirst)
            || !run(onFirst ? other : self, onFirst ? plainOff : plainOn, onFirst ? off : on,
                    !onFirst)) {
            std::fprintf(stderr, "a child failed, or counted when it should not (or not)\n");
            return 1;
        }
        versusOff.push_back(on / off);
        versusPlain.push_back(on / plainOn);
        offVersusPlain.push_back(off / plainOff);
        std::printf("pair %2d: statistics on %.0f, off %.0f lists/s; on/off %.3f, on/plain "
                    "%.3f\n",
                    pair, on, off, on / off, on / plainOn);
        std::fflush(stdout);
    }
    const auto spread = [](std::vector<double> v) {
        std::sort(v.begin(), v.end());
        char buf[64];
        std::snprintf(buf, sizeof buf, "median %.3f (min %.3f, max %.3f)", median(v), v.front(),
                      v.back());
        return std::string(buf);
    };
    std::printf("\nStream propagator, %d alternating child pairs:\n", pairs);
    std::printf("  statistics on / compiled out, messages/s: %s (target >= 0.95)\n",
                spread(versusOff).c_str());
    std::printf("  statistics on / plain queued signal:      %s (target >= 0.9)\n",
                spread(versusPlain).c_str());
    std::printf("  compiled out / plain queued signal:       %s\n", spread(offVersusPlain).c_str());
    return 0;
}

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
    const QStringList args = app.arguments();
    if (args.contains(QStringLiteral("--stream-child")))
        return streamChild();
    for (const QString &arg : args) {
        if (arg.startsWith(QStringLiteral("--stats-vs-nostats=")))
            return statsVsNoStats(arg.section('=', 1), 15);
    }

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
