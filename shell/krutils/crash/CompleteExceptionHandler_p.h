#ifndef COMPLETEEXCEPTIONHANDLER_P_H
#define COMPLETEEXCEPTIONHANDLER_P_H

// Internal: the operating-system side of crash interception. Free of Qt (and of <windows.h>), so
// that the Windows side builds with mingw-w64 alone and its tests run under wine.
//
// The platform layer (CompleteExceptionHandler_win.cpp / _unix.cpp) installs the handlers and, for
// each fatal event, hands a CrashEvent to the crash routine, which builds the records in Qt
// (CompleteExceptionHandler.cpp) and calls back into the layer for the dump file and the stack
// walk (CrashHandler_p.h).
//
// Windows: the routine runs inside the handler, in the crashing thread, as the runtime calls it.
// Linux: the signal handler captures the registers and the stack addresses with async-signal-safe
// calls only; a crash-reporting thread started by installProcessHandlers() runs the routine while
// the crashing thread waits with a time limit, and writes the dump file when the routine asks.

#include <cstdint>

namespace KrCrash {

// Which handler caught the event. It decides the description and whether a dump is written.
enum class Handler {
    Seh, // unhandled structured exception; on Linux SIGSEGV, SIGBUS, SIGILL, SIGTRAP
    SigAbrt,
    Terminate,
    Unexpected,
    PureCall,
    NewFailure,
    SigInt,
    SigFpe,
    InvalidParameter,
};

// The gravest kinds leave a dump file.
inline bool dumpWanted(Handler handler)
{
    switch (handler) {
    case Handler::Seh:
    case Handler::SigAbrt:
    case Handler::Terminate:
    case Handler::Unexpected:
        return true;
    default:
        return false;
    }
}

// The exception as the monitor program reads it: Windows exception codes on every platform.
struct ExceptionRecord
{
    uint32_t code = 0;
    uint32_t flags = 0;
    uint64_t address = 0;
};

struct CrashEvent
{
    Handler handler = Handler::Seh;
    // Null when the runtime gave no exception information.
    const ExceptionRecord *record = nullptr;
    // SigFpe: the signal number and its sub-code.
    int signalNumber = 0;
    int subCode = 0;
    // InvalidParameter: the texts the runtime passed (null when not given) and the line (0 when
    // not given).
    const char *expression = nullptr;
    const char *function = nullptr;
    const char *file = nullptr;
    unsigned line = 0;
    // QThread::currentThreadId() of the crashing thread.
    uint64_t threadId = 0;
    // What installThreadHandlers() was given in the crashing thread (its QThread), or null.
    void *threadTag = nullptr;
    // Whether the routine runs in the crashing thread itself (Windows) or in the reporting
    // thread (Linux).
    bool inCrashingThread = true;
    // The layer's own data for the dump and the stack walk: EXCEPTION_POINTERS on Windows, the
    // captured signal state on Linux.
    const void *platformData = nullptr;
};

// The crash routine. Its result is what the Windows handlers return to the runtime where they
// return anything; the layer ignores it otherwise.
using CrashRoutine = bool (*)(const CrashEvent &event);

// Installs the process-wide handlers and remembers the routine. Calling it again re-installs them.
void installProcessHandlers(CrashRoutine routine);

// Installs the handlers of the calling thread (on Linux also its alternate signal stack, so that a
// stack overflow in this thread is caught). `threadTag` is passed back in CrashEvent::threadTag.
// The routine is remembered too: a thread's handlers report even in a process whose handlers were
// never installed.
void installThreadHandlers(void *threadTag, CrashRoutine routine);

} // namespace KrCrash

#endif // COMPLETEEXCEPTIONHANDLER_P_H
