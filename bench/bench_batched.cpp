// The batched cross-thread channel against the same entry without it. Two stream modules wired
// by the kernel from a settings file, the source on worker thread 0, the consumer on worker
// thread 1:
//   plain    id_0;signal_ImReady(QVariantList);id_1;slot_StartProcessing(QVariantList)
//   batched  the same entry with ";channel=batched"
// The source emits lists of 8 doubles as fast as it can; a run ends when the consumer's slot has
// seen every list. The two kinds alternate (which goes first changes every repetition), each
// with a kernel of its own; the ratio is taken of the medians of lists per second.
// Usage: bench_batched [repetitions] [lists per run]

#include <propagator.h>
#include <ztkernel.h>
#include <ztmifound.h>

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

QString writeSettings(const QString &dir, const QString &name, const QString &options)
{
    const QString text
        = QStringLiteral("[mainwindow]\ncfgfile=batched bench\nloggerfile=%1\n[modules]\n"
                         "id_0\\.name=BenchStream\nid_0\\.thread=0\n"
                         "id_1\\.name=BenchStream\nid_1\\.thread=1\n[connections]\n"
                         "01=\"id_0;signal_ImReady(QVariantList);id_1;slot_StartProcessing("
                         "QVariantList)%2\"\n")
              .arg(QDir(dir).filePath(name + QStringLiteral(".log")), options);
    QFile file(QDir(dir).filePath(name + QStringLiteral(".ini")));
    if (file.open(QIODevice::WriteOnly))
        file.write(text.toUtf8());
    return file.fileName();
}

qint64 received(QObject *sink)
{
    qint64 n = 0;
    QMetaObject::invokeMethod(sink, "received", Qt::DirectConnection, Q_RETURN_ARG(qint64, n));
    return n;
}

// Lists per second through one freshly wired pair of modules; -1 when something failed.
double run(const QString &settings, const QString &kind, int lists)
{
    QObject host; // owns the worker threads; stops them after the kernel is gone
    auto *kernel = new ZtKernel(&host);
    kernel->setOptionsFileName(settings);
    kernel->loadModules(QFileInfo(QStringLiteral(BENCH_MODULE_FILE)).absolutePath());
    kernel->makeConnections();
    kernel->initModules();
    const QList<ChannelRow> rows = kernel->channelRows();
    ZtMIFound *source = kernel->getModule(0).module;
    ZtMIFound *sink = kernel->getModule(1).module;
    if (!source || !sink || rows.size() != 1 || !rows.first().connected
        || rows.first().kind != kind) {
        std::fprintf(stderr, "%s: not wired as expected (%s)\n", qPrintable(settings),
                     rows.isEmpty() ? "no row" : qPrintable(rows.first().kind));
        delete kernel;
        return -1;
    }

    QElapsedTimer clock;
    clock.start();
    QMetaObject::invokeMethod(source, "emitMany", Qt::QueuedConnection, Q_ARG(int, lists));
    while (received(sink) < lists && clock.elapsed() < 300000)
        QThread::usleep(200);
    const double seconds = clock.nsecsElapsed() / 1e9;
    const bool complete = received(sink) == lists;
    delete kernel;
    return complete ? lists / seconds : -1;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

} // namespace

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    // The kernel's debug lines are not what is measured here.
    if (qEnvironmentVariableIsEmpty("QT_LOGGING_RULES"))
        qputenv("QT_LOGGING_RULES", "*.debug=false");
    QApplication app(argc, argv);
    const QStringList args = app.arguments();
    const int repetitions = std::max(5, args.value(1, QStringLiteral("7")).toInt());
    const int lists = std::max(1000, args.value(2, QStringLiteral("200000")).toInt());

    QTemporaryDir dir;
    const QString plain = writeSettings(dir.path(), QStringLiteral("plain"), QString());
    const QString batched
        = writeSettings(dir.path(), QStringLiteral("batched"), QStringLiteral(";channel=batched"));
    std::printf("%d lists of 8 doubles per run, %d alternating repetitions\n", lists, repetitions);
    std::vector<double> plainRates, batchedRates, ratios;
    for (int r = 0; r < repetitions; ++r) {
        double p = 0, b = 0;
        if (r % 2 == 0) {
            p = run(plain, QStringLiteral("signal/slot"), lists);
            b = run(batched, QStringLiteral("batched"), lists);
        } else {
            b = run(batched, QStringLiteral("batched"), lists);
            p = run(plain, QStringLiteral("signal/slot"), lists);
        }
        if (p <= 0 || b <= 0)
            return 1;
        plainRates.push_back(p);
        batchedRates.push_back(b);
        ratios.push_back(b / p);
        std::printf("repetition %d: plain %.0f lists/s, batched %.0f lists/s, ratio %.2f\n", r + 1,
                    p, b, b / p);
    }
    auto range = [](const std::vector<double> &v) {
        return std::make_pair(*std::min_element(v.begin(), v.end()),
                              *std::max_element(v.begin(), v.end()));
    };
    std::printf("plain entry:   median %.0f lists/s (%.0f..%.0f)\n", median(plainRates),
                range(plainRates).first, range(plainRates).second);
    std::printf("channel=batched: median %.0f lists/s (%.0f..%.0f)\n", median(batchedRates),
                range(batchedRates).first, range(batchedRates).second);
    std::printf("ratio batched / plain (target >= 5): %.2f (median of pairs %.2f, %.2f..%.2f)\n",
                median(batchedRates) / median(plainRates), median(ratios), range(ratios).first,
                range(ratios).second);
    return 0;
}
