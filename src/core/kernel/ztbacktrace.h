#pragma once

#include "ztcore_export.h"

#ifdef _WIN32
#include <windows.h>
#endif

// The crash handler: the host installs it once, first thing in main(), and from then on a fault
// on any thread writes the fault's name and a symbolic stack trace to standard error before the
// process ends:
//
//     Error: EXCEPTION_ACCESS_VIOLATION
//     ==== STACK TRACE ====
//     0x... <function>            one line per frame, the faulting frame first
//     ==== STACK TRACE DONE ====
//
// A stack overflow leaves no stack to walk; it prints "Error: EXCEPTION_STACK_OVERFLOW", what the
// external addr2line tool says about the faulting instruction, and
// "==== STACK TRACE UNAVAILABLE ====".
//
// The functions carry plain C names so that hosts written against other toolchains can find
// them. There is no uninstall.

#ifdef __cplusplus
extern "C" {
#endif

#ifdef _WIN32

// Keeps programName (not copied: it must outlive the process, argv[0] does) for the
// stack-overflow report and installs windows_exception_handler as the unhandled exception
// filter. Returns the previous filter. A stack overflow leaves too little stack for the filter to
// be reached, so a vectored handler (added once) passes that exception to the filter on a fresh
// thread and ends the process; an overflow is therefore fatal even inside a __try block.
ZTCORE_EXPORT LPTOP_LEVEL_EXCEPTION_FILTER ztset_signal_handler(const char *programName);
// As ztset_signal_handler, leaving the program name as it is (null unless set before).
ZTCORE_EXPORT LPTOP_LEVEL_EXCEPTION_FILTER set_signal_handler(void);
// The filter itself: reports and returns EXCEPTION_EXECUTE_HANDLER so that the process ends
// without the system's error dialog.
ZTCORE_EXPORT LONG WINAPI windows_exception_handler(EXCEPTION_POINTERS *ExceptionInfo);
// Walks and prints the stack of context (i386 or x86-64); returns the result of SymCleanup.
ZTCORE_EXPORT BOOL windows_print_stacktrace(CONTEXT *context);

#else

// POSIX systems: the handler catches SIGSEGV, SIGFPE, SIGILL, SIGBUS, SIGTRAP, SIGABRT and SIGSYS
// and names each after the Windows exception it corresponds to (an abort, a fatal Qt message
// included, reports "Error: Unrecognized Exception"). After the report the signal's default
// action is restored and the signal raised again, so the exit status still names the signal and
// core dumps still happen.
//
// Both installers return 0 when every handler and the calling thread's alternate signal stack
// are in place, -1 when any of them could not be installed (the others still are).
//
// Stack overflows are reported only on threads that have an alternate signal stack: the
// installing thread gets one here; a thread started later must call ztset_thread_signal_stack()
// itself, otherwise an overflow there ends the process with SIGSEGV and no report (every other
// fault is still reported on every thread).
ZTCORE_EXPORT int ztset_signal_handler(const char *programName);
ZTCORE_EXPORT int set_signal_handler(void);

#endif

// Gives the calling thread an alternate signal stack (kept until the thread ends) so that a stack
// overflow on it can be reported; a thread that already has one keeps it. Returns 0 on success,
// -1 on failure. A no-op returning 0 on Windows, where the system reserves room for the filter.
ZTCORE_EXPORT int ztset_thread_signal_stack(void);

// Runs the external tool as "addr2line -f -p -e <programName> <address>" (at most 256 characters
// of the name) and returns what system() would: the tool's wait status, -1 when it could not be
// started. The tool prints the function, file and line on standard output.
//
// Windows runs the command through system() with the name in double quotes. POSIX systems start
// the tool without a shell, with fork() and execve() and an argument vector held in static
// buffers, so the name is one argument whatever blanks or shell characters it holds, and nothing
// is allocated: the call is safe inside the crash handler. The tool is looked up in PATH when a
// handler is installed (by the first call otherwise); a tool that is still running after 30
// seconds is killed. An address inside a loaded object is first made relative to that object's
// load base, which position-independent executables need for the tool to find it.
ZTCORE_EXPORT int addr2line(const char *programName, void *address);

#ifdef __cplusplus
}
#endif
