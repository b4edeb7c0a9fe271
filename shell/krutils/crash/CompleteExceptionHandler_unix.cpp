// Linux side of crash interception: the signal handlers, std::terminate and the new handler,
// each thread's alternate signal stack, and the hand-over to the crash-reporting thread.
//
// A handler runs in the crashing thread, often on its alternate stack, at a moment when any lock
// of the process (malloc's among them) may be held by the thread it interrupted. So it does only
// async-signal-safe work: it copies the registers, steps the stack with libunwind (no names), and
// wakes the reporting thread, started in advance, which runs the Qt crash routine. While the
// routine runs, the crashing thread waits in the handler and writes the dump file when the routine
// asks for it; every wait has a time limit, so a routine that blocks on a lock held by the
// crashed thread costs seconds, not a hang. Afterwards the signal goes on as if krutils were not
// there: to the handler installed before ours, or to its default action.

#include "CompleteExceptionHandler_unix_p.h"
#include "MiniDumpWriter_p.h"

#define UNW_LOCAL_ONLY
#include <libunwind.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <exception>
#include <mutex>
#include <new>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace KrCrash {
namespace {

// How long the crashing thread waits for each step of the crash routine, and for all of them.
constexpr int StepTimeoutMs = 10000;
constexpr int TotalTimeoutMs = 60000;
// libunwind's stepping and the dump writer run on the alternate stack.
constexpr size_t AlternateStackSize = 256 * 1024;

// The hardware faults take the place of Windows' unhandled-exception filter.
constexpr int FaultSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGTRAP};
constexpr int CrashSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGTRAP, SIGFPE, SIGABRT, SIGINT};

// Messages on the two pipes.
constexpr char CrashMessage = 'C'; // to the reporting thread: run the routine
constexpr char DumpRequest = 'D'; // to the crashing thread: write the dump
constexpr char DumpWritten = 'd'; // to the reporting thread
constexpr char RoutineDone = 'F'; // to the crashing thread

std::atomic<CrashRoutine> routine {nullptr};
struct sigaction previousActions[NSIG];
bool hasPreviousAction[NSIG];
std::terminate_handler previousTerminate = nullptr;
std::new_handler previousNewHandler = nullptr;

int toReporter[2] = {-1, -1};
int toCrashing[2] = {-1, -1};
std::atomic<pid_t> reporterThread {0};

// One crash at a time: the kernel id of the thread being handled; and whether a fatal event was
// reported already, so that the abort() which follows std::terminate, or a second thread's
// crash, goes straight on to the default action.
std::atomic<pid_t> owner {0};
std::atomic<bool> fatalReported {false};

// The crash being handled. Static, so the handler allocates nothing.
CapturedCrash crash;
ExceptionRecord record;
CrashEvent event;
char dumpName[4096];
DumpResult dumpResult;

// localtime_r is not async-signal-safe; the fallback dump name uses the offset taken at
// installation.
std::atomic<long> utcOffsetSeconds {0};

// The tag of the thread's QThread, readable from a signal handler: initial-exec TLS lives in the
// static TLS block, so reading it never allocates.
__attribute__((tls_model("initial-exec"))) thread_local void *threadTag = nullptr;

pid_t currentThreadId()
{
    return static_cast<pid_t>(syscall(SYS_gettid));
}

bool writeByte(int fd, char byte)
{
    for (;;) {
        const ssize_t written = write(fd, &byte, 1);
        if (written == 1)
            return true;
        if (written < 0 && errno != EINTR)
            return false;
    }
}

// The next byte on `fd`, or 0 when none arrives within `timeoutMs`.
char readByte(int fd, int timeoutMs)
{
    pollfd ready {fd, POLLIN, 0};
    for (;;) {
        const int result = poll(&ready, 1, timeoutMs);
        if (result < 0 && errno == EINTR)
            continue;
        if (result <= 0)
            return 0;
        char byte = 0;
        const ssize_t got = read(fd, &byte, 1);
        if (got == 1)
            return byte;
        if (got < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        return 0;
    }
}

void drain(int fd)
{
    while (readByte(fd, 0) != 0) { }
}

long monotonicMs()
{
    timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

void sleepMs(long ms)
{
    timespec pause {ms / 1000, (ms % 1000) * 1000000};
    while (nanosleep(&pause, &pause) != 0 && errno == EINTR) { }
}

// A fault within a few pages of the stack pointer is the guard page below the stack: the stack
// above the pointer is mapped, so nothing else there can fault.
bool isStackOverflow(const siginfo_t &info, const ucontext_t &context)
{
    const auto fault = reinterpret_cast<uintptr_t>(info.si_addr);
    const auto stackPointer = static_cast<uintptr_t>(context.uc_mcontext.gregs[REG_RSP]);
    constexpr uintptr_t reach = 64 * 1024;
    return fault + reach >= stackPointer && fault <= stackPointer + reach;
}

// The Windows exception code of the fault the kernel reported, so that the monitor program reads
// one vocabulary on every platform.
uint32_t windowsExceptionCode(const siginfo_t &info, const ucontext_t &context)
{
    switch (info.si_signo) {
    case SIGSEGV:
        return isStackOverflow(info, context) ? 0xC00000FD : 0xC0000005;
    case SIGBUS:
        return info.si_code == BUS_ADRALN ? 0x80000002 : 0xC0000006;
    case SIGILL:
        return info.si_code == ILL_PRVOPC ? 0xC0000096 : 0xC000001D;
    case SIGTRAP:
        return info.si_code == TRAP_TRACE ? 0x80000004 : 0x80000003;
    case SIGFPE:
        switch (info.si_code) {
        case FPE_INTDIV:
            return 0xC0000094;
        case FPE_INTOVF:
            return 0xC0000095;
        case FPE_FLTDIV:
            return 0xC000008E;
        case FPE_FLTOVF:
            return 0xC0000091;
        case FPE_FLTUND:
            return 0xC0000093;
        case FPE_FLTRES:
            return 0xC000008F;
        case FPE_FLTSUB:
            return 0xC000008C;
        default:
            return 0xC0000090; // invalid operation
        }
    default:
        return 0;
    }
}

// A signal the kernel raised for the instruction at the program counter: returning from the
// handler executes that instruction again. (A breakpoint trap has already moved past its int3.)
bool faultRepeatsOnReturn(int signalNumber, const siginfo_t *info)
{
    return info && info->si_code > 0
            && (signalNumber == SIGSEGV || signalNumber == SIGBUS || signalNumber == SIGILL
                || signalNumber == SIGFPE);
}

// Lets the signal go on as if no krutils handler had been installed: under the handler that was
// there before, or its default action, so the parent sees the same termination signal.
void passOn(int signalNumber, const siginfo_t *info, bool toPrevious)
{
    if (signalNumber <= 0)
        return; // std::terminate and the new handler return into the runtime
    struct sigaction action
    {
    };
    if (toPrevious && hasPreviousAction[signalNumber]) {
        action = previousActions[signalNumber];
    } else {
        action.sa_handler = SIG_DFL;
        sigemptyset(&action.sa_mask);
    }
    sigaction(signalNumber, &action, nullptr);
    // The signal is blocked while its handler runs: raised now, it arrives as the handler returns.
    if (!faultRepeatsOnReturn(signalNumber, info))
        raise(signalNumber);
}

int captureFrames(ucontext_t *context, bool signalFrame, const void *skipThrough)
{
    unw_cursor_t cursor;
    if (unw_init_local2(&cursor, context, signalFrame ? UNW_INIT_SIGNAL_FRAME : 0) < 0)
        return 0;
    int count = 0;
    bool recording = skipThrough == nullptr;
    do {
        unw_word_t pc = 0;
        if (unw_get_reg(&cursor, UNW_REG_IP, &pc) < 0 || (pc == 0 && count > 0))
            break;
        if (recording) {
            crash.frames[count++] = pc;
        } else {
            unw_proc_info_t procedure {};
            if (unw_get_proc_info(&cursor, &procedure) == 0
                && procedure.start_ip == reinterpret_cast<unw_word_t>(skipThrough))
                recording = true;
        }
    } while (count < CapturedCrash::MaxFrames && unw_step(&cursor) > 0);
    return count;
}

void capture(int signalNumber, const siginfo_t *info, const void *context, const void *skipThrough,
             const void *returnAddress)
{
    crash.threadId = currentThreadId();
    crash.fromSignal = info != nullptr;
    crash.frameCount = 0;
    if (info) {
        crash.signal = *info;
        std::memcpy(&crash.context, context, sizeof crash.context);
        const auto *original = static_cast<const ucontext_t *>(context);
        if (original->uc_mcontext.fpregs)
            std::memcpy(&crash.context.__fpregs_mem, original->uc_mcontext.fpregs,
                        sizeof crash.context.__fpregs_mem);
        crash.context.uc_mcontext.fpregs = &crash.context.__fpregs_mem;
        crash.frameCount = captureFrames(&crash.context, true, nullptr);
    } else {
        // getcontext() leaves some registers alone; nothing of an earlier event may show.
        std::memset(&crash.context, 0, sizeof crash.context);
        getcontext(&crash.context);
        crash.frameCount = captureFrames(&crash.context, false, skipThrough);
        if (crash.frameCount == 0)
            crash.frameCount = captureFrames(&crash.context, false, nullptr);
    }

    // Faults the kernel reports carry their code and address; everything else is described by a
    // synthetic record: code 0, non-continuable, and the handler's return address.
    const bool kernelFault
            = info && info->si_code > 0 && signalNumber != SIGABRT && signalNumber != SIGINT;
    record = ExceptionRecord {};
    if (kernelFault) {
        record.code = windowsExceptionCode(*info, crash.context);
        record.flags = 0;
        record.address = static_cast<uint64_t>(crash.context.uc_mcontext.gregs[REG_RIP]);
    } else {
        record.code = 0;
        record.flags = 1;
        record.address = reinterpret_cast<uintptr_t>(returnAddress);
    }
}

// "trelk_dump-<yyyyMMddhhmmss>.dmp" in local time, without localtime_r.
void fallbackDumpName(char *name)
{
    const long long local = static_cast<long long>(time(nullptr)) + utcOffsetSeconds.load();
    long long days = local / 86400;
    long long seconds = local % 86400;
    if (seconds < 0) {
        seconds += 86400;
        --days;
    }
    // Civil date from days since 1970-01-01 (proleptic Gregorian calendar).
    days += 719468;
    const long long era = (days >= 0 ? days : days - 146096) / 146097;
    const long long dayOfEra = days - era * 146097;
    const long long yearOfEra
            = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const long long dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const long long monthIndex = (5 * dayOfYear + 2) / 153;
    const long long day = dayOfYear - (153 * monthIndex + 2) / 5 + 1;
    const long long month = monthIndex < 10 ? monthIndex + 3 : monthIndex - 9;
    const long long year = yearOfEra + era * 400 + (month <= 2 ? 1 : 0);

    const long long fields[] = {year, month, day, seconds / 3600, seconds / 60 % 60, seconds % 60};
    const int widths[] = {4, 2, 2, 2, 2, 2};
    const char prefix[] = "trelk_dump-";
    std::memcpy(name, prefix, sizeof prefix - 1);
    char *out = name + sizeof prefix - 1;
    for (int i = 0; i < 6; ++i) {
        long long value = fields[i];
        for (int digit = widths[i] - 1; digit >= 0; --digit) {
            out[digit] = static_cast<char>('0' + value % 10);
            value /= 10;
        }
        out += widths[i];
    }
    std::memcpy(out, ".dmp", 5);
}

DumpResult writeDumpNow(const char *fileName)
{
    DumpResult result;
    const int fd = open(fileName, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        result.systemError = errno;
        return result;
    }
    result.created = true;
    MiniDumpRequest request;
    request.crashingThread = crash.threadId;
    request.context = &crash.context;
    request.signal = crash.fromSignal ? &crash.signal : nullptr;
    result.systemError = writeMiniDump(fd, request);
    result.written = result.systemError == 0;
    close(fd);
    return result;
}

// Runs the crash routine on the reporting thread, serving its dump request, until it is done or
// out of time. Returns whether a dump was written.
bool reportThroughRoutine()
{
    if (reporterThread.load() == 0)
        return false;
    drain(toCrashing[0]);
    if (!writeByte(toReporter[1], CrashMessage))
        return false;
    bool dumped = false;
    const long deadline = monotonicMs() + TotalTimeoutMs;
    for (long left = TotalTimeoutMs; left > 0; left = deadline - monotonicMs()) {
        const char message
                = readByte(toCrashing[0], left < StepTimeoutMs ? int(left) : StepTimeoutMs);
        if (message == DumpRequest) {
            dumpResult = writeDumpNow(dumpName);
            dumped = true;
            writeByte(toReporter[1], DumpWritten);
        } else {
            break; // done, or the routine is stuck
        }
    }
    return dumped;
}

void handleCrash(Handler handler, int signalNumber, siginfo_t *info, void *context,
                 const void *skipThrough, const void *returnAddress)
{
    const pid_t self = currentThreadId();
    // A crash of the reporting thread, a crash while this thread is being handled, or anything
    // after a fatal report: no second report, straight on.
    if (self == reporterThread.load() || self == owner.load() || fatalReported.load())
        return passOn(signalNumber, info, false);

    // Another thread is being handled: the process ends with it; wait for that.
    pid_t expected = 0;
    for (const long deadline = monotonicMs() + TotalTimeoutMs + StepTimeoutMs;
         !owner.compare_exchange_strong(expected, self); expected = 0) {
        if (fatalReported.load() || monotonicMs() > deadline)
            return passOn(signalNumber, info, false);
        sleepMs(20);
    }

    capture(signalNumber, info, context, skipThrough, returnAddress);
    event = CrashEvent {};
    event.handler = handler;
    event.record = &record;
    event.signalNumber = signalNumber;
    event.subCode = info ? info->si_code : 0;
    event.threadId = static_cast<uint64_t>(pthread_self());
    event.threadTag = threadTag;
    event.inCrashingThread = false;
    event.platformData = &crash;

    const bool dumped = reportThroughRoutine();
    if (!dumped && dumpWanted(handler)) {
        fallbackDumpName(dumpName);
        writeDumpNow(dumpName);
    }

    if (handler == Handler::NewFailure) {
        owner.store(0); // the program may catch std::bad_alloc and go on
        return;
    }
    fatalReported.store(true);
    passOn(signalNumber, info, true);
}

void onSignal(int signalNumber, siginfo_t *info, void *context)
{
    const int savedErrno = errno;
    Handler handler = Handler::Seh;
    if (signalNumber == SIGABRT)
        handler = Handler::SigAbrt;
    else if (signalNumber == SIGINT)
        handler = Handler::SigInt;
    else if (signalNumber == SIGFPE)
        handler = Handler::SigFpe;
    handleCrash(handler, signalNumber, info, context, nullptr, __builtin_return_address(0));
    errno = savedErrno;
}

void onTerminate()
{
    handleCrash(Handler::Terminate, 0, nullptr, nullptr,
                reinterpret_cast<const void *>(&onTerminate), __builtin_return_address(0));
    // The runtime's own terminate handler prints the exception; either way abort() follows.
    if (previousTerminate)
        previousTerminate();
    std::abort();
}

void onUnexpected()
{
    handleCrash(Handler::Unexpected, 0, nullptr, nullptr,
                reinterpret_cast<const void *>(&onUnexpected), __builtin_return_address(0));
    std::terminate();
}

// Reports the failure, then lets operator new throw std::bad_alloc as it would without a
// handler (returning would make it retry the allocation forever).
void onNewFailure()
{
    handleCrash(Handler::NewFailure, 0, nullptr, nullptr,
                reinterpret_cast<const void *>(&onNewFailure), __builtin_return_address(0));
    if (previousNewHandler) {
        previousNewHandler();
        return;
    }
    throw std::bad_alloc();
}

void installSignal(int signalNumber)
{
    struct sigaction action
    {
    };
    action.sa_sigaction = onSignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    // Blocked while a handler runs, a fault of the handler itself ends the process at once under
    // its default action.
    sigemptyset(&action.sa_mask);
    for (int blocked : CrashSignals)
        sigaddset(&action.sa_mask, blocked);
    struct sigaction previous
    {
    };
    if (sigaction(signalNumber, &action, &previous) != 0)
        return;
    if (!(previous.sa_flags & SA_SIGINFO && previous.sa_sigaction == onSignal)) {
        previousActions[signalNumber] = previous;
        hasPreviousAction[signalNumber] = true;
    }
}

void *reporterMain(void *)
{
    prctl(PR_SET_NAME, "KrCrashReporter", 0, 0, 0);
    // Only faults of its own may reach this thread: an interrupt sent to the process must find a
    // thread that can report it.
    sigset_t blocked;
    sigfillset(&blocked);
    for (int fault : {SIGSEGV, SIGBUS, SIGILL, SIGTRAP, SIGFPE, SIGABRT})
        sigdelset(&blocked, fault);
    pthread_sigmask(SIG_SETMASK, &blocked, nullptr);
    reporterThread.store(currentThreadId());

    for (;;) {
        char message = 0;
        const ssize_t got = read(toReporter[0], &message, 1);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return nullptr;
        if (message != CrashMessage)
            continue; // a late reply to a request that timed out
        if (const CrashRoutine run = routine.load())
            run(event);
        writeByte(toCrashing[1], RoutineDone);
    }
}

void startReporterOnce()
{
    if (pipe2(toReporter, O_CLOEXEC) != 0 || pipe2(toCrashing, O_CLOEXEC) != 0)
        return;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    if (pthread_create(&thread, &attributes, reporterMain, nullptr) == 0) {
        // The handlers need the thread's id; wait until it has one.
        while (reporterThread.load() == 0)
            sleepMs(1);
    }
    pthread_attr_destroy(&attributes);
}

// Threads starting at the same moment all install their handlers; one reporting thread serves all.
void startReporter()
{
    static std::once_flag started;
    std::call_once(started, startReporterOnce);
}

void rememberUtcOffset()
{
    const time_t now = time(nullptr);
    tm local {};
    if (localtime_r(&now, &local))
        utcOffsetSeconds.store(local.tm_gmtoff);
}

// libunwind finds and caches the unwind tables of the loaded objects on first use; done here, the
// handler's first stack walk touches nothing new.
void warmUpUnwinder()
{
    ucontext_t context;
    getcontext(&context);
    unw_cursor_t cursor;
    if (unw_init_local2(&cursor, &context, 0) == 0) {
        while (unw_step(&cursor) > 0) { }
    }
}

// The thread's alternate signal stack, released when the thread ends.
struct AlternateStack
{
    void *memory = nullptr;
    size_t size = 0;

    ~AlternateStack()
    {
        if (!memory)
            return;
        stack_t disable {};
        disable.ss_flags = SS_DISABLE;
        sigaltstack(&disable, nullptr);
        munmap(memory, size);
    }
};
thread_local AlternateStack alternateStack;

void installAlternateStack()
{
    stack_t current {};
    if (sigaltstack(nullptr, &current) == 0 && !(current.ss_flags & SS_DISABLE))
        return; // the thread has one already, ours or the application's
    const size_t guard = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t size = guard + AlternateStackSize;
    void *memory = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (memory == MAP_FAILED)
        return;
    // A guard page below, so that a handler overflowing its stack faults instead of writing over
    // whatever lies below.
    mprotect(memory, guard, PROT_NONE);
    stack_t stack {};
    stack.ss_sp = static_cast<char *>(memory) + guard;
    stack.ss_size = AlternateStackSize;
    if (sigaltstack(&stack, nullptr) != 0) {
        munmap(memory, size);
        return;
    }
    alternateStack.memory = memory;
    alternateStack.size = size;
}

} // namespace

void installProcessHandlers(CrashRoutine crashRoutine)
{
    routine.store(crashRoutine);
    rememberUtcOffset();
    warmUpUnwinder();
    startReporter();
    for (int signalNumber : FaultSignals)
        installSignal(signalNumber);
    const std::new_handler previous = std::set_new_handler(onNewFailure);
    if (previous != onNewFailure)
        previousNewHandler = previous;
    installSignal(SIGABRT);
    installSignal(SIGINT);
    // A stack overflow of the installing thread (normally the main thread) needs its alternate
    // stack even when the application forgets the thread handlers.
    installAlternateStack();
}

void installThreadHandlers(void *tag, CrashRoutine crashRoutine)
{
    routine.store(crashRoutine);
    startReporter();
    threadTag = tag;
    installAlternateStack();
    const std::terminate_handler previous = std::set_terminate(onTerminate);
    if (previous != onTerminate)
        previousTerminate = previous;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    std::set_unexpected(onUnexpected);
#pragma GCC diagnostic pop
    installSignal(SIGFPE);
}

DumpResult requestDumpFromCrashingThread(const char *fileName, const CapturedCrash &captured)
{
    if (&captured != &crash || currentThreadId() != reporterThread.load())
        return DumpResult {};
    const size_t length = std::strlen(fileName);
    if (length >= sizeof dumpName)
        return DumpResult {false, false, ENAMETOOLONG};
    std::memcpy(dumpName, fileName, length + 1);
    dumpResult = DumpResult {};
    drain(toReporter[0]);
    if (!writeByte(toCrashing[1], DumpRequest))
        return DumpResult {};
    // The dump of a large process takes a while; the crashing thread answers when it is written.
    if (readByte(toReporter[0], TotalTimeoutMs) != DumpWritten)
        return DumpResult {};
    return dumpResult;
}

} // namespace KrCrash
