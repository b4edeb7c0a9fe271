#ifndef COMPLETEEXCEPTIONHANDLER_UNIX_P_H
#define COMPLETEEXCEPTIONHANDLER_UNIX_P_H

// Internal, Linux: what the signal handler captures for the crash-reporting thread, and the dump
// request that the reporting thread sends back to the crashing thread.

#include "CrashHandler_p.h"

#include <csignal>
#include <cstdint>
#include <sys/types.h>
#include <ucontext.h>

namespace KrCrash {

struct CapturedCrash
{
    static constexpr int MaxFrames = 256;

    pid_t threadId = 0; // kernel thread id
    bool fromSignal = false; // false for std::terminate and failed allocations
    siginfo_t signal {};
    ucontext_t context {}; // registers; fpregs points at context.__fpregs_mem
    // Program counters, innermost first. frames[0] is the faulting instruction itself when
    // fromSignal; every other entry is a return address.
    uintptr_t frames[MaxFrames] {};
    int frameCount = 0;
};

// Asks the crashing thread, which waits in the handler, to write the dump into `fileName`.
// Runs on the crash-reporting thread only.
DumpResult requestDumpFromCrashingThread(const char *fileName, const CapturedCrash &crash);

} // namespace KrCrash

#endif // COMPLETEEXCEPTIONHANDLER_UNIX_P_H
