#pragma once

#include <QMetaObject>
#include <QMutex>
#include <QObject>

#include <utility>

// Hand-offs the thread sanitizer cannot see. Qt's own code is not instrumented in the usual
// builds (Debian's is not), and QMutex, QSemaphore and event posting synchronise inside it, so
// data handed from one thread to another through them looks unsynchronised to the sanitizer.
// The library marks its own hand-off points: tsanRelease(x) before the data leaves a thread,
// tsanAcquire(x) where the other thread takes it up, with the same x on both sides. Without the
// thread sanitizer all of this compiles to nothing.

#if defined(__SANITIZE_THREAD__)
#define ZTCORE_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZTCORE_TSAN 1
#endif
#endif

#ifdef ZTCORE_TSAN
#include <mutex>

extern "C" void __tsan_acquire(void *addr);
extern "C" void __tsan_release(void *addr);
#endif

inline void tsanAcquire(const void *addr)
{
#ifdef ZTCORE_TSAN
    __tsan_acquire(const_cast<void *>(addr));
#else
    Q_UNUSED(addr)
#endif
}

inline void tsanRelease(const void *addr)
{
#ifdef ZTCORE_TSAN
    __tsan_release(const_cast<void *>(addr));
#else
    Q_UNUSED(addr)
#endif
}

// QMutexLocker for a QMutex whose lock and unlock the sanitizer should see as such.
class TsanMutexLocker
{
public:
    explicit TsanMutexLocker(QMutex *mutex)
        : m_mutex(mutex)
    {
        relock();
    }
    ~TsanMutexLocker()
    {
        if (m_locked)
            unlock();
    }
    TsanMutexLocker(const TsanMutexLocker &) = delete;
    TsanMutexLocker &operator=(const TsanMutexLocker &) = delete;

    void unlock()
    {
        tsanRelease(m_mutex);
        m_mutex->unlock();
        m_locked = false;
    }
    void relock()
    {
        m_mutex->lock();
        tsanAcquire(m_mutex);
        m_locked = true;
    }

private:
    QMutex *m_mutex;
    bool m_locked = false;
};

// Posts `call` to run in the thread `context` lives in, as a queued call
// (QMetaObject::invokeMethod). Qt builds the call, captures included, inside invokeMethod and
// hands it over through its own queue, so no release point can follow the building and precede
// the hand-over; under the thread sanitizer the posting thread holds a lock (one for the whole
// library) while it posts, and the call takes the same lock before it touches its captures.
// Everything the posting thread did before posting then happens before the call.
template<typename Call>
void postQueuedCall(QObject *context, Call &&call)
{
#ifdef ZTCORE_TSAN
    static std::mutex posting;
    std::lock_guard<std::mutex> lock(posting);
    QMetaObject::invokeMethod(
        context,
        [call = std::forward<Call>(call)]() mutable {
            {
                std::lock_guard<std::mutex> handedOver(posting);
            }
            call();
        },
        Qt::QueuedConnection);
#else
    QMetaObject::invokeMethod(context, std::forward<Call>(call), Qt::QueuedConnection);
#endif
}

// QObject::connect, direct, for a functor that the thread emitting `signal` calls (another
// thread than the connecting one, say a QThread's finished()). Qt builds the functor inside
// connect and hands it over through its connection lists, which the sanitizer does not see;
// as with postQueuedCall, under the thread sanitizer the connecting thread holds a lock while
// it connects and the functor takes the same lock before it touches its captures.
template<typename Sender, typename Signal, typename Call>
QMetaObject::Connection connectDirect(const Sender *sender, Signal signal, const QObject *context,
                                      Call &&call)
{
#ifdef ZTCORE_TSAN
    static std::mutex connecting;
    std::lock_guard<std::mutex> lock(connecting);
    return QObject::connect(
        sender, signal, context,
        [call = std::forward<Call>(call)]() mutable {
            {
                std::lock_guard<std::mutex> handedOver(connecting);
            }
            call();
        },
        Qt::DirectConnection);
#else
    return QObject::connect(sender, signal, context, std::forward<Call>(call),
                            Qt::DirectConnection);
#endif
}
