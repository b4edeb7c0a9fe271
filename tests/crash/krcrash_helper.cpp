// Crashes on purpose, in the way its first argument names, after installing krutils' crash
// handlers. Run by tst_krcrash in a child process; prints what the test needs to know on stdout
// before crashing ("pid <n>").

#include <krutils/CompleteExceptionHandler.h>
#include <krutils/KrThread.h>

#include <QCoreApplication>
#include <QThread>

#include <atomic>
#include <cfenv>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

// Under the sanitizer build the crashes must still happen for real, not be caught by
// UndefinedBehaviorSanitizer's checks first.
#define NOINLINE __attribute__((noinline, no_sanitize("undefined")))

namespace {

volatile int zero = 0;
volatile int hundred = 100;
volatile int sink = 0;
// Read at run time, so the compiler cannot see the null pointer and drop the write.
int *volatile nowhere = nullptr;

NOINLINE void crashByNullWrite()
{
    *nowhere = 1;
}

NOINLINE void crashByAbort()
{
    std::abort();
}

NOINLINE void crashByIntegerDivision()
{
    sink = hundred / zero;
}

NOINLINE void crashByFloatDivision()
{
    feenableexcept(FE_DIVBYZERO);
    volatile double nothing = 0.0;
    volatile double result = 1.0 / nothing;
    (void)result;
}

NOINLINE void crashByTrap()
{
    __builtin_trap();
}

NOINLINE void crashByBreakpoint()
{
    __asm__ volatile("int3");
}

NOINLINE void crashByInterrupt()
{
    raise(SIGINT);
    sink = 1; // keeps this frame: no tail call into raise
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winfinite-recursion" // endless on purpose
NOINLINE int crashByStackOverflow(int depth)
{
    volatile char frame[1024];
    frame[depth % sizeof frame] = static_cast<char>(depth);
    // Not a tail call: the frame's byte is read after the recursion returns.
    return crashByStackOverflow(depth + 1) + frame[0];
}
#pragma GCC diagnostic pop

NOINLINE void crashByUncaughtException()
{
    throw std::runtime_error("nobody catches this");
}

// Returns normally: the failed allocation is reported, then operator new throws.
NOINLINE int failAllocation()
{
    try {
        // More than any allocator hands out, whatever the machine's overcommit policy.
        volatile size_t huge = size_t(PTRDIFF_MAX) + 1;
        void *memory = ::operator new(huge);
        ::operator delete(memory);
        return 1;
    } catch (const std::bad_alloc &) {
        std::printf("bad_alloc caught\n");
        return 0;
    }
}

// Corrupts the heap so that malloc itself detects it and aborts while it holds its arena lock,
// with another thread allocating at the same time.
NOINLINE void crashInsideMalloc()
{
    std::atomic<bool> running {true};
    std::thread busy([&running] {
        while (running.load()) {
            void *p = std::malloc(64);
            sink = p != nullptr;
            std::free(p);
        }
    });
    char *block = static_cast<char *>(std::malloc(0x10000));
    // The chunk after the block is the heap's top; give it an impossible size.
    size_t *volatile topChunk
            = reinterpret_cast<size_t *>(block + 0x10000); // hidden from the compiler
    topChunk[1] = ~size_t(0xF);
    void *more = std::malloc(0x18000);
    sink = more != nullptr;
    running = false;
    busy.join();
}

void previousSegvHandler(int)
{
    const char note[] = "previous handler ran\n";
    const int fd = open("previous_handler.txt", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0) {
        ssize_t ignored = write(fd, note, sizeof note - 1);
        (void)ignored;
        close(fd);
    }
    signal(SIGSEGV, SIG_DFL); // the fault repeats on return and ends the process
}

void crashTwoThreadsAtOnce()
{
    std::atomic<int> ready {0};
    auto crasher = [&ready] {
        set_thread_exception_handlers();
        ++ready;
        while (ready.load() < 2) { }
        crashByNullWrite();
    };
    std::thread first(crasher);
    std::thread second(crasher);
    first.join();
    second.join();
}

// Runs `crash` on a KrThread named "CrashWorker" and waits for the end of the process.
template<typename Crash> void crashOnKrThread(Crash crash)
{
    auto *thread = new KrThread;
    thread->setObjectName(QStringLiteral("CrashWorker"));
    auto *worker = new QObject;
    worker->moveToThread(thread);
    thread->start(QThread::InheritPriority);
    QMetaObject::invokeMethod(worker, crash, Qt::QueuedConnection);
    for (;;)
        QThread::sleep(1);
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QByteArray kind = argc > 1 ? QByteArray(argv[1]) : QByteArray();

    if (kind == "previous-handler")
        signal(SIGSEGV, previousSegvHandler);
    set_process_exception_handlers();
    set_thread_exception_handlers();
    QThread::currentThread()->setObjectName(QStringLiteral("CrashMain"));
    std::printf("pid %lld\n", static_cast<long long>(QCoreApplication::applicationPid()));
    std::fflush(stdout);

    if (kind == "null-write" || kind == "previous-handler")
        crashByNullWrite();
    else if (kind == "abort")
        crashByAbort();
    else if (kind == "integer-division")
        crashByIntegerDivision();
    else if (kind == "float-division")
        crashByFloatDivision();
    else if (kind == "trap")
        crashByTrap();
    else if (kind == "breakpoint")
        crashByBreakpoint();
    else if (kind == "interrupt")
        crashByInterrupt();
    else if (kind == "stack-overflow")
        sink = crashByStackOverflow(0);
    else if (kind == "stack-overflow-thread")
        crashOnKrThread([] { sink = crashByStackOverflow(0); });
    else if (kind == "null-write-thread")
        crashOnKrThread([] { crashByNullWrite(); });
    else if (kind == "uncaught-exception")
        crashByUncaughtException();
    else if (kind == "allocation-failure")
        return failAllocation();
    else if (kind == "inside-malloc")
        crashInsideMalloc();
    else if (kind == "two-threads")
        crashTwoThreadsAtOnce();
    else
        return 2;
    return 1; // not reached when the crash happens
}
