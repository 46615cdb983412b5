#include "ztbacktrace.h"

#include <dbghelp.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

// The walk below is the i386 one (machine type, Eip/Ebp/Esp); link with dbghelp.

// Not owned: the host's argv[0] or another string that lives as long as the process.
static const char *icky_global_program_name = nullptr;

LPTOP_LEVEL_EXCEPTION_FILTER ztset_signal_handler(const char *programName)
{
    icky_global_program_name = programName;
    return SetUnhandledExceptionFilter(windows_exception_handler);
}

LPTOP_LEVEL_EXCEPTION_FILTER set_signal_handler(void)
{
    return SetUnhandledExceptionFilter(windows_exception_handler);
}

int ztset_thread_signal_stack(void)
{
    return 0;
}

int addr2line(const char *programName, void *address)
{
    char addr2lineCmd[512];
    memset(addr2lineCmd, 0, sizeof(addr2lineCmd));
    sprintf(addr2lineCmd, "addr2line -f -p -e %.256s %p", programName, address);
    return system(addr2lineCmd);
}

BOOL windows_print_stacktrace(CONTEXT *context)
{
    SymInitialize(GetCurrentProcess(), nullptr, TRUE);

    STACKFRAME frame;
    memset(&frame, 0, sizeof(frame));
    frame.AddrPC.Offset = context->Eip;
    frame.AddrPC.Mode = AddrModeFlat;
    frame.AddrStack.Offset = context->Esp;
    frame.AddrStack.Mode = AddrModeFlat;
    frame.AddrFrame.Offset = context->Ebp;
    frame.AddrFrame.Mode = AddrModeFlat;

    while (StackWalk(332 /* IMAGE_FILE_MACHINE_I386 */, GetCurrentProcess(), GetCurrentThread(),
                     &frame, context, nullptr, SymFunctionTableAccess, SymGetModuleBase, nullptr)) {
        // A 24-byte IMAGEHLP_SYMBOL header followed by room for a 255-character name. Never
        // freed: the process is about to end and its heap may be the thing that is damaged.
        IMAGEHLP_SYMBOL *symbol = static_cast<IMAGEHLP_SYMBOL *>(calloc(280, 1));
        symbol->SizeOfStruct = 24;
        symbol->MaxNameLength = 255;
        DWORD displacement = 0;
        if (SymGetSymFromAddr(GetCurrentProcess(), frame.AddrPC.Offset, &displacement, symbol))
            fprintf(stderr, "0x%08x %s\n", static_cast<unsigned int>(frame.AddrPC.Offset),
                    symbol->Name);
        else
            // The blank after the line feed is part of the established output format.
            fprintf(stderr, "0x%08x\n ", static_cast<unsigned int>(frame.AddrPC.Offset));
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
    fflush(stderr);

    fputs("==== STACK TRACE ====\n", stderr);
    if (EXCEPTION_STACK_OVERFLOW == ExceptionInfo->ExceptionRecord->ExceptionCode) {
        // No stack is left to walk on: let the external tool name the faulting instruction.
        addr2line(icky_global_program_name,
                  reinterpret_cast<void *>(ExceptionInfo->ContextRecord->Eip));
        fputs("==== STACK TRACE UNAVAILABLE ====\n", stderr);
    } else {
        windows_print_stacktrace(ExceptionInfo->ContextRecord);
        fputs("==== STACK TRACE DONE ====\n", stderr);
    }
    fflush(stderr);

    return EXCEPTION_EXECUTE_HANDLER;
}
