#include <threadlauncher.h>
#include <ztbacktrace.h>
#include <ztliblevelinterface.h>

#include <QByteArray>
#include <QCoreApplication>
#include <QPluginLoader>

#include <cstdlib>
#include <thread>

#include <sys/mman.h>
#include <unistd.h>

// The child process of tst_ztbacktrace: crash_helper <fault> [<program name> | -]. The handler
// is installed with the program's own path, the name given, or without a name for "-".
// Faulting functions are static (only the symbol table names them), each a frame of its own,
// and hidden from the sanitizers so that the fault reaches the handler as a signal.
#define FAULTING __attribute__((noipa, no_sanitize("address", "undefined")))

namespace {

int *volatile unmappedPointer = nullptr;
volatile int zero = 0;
volatile int numerator = 42;
volatile int sink;
volatile bool keepRecursing = true;

FAULTING void faultAccessViolation()
{
    *unmappedPointer = 1;
}

// Not 1 / zero: the compiler turns a division of 1 into a comparison that cannot fault.
FAULTING void faultIntegerDivision()
{
    sink = numerator / zero;
}

FAULTING void faultIllegalInstruction()
{
    __builtin_trap();
}

// Reading a shared mapping of a file past the file's end raises SIGBUS with BUS_ADRERR.
FAULTING void faultBusError()
{
    char path[] = "/tmp/crash_helper_XXXXXX";
    const int fd = mkstemp(path);
    unlink(path);
    sink = *static_cast<volatile char *>(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0));
}

FAULTING void faultAbort()
{
    abort();
}

// Using the result after the call keeps this from becoming a loop.
FAULTING int recurseForever(int depth)
{
    volatile char frame[512];
    frame[0] = static_cast<char>(depth);
    return keepRecursing ? recurseForever(depth + 1) + frame[0] : 0;
}

FAULTING void faultOnStdThread()
{
    *unmappedPointer = 2;
}

// A fault in a slot on a launcher's worker thread named after its modules; the name is longer
// than the system keeps.
void faultOnNamedWorker()
{
    int argc = 1;
    char program[] = "crash_helper";
    char *argv[] = {program, nullptr};
    QCoreApplication app(argc, argv);
    ThreadLauncher launcher;
    QThread *worker = launcher.placeAt(1);
    launcher.setThreadModules(1, {"generator", "gain"});
    QObject target;
    target.moveToThread(worker);
    // Posted after the naming, so it runs after it in the worker's loop.
    QMetaObject::invokeMethod(
        &target, [] { faultOnStdThread(); }, Qt::QueuedConnection);
    app.exec();
}

void faultInModuleLibrary()
{
    QPluginLoader loader(QStringLiteral(CRASH_FIXTURE_DIR "/crashmodule.dll"));
    if (auto *library = qobject_cast<ZtLibLevelInterface *>(loader.instance()))
        library->instance(0, nullptr);
}

const struct
{
    const char *name;
    void (*run)();
} faults[] = {
    {"access", faultAccessViolation},
    {"intdiv", faultIntegerDivision},
    {"illegal", faultIllegalInstruction},
    {"bus", faultBusError},
    {"abort", faultAbort},
    {"overflow", [] { sink = recurseForever(0); }},
    {"stdthread", [] { std::thread(faultOnStdThread).join(); }},
    {"threadoverflow",
     [] {
         std::thread([] {
             ztset_thread_signal_stack();
             sink = recurseForever(0);
         }).join();
     }},
    {"module", faultInModuleLibrary},
    {"namedthread", faultOnNamedWorker},
};

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2)
        return 2;
    if (argc < 3)
        ztset_signal_handler(argv[0]);
    else if (qstrcmp(argv[2], "-") == 0)
        set_signal_handler();
    else
        ztset_signal_handler(argv[2]);

    for (const auto &fault : faults) {
        if (qstrcmp(argv[1], fault.name) == 0) {
            fault.run();
            return 1; // the fault did not happen
        }
    }
    return 2;
}
