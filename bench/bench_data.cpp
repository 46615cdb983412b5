// Data conversion costs, each measured beside a hand-written baseline in the same run. The
// program ends with one line per ratio of CPU time per iteration (conversion / baseline); CPU
// time rather than wall time because the machine is usually shared with other builds.

#include <ztdataarray.h>
#include <ztdataconverter.h>
#include <ztdatawrapper.h>

#include <QVariant>
#include <QVector>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>

namespace {
constexpr int sampleCount = 1000000;
constexpr int pointCount = 100000;

const QVector<double> &samples()
{
    static const QVector<double> data = [] {
        QVector<double> d(sampleCount);
        for (int i = 0; i < sampleCount; ++i)
            d[i] = (i % 2001 - 1000) * 1.37;
        return d;
    }();
    return data;
}

const ZtDataArray &points()
{
    static const ZtDataArray array = [] {
        ZtDataArray a;
        a.items.reserve(pointCount);
        for (int i = 0; i < pointCount; ++i)
            a.items.append(QVariant::fromValue(ZtDataXY(i * 0.01, i % 97 * 0.5)));
        return a;
    }();
    return array;
}

const QVariantList &pointList()
{
    static const QVariantList list = ZtDataWrapper::convArrayToList(points());
    return list;
}

void BM_PlainLoopDoubleToInt32(benchmark::State &state)
{
    const QVector<double> &src = samples();
    for (auto _ : state) {
        QVector<qint32> out(src.size());
        const double *s = src.constData();
        qint32 *d = out.data();
        for (int i = 0; i < src.size(); ++i)
            d[i] = static_cast<qint32>(s[i]);
        benchmark::DoNotOptimize(out.constData());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * sampleCount);
}
BENCHMARK(BM_PlainLoopDoubleToInt32)->Unit(benchmark::kMicrosecond);

void BM_ConvertFromVariantDoubleToInt32(benchmark::State &state)
{
    const QVariant v = QVariant::fromValue(samples());
    for (auto _ : state) {
        QVector<qint32> out = ZtDataConverter::convertFromVariant<QVector<qint32>>(v);
        benchmark::DoNotOptimize(out.constData());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * sampleCount);
}
BENCHMARK(BM_ConvertFromVariantDoubleToInt32)->Unit(benchmark::kMicrosecond);

// The held vector comes back shared: the cost must not depend on the sample count.
void BM_ConvertFromVariantSameType(benchmark::State &state)
{
    const QVariant v = QVariant::fromValue(samples());
    for (auto _ : state) {
        QVector<double> out = ZtDataConverter::convertFromVariant<QVector<double>>(v);
        benchmark::DoNotOptimize(out.constData());
    }
    if (!ZtDataConverter::convertFromVariant<QVector<double>>(v).isSharedWith(samples()))
        state.SkipWithError("same-type conversion copied the samples");
    state.SetItemsProcessed(state.iterations() * sampleCount);
}
BENCHMARK(BM_ConvertFromVariantSameType)->Unit(benchmark::kNanosecond);

void BM_HandWrittenArrayToList(benchmark::State &state)
{
    const ZtDataArray &array = points();
    for (auto _ : state) {
        QVariantList out;
        out.reserve(array.items.size() * 2);
        for (const QVariant &v : array.items) {
            const auto *p = static_cast<const ZtDataXY *>(v.constData());
            out.append(p->getX());
            out.append(p->getY());
        }
        benchmark::DoNotOptimize(&out);
    }
    state.SetItemsProcessed(state.iterations() * pointCount);
}
BENCHMARK(BM_HandWrittenArrayToList)->Unit(benchmark::kMillisecond);

void BM_ConvArrayToList(benchmark::State &state)
{
    const ZtDataArray &array = points();
    for (auto _ : state) {
        QVariantList out = ZtDataWrapper::convArrayToList(array);
        benchmark::DoNotOptimize(&out);
    }
    state.SetItemsProcessed(state.iterations() * pointCount);
}
BENCHMARK(BM_ConvArrayToList)->Unit(benchmark::kMillisecond);

void BM_HandWrittenListToArray(benchmark::State &state)
{
    const QVariantList &list = pointList();
    for (auto _ : state) {
        ZtDataArray out;
        out.items.reserve(list.size() / 2);
        for (int i = 0; i + 1 < list.size(); i += 2)
            out.items.append(QVariant::fromValue(ZtDataXY(list.at(i), list.at(i + 1))));
        benchmark::DoNotOptimize(&out);
    }
    state.SetItemsProcessed(state.iterations() * pointCount);
}
BENCHMARK(BM_HandWrittenListToArray)->Unit(benchmark::kMillisecond);

void BM_ConvListToArray(benchmark::State &state)
{
    const QVariantList &list = pointList();
    for (auto _ : state) {
        ZtDataArray out = ZtDataWrapper::convListToArray(list);
        benchmark::DoNotOptimize(&out);
    }
    state.SetItemsProcessed(state.iterations() * pointCount);
}
BENCHMARK(BM_ConvListToArray)->Unit(benchmark::kMillisecond);

// Keeps the time per iteration of every run so that main() can print the ratios.
class RecordingReporter : public benchmark::ConsoleReporter
{
public:
    // Plain tables: the figures are meant to be pasted into bench/README.md.
    RecordingReporter()
        : ConsoleReporter(OO_Tabular)
    { }

    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs) {
            if (!run.error_occurred && run.iterations > 0)
                timePerIteration[run.benchmark_name()] = run.cpu_accumulated_time / run.iterations;
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void printRatio(const char *label, const std::string &measured, const std::string &baseline)
    {
        const auto m = timePerIteration.find(measured);
        const auto b = timePerIteration.find(baseline);
        if (m == timePerIteration.end() || b == timePerIteration.end() || b->second <= 0)
            return;
        std::printf("ratio %s: %.3f (%s / %s)\n", label, m->second / b->second, measured.c_str(),
                    baseline.c_str());
    }

private:
    std::map<std::string, double> timePerIteration;
};
} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    // Build the inputs outside the timed loops.
    samples();
    pointList();

    RecordingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::fflush(stdout);
    reporter.printRatio("convertFromVariant double->qint32 vs plain loop (target <= 1.3)",
                        "BM_ConvertFromVariantDoubleToInt32", "BM_PlainLoopDoubleToInt32");
    reporter.printRatio("convArrayToList vs hand-written loop", "BM_ConvArrayToList",
                        "BM_HandWrittenArrayToList");
    reporter.printRatio("convListToArray vs hand-written loop", "BM_ConvListToArray",
                        "BM_HandWrittenListToArray");
    benchmark::Shutdown();
    return 0;
}
