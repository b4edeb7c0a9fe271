// Tests of the Linux minidump writer (MiniDumpWriter_p.h).
//
// The test program is also the child that the dumps are written of: started with
// "--minidump-child <kind> <dump>" it puts markers on the heap and on the stack, prints what the
// parent needs to know, and crashes in a function of its own section (so that its address range
// is known exactly), where a handler on an alternate stack writes the dump; or it writes the dump
// on request for a thread that waits in such a function. The parent reads the dump with
// MiniDumpReader and, where set-up installed them, with Breakpad's minidump_stackwalk and
// minidump_dump, the independent readers.

#include "crash/MiniDumpWriter_p.h"

#include "MiniDumpReader.h"

#include <QDateTime>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/utsname.h>
#include <ucontext.h>
#include <unistd.h>

// The linker's bounds of the crashing functions' sections, and the program's lowest address.
extern "C" {
extern const char __start_krmd_nullwrite[], __stop_krmd_nullwrite[];
extern const char __start_krmd_overflow[], __stop_krmd_overflow[];
extern const char __start_krmd_requested[], __stop_krmd_requested[];
extern const char __ehdr_start[] __attribute__((visibility("hidden")));
}

namespace {

const char HeapMarker[] = "krutils-minidump-heap-marker:5f3a9c17";
const char StackMarker[] = "krutils-minidump-stack-marker:c0ffee42";
const char EnvironmentMarker[] = "KRMD_ENVIRONMENT_MARKER";
const char ChildOption[] = "--minidump-child";
const char MainThreadName[] = "krmd-main";
const char WaitingThreadName[] = "krmd-waiting";
// Not ASCII: "krmd-über" and U+1D11E, a surrogate pair in UTF-16.
const char OverflowThreadName[] = "krmd-\xC3\xBC"
                                  "ber\xF0\x9D\x84\x9E";
// Mapped executable below the program, so that the program is not the lowest module.
const char DecoyModule[] = "/usr/bin/true";

using Info = MiniDumpReader::MemoryInfo;

namespace Child {

const char *dumpPath;
int *volatile nullTarget = nullptr;
volatile bool keepRecursing = true;
alignas(16) char altStacks[2][64 * 1024];
ucontext_t waitingContext;
char *heapBlock; // reachable to the end, so that the leak checker passes it by
std::atomic<pid_t> waitingThread {0};

void side(const char *key, quintptr value)
{
    std::printf("%s=%llu\n", key, qulonglong(value));
    std::fflush(stdout);
}

void printSide(pid_t tid, const char *functionStart, const char *functionEnd)
{
    side("tid", quintptr(tid));
    side("function_start", quintptr(functionStart));
    side("function_end", quintptr(functionEnd));
}

bool writeDump(pid_t tid, const ucontext_t *context, const siginfo_t *info)
{
    const int fd = open(dumpPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    KrCrash::MiniDumpRequest request;
    request.crashingThread = tid;
    request.context = context;
    request.signal = info;
    return fd >= 0 && KrCrash::writeMiniDump(fd, request) == 0;
}

// The handler is reset on entry (SA_RESETHAND): the fault repeats under the default action.
void crashHandler(int, siginfo_t *info, void *context)
{
    const bool written = writeDump(gettid(), static_cast<const ucontext_t *>(context), info);
    (void)!write(STDOUT_FILENO, written ? "written\n" : "failed\n", written ? 8 : 7);
}

void installAltStack(char *stack)
{
    stack_t alt {};
    alt.ss_sp = stack;
    alt.ss_size = sizeof altStacks[0];
    sigaltstack(&alt, nullptr);
}

void markStack(volatile char *marker)
{
    for (size_t i = 0; i < sizeof StackMarker; ++i)
        marker[i] = StackMarker[i];
    side("stack_marker", quintptr(marker));
}

// The undefined-behaviour sanitizer (asan preset) would stop the null write before it faults.
#define KRMD_SECTION(name) __attribute__((noinline, section(name), no_sanitize("undefined")))

KRMD_SECTION("krmd_nullwrite") void krmdCrashNullWrite()
{
    *nullTarget = 0x4B52;
}

KRMD_SECTION("krmd_overflow") unsigned krmdOverflowStack(volatile unsigned *depth)
{
    ++*depth;
    if (keepRecursing)
        krmdOverflowStack(depth);
    return *depth;
}

// As a crashing thread waits for the crash-reporting thread.
KRMD_SECTION("krmd_requested") void krmdCaptureAndWait()
{
    volatile char marker[sizeof StackMarker];
    markStack(marker);
    getcontext(&waitingContext);
    waitingThread = gettid();
    for (;;)
        pause();
}

void *overflowThread(void *)
{
    pthread_setname_np(pthread_self(), OverflowThreadName);
    installAltStack(altStacks[1]);
    volatile char marker[sizeof StackMarker];
    markStack(marker);
    printSide(gettid(), __start_krmd_overflow, __stop_krmd_overflow);
    volatile unsigned depth = 0;
    krmdOverflowStack(&depth);
    return nullptr;
}

void *waitingThreadMain(void *)
{
    pthread_setname_np(pthread_self(), WaitingThreadName);
    krmdCaptureAndWait();
    return nullptr;
}

// A seccomp filter that refuses process_vm_readv() with EPERM, as some sandboxes do: the writer
// then reads the process's memory through a pipe.
bool refuseProcessVmReadv()
{
    sock_filter filter[] = {
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_X86_64, 1, 0),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_process_vm_readv, 0, 1),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (EPERM & SECCOMP_RET_DATA)),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog program {sizeof filter / sizeof filter[0], filter};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0
        || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
        return false;
    char byte = 0, copy = 1;
    iovec local {&copy, 1}, remote {&byte, 1};
    return process_vm_readv(getpid(), &local, 1, &remote, 1, 0) < 0 && errno == EPERM;
}

// Three pages of a file mapped, then the file cut to one: the mapping stays listed, but its pages
// past the file's end fault (SIGBUS in the program, EFAULT in write()). A marker page first, so
// that it follows in the dump (mmap() places later mappings below it).
void mapShrunkFile(const std::string &path)
{
    const long page = sysconf(_SC_PAGESIZE);
    auto *after = static_cast<char *>(mmap(nullptr, size_t(page), PROT_READ | PROT_WRITE,
                                           MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    std::memcpy(after, HeapMarker, sizeof HeapMarker);
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    for (char c : {'A', 'B', 'C'})
        (void)!write(file, std::string(size_t(page), c).data(), size_t(page));
    auto *mapped = static_cast<volatile char *>(
            mmap(nullptr, size_t(3 * page), PROT_READ, MAP_PRIVATE, file, 0));
    (void)mapped[page]; // the page is in; it goes with the truncation all the same
    (void)!ftruncate(file, page);
    side("page", quintptr(page));
    side("mapped", quintptr(mapped));
    side("after", quintptr(after));
}

int run(const std::string &kind, const char *dump)
{
    const rlimit noCore {0, 0}; // the parent only wants the minidump
    setrlimit(RLIMIT_CORE, &noCore);
    dumpPath = dump;
    pthread_setname_np(pthread_self(), MainThreadName);
    // A hint, not a fixed address: the parent checks that the decoy landed below the program.
    const quintptr below = quintptr(__ehdr_start) - (16 << 20);
    side("decoy",
         quintptr(mmap(reinterpret_cast<void *>(below), 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE,
                       open(DecoyModule, O_RDONLY | O_CLOEXEC), 0)));
    heapBlock = static_cast<char *>(std::calloc(1, 4096));
    std::memcpy(heapBlock + 100, HeapMarker, sizeof HeapMarker);
    side("heap_marker", quintptr(heapBlock + 100));
    side("getcontext", quintptr(&getcontext));

    installAltStack(altStacks[0]);
    struct sigaction action
    {
    };
    action.sa_sigaction = crashHandler;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESETHAND;
    sigaction(SIGSEGV, &action, nullptr);

    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 256 * 1024);
    pthread_t thread;
    if (kind == "overflow") {
        if (pthread_create(&thread, &attributes, overflowThread, nullptr) == 0)
            pthread_join(thread, nullptr);
    } else if (kind == "requested") {
        mapShrunkFile(std::string(dump) + ".bin");
        side("writer_stack", quintptr(&thread));
        if (pthread_create(&thread, &attributes, waitingThreadMain, nullptr) != 0)
            return 2;
        while (!waitingThread)
            sched_yield();
        printSide(waitingThread, __start_krmd_requested, __stop_krmd_requested);
        std::puts(writeDump(waitingThread, &waitingContext, nullptr) ? "written" : "failed");
        return 0;
    } else {
        volatile char marker[sizeof StackMarker];
        markStack(marker);
        side("sandboxed", kind == "sandboxed" && refuseProcessVmReadv());
        printSide(gettid(), __start_krmd_nullwrite, __stop_krmd_nullwrite);
        krmdCrashNullWrite();
    }
    return 3; // still alive: the crash did not happen
}

} // namespace Child

// ---- The parent's helpers

struct ChildRun
{
    qint64 pid = 0;
    int signal = 0; // the terminating signal, 0 for a normal exit
    QByteArray output;
    QHash<QByteArray, quint64> side; // "key=value" words of the output
};

ChildRun runChild(const QString &kind, const QString &dumpPath)
{
    QProcess child;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QString::fromLatin1(EnvironmentMarker), QStringLiteral("d41d8cd98f"));
    child.setProcessEnvironment(environment);
    child.start(QCoreApplication::applicationFilePath(),
                {QString::fromLatin1(ChildOption), kind, dumpPath});
    ChildRun run;
    if (!child.waitForStarted())
        return run;
    run.pid = child.processId();
    child.waitForFinished(60000);
    // A crashed child's exit code is its signal.
    run.signal = child.exitStatus() == QProcess::CrashExit ? child.exitCode() : 0;
    run.output = child.readAllStandardOutput();
    for (const QByteArray &word : run.output.simplified().split(' ')) {
        if (word.contains('='))
            run.side.insert(word.left(word.indexOf('=')),
                            word.mid(word.indexOf('=') + 1).toULongLong());
    }
    return run;
}

// Breakpad's debug id of an ELF file: the first 16 bytes of its GNU build id as a GUID, age 0.
QString debugIdOf(const QString &path)
{
    QProcess readelf;
    readelf.start(QStringLiteral("readelf"), {QStringLiteral("-n"), path});
    readelf.waitForFinished();
    const QRegularExpressionMatch buildId = QRegularExpression(QStringLiteral("Build ID: (\\w+)"))
                                                    .match(QString::fromLatin1(readelf.readAll()));
    QByteArray id = QByteArray::fromHex(buildId.captured(1).toLatin1()).leftJustified(16, 0, true);
    std::reverse(id.begin(), id.begin() + 4);
    std::reverse(id.begin() + 4, id.begin() + 6);
    std::reverse(id.begin() + 6, id.begin() + 8);
    return QString::fromLatin1(id.toHex().toUpper()) + QLatin1Char('0');
}

const QString ToolsDirectory = QStringLiteral(KRUTILS_MINIDUMP_TOOLS_DIR);

} // namespace

class tst_MiniDumpWriter : public QObject
{
    Q_OBJECT

private slots:
    void dumpOfChild_data();
    void dumpOfChild();
    void writeFailures();

private:
    QTemporaryDir m_directory;
};

void tst_MiniDumpWriter::dumpOfChild_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<int>("signal"); // 0: a dump on request, the child exits normally
    QTest::addColumn<QString>("threadName");
    QTest::newRow("null write") << "nullwrite" << int(SIGSEGV) << MainThreadName;
    QTest::newRow("null write, process_vm_readv refused")
            << "sandboxed" << int(SIGSEGV) << MainThreadName;
    QTest::newRow("stack overflow in a thread")
            << "overflow" << int(SIGSEGV) << QString::fromUtf8(OverflowThreadName);
    QTest::newRow("on request, for a waiting thread") << "requested" << 0 << WaitingThreadName;
}

void tst_MiniDumpWriter::dumpOfChild()
{
    QFETCH(QString, kind);
    QFETCH(int, signal);
    QFETCH(QString, threadName);
    const qint64 startedAt = QDateTime::currentSecsSinceEpoch();
    const QString path = m_directory.filePath(kind + QStringLiteral(".dmp"));
    const ChildRun run = runChild(kind, path);
    QCOMPARE(run.signal, signal);
    QVERIFY2(run.output.contains("written\n"), run.output.constData());
    if (kind == QLatin1String("sandboxed") && run.side.value("sandboxed") != 1)
        QSKIP("the child could not install a seccomp filter that refuses process_vm_readv()");
    const quint64 functionStart = run.side.value("function_start");
    const quint64 functionEnd = run.side.value("function_end");

    MiniDumpReader dump;
    QVERIFY(dump.open(path));
    QCOMPARE(dump.flags(), quint64(0x2)); // MiniDumpWithFullMemory
    QVERIFY(qint64(dump.timeDateStamp()) >= startedAt - 5);
    QVERIFY(qint64(dump.timeDateStamp()) <= QDateTime::currentSecsSinceEpoch() + 5);
    QCOMPARE(dump.processId(), quint32(run.pid));

    // The event, the registers in the crashing function, the same context for the thread.
    const MiniDumpReader::ExceptionInfo exception = dump.exception();
    const MiniDumpReader::Registers &registers = exception.registers;
    QCOMPARE(exception.threadId, quint32(run.side.value("tid")));
    QCOMPARE(exception.code, signal ? quint32(signal) : 0xFFFFFFFFu);
    QCOMPARE(registers.flags, 0x0010000Fu);
    QVERIFY2(registers.rip >= functionStart && registers.rip < functionEnd,
             qPrintable(QString::number(registers.rip, 16)));
    QCOMPARE(registers.cs, quint16(0x33)); // getcontext() saves none: the writer knows it
    QCOMPARE(registers.mxcsr, 0x1F80u); // the defaults, as nobody changed them
    QCOMPARE(registers.fpuControlWord, quint16(0x037F));
    QCOMPARE(dump.threadCount(), 1);
    const MiniDumpReader::Thread thread = dump.thread(0);
    QCOMPARE(thread.id, exception.threadId);
    QCOMPARE(thread.registers.raw, registers.raw);
    QCOMPARE(dump.threadName(thread.id), threadName);

    // The stack: from the stack pointer less the red zone (not below its mapping) to the end of
    // the mapping, the same bytes as in the memory list; after an overflow the guard page below.
    const Info stack = dump.memoryInfoAt(registers.rsp);
    QCOMPARE(thread.stackStart, qMax(registers.rsp - 128, stack.base));
    QCOMPARE(thread.stackEnd(), stack.end());
    QCOMPARE(stack.protect, quint32(Info::ReadWrite));
    QCOMPARE(stack.type, quint32(Info::Private));
    QCOMPARE(dump.bytesAt(thread.stackStart, quint64(thread.stack.size())), thread.stack);
    const quint64 stackMarker = run.side.value("stack_marker");
    QVERIFY(stackMarker >= thread.stackStart && stackMarker < thread.stackEnd());
    QCOMPARE(dump.bytesAt(stackMarker, sizeof StackMarker),
             QByteArray(StackMarker, sizeof StackMarker));
    QCOMPARE(dump.bytesAt(run.side.value("heap_marker"), sizeof HeapMarker),
             QByteArray(HeapMarker, sizeof HeapMarker));
    if (kind == QLatin1String("overflow")) {
        const Info guard = dump.memoryInfoAt(exception.address);
        QCOMPARE(guard.protect, quint32(Info::NoAccess));
        QCOMPARE(guard.end(), thread.stackStart);
        QVERIFY(exception.flags == SEGV_MAPERR || exception.flags == SEGV_ACCERR);
    } else if (signal) {
        QCOMPARE(exception.flags, quint32(SEGV_MAPERR));
        QCOMPARE(exception.address, quint64(0));
    } else {
        QCOMPARE(exception.flags, 0u);
        QCOMPARE(exception.address, registers.rip);
        const quint64 writerStack = run.side.value("writer_stack");
        QVERIFY(writerStack < thread.stackStart || writerStack >= thread.stackEnd());
        // Zeros for the pages that fault, and every byte after them where it belongs: the marker
        // page, and the code of this program and of libc, the same in every process.
        const quint64 mapped = run.side.value("mapped"), page = run.side.value("page");
        QCOMPARE(dump.bytesAt(mapped, page), QByteArray(int(page), 'A'));
        QCOMPARE(dump.bytesAt(mapped + page, 2 * page), QByteArray(int(2 * page), '\0'));
        QCOMPARE(dump.bytesAt(run.side.value("after"), sizeof HeapMarker),
                 QByteArray(HeapMarker, sizeof HeapMarker));
        QCOMPARE(dump.bytesAt(functionStart, 64), QByteArray(__start_krmd_requested, 64));
        QCOMPARE(dump.bytesAt(run.side.value("getcontext"), 64),
                 QByteArray(reinterpret_cast<const char *>(&getcontext), 64));
        const Info file = dump.memoryInfoAt(mapped);
        QCOMPARE(file.protect, quint32(Info::ReadOnly));
        QCOMPARE(file.type, quint32(Info::Mapped));
        QCOMPARE(file.size, 3 * page);
    }

    // The program's code, in the memory list too, and the modules' mappings.
    const QString program = QFileInfo(QCoreApplication::applicationFilePath()).canonicalFilePath();
    const Info code = dump.memoryInfoAt(registers.rip);
    QCOMPARE(code.protect, quint32(Info::ExecuteRead));
    QCOMPARE(code.type, quint32(Info::Image));
    const quint64 decoy = run.side.value("decoy");
    QVERIFY(decoy < code.allocationBase);

    // The files of /proc as they were.
    const QByteArray cpuInfo = dump.stream(MiniDumpReader::LinuxCpuInfo);
    QVERIFY(cpuInfo.contains("processor"));
    // CPUID's vendor, which Breakpad shows for x86 only.
    QVERIFY(cpuInfo.contains(
            "vendor_id\t: " + dump.stream(MiniDumpReader::SystemInfoStream).mid(32, 12) + '\n'));
    QVERIFY(dump.stream(MiniDumpReader::LinuxProcStatus)
                    .contains("\nPid:\t" + QByteArray::number(run.pid) + '\n'));
    QVERIFY(!dump.stream(MiniDumpReader::LinuxLsbRelease).isEmpty());
    QVERIFY(dump.stream(MiniDumpReader::LinuxCmdLine)
                    .contains(QByteArray(ChildOption) + '\0' + kind.toLatin1() + '\0'));
    QVERIFY(dump.stream(MiniDumpReader::LinuxEnviron)
                    .contains(QByteArray(EnvironmentMarker) + "=d41d8cd98f"));
    const QByteArray auxv = dump.stream(MiniDumpReader::LinuxAuxv);
    QVERIFY(!auxv.isEmpty() && auxv.size() % 16 == 0);
    const QByteArray maps = dump.stream(MiniDumpReader::LinuxMaps);
    QVERIFY(maps.contains("[stack]") && maps.contains(program.toUtf8()));

    if (!QFileInfo(ToolsDirectory + QStringLiteral("/minidump_stackwalk")).isExecutable())
        QSKIP(qPrintable(
                QStringLiteral("Breakpad's minidump_stackwalk and minidump_dump are not in %1 "
                               "(npm package \"minidump\", installed by setup.sh)")
                        .arg(ToolsDirectory)));
    // minidump_dump reads every stream; it prints all memory as hex (seconds), so one row asks it.
    if (kind == QLatin1String("nullwrite")) {
        QProcess dumper;
        dumper.setStandardOutputFile(QProcess::nullDevice());
        dumper.start(ToolsDirectory + QStringLiteral("/minidump_dump"), {path});
        QVERIFY(dumper.waitForFinished(120000));
        QVERIFY2(dumper.exitStatus() == QProcess::NormalExit && dumper.exitCode() == 0,
                 dumper.readAllStandardError().right(4000).constData());
    }
    QProcess walker;
    walker.start(ToolsDirectory + QStringLiteral("/minidump_stackwalk"),
                 {QStringLiteral("-m"), path});
    QVERIFY(walker.waitForFinished(120000));
    QCOMPARE(walker.exitCode(), 0);
    const QString report = QString::fromUtf8(walker.readAllStandardOutput());
    QHash<QString, QStringList> lines; // by their first two fields
    for (const QString &line : report.split(QLatin1Char('\n'))) {
        const QStringList fields = line.split(QLatin1Char('|'));
        lines.insert(fields.value(0) + QLatin1Char('|') + fields.value(1), fields);
    }

    utsname names {};
    QCOMPARE(uname(&names), 0);
    const QStringList os = lines.value(QStringLiteral("OS|Linux"));
    const QString system = QStringLiteral("%1 %2 %3 %4")
                                   .arg(names.sysname, names.release, names.version, names.machine);
    QVERIFY2(os.value(2).endsWith(QLatin1Char(' ') + system), qPrintable(os.join('|')));
    QVERIFY(QString::fromUtf8(names.release)
                    .startsWith(os.value(2).section(QLatin1Char('.'), 0, 1) + QLatin1Char('.')));
    const QRegularExpressionMatch cpu
            = QRegularExpression(QStringLiteral("cpu family\\s*: (\\d+)\\nmodel\\s*: (\\d+)\\n.*\\n"
                                                "stepping\\s*: (\\d+)\\n"))
                      .match(QString::fromLatin1(cpuInfo));
    QCOMPARE(lines.value(QStringLiteral("CPU|amd64")).value(2),
             QStringLiteral("family %1 model %2 stepping %3")
                     .arg(cpu.captured(1), cpu.captured(2), cpu.captured(3)));
    QCOMPARE(lines.value(QStringLiteral("CPU|amd64")).value(3),
             QString::number(sysconf(_SC_NPROCESSORS_ONLN)));
    const QString reason = !signal                    ? QStringLiteral("DUMP_REQUESTED")
            : exception.flags == quint32(SEGV_MAPERR) ? QStringLiteral("SIGSEGV /SEGV_MAPERR")
                                                      : QStringLiteral("SIGSEGV /SEGV_ACCERR");
    QCOMPARE(lines.value(QStringLiteral("Crash|") + reason).value(2),
             QStringLiteral("0x%1").arg(exception.address, 0, 16));

    // Modules: the program first (Breakpad's main module), though the decoy lies below it, each
    // with its file's build id; the vDSO under Breakpad's name.
    const QString programName = QFileInfo(program).fileName();
    const QStringList main = lines.value(QStringLiteral("Module|") + programName);
    QCOMPARE(main.value(7), QStringLiteral("1"));
    QCOMPARE(main.value(4), debugIdOf(program));
    QCOMPARE(main.value(5).toULongLong(nullptr, 16), code.allocationBase);
    QCOMPARE(lines.value(QStringLiteral("Module|true")).value(4),
             debugIdOf(QString::fromLatin1(DecoyModule)));
    QCOMPARE(lines.value(QStringLiteral("Module|true")).value(5).toULongLong(nullptr, 16), decoy);
    QVERIFY(lines.contains(QStringLiteral("Module|linux-gate.so")));
    // Frame 0 of the crashed thread, in the program.
    QCOMPARE(lines.value(QStringLiteral("0|0")).value(2), programName);
    QCOMPARE(lines.value(QStringLiteral("0|0")).value(6),
             QStringLiteral("0x%1").arg(registers.rip - code.allocationBase, 0, 16));
}

void tst_MiniDumpWriter::writeFailures()
{
    ucontext_t context {};
    getcontext(&context);
    KrCrash::MiniDumpRequest request;
    request.context = &context;
    errno = 1234;
    QCOMPARE(KrCrash::writeMiniDump(-1, request), EBADF);
    QCOMPARE(errno, 1234); // left as it was
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    QVERIFY(full >= 0);
    QCOMPARE(KrCrash::writeMiniDump(full, request), ENOSPC);
    close(full);
    QCOMPARE(KrCrash::writeMiniDump(1, KrCrash::MiniDumpRequest()), EINVAL);
}

int main(int argc, char **argv)
{
    if (argc >= 4 && std::strcmp(argv[1], ChildOption) == 0)
        return Child::run(argv[2], argv[3]);
    QCoreApplication app(argc, argv);
    tst_MiniDumpWriter test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_minidumpwriter.moc"
