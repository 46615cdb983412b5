#pragma once

#include "ztcore_export.h"

#include <QBasicTimer>
#include <QByteArray>
#include <QElapsedTimer>
#include <QFile>
#include <QHash>
#include <QMutex>
#include <QObject>
#include <QPointer>
#include <QString>

#include <deque>
#include <vector>

class LoggerWidget;
class QWidget;

// The system's one log sink. Every entry is stamped with the time and the module that sent it,
// offered to the view through print() whatever its level, and written to the log file when its
// level passes the write filter. Lives on the GUI thread; modules on worker threads reach
// append() through queued connections. Owns its view.
//
// The logger sits below the module layer and knows nothing of modules: the module layer installs
// a SourceNamer when the library is loaded, which tells whether a sender is a module and gives
// its identifier, object name and, when asked, its ".alias" option.
//
// The log file is written through a buffer. Critical and Error entries are on disk before
// append() returns, together with everything buffered before them; so are entries that arrive
// sparsely (a few dozen in 100 ms). The rest of a burst waits at most 100 ms (a timer, or the
// next entry after that), and is written at aboutToQuit and on destruction, so a crash loses at
// most the last 100 ms of a flood.
//
// An entry from a module on another thread arrives by a queued call, one per entry; it goes to
// the file at once but reaches print() in a later pass of the event loop, a few milliseconds of
// entries per pass, taking turns with the view's own passes. post() is the thread-safe way in:
// a module's state() connected to it directly costs the logger's thread no queued call per
// entry, only one wake-up for however many wait. Either way a module logging in a loop cannot
// hold the event loop for its whole backlog. A direct call prints the entries still queued
// first, so print() keeps the order of arrival.
//
// Naming the sender of an entry: "null" unless the sender is a module. A module that lives in
// the logger's own thread is named by its ".alias" option, read when the entry arrives. A module
// on another thread owns its option table there, so the logger does not read it; it uses instead
// the alias recorded for it with registerSource() when the kernel loaded it. An alias the module
// writes into its own options later does not change the name in the log, on purpose: reading it
// from here would race with the module's thread. Without an alias the module is named
// "id_N (ObjectName)"; identifier and object name are fixed before a module leaves the GUI
// thread, so they are safe to read from anywhere.
class ZTCORE_EXPORT Logger : public QObject
{
    Q_OBJECT

public:
    // Lower is more severe. 0 and values outside 1..6 are shown as debug entries; 0 as the
    // write filter writes nothing.
    enum Level : int {
        Critical = 1,
        Error = 2,
        Warning = 3,
        Info = 4,
        Message = 5,
        Debug = 6,
    };
    Q_ENUM(Level)

    explicit Logger(QObject *parent = nullptr);
    ~Logger() override;

    void timedAppend(QString strout, Logger::Level level);
    void setFile(QString fileName);
    // Takes effect for setFile() calls after it.
    void setLevelWrite(Logger::Level level);
    void setMaximumBlockCount(int count);
    void createWidget(QWidget *parent);
    QWidget *getWidget();

    static QString levelTag(int level);
    static QString levelLetter(int level);

    // Logs an entry of source from any thread, for a direct connection from a module's state()
    // signal: the entry is named and written to the file in the caller's thread (Critical and
    // Error before this returns), queued without a queued call of its own and printed in this
    // thread's next passes; one event wakes this thread however many entries wait. Must not run
    // once the logger's destruction has begun.
    void post(QObject *source, QString strout, Logger::Level level);

    // Records the alias under which a module on another thread is logged. Call it on the
    // logger's thread; the record is dropped when source is destroyed.
    void registerSource(const QObject *source, const QString &alias);

    struct SourceInfo
    {
        int id = 0;
        QString objectName;
        QString alias;
    };
    // Fills info and returns true when sender is a module; reads the module's ".alias" only
    // when readAlias is set, which the logger does for senders in its own thread.
    using SourceNamer = bool (*)(QObject *sender, bool readAlias, SourceInfo *info);
    static void setSourceNamer(SourceNamer namer);

signals:
    void print(QString text, QString type);

public slots:
    void append(QString strout, Logger::Level level);
    void append(QString strout);
    // Writes the buffered file lines now.
    void flushFile();

protected:
    bool event(QEvent *event) override;
    void timerEvent(QTimerEvent *event) override;

private:
    struct Entry
    {
        qint64 time; // ms since the epoch
        QString source;
        QString text;
        Level level;
    };

    QString sourceName(QObject *source) const;
    void printEntry(qint64 time, const QString &source, const QString &strout, int level);
    void writeEntry(qint64 time, const QString &source, QString strout, int level);
    // Prints queued entries for at most budgetMs (all of them when budgetMs < 0).
    void takeInbox(int budgetMs);
    void writeLine(const QByteArray &line, bool urgent);
    void writeBuffer();
    void writeBufferLocked();

    QFile file;
    bool fileOpen;
    // Owned, but it also sits in the host window, which may delete it first.
    QPointer<LoggerWidget> widget;
    int maximumBlockCount;
    Level levelWrite;

    // Aliases recorded by registerSource(), by object address. The guard tells a live entry from
    // one whose object is gone, also when a new object took over the address before the entry
    // was dropped.
    struct Registered
    {
        QPointer<const QObject> guard;
        QString alias;
    };
    QHash<const QObject *, Registered> registered;

    // The last module named for an entry from another thread.
    mutable QObject *lastSource = nullptr;
    mutable QPointer<QObject> lastSourceGuard;
    mutable QString lastSourceName;

    // Entries from modules on other threads, oldest first, in the file but not yet printed.
    std::deque<Entry> inbox;
    QBasicTimer inboxTimer;

    // What post() shares with this thread: its entries not yet in the inbox, whether a wake-up
    // is on its way, and the recorded aliases.
    QMutex postLock;
    std::vector<Entry> posted;
    bool wakePending = false;
    QHash<const QObject *, Registered> postAliases;

    // Time stamps for the view and the file, formatted once a second.
    qint64 shortSecond = -1;
    QString shortTime;
    qint64 longSecond = -1;
    QString longTime;

    // Guards the file, the write filter and what follows, which post() uses from other threads.
    QMutex fileLock;
    // File lines not yet written. bufferAge runs from the first buffered line; window counts the
    // lines written at once in the current 100 ms window.
    QByteArray buffer;
    QElapsedTimer bufferAge;
    QElapsedTimer window;
    int windowLines = 0;
    QBasicTimer flushTimer;
};
