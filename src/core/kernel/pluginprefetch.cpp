#include "pluginprefetch_p.h"

#include <QFile>
#include <QThread>

PluginPrefetch::PluginPrefetch(const QStringList &paths)
    : m_paths(paths)
{
    m_loaders.reserve(size_t(paths.size()));
    m_thread.reset(QThread::create([this] { run(); }));
    m_thread->setObjectName(QStringLiteral("zt loader"));
    m_thread->start();
}

PluginPrefetch::~PluginPrefetch()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_thread->wait();
}

void PluginPrefetch::waitFor(int index)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    // The thread tries every path in turn and never stops before the destructor asks it to, so
    // this wait ends once the library at `index` (or its failure) is behind it.
    m_done.wait(lock, [&] { return m_tried > index || m_tried == m_paths.size(); });
}

QString PluginPrefetch::errorString(int index)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_errors.value(index);
}

void PluginPrefetch::run()
{
    for (int i = 0; i < m_paths.size(); ++i) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_stop)
                break;
        }
        // Only the file's metadata is read here (the dynamic loader is left to the kernel's
        // thread: two threads mapping libraries at once only wait for each other). A missing file
        // is left to the kernel's loader, which says so in its own words.
        auto loader = std::make_unique<QPluginLoader>();
        QString error;
        if (QFile::exists(m_paths.at(i))) {
            loader->setFileName(m_paths.at(i));
            if (loader->metaData().isEmpty())
                error = loader->errorString();
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        m_loaders.push_back(std::move(loader));
        m_errors.append(error);
        m_tried = i + 1;
        m_done.notify_all();
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_tried = m_paths.size();
    m_done.notify_all();
}
