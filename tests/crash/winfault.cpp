#include <ztbacktrace.h>

#include <cstring>

#include <windows.h>

// Run under Wine by the crash tests: winfault <access|overflow>, with the Windows crash handler
// compiled in (it uses no Qt, so no Windows build of the library is needed).

int *volatile unmappedPointer = nullptr;
volatile bool keepRecursing = true;

__attribute__((noinline)) void faultAccessViolation()
{
    *unmappedPointer = 1;
}

__attribute__((noinline)) int recurseForever(int depth)
{
    volatile char frame[512];
    frame[0] = static_cast<char>(depth);
    return keepRecursing ? recurseForever(depth + 1) + frame[0] : 0;
}

int main(int argc, char **argv)
{
    ztset_signal_handler(argv[0]);
    // The report's thread line names the faulting thread by its description, where the system
    // has descriptions (looked up, as the handler does).
    using SetDescription = HRESULT(WINAPI *)(HANDLE, PCWSTR);
    if (const auto setDescription = reinterpret_cast<SetDescription>(reinterpret_cast<void *>(
            GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "SetThreadDescription"))))
        setDescription(GetCurrentThread(), L"zt0 faulter");
    if (argc == 2 && strcmp(argv[1], "overflow") == 0)
        return recurseForever(0);
    faultAccessViolation();
    return 1;
}
