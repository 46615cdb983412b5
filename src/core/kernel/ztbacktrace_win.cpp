#include "ztbacktrace.h"

#include <dbghelp.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

// Builds for 32- and 64-bit Windows; link with dbghelp. The two differ only in the stack walk's
// record types, machine and registers and in the width of the printed addresses, all chosen in
// this block.
namespace {

#ifdef _WIN64
typedef STACKFRAME64 StackFrame;
typedef IMAGEHLP_SYMBOL64 Symbol;
typedef DWORD64 Displacement;
typedef unsigned long long PrintedAddress;
#define ZT_ADDRESS "0x%016llx"

DWORD64 instructionPointer(const CONTEXT *context)
{
    return context->Rip;
}

void setFrame(StackFrame *frame, const CONTEXT *context)
{
    frame->AddrPC.Offset = context->Rip;
    frame->AddrStack.Offset = context->Rsp;
    frame->AddrFrame.Offset = context->Rbp;
}

BOOL walkStack(StackFrame *frame, CONTEXT *context)
{
    return StackWalk64(IMAGE_FILE_MACHINE_AMD64, GetCurrentProcess(), GetCurrentThread(), frame,
                       context, nullptr, SymFunctionTableAccess64, SymGetModuleBase64, nullptr);
}

BOOL symbolAt(const StackFrame &frame, Displacement *displacement, Symbol *symbol)
{
    return SymGetSymFromAddr64(GetCurrentProcess(), frame.AddrPC.Offset, displacement, symbol);
}
#else
typedef STACKFRAME StackFrame;
typedef IMAGEHLP_SYMBOL Symbol;
typedef DWORD Displacement;
typedef unsigned int PrintedAddress;
#define ZT_ADDRESS "0x%08x"

DWORD instructionPointer(const CONTEXT *context)
{
    return context->Eip;
}

void setFrame(StackFrame *frame, const CONTEXT *context)
{
    frame->AddrPC.Offset = context->Eip;
    frame->AddrStack.Offset = context->Esp;
    frame->AddrFrame.Offset = context->Ebp;
}

BOOL walkStack(StackFrame *frame, CONTEXT *context)
{
    return StackWalk(332 /* IMAGE_FILE_MACHINE_I386 */, GetCurrentProcess(), GetCurrentThread(),
                     frame, context, nullptr, SymFunctionTableAccess, SymGetModuleBase, nullptr);
}

BOOL symbolAt(const StackFrame &frame, Displacement *displacement, Symbol *symbol)
{
    return SymGetSymFromAddr(GetCurrentProcess(), frame.AddrPC.Offset, displacement, symbol);
}
#endif

} // namespace

// Not owned: the host's argv[0] or another string that lives as long as the process.
static const char *icky_global_program_name = nullptr;

namespace {

// The thread whose stack overflowed, while a fresh thread reports for it; 0 otherwise.
DWORD faultingThreadId = 0;

DWORD WINAPI reportOnFreshStack(void *info)
{
    windows_exception_handler(static_cast<EXCEPTION_POINTERS *>(info));
    return 0;
}

// A stack overflow leaves the faulting thread a page or two: less than the system's exception
// dispatch needs to reach the unhandled-exception filter (Wine gives up on the way) and far less
// than starting the addr2line tool takes. This vectored handler sees the exception before the
// dispatch walks the stack, hands the report to a fresh thread with a stack of its own, waits for
// it (bounded, as a stuck tool must not keep the process alive) and ends the process as the
// filter's EXCEPTION_EXECUTE_HANDLER would. A stack overflow is therefore fatal even where a
// __try block would have caught it. Every other exception goes on to the filter.
LONG WINAPI watchStackOverflow(EXCEPTION_POINTERS *info)
{
    if (info->ExceptionRecord->ExceptionCode != EXCEPTION_STACK_OVERFLOW)
        return EXCEPTION_CONTINUE_SEARCH;
    faultingThreadId = GetCurrentThreadId();
    HANDLE reporter = CreateThread(nullptr, 0, reportOnFreshStack, info, 0, nullptr);
    if (!reporter)
        return EXCEPTION_CONTINUE_SEARCH;
    WaitForSingleObject(reporter, 30000);
    TerminateProcess(GetCurrentProcess(), EXCEPTION_STACK_OVERFLOW);
    return EXCEPTION_CONTINUE_SEARCH;
}

// "thread: zt2 gen,gain (tid 1234)": the faulting thread and the description it was given (the
// library's worker threads carry their modules' names). GetThreadDescription exists from
// Windows 10 1607 on and is looked up; without it, or without a description, the line has the
// id alone. Characters outside ASCII print as '?': the report must not depend on the console's
// code page.
void printThreadLine()
{
    const DWORD id = faultingThreadId ? faultingThreadId : GetCurrentThreadId();
    const HANDLE thread = id == GetCurrentThreadId()
        ? GetCurrentThread()
        : OpenThread(THREAD_QUERY_LIMITED_INFORMATION, FALSE, id);
    char name[64] = {};
    using GetDescription = HRESULT(WINAPI *)(HANDLE, PWSTR *);
    const auto getDescription = reinterpret_cast<GetDescription>(reinterpret_cast<void *>(
        GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "GetThreadDescription")));
    PWSTR description = nullptr;
    if (thread && getDescription && SUCCEEDED(getDescription(thread, &description))
        && description) {
        for (size_t i = 0; description[i] && i + 1 < sizeof(name); ++i)
            name[i] = description[i] >= 0x20 && description[i] < 0x7f
                ? static_cast<char>(description[i])
                : '?';
        LocalFree(description);
    }
    if (thread && thread != GetCurrentThread())
        CloseHandle(thread);
    fprintf(stderr, "thread: %s%s(tid %lu)\n", name, name[0] ? " " : "",
            static_cast<unsigned long>(id));
}

LPTOP_LEVEL_EXCEPTION_FILTER install()
{
    static PVOID overflowWatch = nullptr;
    if (!overflowWatch)
        overflowWatch = AddVectoredExceptionHandler(0, watchStackOverflow);
    return SetUnhandledExceptionFilter(windows_exception_handler);
}

} // namespace

LPTOP_LEVEL_EXCEPTION_FILTER ztset_signal_handler(const char *programName)
{
    icky_global_program_name = programName;
    return install();
}

LPTOP_LEVEL_EXCEPTION_FILTER set_signal_handler(void)
{
    return install();
}

int ztset_thread_signal_stack(void)
{
    return 0;
}

int addr2line(const char *programName, void *address)
{
    char addr2lineCmd[512];
    memset(addr2lineCmd, 0, sizeof(addr2lineCmd));
    // Quoted, so that a program path with blanks stays one argument.
    sprintf(addr2lineCmd, "addr2line -f -p -e \"%.256s\" %p", programName, address);
    return system(addr2lineCmd);
}

BOOL windows_print_stacktrace(CONTEXT *context)
{
    SymInitialize(GetCurrentProcess(), nullptr, TRUE);

    StackFrame frame;
    memset(&frame, 0, sizeof(frame));
    setFrame(&frame, context);
    frame.AddrPC.Mode = AddrModeFlat;
    frame.AddrStack.Mode = AddrModeFlat;
    frame.AddrFrame.Mode = AddrModeFlat;

    while (walkStack(&frame, context)) {
        // The symbol header (24 bytes for i386) followed by room for a 255-character name. Never
        // freed: the process is about to end and its heap may be the thing that is damaged.
        Symbol *symbol = static_cast<Symbol *>(calloc(sizeof(Symbol) + 256, 1));
        symbol->SizeOfStruct = sizeof(Symbol);
        symbol->MaxNameLength = 255;
        Displacement displacement = 0;
        const PrintedAddress address = static_cast<PrintedAddress>(frame.AddrPC.Offset);
        if (symbolAt(frame, &displacement, symbol))
            fprintf(stderr, ZT_ADDRESS " %s\n", address, symbol->Name);
        else
            // The blank after the line feed is part of the established output format.
            fprintf(stderr, ZT_ADDRESS "\n ", address);
    }

    return SymCleanup(GetCurrentProcess());
}

LONG WINAPI windows_exception_handler(EXCEPTION_POINTERS *ExceptionInfo)
{
    switch (ExceptionInfo->ExceptionRecord->ExceptionCode) {
    case EXCEPTION_ACCESS_VIOLATION:
        fputs("Error: EXCEPTION_ACCESS_VIOLATION\n", stderr);
        break;
    case EXCEPTION_ARRAY_BOUNDS_EXCEEDED:
        fputs("Error: EXCEPTION_ARRAY_BOUNDS_EXCEEDED\n", stderr);
        break;
    case EXCEPTION_BREAKPOINT:
        fputs("Error: EXCEPTION_BREAKPOINT\n", stderr);
        break;
    case EXCEPTION_DATATYPE_MISALIGNMENT:
        fputs("Error: EXCEPTION_DATATYPE_MISALIGNMENT\n", stderr);
        break;
    case EXCEPTION_FLT_DENORMAL_OPERAND:
        fputs("Error: EXCEPTION_FLT_DENORMAL_OPERAND\n", stderr);
        break;
    case EXCEPTION_FLT_DIVIDE_BY_ZERO:
        fputs("Error: EXCEPTION_FLT_DIVIDE_BY_ZERO\n", stderr);
        break;
    case EXCEPTION_FLT_INEXACT_RESULT:
        fputs("Error: EXCEPTION_FLT_INEXACT_RESULT\n", stderr);
        break;
    case EXCEPTION_FLT_INVALID_OPERATION:
        fputs("Error: EXCEPTION_FLT_INVALID_OPERATION\n", stderr);
        break;
    case EXCEPTION_FLT_OVERFLOW:
        fputs("Error: EXCEPTION_FLT_OVERFLOW\n", stderr);
        break;
    case EXCEPTION_FLT_STACK_CHECK:
        fputs("Error: EXCEPTION_FLT_STACK_CHECK\n", stderr);
        break;
    case EXCEPTION_FLT_UNDERFLOW:
        fputs("Error: EXCEPTION_FLT_UNDERFLOW\n", stderr);
        break;
    case EXCEPTION_ILLEGAL_INSTRUCTION:
        fputs("Error: EXCEPTION_ILLEGAL_INSTRUCTION\n", stderr);
        break;
    case EXCEPTION_IN_PAGE_ERROR:
        fputs("Error: EXCEPTION_IN_PAGE_ERROR\n", stderr);
        break;
    case EXCEPTION_INT_DIVIDE_BY_ZERO:
        fputs("Error: EXCEPTION_INT_DIVIDE_BY_ZERO\n", stderr);
        break;
    case EXCEPTION_INT_OVERFLOW:
        fputs("Error: EXCEPTION_INT_OVERFLOW\n", stderr);
        break;
    case EXCEPTION_INVALID_DISPOSITION:
        fputs("Error: EXCEPTION_INVALID_DISPOSITION\n", stderr);
        break;
    case EXCEPTION_NONCONTINUABLE_EXCEPTION:
        fputs("Error: EXCEPTION_NONCONTINUABLE_EXCEPTION\n", stderr);
        break;
    case EXCEPTION_PRIV_INSTRUCTION:
        fputs("Error: EXCEPTION_PRIV_INSTRUCTION\n", stderr);
        break;
    case EXCEPTION_SINGLE_STEP:
        fputs("Error: EXCEPTION_SINGLE_STEP\n", stderr);
        break;
    case EXCEPTION_STACK_OVERFLOW:
        fputs("Error: EXCEPTION_STACK_OVERFLOW\n", stderr);
        break;
    default:
        fputs("Error: Unrecognized Exception\n", stderr);
        break;
    }
    printThreadLine();
    fflush(stderr);

    fputs("==== STACK TRACE ====\n", stderr);
    // Before the external tool writes to the same stream.
    fflush(stderr);
    if (EXCEPTION_STACK_OVERFLOW == ExceptionInfo->ExceptionRecord->ExceptionCode) {
        // No stack is left to walk on: let the external tool name the faulting instruction.
        addr2line(icky_global_program_name,
                  reinterpret_cast<void *>(instructionPointer(ExceptionInfo->ContextRecord)));
        fputs("==== STACK TRACE UNAVAILABLE ====\n", stderr);
    } else {
        windows_print_stacktrace(ExceptionInfo->ContextRecord);
        fputs("==== STACK TRACE DONE ====\n", stderr);
    }
    fflush(stderr);

    return EXCEPTION_EXECUTE_HANDLER;
}
