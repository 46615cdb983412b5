#include "signalstack_p.h"

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

namespace {

// Big enough for the crash report with demangling under the sanitizers, which inflate frames.
// The memory is reserved, not committed, until a fault uses it.
const size_t altStackSize = 256 * 1024;

// Takes the thread's stack down when the thread ends, so that a finished thread's memory is not
// left registered.
struct ThreadStack
{
    void *memory = nullptr;
    size_t size = 0;

    ~ThreadStack()
    {
        if (!memory)
            return;
        stack_t disable;
        memset(&disable, 0, sizeof(disable));
        disable.ss_flags = SS_DISABLE;
        sigaltstack(&disable, nullptr);
        munmap(memory, size);
    }
};

thread_local ThreadStack threadStack;

} // namespace

bool SignalStack::ensureForCurrentThread()
{
    stack_t current;
    if (sigaltstack(nullptr, &current) != 0)
        return false;
    if (!(current.ss_flags & SS_DISABLE))
        return true;

    // One inaccessible page below the stack turns an overflow of the handler itself into a clean
    // fault instead of silently writing over whatever lies below.
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t total = altStackSize + page;
    void *memory = mmap(nullptr, total, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED)
        return false;
    mprotect(memory, page, PROT_NONE);

    stack_t stack;
    memset(&stack, 0, sizeof(stack));
    stack.ss_sp = static_cast<char *>(memory) + page;
    stack.ss_size = altStackSize;
    if (sigaltstack(&stack, nullptr) != 0) {
        munmap(memory, total);
        return false;
    }
    threadStack.memory = memory;
    threadStack.size = total;
    return true;
}
