#pragma once

#include "ztcore_export.h"
#include "threadloop.h"

#include <QList>
#include <QMap>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QStringList>

class QThread;

// Creates, numbers and owns the module worker threads, keeps one extra thread for propagators
// and stops them all when it is destroyed. Lives on (and must only be used from) the thread of
// the object that owns it, normally the GUI thread: threads announce themselves through queued
// calls that this thread processes, so `threads`, `m_announced` and `ppgThread` are never touched
// elsewhere. Module threads are numbered in the order they are created.
//
// Module-thread loops are children of the launcher; the propagator loop is a child of the
// owner object given at construction.
class ZTCORE_EXPORT ThreadLauncher : public QObject
{
    Q_OBJECT

public:
    explicit ThreadLauncher(QObject *parent = nullptr);
    ~ThreadLauncher() override;

    // Creates and starts n more module threads; returns true once all have announced
    // themselves, false (with a warning) when some have not within 30 s.
    bool launchThread(int n);
    // Thread `number`, creating missing threads first; the launcher's own thread for number < 0,
    // and also (with a warning) when the thread could not be started. Does not wait for a new
    // thread to announce itself: objects moved to it get their queued calls once its loop runs.
    QThread *placeAt(int number);
    // Thread `number` without creating anything (null if it was never created); the owner's
    // thread for number < 0.
    QThread *threadAt(int number);
    // The propagator thread; processes events until it has announced itself. Should it not do
    // so within 30 s, the launcher's own thread, with a warning.
    QThread *getPpgThread();
    int threadCount() const;
    // Names thread `number` after the modules that live on it ("zt2 gen,gain"): the QThread's
    // object name and the operating system's thread name, so that top -H and debuggers show it.
    // The launcher names these modules again before it has to terminate the thread. A thread
    // not yet created takes the name when it is. Unnamed worker threads are "zt<number>", the
    // propagator thread "zt propagators".
    void setThreadModules(int number, const QStringList &modules);

signals:
    void quitThreads();

private slots:
    // A thread's announcement from its own run(). The thread is in `threads` from its start;
    // this records that it runs its event loop, which launchThread() waits for.
    void appendThread(QThread *th);
    void setPpgThread(QThread *th);

private:
    // Serves events until `done` holds or `limitMs` have passed; true when it holds.
    template<typename Done>
    bool serveEventsUntil(Done done, int limitMs);
    // Creates and starts n more module threads; those that could not be started are dropped.
    void startThreads(int n);
    QString threadName(int number) const;

    ThreadLoop *currentLoop;
    QThread *ppgThread;
    QObject *ownerObject;
    QList<QThread *> threads;
    // The module threads that have announced themselves from inside.
    QSet<QThread *> m_announced;
    // The propagator loop object; it lives on as a child of ownerObject after the launcher.
    QPointer<ThreadLoop> m_ppgLoop;
    // The modules placed on each thread number, for the thread's name and the shutdown warning.
    QMap<int, QStringList> m_threadModules;
};
