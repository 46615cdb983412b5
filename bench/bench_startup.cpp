// Kernel start-up against dlopen of the same files. 150 copies of one stream module library,
// 150 modules on four worker threads, 149 connection entries joining them in a chain; every
// repetition runs in a fresh process:
//   kernel  ZtKernel from settings to the end of initModules (settings, loadModules,
//           makeConnections, initModules)
//   dlopen  dlopen(RTLD_NOW) of the same 150 files
// The two kinds alternate (which one goes first changes every repetition), so that a change of
// machine load hits both; the ratio is taken of the medians. Usage: bench_startup [repetitions];
// bench_startup --prepare DIR writes the folder once, for a profiler run of --kernel DIR.

#include <ztkernel.h>

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <dlfcn.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <vector>

namespace {

constexpr int Modules = 150;
constexpr int Threads = 4;

// CPU time of the whole process (every thread), which a busy machine inflates less than wall time.
qint64 cpuNow()
{
    timespec t {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return qint64(t.tv_sec) * 1000000000 + t.tv_nsec;
}

QString libraryName(int i)
{
    return QStringLiteral("BenchStream%1").arg(i, 3, 10, QLatin1Char('0'));
}

// The modules folder and its settings file.
bool prepare(const QString &dir)
{
    QString text
        = QStringLiteral("[mainwindow]\ncfgfile=start-up bench\nloggerfile=%1\n[modules]\n")
              .arg(QDir(dir).filePath(QStringLiteral("zt.log")));
    for (int i = 0; i < Modules; ++i) {
        const QString file = QDir(dir).filePath(libraryName(i).toLower() + QStringLiteral(".dll"));
        if (!QFile::copy(QStringLiteral(BENCH_MODULE_FILE), file))
            return false;
        text += QStringLiteral("id_%1\\.name=%2\nid_%1\\.thread=%3\n")
                    .arg(i)
                    .arg(libraryName(i))
                    .arg(i % Threads);
    }
    text += QStringLiteral("[connections]\n");
    for (int i = 0; i + 1 < Modules; ++i)
        text += QStringLiteral("%1=\"id_%2;signal_ImReady(QVariantList);id_%3;slot_StartProcessing("
                               "QVariantList)\"\n")
                    .arg(i + 1, 3, 10, QLatin1Char('0'))
                    .arg(i)
                    .arg(i + 1);
    QFile settings(QDir(dir).filePath(QStringLiteral("system.ini")));
    return settings.open(QIODevice::WriteOnly) && settings.write(text.toUtf8()) > 0;
}

// Child: one start-up; prints its time and the kernel's phases, then leaves without shutdown.
int runKernel(const QString &dir)
{
    QElapsedTimer clock;
    clock.start();
    const qint64 cpu = cpuNow();
    auto *host = new QObject;
    auto *kernel = new ZtKernel(host);
    kernel->setOptionsFileName(QDir(dir).filePath(QStringLiteral("system.ini")));
    kernel->loadModules(dir);
    kernel->makeConnections();
    kernel->initModules();
    const qint64 ns = clock.nsecsElapsed();
    std::printf("ns %lld\ncpu %lld\n", static_cast<long long>(ns),
                static_cast<long long>(cpuNow() - cpu));
    for (const StartupPhase &phase : kernel->startupPhases()) {
        if (phase.depth == 0)
            std::printf("phase %s|%lld\n", qPrintable(phase.name),
                        static_cast<long long>(phase.durationNs));
    }
    std::fflush(stdout);
    _exit(0);
}

int runDlopen(const QString &dir)
{
    QElapsedTimer clock;
    clock.start();
    const qint64 cpu = cpuNow();
    for (int i = 0; i < Modules; ++i) {
        const QByteArray file
            = QFile::encodeName(QDir(dir).filePath(libraryName(i).toLower() + ".dll"));
        if (!dlopen(file.constData(), RTLD_NOW)) {
            std::fprintf(stderr, "%s\n", dlerror());
            return 1;
        }
    }
    std::printf("ns %lld\ncpu %lld\n", static_cast<long long>(clock.nsecsElapsed()),
                static_cast<long long>(cpuNow() - cpu));
    std::fflush(stdout);
    _exit(0);
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// Runs this program as a child; its wall time in ns, its CPU time into `cpu`, and its phases
// added to `phases`.
double child(const QString &mode, const QString &dir, double *cpu,
             std::map<QString, std::vector<double>> *phases)
{
    QProcess process;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    process.setProcessEnvironment(env);
    // The kernel's debug lines are written, as in a host, but to nowhere: a pipe that nobody
    // empties during the run would make the child wait for its reader.
    process.setStandardErrorFile(QProcess::nullDevice());
    process.start(QCoreApplication::applicationFilePath(), {mode, dir});
    if (!process.waitForFinished(120000) || process.exitCode() != 0) {
        std::fprintf(stderr, "%s child failed\n", qPrintable(mode));
        return -1;
    }
    double ns = -1;
    for (const QByteArray &line : process.readAllStandardOutput().split('\n')) {
        if (line.startsWith("ns "))
            ns = line.mid(3).toDouble();
        else if (line.startsWith("cpu "))
            *cpu = line.mid(4).toDouble();
        else if (line.startsWith("phase ") && phases) {
            const QList<QByteArray> parts = line.mid(6).split('|');
            (*phases)[QString::fromUtf8(parts.value(0))].push_back(parts.value(1).toDouble());
        }
    }
    return ns;
}

} // namespace

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() == 3 && args.at(1) == QLatin1String("--kernel"))
        return runKernel(args.at(2));
    if (args.size() == 3 && args.at(1) == QLatin1String("--dlopen"))
        return runDlopen(args.at(2));
    // A folder to profile one start-up in: perf record bench_startup --kernel DIR
    if (args.size() == 3 && args.at(1) == QLatin1String("--prepare"))
        return QDir().mkpath(args.at(2)) && prepare(args.at(2)) ? 0 : 1;

    const int repetitions = std::max(5, args.value(1, QStringLiteral("9")).toInt());
    QTemporaryDir dir;
    if (!dir.isValid() || !prepare(dir.path())) {
        std::fprintf(stderr, "cannot prepare %s\n", qPrintable(dir.path()));
        return 1;
    }
    std::vector<double> kernel, loader, ratios, kernelCpu, loaderCpu;
    std::map<QString, std::vector<double>> phases;
    std::printf("%d modules on %d threads, %d connections, %d alternating repetitions\n", Modules,
                Threads, Modules - 1, repetitions);
    for (int r = 0; r < repetitions; ++r) {
        double k = 0, d = 0, kc = 0, dc = 0;
        if (r % 2 == 0) {
            k = child(QStringLiteral("--kernel"), dir.path(), &kc, &phases);
            d = child(QStringLiteral("--dlopen"), dir.path(), &dc, nullptr);
        } else {
            d = child(QStringLiteral("--dlopen"), dir.path(), &dc, nullptr);
            k = child(QStringLiteral("--kernel"), dir.path(), &kc, &phases);
        }
        if (k <= 0 || d <= 0)
            return 1;
        kernel.push_back(k);
        loader.push_back(d);
        ratios.push_back(k / d);
        kernelCpu.push_back(kc);
        loaderCpu.push_back(dc);
        std::printf("repetition %d: kernel %.2f ms, dlopen %.2f ms, ratio %.2f\n", r + 1, k / 1e6,
                    d / 1e6, k / d);
    }
    auto range = [](const std::vector<double> &v) {
        return std::make_pair(*std::min_element(v.begin(), v.end()),
                              *std::max_element(v.begin(), v.end()));
    };
    std::printf("kernel start-up: median %.2f ms (%.2f..%.2f)\n", median(kernel) / 1e6,
                range(kernel).first / 1e6, range(kernel).second / 1e6);
    std::printf("dlopen RTLD_NOW: median %.2f ms (%.2f..%.2f)\n", median(loader) / 1e6,
                range(loader).first / 1e6, range(loader).second / 1e6);
    for (const auto &phase : phases)
        std::printf("  phase %-16s median %.2f ms\n", qPrintable(phase.first),
                    median(phase.second) / 1e6);
    std::printf("ratio kernel / dlopen (target <= 2.5): %.2f (median of pairs %.2f, %.2f..%.2f)\n",
                median(kernel) / median(loader), median(ratios), range(ratios).first,
                range(ratios).second);
    std::printf("CPU time, all threads: kernel %.2f ms, dlopen %.2f ms, ratio %.2f\n",
                median(kernelCpu) / 1e6, median(loaderCpu) / 1e6,
                median(kernelCpu) / median(loaderCpu));
    return 0;
}
