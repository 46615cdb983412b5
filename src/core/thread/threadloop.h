#pragma once

#include "ztcore_export.h"

#include <QString>
#include <QThread>

#include <mutex>

// A worker thread that announces itself (launch) from inside the new thread and then runs an
// event loop, so that objects moved to it receive queued calls.
class ZTCORE_EXPORT ThreadLoop : public QThread
{
    Q_OBJECT

public:
    explicit ThreadLoop(QObject *parent = nullptr);

    // Names the thread: at once the object name (so call this from the thread this object lives
    // in, normally the launcher's), and the operating system's name from inside the thread
    // itself, through a queued call into its loop, or when it starts if it has not yet. The OS
    // name is cut to what the system keeps (15 bytes on Linux, at a character boundary).
    void setThreadName(const QString &name);

signals:
    void launch(QThread *thread);

protected:
    void run() override;

private:
    // Runs in this thread: gives the OS thread the latest requested name.
    void applyOsName();

    // Guards the two below; the anchor pointer is cleared under it before the anchor goes, so a
    // call posted under it never reaches a dead object.
    std::mutex nameLock; // a lock the thread sanitizer sees, unlike QMutex in an uninstrumented Qt
    QString osName;
    QObject *anchor = nullptr; // lives in this thread while its loop runs
};
