#ifndef COMPLETEEXCEPTIONHANDLER_H
#define COMPLETEEXCEPTIONHANDLER_H

#include <krutils/krutils_export.h>

/// @file
/// Crash interception. Every fatal event of the process (a hardware fault, abort(),
/// std::terminate, a failed allocation, an interrupt, a floating-point signal) is turned into crash
/// records for the monitor log (KrMonitorAppender): an early one with the thread and a description,
/// then a full one with the exception code, flags and call stack. The gravest kinds also leave a
/// dump file `"trelk_dump-<yyyyMMddhhmmss>.dmp"` in the working directory, and the six newest dump
/// files of the application directory are kept.
///
/// Call both functions once at start-up, on the main thread, after QCoreApplication exists:
///
///     QApplication app(argc, argv);
///     set_process_exception_handlers();
///     set_thread_exception_handlers();
///
/// Every KrThread installs the thread handlers itself when it starts. The names are unmangled, so
/// that modules written in other languages can call them.
///
/// On Linux the hardware faults are SIGSEGV, SIGBUS, SIGILL and SIGTRAP; their records carry the
/// Windows exception code of the same fault (C0000005 access violation, C00000FD stack overflow,
/// C000001D illegal instruction, 80000003 breakpoint, ...) so that the monitor program reads one
/// vocabulary on both platforms, and the dump is a minidump of the Linux process. The signal
/// handler does only async-signal-safe work; the records are built by a crash-reporting thread
/// started by set_process_exception_handlers(), which the crashing thread waits for with a time
/// limit. Afterwards the previous handler of the signal runs, or the signal is raised again under
/// its default action, so the process ends as it would have without krutils.

extern "C" {
/// Installs the process-wide handlers: the unhandled-exception filter (on Linux the handlers of
/// the hardware-fault signals), the new handler, on Windows the pure-call and invalid-parameter
/// handlers, and the handlers of SIGABRT and SIGINT. It also sets up the monitor log
/// (KrMonitorAppender) now rather than in the middle of a crash. Calling it again installs the
/// handlers again.
KRUTILS_EXPORT void set_process_exception_handlers();
/// Installs the calling thread's handlers: terminate, unexpected and SIGFPE, and on Linux an
/// alternate signal stack, so that a stack overflow in this thread is reported.
KRUTILS_EXPORT void set_thread_exception_handlers();
}

#endif // COMPLETEEXCEPTIONHANDLER_H
