// The log view under floods, on the offscreen platform with the window shown.
//
//   view   20,000 lines, limit 1,000: time until the last line is in the view, for the logger
//          (Logger::append into its LoggerWidget) against a QPlainTextEdit fed the same lines
//          in 100-line batches, and against QTextEdit::append of one line at a time with a
//          background colour (how a view without batching takes them). Every side gets its
//          lines 100 per event-loop pass.
//   gaps   100,000 lines into the logger and its view: the longest time between two passes of
//          the GUI thread's event loop (a 1 ms timer's longest interval), from a module that
//          logs in a tight loop on a worker thread (through the queued connection to append()
//          that the kernel makes, and through a direct connection to Logger::post()), from modules
//          paced at 100,000 and 20,000 lines/s, and from the GUI thread itself, 1,000 lines per
//          pass; beside them the same window for five seconds without a line, the floor that the
//          machine's load sets.
//
// Repetitions alternate the order of the sides and scenarios so that a change of machine load
// hits all of them; the printed figures are medians with the range of the repetitions.

#include "logger.h"
#include "loggerwidget.h"
#include "ztmifound.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QPlainTextEdit>
#include <QTemporaryDir>
#include <QTextBlock>
#include <QTextEdit>
#include <QThread>
#include <QTimer>
#include <QVBoxLayout>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr int ViewLines = 20000;
constexpr int FloodLines = 100000;
constexpr int Limit = 1000;
constexpr int Batch = 100;

QTemporaryDir *logDir = nullptr;

// A flood of mostly messages and information with some warnings and a few errors, in a cycle
// of 20 lines; the log file takes levels 1 to 4, errors are written at once.
Logger::Level levelOf(int i)
{
    static const Logger::Level cycle[20] = {
        Logger::Message, Logger::Info,    Logger::Message, Logger::Warning, Logger::Message,
        Logger::Info,    Logger::Message, Logger::Message, Logger::Info,    Logger::Error,
        Logger::Message, Logger::Info,    Logger::Message, Logger::Warning, Logger::Message,
        Logger::Info,    Logger::Message, Logger::Warning, Logger::Message, Logger::Critical,
    };
    return cycle[i % 20];
}

QColor colorOf(int i)
{
    switch (levelOf(i)) {
    case Logger::Critical:
        return QColor(255, 100, 100);
    case Logger::Error:
        return QColor(250, 170, 0);
    case Logger::Warning:
        return QColor(Qt::yellow);
    case Logger::Info:
        return QColor(180, 180, 180);
    default:
        return QColor(Qt::transparent);
    }
}

QString lineText(int i)
{
    return QStringLiteral("sample %1 of the acquisition: value %2 within limits")
        .arg(i)
        .arg(i * 0.37, 0, 'f', 2);
}

// What the logger shows for lineText(i) from a direct call.
QString screenText(int i)
{
    return QStringLiteral("12:00:00 null: ") + lineText(i);
}

bool endsWith(const QTextDocument *document, const QString &tail)
{
    return document->lastBlock().text().endsWith(tail);
}

// Spins the event loop until done() holds; returns the milliseconds since start.
double runUntil(const QElapsedTimer &clock, const std::function<bool()> &done)
{
    while (!done())
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    return clock.nsecsElapsed() / 1e6;
}

// Feeds `count` lines, `perPass` in each pass of the event loop, through `feed(i)`.
class Feeder : public QObject
{
public:
    Feeder(int count, int perPass, std::function<void(int, int)> feed)
        : count(count)
        , perPass(perPass)
        , feed(std::move(feed))
    {
        timer.setInterval(0);
        connect(&timer, &QTimer::timeout, this, [this] {
            const int n = std::min(this->perPass, this->count - next);
            this->feed(next, n);
            next += n;
            if (next >= this->count)
                timer.stop();
        });
        timer.start();
    }

private:
    int count;
    int perPass;
    std::function<void(int, int)> feed;
    int next = 0;
    QTimer timer;
};

struct Window
{
    Window()
    {
        top.resize(800, 600);
        top.setLayout(new QVBoxLayout);
    }
    void show()
    {
        top.show();
        QCoreApplication::processEvents();
    }
    QWidget top;
};

double viewLogger()
{
    Window window;
    Logger logger;
    logger.setFile(logDir->filePath(QStringLiteral("bench.log")));
    logger.createWidget(&window.top);
    logger.setMaximumBlockCount(Limit);
    auto *widget = static_cast<LoggerWidget *>(logger.getWidget());
    window.top.layout()->addWidget(widget);
    QTextEdit *view = widget->view();
    window.show();
    QElapsedTimer clock;
    clock.start();
    Feeder feeder(ViewLines, Batch, [&](int first, int n) {
        for (int i = first; i < first + n; ++i)
            logger.append(lineText(i), levelOf(i));
    });
    const QString last = lineText(ViewLines - 1);
    return runUntil(clock, [&] { return endsWith(view->document(), last); });
}

double viewPlainBatched()
{
    Window window;
    QPlainTextEdit view;
    view.setMaximumBlockCount(Limit);
    window.top.layout()->addWidget(&view);
    window.show();
    QElapsedTimer clock;
    clock.start();
    Feeder feeder(ViewLines, Batch, [&](int first, int n) {
        QStringList lines;
        for (int i = first; i < first + n; ++i)
            lines.append(screenText(i));
        view.appendPlainText(lines.join(QLatin1Char('\n')));
    });
    const QString last = screenText(ViewLines - 1);
    return runUntil(clock, [&] { return endsWith(view.document(), last); });
}

double viewPerLine()
{
    Window window;
    QTextEdit view;
    view.document()->setMaximumBlockCount(Limit);
    window.top.layout()->addWidget(&view);
    window.show();
    QElapsedTimer clock;
    clock.start();
    Feeder feeder(ViewLines, Batch, [&](int first, int n) {
        for (int i = first; i < first + n; ++i) {
            view.setTextBackgroundColor(colorOf(i));
            view.append(screenText(i));
        }
    });
    const QString last = screenText(ViewLines - 1);
    return runUntil(clock, [&] { return endsWith(view.document(), last); });
}

// Longest interval between two fires of a 1 ms timer, in ms.
class GapMeter : public QObject
{
public:
    GapMeter()
    {
        timer.setTimerType(Qt::PreciseTimer);
        timer.setInterval(1);
        connect(&timer, &QTimer::timeout, this, [this] {
            const qint64 now = clock.nsecsElapsed();
            longest = std::max(longest, now - last);
            last = now;
        });
        clock.start();
        timer.start();
    }
    double longestMs() const { return longest / 1e6; }

private:
    QElapsedTimer clock;
    QTimer timer;
    qint64 last = 0;
    qint64 longest = 0;
};

struct Gap
{
    double longestMs;
    double totalMs;
};

// A module on a worker thread logs `FloodLines` lines through its state() signal, connected as
// the kernel connects it; linesPerSecond 0 means as fast as it can.
Gap floodFromThread(int linesPerSecond, bool threadSafeEntry = false)
{
    Window window;
    Logger logger;
    logger.setFile(logDir->filePath(QStringLiteral("bench.log")));
    logger.createWidget(&window.top);
    logger.setMaximumBlockCount(Limit);
    auto *widget = static_cast<LoggerWidget *>(logger.getWidget());
    window.top.layout()->addWidget(widget);
    QTextEdit *view = widget->view();
    window.show();

    auto module = std::make_unique<ZtMIFound>(3);
    module->setObjectName(QStringLiteral("gen"));
    logger.registerSource(module.get(), QStringLiteral("gen"));
    ZtMIFound *source = module.get();
    if (threadSafeEntry)
        QObject::connect(
            source, QOverload<QString, Logger::Level>::of(&ZtMIFound::state), &logger,
            [&logger, source](QString text, Logger::Level level) {
                logger.post(source, text, level);
            },
            Qt::DirectConnection);
    else
        QObject::connect(source, SIGNAL(state(QString, Logger::Level)), &logger,
                         SLOT(append(QString, Logger::Level)));
    std::unique_ptr<QThread> worker(QThread::create([source, linesPerSecond] {
        QElapsedTimer pace;
        pace.start();
        for (int i = 0; i < FloodLines; ++i) {
            if (linesPerSecond > 0) {
                while (qint64(i) * 1000000 > pace.nsecsElapsed() / 1000 * linesPerSecond)
                    QThread::usleep(200);
            }
            emit source->state(lineText(i), levelOf(i));
        }
    }));
    module->moveToThread(worker.get());

    GapMeter gaps;
    QElapsedTimer clock;
    clock.start();
    worker->start();
    const QString last = lineText(FloodLines - 1);
    const double total = runUntil(clock, [&] { return endsWith(view->document(), last); });
    worker->wait();
    // Every queued entry has been delivered (the last one is in the view), so the module may go.
    return {gaps.longestMs(), total};
}

Gap floodFromGui()
{
    Window window;
    Logger logger;
    logger.setFile(logDir->filePath(QStringLiteral("bench.log")));
    logger.createWidget(&window.top);
    logger.setMaximumBlockCount(Limit);
    auto *widget = static_cast<LoggerWidget *>(logger.getWidget());
    window.top.layout()->addWidget(widget);
    QTextEdit *view = widget->view();
    window.show();
    GapMeter gaps;
    QElapsedTimer clock;
    clock.start();
    Feeder feeder(FloodLines, 1000, [&](int first, int n) {
        for (int i = first; i < first + n; ++i)
            logger.append(lineText(i), levelOf(i));
    });
    const QString last = lineText(FloodLines - 1);
    const double total = runUntil(clock, [&] { return endsWith(view->document(), last); });
    return {gaps.longestMs(), total};
}

// The same window and logger for five seconds (as long as the slowest flood) without a line: the
// longest gap the machine itself causes (other processes, the scheduler), the floor under the
// figures above.
Gap idle()
{
    Window window;
    Logger logger;
    logger.createWidget(&window.top);
    window.top.layout()->addWidget(logger.getWidget());
    window.show();
    GapMeter gaps;
    QElapsedTimer clock;
    clock.start();
    const double total = runUntil(clock, [&] { return clock.elapsed() >= 5000; });
    return {gaps.longestMs(), total};
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    const size_t mid = v.size() / 2;
    return v.size() % 2 ? v[mid] : (v[mid - 1] + v[mid]) / 2;
}

void report(const char *what, const std::vector<double> &v, const char *unit, const char *target)
{
    std::string all;
    for (double x : v) {
        char buf[24];
        std::snprintf(buf, sizeof buf, " %.3g", x);
        all += buf;
    }
    std::printf("  %-44s median %8.3g %s (range %.3g-%.3g; target %s); runs:%s\n", what, median(v),
                unit, *std::min_element(v.begin(), v.end()), *std::max_element(v.begin(), v.end()),
                target, all.c_str());
}

} // namespace

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    // The offscreen platform says so for every window shown.
    static QtMessageHandler previous = nullptr;
    previous = qInstallMessageHandler(
        [](QtMsgType type, const QMessageLogContext &context, const QString &text) {
            if (!text.contains(QLatin1String("propagateSizeHints")))
                previous(type, context, text);
        });
    QTemporaryDir dir;
    logDir = &dir;
    // Arguments: repetitions (default 5), then "view" or "floods" to run one part only.
    const int repetitions = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
    const QString part = argc > 2 ? QString::fromLocal8Bit(argv[2]) : QString();
    const bool views = part != QLatin1String("floods");
    const bool gaps = part != QLatin1String("view");

    std::vector<double> logger, plain, perLine, ratioPlain, ratioPerLine;
    for (int r = 0; r < repetitions && views; ++r) {
        double t[3];
        const std::function<double()> sides[3] = {viewLogger, viewPlainBatched, viewPerLine};
        for (int k = 0; k < 3; ++k) {
            const int side = (k + r) % 3;
            t[side] = sides[side]();
        }
        logger.push_back(t[0]);
        plain.push_back(t[1]);
        perLine.push_back(t[2]);
        ratioPlain.push_back(t[0] / t[1]);
        ratioPerLine.push_back(t[0] / t[2]);
        std::printf("view round %d: logger %.1f ms, batched QPlainTextEdit %.1f ms, per-line "
                    "QTextEdit %.1f ms\n",
                    r, t[0], t[1], t[2]);
        std::fflush(stdout);
    }

    const struct
    {
        const char *name;
        std::function<Gap()> run;
    } floods[] = {
        {"module thread, tight loop", [] { return floodFromThread(0); }},
        {"module thread, tight loop, Logger::post", [] { return floodFromThread(0, true); }},
        {"module thread, 100,000 lines/s", [] { return floodFromThread(100000); }},
        {"module thread, 20,000 lines/s", [] { return floodFromThread(20000); }},
        {"GUI thread, 1,000 lines a pass", floodFromGui},
        {"no lines for 5 s (the machine's floor)", idle},
    };
    constexpr int Floods = sizeof floods / sizeof floods[0];
    std::vector<double> longest[Floods], total[Floods];
    for (int r = 0; r < repetitions && gaps; ++r) {
        for (int k = 0; k < Floods; ++k) {
            const int f = (k + r) % Floods;
            const Gap gap = floods[f].run();
            longest[f].push_back(gap.longestMs);
            total[f].push_back(gap.totalMs);
            std::printf("flood round %d, %s: longest gap %.1f ms, all in view after %.0f ms\n", r,
                        floods[f].name, gap.longestMs, gap.totalMs);
            std::fflush(stdout);
        }
    }

    if (views) {
        std::printf("\n%d lines, limit %d, medians of %d alternating repetitions:\n", ViewLines,
                    Limit, repetitions);
        report("logger view, ms to the last line", logger, "ms", "none");
        report("batched QPlainTextEdit, ms", plain, "ms", "none");
        report("per-line QTextEdit::append, ms", perLine, "ms", "none");
        report("ratio logger / batched QPlainTextEdit", ratioPlain, "", "<= 1.5");
        report("ratio logger / per-line QTextEdit::append", ratioPerLine, "", "none");
    }
    if (gaps) {
        std::printf("\n%d-line floods, longest gap between event-loop passes:\n", FloodLines);
        for (int f = 0; f < Floods; ++f) {
            report(floods[f].name, longest[f], "ms",
                   f + 1 < Floods ? "<= 50 ms" : "none, the floor");
            report("  (all lines in the view after)", total[f], "ms", "none");
        }
    }
    return 0;
}
