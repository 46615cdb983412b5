#include "threadloop.h"

#include "signalstack_p.h"
#include "tsanhandoff_p.h"

#include <QByteArray>

#ifdef _WIN32
#include <windows.h>
#else
#include <pthread.h>
#endif

namespace {

#ifndef _WIN32
// The kernel keeps 15 bytes and a terminator; a longer name makes pthread_setname_np fail, so
// cut it, and never inside a UTF-8 sequence.
QByteArray osThreadName(const QString &name)
{
    QByteArray bytes = name.toUtf8();
    const int keep = 15;
    if (bytes.size() > keep) {
        int end = keep;
        while (end > 0 && (static_cast<unsigned char>(bytes.at(end)) & 0xC0) == 0x80)
            --end;
        bytes.truncate(end);
    }
    return bytes;
}
#endif

void setCurrentOsThreadName(const QString &name)
{
#if defined(_WIN32)
    // SetThreadDescription exists from Windows 10 1607 on; look it up so older systems still run.
    using SetDescription = HRESULT(WINAPI *)(HANDLE, PCWSTR);
    static const auto setDescription = reinterpret_cast<SetDescription>(reinterpret_cast<void *>(
        GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "SetThreadDescription")));
    if (setDescription)
        setDescription(GetCurrentThread(), reinterpret_cast<PCWSTR>(name.utf16()));
#elif defined(__APPLE__)
    pthread_setname_np(osThreadName(name).constData());
#else
    pthread_setname_np(pthread_self(), osThreadName(name).constData());
#endif
}

} // namespace

ThreadLoop::ThreadLoop(QObject *parent)
    : QThread(parent)
{ }

void ThreadLoop::setThreadName(const QString &name)
{
    setObjectName(name);
    std::lock_guard<std::mutex> locker(nameLock);
    osName = name;
    if (anchor)
        postQueuedCall(anchor, [this] { applyOsName(); });
}

void ThreadLoop::applyOsName()
{
    QString name;
    {
        std::lock_guard<std::mutex> locker(nameLock);
        name = osName;
    }
    if (!name.isEmpty())
        setCurrentOsThreadName(name);
}

void ThreadLoop::run()
{
    // So that a stack overflow in a module's code on this thread is still reported.
    SignalStack::ensureForCurrentThread();
    {
        QObject inThread;
        // Declared after the anchor, so it goes first: also when the thread is terminated, since
        // cancellation unwinds the stack.
        struct AnchorGuard
        {
            ThreadLoop *loop;
            ~AnchorGuard()
            {
                std::lock_guard<std::mutex> locker(loop->nameLock);
                loop->anchor = nullptr;
            }
        } guard {this};
        {
            std::lock_guard<std::mutex> locker(nameLock);
            anchor = &inThread;
        }
        applyOsName(); // a name given before the thread started
        emit launch(QThread::currentThread());
        exec();
    }
    // Whoever deletes this object after the thread has ended takes over what the thread did.
    tsanRelease(static_cast<QThread *>(this));
}
