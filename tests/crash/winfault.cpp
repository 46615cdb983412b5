#include <ztbacktrace.h>

#include <cstring>

// Run under Wine by the crash tests: winfault <access|overflow>. The Windows crash handler is
// compiled into this program; without Qt it needs no Windows build of the library.

namespace {

int *volatile unmappedPointer = nullptr;
volatile bool keepRecursing = true;

__attribute__((noinline)) void faultAccessViolation()
{
    *unmappedPointer = 1;
}

// Using the result after the call keeps this from becoming a loop.
__attribute__((noinline)) int recurseForever(int depth)
{
    volatile char frame[512];
    frame[0] = static_cast<char>(depth);
    if (!keepRecursing)
        return 0;
    return recurseForever(depth + 1) + frame[0];
}

} // namespace

int main(int argc, char **argv)
{
    ztset_signal_handler(argv[0]);
    if (argc == 2 && strcmp(argv[1], "overflow") == 0)
        return recurseForever(0);
    faultAccessViolation();
    return 1;
}
