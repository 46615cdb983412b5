#include "logger.h"

#include "loggerwidget.h"
#include "tsanhandoff_p.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QDateTime>
#include <QElapsedTimer>
#include <QEvent>
#include <QStringBuilder>
#include <QThread>
#include <QTimerEvent>

#include <iterator>

namespace {

// A file line is written at once while a 100 ms window has seen fewer lines than this; past it
// lines wait in the buffer, so that a flood costs one write a flush instead of one a line.
constexpr int sparseLines = 64;
constexpr int flushIntervalMs = 100;
constexpr int bufferLimit = 1 << 20;
// Time one pass may spend on entries queued from other threads.
constexpr int inboxBudgetMs = 3;
// Wakes this thread when post() queued the first entry since the last pass.
constexpr int PostedEvent = QEvent::User + 0x2d1;

} // namespace

// Installed by the module layer from a static initialiser; constant-initialised, so it is null
// and never garbage before that runs.
static Logger::SourceNamer sourceNamer = nullptr;

// A module's name in the log: its alias, else "id_<n> (<object name>)".
static QString displayName(const Logger::SourceInfo &info)
{
    return !info.alias.isEmpty() ? info.alias
                                 : QStringLiteral("id_") + QString::number(info.id)
            + QStringLiteral(" (") + info.objectName + QStringLiteral(")");
}

void Logger::setSourceNamer(SourceNamer namer)
{
    sourceNamer = namer;
}

Logger::Logger(QObject *parent)
    : QObject(parent)
    , fileOpen(false)
    , widget(nullptr)
    , maximumBlockCount(500)
    , levelWrite(Info)
{
    setObjectName(QStringLiteral("logger"));
    qRegisterMetaType<Logger::Level>("Logger::Level");
    if (QCoreApplication *app = QCoreApplication::instance())
        connect(app, &QCoreApplication::aboutToQuit, this, &Logger::flushFile);
}

Logger::~Logger()
{
    flushFile();
    if (fileOpen)
        file.close();
    delete widget;
}

// Marks of levels 1 to 6; 0 and anything out of range are shown as debug entries.
static const char *const levelTags[] = {"(CC)", "(EE)", "(WW)", "(II)", "(MM)", "(DD)"};
static const char *const levelLetters[] = {"C", "E", "W", "I", "M", "D"};

static int levelIndex(int level)
{
    return (level >= Logger::Critical && level <= Logger::Debug) ? level - 1 : Logger::Debug - 1;
}

QString Logger::levelTag(int level)
{
    static const QString tags[] = {
        QString::fromLatin1(levelTags[0]), QString::fromLatin1(levelTags[1]),
        QString::fromLatin1(levelTags[2]), QString::fromLatin1(levelTags[3]),
        QString::fromLatin1(levelTags[4]), QString::fromLatin1(levelTags[5]),
    };
    return tags[levelIndex(level)];
}

QString Logger::levelLetter(int level)
{
    // Shared, so that a flood of entries does not allocate a letter per line.
    static const QString letters[] = {
        QString::fromLatin1(levelLetters[0]), QString::fromLatin1(levelLetters[1]),
        QString::fromLatin1(levelLetters[2]), QString::fromLatin1(levelLetters[3]),
        QString::fromLatin1(levelLetters[4]), QString::fromLatin1(levelLetters[5]),
    };
    return letters[levelIndex(level)];
}

// A module on another thread reaches this slot through a queued call, one per entry. Its entry
// goes to the file at once, as any other, but reaches the view (print) in a later pass bounded in
// time, so that a module logging in a loop cannot hold the event loop for its whole backlog.
void Logger::append(QString strout, Logger::Level level)
{
    QObject *source = sender();
    if (source && source->thread() != thread()) {
        const qint64 now = QDateTime::currentMSecsSinceEpoch();
        const QString name = sourceName(source);
        writeEntry(now, name, strout, level);
        if (inbox.empty() && !inboxTimer.isActive())
            inboxTimer.start(0, this);
        inbox.push_back(Entry {now, name, std::move(strout), level});
        return;
    }
    timedAppend(strout, level);
}

void Logger::append(QString strout)
{
    append(strout, Message);
}

// Lock order: postLock before fileLock. The file is written from post() on any thread and from
// this thread; everything else here belongs to this thread.
void Logger::post(QObject *source, QString strout, Logger::Level level)
{
    if (QThread::currentThread() == thread()) {
        takeInbox(-1);
        const qint64 now = QDateTime::currentMSecsSinceEpoch();
        const QString name = sourceName(source);
        printEntry(now, name, strout, level);
        writeEntry(now, name, strout, level);
        return;
    }
    bool wake = false;
    {
        TsanMutexLocker locker(&postLock);
        const qint64 now = QDateTime::currentMSecsSinceEpoch();
        QString name = QStringLiteral("null");
        SourceInfo info;
        if (source && sourceNamer && sourceNamer(source, false, &info)) {
            // The caller is alive, so a live record at its address is its own.
            const auto it = postAliases.constFind(source);
            if (it != postAliases.constEnd() && !it->guard.isNull())
                info.alias = it->alias;
            name = displayName(info);
        }
        writeEntry(now, name, strout, level);
        posted.push_back(Entry {now, name, std::move(strout), level});
        wake = !wakePending;
        wakePending = true;
    }
    if (wake)
        QCoreApplication::postEvent(this, new QEvent(QEvent::Type(PostedEvent)));
}

bool Logger::event(QEvent *event)
{
    if (event->type() != QEvent::Type(PostedEvent))
        return QObject::event(event);
    if (!inboxTimer.isActive())
        inboxTimer.start(0, this);
    return true;
}

void Logger::takeInbox(int budgetMs)
{
    {
        TsanMutexLocker locker(&postLock);
        std::move(posted.begin(), posted.end(), std::back_inserter(inbox));
        posted.clear();
        wakePending = false;
    }
    QElapsedTimer clock;
    clock.start();
    for (int n = 1; !inbox.empty(); ++n) {
        const Entry entry = std::move(inbox.front());
        inbox.pop_front();
        printEntry(entry.time, entry.source, entry.text, entry.level);
        if (budgetMs >= 0 && n % 64 == 0 && clock.elapsed() >= budgetMs)
            break;
    }
    if (inbox.empty())
        inboxTimer.stop();
    // Lines that post() left in the buffer wait for this thread's timer.
    TsanMutexLocker locker(&fileLock);
    if (!buffer.isEmpty() && !flushTimer.isActive() && QAbstractEventDispatcher::instance(thread()))
        flushTimer.start(flushIntervalMs, this);
}

void Logger::registerSource(const QObject *source, const QString &alias)
{
    if (!source)
        return;
    registered.insert(source, Registered {source, alias});
    lastSource = nullptr;
    {
        TsanMutexLocker locker(&postLock);
        postAliases.insert(source, Registered {source, alias});
    }
    // Delivered on this thread after the object is gone, maybe after a newer object at the same
    // address was registered: drop only an entry whose own object died.
    connect(source, &QObject::destroyed, this, [this, source] {
        auto it = registered.find(source);
        if (it != registered.end() && it->guard.isNull())
            registered.erase(it);
        TsanMutexLocker locker(&postLock);
        auto posting = postAliases.find(source);
        if (posting != postAliases.end() && posting->guard.isNull())
            postAliases.erase(posting);
    });
}

// The module whose signal is being delivered: its alias, or "id_N (ObjectName)"; "null" for a
// direct call or a sender that is not a module. See the class comment for where the alias of a
// module on another thread comes from. The name of such a module cannot change, so the last one
// is kept for the next entry of a flood.
QString Logger::sourceName(QObject *source) const
{
    if (!source || !sourceNamer)
        return QStringLiteral("null");
    const bool ownThread = source->thread() == QThread::currentThread();
    if (!ownThread && source == lastSource && !lastSourceGuard.isNull())
        return lastSourceName;
    SourceInfo info;
    QString name = QStringLiteral("null");
    if (sourceNamer(source, ownThread, &info)) {
        if (!ownThread) {
            const auto it = registered.constFind(source);
            if (it != registered.constEnd() && !it->guard.isNull())
                info.alias = it->alias;
        }
        name = displayName(info);
    }
    if (!ownThread) {
        lastSource = source;
        lastSourceGuard = source;
        lastSourceName = name;
    }
    return name;
}

// Formatting a local date and time costs more than the rest of an entry; the stamps change only
// with the second. The view's and the file's stamps are kept apart, since queued entries reach
// the view later than the file.
static void updateStamp(qint64 msecs, qint64 *second, QString *stamp, const QString &format)
{
    if (msecs / 1000 == *second)
        return;
    *second = msecs / 1000;
    *stamp = QDateTime::fromMSecsSinceEpoch(*second * 1000).toString(format);
}

// Entries queued from other threads reach the view first, so that it keeps the order of
// arrival.
void Logger::timedAppend(QString strout, Logger::Level level)
{
    takeInbox(-1);
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    const QString source = sourceName(sender());
    printEntry(now, source, strout, level);
    writeEntry(now, source, strout, level);
}

void Logger::printEntry(qint64 time, const QString &source, const QString &strout, int level)
{
    updateStamp(time, &shortSecond, &shortTime, QStringLiteral("hh:mm:ss"));
    emit print(shortTime % QLatin1Char(' ') % source % QLatin1String(": ") % strout,
               levelLetter(level));
}

void Logger::writeEntry(qint64 time, const QString &source, QString strout, int level)
{
    TsanMutexLocker locker(&fileLock);
    if (levelWrite == 0 || level > static_cast<int>(levelWrite) || !fileOpen)
        return;
    updateStamp(time, &longSecond, &longTime, QStringLiteral("dd MMM hh:mm:ss"));
    strout.replace(QLatin1Char('\n'), QLatin1String("\n\t"));
    const QString line = levelTag(level) % QLatin1Char(' ') % longTime % QLatin1Char(' ') % source
        % QLatin1String(":    ") % strout % QLatin1Char('\n');
    writeLine(line.toUtf8(), level == Critical || level == Error);
}

void Logger::writeLine(const QByteArray &line, bool urgent)
{
    if (!window.isValid() || window.elapsed() >= flushIntervalMs) {
        window.start();
        windowLines = 0;
    }
    if (buffer.isEmpty())
        bufferAge.start();
    buffer.append(line);
    if (urgent || windowLines < sparseLines || bufferAge.elapsed() >= flushIntervalMs
        || buffer.size() >= bufferLimit) {
        ++windowLines;
        writeBufferLocked();
        return;
    }
    // Without an event loop in this thread the next entry, aboutToQuit or the destructor write
    // the buffer; lines from post() on other threads get the timer from takeInbox().
    if (QThread::currentThread() == thread() && !flushTimer.isActive()
        && QAbstractEventDispatcher::instance(thread()))
        flushTimer.start(flushIntervalMs, this);
}

void Logger::flushFile()
{
    takeInbox(-1);
    writeBuffer();
}

void Logger::writeBuffer()
{
    flushTimer.stop();
    TsanMutexLocker locker(&fileLock);
    writeBufferLocked();
}

void Logger::writeBufferLocked()
{
    if (buffer.isEmpty())
        return;
    if (fileOpen) {
        file.write(buffer);
        file.flush();
    }
    buffer.clear();
}

void Logger::timerEvent(QTimerEvent *event)
{
    if (event->timerId() == flushTimer.timerId())
        writeBuffer();
    else if (event->timerId() == inboxTimer.timerId()) {
        // Taking entries and the view's taking in lines alternate, so that no pass of the event
        // loop pays for both.
        if (!widget || !widget->isDueToTakeIn())
            takeInbox(inboxBudgetMs);
    } else
        QObject::timerEvent(event);
}

void Logger::setFile(QString fileName)
{
    flushFile();
    TsanMutexLocker locker(&fileLock);
    if (file.isOpen())
        file.close();
    if (levelWrite == 0)
        return;
    file.setFileName(fileName);
    fileOpen = file.open(QIODevice::WriteOnly | QIODevice::Append);
    if (!fileOpen)
        return;
    const QDateTime now = QDateTime::currentDateTime();
    const QString header = QStringLiteral("\n\n==============================     ")
        + now.toString(QStringLiteral("dd.MM.yy")) + QLatin1Char(' ')
        + now.toString(QStringLiteral("hh:mm:ss "))
        + QStringLiteral("     =============================\n");
    file.write(header.toUtf8());
    file.flush();
}

void Logger::setLevelWrite(Logger::Level level)
{
    TsanMutexLocker locker(&fileLock);
    levelWrite = level;
}

void Logger::setMaximumBlockCount(int count)
{
    maximumBlockCount = count;
    if (widget)
        widget->setMaximumBlockCount(count);
}

void Logger::createWidget(QWidget *parent)
{
    if (widget)
        return;
    widget = new LoggerWidget(parent);
    widget->setMaximumBlockCount(maximumBlockCount);
    connect(this, &Logger::print, widget, &LoggerWidget::print);
    // Entries that arrived before a change of the view's filters meet the earlier filters.
    connect(widget, &LoggerWidget::filtersAboutToChange, this, [this] { takeInbox(-1); });
}

QWidget *Logger::getWidget()
{
    if (!fileOpen)
        timedAppend(QStringLiteral("can't open log_file !!!"), Error);
    return widget;
}
