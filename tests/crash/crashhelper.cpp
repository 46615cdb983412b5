#include <ztbacktrace.h>
#include <ztliblevelinterface.h>

#include <QByteArray>
#include <QPluginLoader>
#include <QThread>

#include <cfenv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <sys/mman.h>
#include <unistd.h>

// The child process of tst_ztbacktrace: installs the crash handler the way the first argument
// says and then commits the fault that the second names. Every faulting function is static (so
// only the symbol table names it), kept out of inlining and cloning so that it is a frame of its
// own, and left alone by the sanitizers so that the fault reaches the handler as a signal.
//
//   crash_helper <named|anonymous|longname> <fault>

#define FAULTING __attribute__((noipa, no_sanitize("address", "undefined")))

namespace {

int *volatile unmappedPointer = nullptr;
volatile int zero = 0;
volatile int numerator = 42;
volatile bool keepRecursing = true;

FAULTING void faultAccessViolation()
{
    *unmappedPointer = 1;
}

FAULTING int faultIntegerDivision()
{
    // Not 1 / zero: the compiler turns a division of 1 into a comparison that cannot fault.
    return numerator / zero;
}

FAULTING double faultFloatDivision()
{
    feenableexcept(FE_DIVBYZERO);
    volatile double denominator = zero;
    volatile double result = 1.0 / denominator;
    return result;
}

FAULTING void faultIllegalInstruction()
{
    __builtin_trap();
}

// Reading a shared mapping of a file past the file's end raises SIGBUS with BUS_ADRERR.
FAULTING int faultBusError()
{
    char path[] = "/tmp/crash_helper_XXXXXX";
    const int fd = mkstemp(path);
    unlink(path);
    void *page = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
    return *static_cast<volatile char *>(page);
}

FAULTING void faultBreakpoint()
{
#if defined(__i386__) || defined(__x86_64__)
    asm volatile("int3");
#else
    raise(SIGTRAP);
#endif
}

FAULTING void faultAbort()
{
    abort();
}

FAULTING void faultQtFatal()
{
    qFatal("crash_helper: fatal message");
}

FAULTING int recurseForever(int depth)
{
    volatile char frame[512];
    frame[0] = static_cast<char>(depth);
    if (!keepRecursing)
        return 0;
    // Using the result after the call keeps this from becoming a loop.
    return recurseForever(depth + 1) + frame[0];
}

FAULTING void faultOnStdThread()
{
    *unmappedPointer = 2;
}

FAULTING void faultOnQThread()
{
    *unmappedPointer = 3;
}

FAULTING void overflowOnStdThread()
{
    ztset_thread_signal_stack();
    recurseForever(0);
}

void faultInModuleLibrary()
{
    QPluginLoader loader(QStringLiteral(CRASH_FIXTURE_DIR "/crashmodule.dll"));
    auto *library = qobject_cast<ZtLibLevelInterface *>(loader.instance());
    if (!library) {
        fprintf(stderr, "crash_helper: %s\n", qPrintable(loader.errorString()));
        exit(3);
    }
    library->instance(0, nullptr);
}

// 256 characters that the handler keeps, then a tail that it must cut off.
const char *longProgramName()
{
    static char name[300];
    memset(name, 'n', 256);
    strcpy(name + 256, "-cut-here");
    return name;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: crash_helper <named|anonymous|longname> <fault>\n");
        return 2;
    }
    const QByteArray install(argv[1]);
    const QByteArray fault(argv[2]);

    if (install == "named")
        ztset_signal_handler(argv[0]);
    else if (install == "anonymous")
        set_signal_handler();
    else if (install == "longname")
        ztset_signal_handler(longProgramName());
    else
        return 2;

    if (fault == "access") {
        faultAccessViolation();
    } else if (fault == "intdiv") {
        faultIntegerDivision();
    } else if (fault == "fltdiv") {
        faultFloatDivision();
    } else if (fault == "illegal") {
        faultIllegalInstruction();
    } else if (fault == "bus") {
        faultBusError();
    } else if (fault == "breakpoint") {
        faultBreakpoint();
    } else if (fault == "abort") {
        faultAbort();
    } else if (fault == "qfatal") {
        faultQtFatal();
    } else if (fault == "overflow") {
        recurseForever(0);
    } else if (fault == "stdthread") {
        std::thread worker(faultOnStdThread);
        worker.join();
    } else if (fault == "qthread") {
        QThread *worker = QThread::create(faultOnQThread);
        worker->start();
        worker->wait();
    } else if (fault == "threadoverflow") {
        std::thread worker(overflowOnStdThread);
        worker.join();
    } else if (fault == "module") {
        faultInModuleLibrary();
    } else {
        return 2;
    }
    // Reaching this means the fault did not happen.
    return 1;
}
