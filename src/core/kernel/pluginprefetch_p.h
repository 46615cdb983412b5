#pragma once

#include <QPluginLoader>
#include <QStringList>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

class QThread;

// Reads module library files ahead of the kernel, in a thread of its own, so that Qt's reading
// of each file (finding its metadata and converting it) overlaps the kernel's own work on the
// modules before it. Nothing is loaded here: the kernel's loader, in the kernel's thread, finds
// the file already read, loads the library and makes the plug-in's root object there, and says
// what went wrong with a file, in the order of the settings. The kernel's thread touches Qt's
// record of a file only after waitFor() for it.
class PluginPrefetch
{
public:
    explicit PluginPrefetch(const QStringList &paths);
    // Waits for the library being loaded, if any, and skips the rest.
    ~PluginPrefetch();

    // Returns once the library at `index` has been tried. The kernel's thread then sees
    // everything the prefetching thread did to it.
    void waitFor(int index);
    // What Qt said when it read the file at `index` ahead, once waitFor(index) returned; empty
    // when it found a plug-in. Qt says it only once per file, so the kernel's loader, which finds
    // the file already read, learns it here.
    QString errorString(int index);

private:
    void run();

    const QStringList m_paths;
    std::mutex m_mutex;
    std::condition_variable m_done;
    int m_tried = 0; // m_mutex
    bool m_stop = false; // m_mutex
    // Kept until the kernel's loader holds each library itself, so that Qt's record of a loaded
    // library is not dropped in between.
    std::vector<std::unique_ptr<QPluginLoader>> m_loaders;
    QStringList m_errors; // m_mutex, one per library tried
    std::unique_ptr<QThread> m_thread;
};
