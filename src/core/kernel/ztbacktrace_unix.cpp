#include "ztbacktrace.h"

#include "signalstack_p.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <execinfo.h>
#include <fcntl.h>
#include <link.h>
#include <signal.h>
#include <sys/mman.h>
#ifdef __linux__
#include <sys/prctl.h>
#endif
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

// The POSIX side of the crash handler. Fatal signals play the part of structured exceptions and
// are named after the Windows exception codes, so that reports read the same on every platform:
//
//   SIGSEGV                        EXCEPTION_ACCESS_VIOLATION, or EXCEPTION_STACK_OVERFLOW when
//                                  the fault address lies in the guard region around the stack
//                                  pointer
//   SIGFPE  FPE_INTDIV / INTOVF    EXCEPTION_INT_DIVIDE_BY_ZERO / INT_OVERFLOW
//           FPE_FLTDIV / FLTOVF    EXCEPTION_FLT_DIVIDE_BY_ZERO / FLT_OVERFLOW
//           FPE_FLTUND / FLTRES    EXCEPTION_FLT_UNDERFLOW / FLT_INEXACT_RESULT
//           FPE_FLTINV             EXCEPTION_FLT_INVALID_OPERATION
//           FPE_FLTSUB             EXCEPTION_ARRAY_BOUNDS_EXCEEDED (subscript out of range)
//   SIGILL  ILL_PRVOPC / PRVREG    EXCEPTION_PRIV_INSTRUCTION, any other code ILLEGAL_INSTRUCTION
//   SIGBUS  BUS_ADRALN             EXCEPTION_DATATYPE_MISALIGNMENT, any other code IN_PAGE_ERROR
//                                  (a mapped file that no longer backs the page, like a failed
//                                  page-in on Windows)
//   SIGTRAP TRAP_TRACE             EXCEPTION_SINGLE_STEP, any other code BREAKPOINT (x86 reports
//                                  int3 as SI_KERNEL, not TRAP_BRKPT)
//   everything else caught         Unrecognized Exception (SIGABRT, SIGSYS, and SIGFPE sent by
//                                  another process rather than raised by the processor)
//
// The handler runs on the faulting thread, on that thread's alternate signal stack when it has
// one. It writes with write(2) to descriptor 2 and mostly keeps to async-signal-safe calls. Known
// exceptions, accepted because the process is ending anyway: backtrace() (its unwinder is loaded
// at install time so it does not load a library here), dladdr1() (takes the loader's lock; a fault
// inside dlopen could hang the report), __cxa_demangle() (allocates; a fault inside malloc could
// hang or re-fault, see the re-entry guard). After a stack overflow the addr2line tool runs as a
// child process started with fork and execve from buffers prepared beforehand, which is safe.
//
// Function names come from the ELF .symtab of the object that contains each frame, read straight
// from its file through mmap. backtrace_symbols() and dladdr() only see the dynamic symbol table,
// which has no static or hidden functions, and an external addr2line per frame would start a
// process per frame from a signal handler; the symbol table is one file mapping away and needs no
// allocation. Stripped objects fall back to their dynamic symbols.

namespace {

// Not owned: argv[0] or another string that lives as long as the process. Null until
// ztset_signal_handler() is called.
const char *icky_global_program_name = nullptr;

const int caughtSignals[] = {SIGSEGV, SIGFPE, SIGILL, SIGBUS, SIGTRAP, SIGABRT, SIGSYS};

// How far from the stack pointer a SIGSEGV still counts as hitting the stack's guard region:
// below it by what one call's probes can reach, above it by a large frame that was allocated
// without probing and touched at its far end.
const uintptr_t overflowBelowSp = 64 * 1024;
const uintptr_t overflowAboveSp = 1024 * 1024;

const int maxFrames = 128;

// Threads that are writing a report. A thread that faults again while reporting (the report's
// own demangling hitting a damaged heap, say) finds itself here and dies at once instead of
// recursing. Other threads that fault at the same time report too; their lines may interleave.
std::atomic<pid_t> reportingThreads[8];

void writeText(const char *text)
{
    size_t left = strlen(text);
    while (left > 0) {
        const ssize_t written = write(STDERR_FILENO, text, left);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        text += written;
        left -= static_cast<size_t>(written);
    }
}

// Room for "0x" and the digits of any address, or "(nil)", and the terminator.
const size_t hexSize = 2 + 2 * sizeof(uintptr_t) + 1;

// Writes "0x" and at least minDigits lower-case hex digits of value into out.
void formatHex(char *out, uintptr_t value, int minDigits)
{
    char reversed[2 * sizeof(uintptr_t)];
    int count = 0;
    do {
        reversed[count++] = "0123456789abcdef"[value & 0xf];
        value >>= 4;
    } while (value != 0);
    while (count < minDigits)
        reversed[count++] = '0';
    *out++ = '0';
    *out++ = 'x';
    while (count > 0)
        *out++ = reversed[--count];
    *out = '\0';
}

// At least eight digits, as the Windows report's "0x%08x".
void writeAddress(uintptr_t value)
{
    char digits[hexSize];
    formatHex(digits, value, 8);
    writeText(digits);
}

// The addr2line tool runs as "addr2line -f -p -e <program> <address>", started without a shell so
// that a program path with blanks or shell characters is one argument and nothing else. Its full
// path is looked up in PATH when the handler is installed; the fault path only copies the two
// variable arguments into these buffers, forks and executes, and neither the handler nor the child
// allocates. Two threads overflowing at the same moment share the buffers; the process is ending
// either way.
char toolPath[PATH_MAX];
bool toolSearched = false;
char toolArg0[] = "addr2line";
char toolFunctions[] = "-f";
char toolPretty[] = "-p";
char toolExecutable[] = "-e";
char toolProgram[256 + 1];
char toolAddress[hexSize];
char *const toolArgv[]
    = {toolArg0, toolFunctions, toolPretty, toolExecutable, toolProgram, toolAddress, nullptr};

// A tool that is still running after this long (a huge binary, a stuck file system) is killed so
// that the process can end.
const int toolTimeoutMs = 30000;

void findTool()
{
    toolSearched = true;
    toolPath[0] = '\0';
    const char *dirs = getenv("PATH");
    if (!dirs)
        return;
    while (true) {
        const char *end = strchrnul(dirs, ':');
        const size_t length = static_cast<size_t>(end - dirs);
        // An empty entry stands for the current directory.
        const char *dir = length > 0 ? dirs : ".";
        const int dirLength = length > 0 ? static_cast<int>(length) : 1;
        char candidate[PATH_MAX];
        const int written
            = snprintf(candidate, sizeof(candidate), "%.*s/%s", dirLength, dir, toolArg0);
        struct stat st;
        if (written > 0 && static_cast<size_t>(written) < sizeof(candidate)
            && stat(candidate, &st) == 0 && S_ISREG(st.st_mode) && access(candidate, X_OK) == 0) {
            memcpy(toolPath, candidate, static_cast<size_t>(written) + 1);
            return;
        }
        if (*end == '\0')
            return;
        dirs = end + 1;
    }
}

// glibc's fork() runs the atfork handlers, which take locks (the sanitizers' among them) that the
// faulting code may hold; _Fork() does not.
pid_t forkSafely()
{
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
    return _Fork();
#else
    return fork();
#endif
}

// Runs the tool with the prepared arguments and returns its wait status, -1 when it could not be
// started or waited for.
int runTool()
{
    if (toolPath[0] == '\0')
        return -1;
    const pid_t child = forkSafely();
    if (child < 0)
        return -1;
    if (child == 0) {
        // The handler blocks the fault signals, and a signal mask survives execve.
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        execve(toolPath, toolArgv, environ);
        _exit(127);
    }
    int status = 0;
    for (int waited = 0;;) {
        const pid_t done = waitpid(child, &status, WNOHANG);
        if (done == child)
            return status;
        if (done < 0 && errno != EINTR)
            return -1;
        if (waited >= toolTimeoutMs) {
            kill(child, SIGKILL);
            return waitpid(child, &status, 0) == child ? status : -1;
        }
        const timespec pause = {0, 10 * 1000 * 1000};
        nanosleep(&pause, nullptr);
        waited += 10;
    }
}

const char *faultText(int sig, int code)
{
    switch (sig) {
    case SIGSEGV:
        return "Error: EXCEPTION_ACCESS_VIOLATION\n";
    case SIGFPE:
        switch (code) {
        case FPE_INTDIV:
            return "Error: EXCEPTION_INT_DIVIDE_BY_ZERO\n";
        case FPE_INTOVF:
            return "Error: EXCEPTION_INT_OVERFLOW\n";
        case FPE_FLTDIV:
            return "Error: EXCEPTION_FLT_DIVIDE_BY_ZERO\n";
        case FPE_FLTOVF:
            return "Error: EXCEPTION_FLT_OVERFLOW\n";
        case FPE_FLTUND:
            return "Error: EXCEPTION_FLT_UNDERFLOW\n";
        case FPE_FLTRES:
            return "Error: EXCEPTION_FLT_INEXACT_RESULT\n";
        case FPE_FLTINV:
            return "Error: EXCEPTION_FLT_INVALID_OPERATION\n";
        case FPE_FLTSUB:
            return "Error: EXCEPTION_ARRAY_BOUNDS_EXCEEDED\n";
        default:
            break;
        }
        break;
    case SIGILL:
        if (code == ILL_PRVOPC || code == ILL_PRVREG)
            return "Error: EXCEPTION_PRIV_INSTRUCTION\n";
        return "Error: EXCEPTION_ILLEGAL_INSTRUCTION\n";
    case SIGBUS:
        if (code == BUS_ADRALN)
            return "Error: EXCEPTION_DATATYPE_MISALIGNMENT\n";
        return "Error: EXCEPTION_IN_PAGE_ERROR\n";
    case SIGTRAP:
        if (code == TRAP_TRACE)
            return "Error: EXCEPTION_SINGLE_STEP\n";
        return "Error: EXCEPTION_BREAKPOINT\n";
    default:
        break;
    }
    return "Error: Unrecognized Exception\n";
}

uintptr_t contextPc(const ucontext_t *uc)
{
#if defined(__x86_64__)
    return static_cast<uintptr_t>(uc->uc_mcontext.gregs[REG_RIP]);
#elif defined(__i386__)
    return static_cast<uintptr_t>(uc->uc_mcontext.gregs[REG_EIP]);
#elif defined(__aarch64__)
    return static_cast<uintptr_t>(uc->uc_mcontext.pc);
#else
    (void)uc;
    return 0;
#endif
}

uintptr_t contextSp(const ucontext_t *uc)
{
#if defined(__x86_64__)
    return static_cast<uintptr_t>(uc->uc_mcontext.gregs[REG_RSP]);
#elif defined(__i386__)
    return static_cast<uintptr_t>(uc->uc_mcontext.gregs[REG_ESP]);
#elif defined(__aarch64__)
    return static_cast<uintptr_t>(uc->uc_mcontext.sp);
#else
    (void)uc;
    return 0;
#endif
}

bool isStackOverflow(int sig, const siginfo_t *info, const ucontext_t *uc)
{
    if (sig != SIGSEGV || info->si_code <= 0)
        return false;
    const uintptr_t sp = contextSp(uc);
    const uintptr_t fault = reinterpret_cast<uintptr_t>(info->si_addr);
    if (sp == 0)
        return false;
    if (fault < sp)
        return sp - fault <= overflowBelowSp;
    return fault - sp <= overflowAboveSp;
}

// The object that contains address, its load bias and the file to read its symbols from. The
// main program's entry has no name; /proc/self/exe still works after a chdir() and when argv[0]
// was relative.
bool objectOf(uintptr_t address, Dl_info *info, const link_map **map)
{
    link_map *lm = nullptr;
    if (!dladdr1(reinterpret_cast<void *>(address), info, reinterpret_cast<void **>(&lm),
                 RTLD_DL_LINKMAP)
        || !lm)
        return false;
    *map = lm;
    return true;
}

bool isMainProgram(const link_map *map)
{
    return !map->l_name || map->l_name[0] == '\0';
}

void copyName(char *out, size_t outSize, const char *name, size_t maxLength)
{
    size_t n = 0;
    while (n + 1 < outSize && n < maxLength && name[n] != '\0') {
        out[n] = name[n];
        ++n;
    }
    out[n] = '\0';
}

// Looks up the function that contains offset (a link-time address) in the symbol table of the ELF
// file at path: .symtab when the file has one, else .dynsym.
bool lookupElfSymbol(const char *path, uintptr_t offset, char *out, size_t outSize)
{
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    struct stat st;
    if (fstat(fd, &st) != 0 || st.st_size < static_cast<off_t>(sizeof(ElfW(Ehdr)))) {
        close(fd);
        return false;
    }
    const size_t size = static_cast<size_t>(st.st_size);
    void *mapping = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
    close(fd);
    if (mapping == MAP_FAILED)
        return false;

    const auto *bytes = static_cast<const unsigned char *>(mapping);
    const auto *ehdr = static_cast<const ElfW(Ehdr) *>(mapping);
    bool found = false;
    const bool valid = memcmp(ehdr->e_ident, ELFMAG, SELFMAG) == 0
        && ehdr->e_ident[EI_CLASS] == (sizeof(void *) == 8 ? ELFCLASS64 : ELFCLASS32)
        && ehdr->e_shentsize == sizeof(ElfW(Shdr)) && ehdr->e_shoff > 0
        && ehdr->e_shoff + size_t(ehdr->e_shnum) * sizeof(ElfW(Shdr)) <= size;
    if (valid) {
        const auto *sections = reinterpret_cast<const ElfW(Shdr) *>(bytes + ehdr->e_shoff);
        const ElfW(Shdr) *table = nullptr;
        for (int i = 0; i < ehdr->e_shnum; ++i) {
            if (sections[i].sh_type == SHT_SYMTAB) {
                table = &sections[i];
                break;
            }
            if (sections[i].sh_type == SHT_DYNSYM)
                table = &sections[i];
        }
        const bool tableValid = table && table->sh_link < ehdr->e_shnum
            && table->sh_offset + table->sh_size <= size
            && sections[table->sh_link].sh_offset + sections[table->sh_link].sh_size <= size;
        if (tableValid) {
            const ElfW(Shdr) &strings = sections[table->sh_link];
            const auto *symbols = reinterpret_cast<const ElfW(Sym) *>(bytes + table->sh_offset);
            const size_t count = table->sh_size / sizeof(ElfW(Sym));
            const ElfW(Sym) *best = nullptr;
            for (size_t i = 0; i < count; ++i) {
                const ElfW(Sym) &sym = symbols[i];
                const int type = ELF64_ST_TYPE(sym.st_info);
                if ((type != STT_FUNC && type != STT_GNU_IFUNC) || sym.st_shndx == SHN_UNDEF
                    || sym.st_name >= strings.sh_size)
                    continue;
                const bool inside = sym.st_size > 0
                    ? offset >= sym.st_value && offset - sym.st_value < sym.st_size
                    : offset == sym.st_value;
                if (inside && (!best || sym.st_value > best->st_value))
                    best = &sym;
            }
            if (best) {
                const char *name
                    = reinterpret_cast<const char *>(bytes + strings.sh_offset + best->st_name);
                copyName(out, outSize, name, strings.sh_size - best->st_name);
                found = out[0] != '\0';
            }
        }
    }
    munmap(mapping, size);
    return found;
}

bool symbolName(uintptr_t address, char *out, size_t outSize)
{
    Dl_info info;
    const link_map *map = nullptr;
    if (!objectOf(address, &info, &map))
        return false;
    const char *path = isMainProgram(map) ? "/proc/self/exe" : map->l_name;
    if (lookupElfSymbol(path, address - map->l_addr, out, outSize))
        return true;
    if (info.dli_sname) {
        copyName(out, outSize, info.dli_sname, outSize);
        return true;
    }
    return false;
}

// "0x<address> <function>". A frame without a symbol names its object and the offset into it
// instead, which is what an offline addr2line needs; the Windows report's odd blank after such a
// line is not copied, it would only indent the next frame.
void writeFrame(uintptr_t address, uintptr_t lookupAddress)
{
    char name[1024];
    writeAddress(address);
    if (!symbolName(lookupAddress, name, sizeof(name))) {
        Dl_info info;
        const link_map *map = nullptr;
        const char *file = nullptr;
        if (objectOf(lookupAddress, &info, &map))
            file = isMainProgram(map) ? icky_global_program_name : map->l_name;
        if (file) {
            writeText(" (");
            writeText(file);
            writeText("+");
            writeAddress(address - map->l_addr);
            writeText(")");
        }
        writeText("\n");
        return;
    }
    writeText(" ");
    int status = -1;
    char *demangled = nullptr;
    if (name[0] == '_' && name[1] == 'Z')
        demangled = abi::__cxa_demangle(name, nullptr, nullptr, &status);
    writeText(status == 0 && demangled ? demangled : name);
    free(demangled);
    writeText("\n");
}

// Frames from the faulting one outwards. backtrace() starts inside this handler and unwinds
// through the kernel's signal frame; everything up to the frame whose address is the interrupted
// program counter belongs to the handler and is left out. The frames after it hold return
// addresses, looked up one byte earlier so that a call at the very end of a function (a call to
// a noreturn function, typically) is attributed to the caller rather than to whatever follows.
void printStackTrace(const ucontext_t *uc)
{
    void *frames[maxFrames];
    const int count = backtrace(frames, maxFrames);
    const uintptr_t pc = contextPc(uc);

    int first = -1;
    for (int i = 0; i < count && pc != 0; ++i) {
        if (reinterpret_cast<uintptr_t>(frames[i]) == pc) {
            first = i;
            break;
        }
    }
    if (first < 0) {
        // The unwinder could not cross the signal frame: name the faulting instruction and show
        // what it did find.
        if (pc != 0)
            writeFrame(pc, pc);
        for (int i = 0; i < count; ++i)
            writeFrame(reinterpret_cast<uintptr_t>(frames[i]),
                       reinterpret_cast<uintptr_t>(frames[i]) - 1);
        return;
    }
    writeFrame(pc, pc);
    for (int i = first + 1; i < count; ++i)
        writeFrame(reinterpret_cast<uintptr_t>(frames[i]),
                   reinterpret_cast<uintptr_t>(frames[i]) - 1);
}

void reportStackOverflow(const ucontext_t *uc)
{
    const uintptr_t pc = contextPc(uc);
    // The program itself is named by what the host passed in (null after set_signal_handler()
    // alone); recursion inside a library is looked up in that library's file.
    const char *file = icky_global_program_name;
    Dl_info info;
    const link_map *map = nullptr;
    if (objectOf(pc, &info, &map) && !isMainProgram(map))
        file = map->l_name;
    addr2line(file, reinterpret_cast<void *>(pc));
}

// "thread: zt2 gen,gain (tid 1234)": the faulting thread as the system knows it (the library's
// worker threads carry their modules' names), so that a report says where the fault happened.
// The name comes from the kernel, not from Qt, whose data may be what is damaged.
void writeThreadLine(pid_t tid)
{
    char line[64] = "thread: ";
    size_t used = strlen(line);
#ifdef __linux__
    char name[17] = {}; // the kernel's 16 bytes, always terminated
    if (prctl(PR_GET_NAME, name, 0, 0, 0) == 0 && name[0]) {
        const size_t length = strnlen(name, 16);
        memcpy(line + used, name, length);
        used += length;
        line[used++] = ' ';
    }
#endif
    char digits[24];
    size_t count = 0;
    unsigned long value = static_cast<unsigned long>(tid);
    do {
        digits[count++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value && count < sizeof(digits));
    memcpy(line + used, "(tid ", 5);
    used += 5;
    while (count)
        line[used++] = digits[--count];
    line[used++] = ')';
    line[used++] = '\n';
    line[used] = 0;
    writeText(line);
}

// Hands the signal to its default action: the process ends with the signal in its exit status
// and dumps core where that is enabled. A fault signal raised from a hardware fault that somehow
// survives this returns to the faulting instruction, which faults again under the default action.
void dieBy(int sig)
{
    struct sigaction dfl;
    memset(&dfl, 0, sizeof(dfl));
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    sigaction(sig, &dfl, nullptr);
    sigset_t unblock;
    sigemptyset(&unblock);
    sigaddset(&unblock, sig);
    pthread_sigmask(SIG_UNBLOCK, &unblock, nullptr);
    raise(sig);
}

// Claims a reporting slot for this thread; true when it already holds one, that is when the
// report itself has faulted. With every slot taken the report goes ahead unguarded.
bool alreadyReporting(pid_t self)
{
    for (auto &slot : reportingThreads) {
        if (slot.load() == self)
            return true;
    }
    for (auto &slot : reportingThreads) {
        pid_t expected = 0;
        if (slot.compare_exchange_strong(expected, self))
            break;
    }
    return false;
}

void crashHandler(int sig, siginfo_t *info, void *context)
{
    const int savedErrno = errno;
    const pid_t self = static_cast<pid_t>(syscall(SYS_gettid));
    if (alreadyReporting(self)) {
        dieBy(sig);
        errno = savedErrno;
        return;
    }

    const auto *uc = static_cast<const ucontext_t *>(context);
    if (isStackOverflow(sig, info, uc)) {
        writeText("Error: EXCEPTION_STACK_OVERFLOW\n");
        writeThreadLine(self);
        writeText("==== STACK TRACE ====\n");
        reportStackOverflow(uc);
        writeText("==== STACK TRACE UNAVAILABLE ====\n");
    } else {
        writeText(faultText(sig, info->si_code));
        writeThreadLine(self);
        writeText("==== STACK TRACE ====\n");
        printStackTrace(uc);
        writeText("==== STACK TRACE DONE ====\n");
    }

    // The slot stays taken: this thread is about to end the process.
    dieBy(sig);
    errno = savedErrno;
}

int installHandlers()
{
    // backtrace() loads the unwinder library on its first call; do that now rather than inside
    // the signal handler.
    void *warmUp[2];
    backtrace(warmUp, 2);
    findTool();

    int result = ztset_thread_signal_stack();
    for (int sig : caughtSignals) {
        struct sigaction action;
        memset(&action, 0, sizeof(action));
        action.sa_sigaction = crashHandler;
        action.sa_flags = SA_SIGINFO | SA_ONSTACK;
        // A second fault signal raised synchronously while reporting then takes its default
        // action at once; abort() unblocks SIGABRT itself and is caught by the re-entry guard.
        sigemptyset(&action.sa_mask);
        for (int other : caughtSignals)
            sigaddset(&action.sa_mask, other);
        if (sigaction(sig, &action, nullptr) != 0)
            result = -1;
    }
    return result;
}

} // namespace

int ztset_signal_handler(const char *programName)
{
    icky_global_program_name = programName;
    return installHandlers();
}

int set_signal_handler(void)
{
    return installHandlers();
}

int ztset_thread_signal_stack(void)
{
    return SignalStack::ensureForCurrentThread() ? 0 : -1;
}

int addr2line(const char *programName, void *address)
{
    // The tool reads link-time addresses: position-independent objects need the load bias taken
    // off. Addresses outside every loaded object are passed on as they are.
    Dl_info info;
    const link_map *map = nullptr;
    if (objectOf(reinterpret_cast<uintptr_t>(address), &info, &map))
        address = reinterpret_cast<void *>(reinterpret_cast<uintptr_t>(address) - map->l_addr);

    if (!toolSearched)
        findTool();
    // glibc prints a null string as "(null)" and a null pointer as "(nil)"; the arguments read
    // the same as they would have through printf.
    copyName(toolProgram, sizeof(toolProgram), programName ? programName : "(null)", 256);
    if (address)
        formatHex(toolAddress, reinterpret_cast<uintptr_t>(address), 1);
    else
        memcpy(toolAddress, "(nil)", sizeof("(nil)"));
    return runTool();
}
