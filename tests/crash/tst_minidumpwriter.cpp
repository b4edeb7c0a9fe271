// Tests of the Linux minidump writer (MiniDumpWriter_p.h) and of the tests' minidump reader
// (MiniDumpReader.h).
//
// The test executable is also the crashing child: started with "--minidump-child <kind> <dir>"
// it installs a SA_SIGINFO | SA_ONSTACK handler on an alternate stack, puts markers on the heap
// and on the stack, writes what the parent needs to know into <dir>/side.txt and crashes in a
// function of its own section (so that its address range is known exactly). The handler writes
// <dir>/child.dmp with writeMiniDump(), its result into <dir>/result.txt, then restores the
// default action and raises the signal again. The parent reads the dump back with MiniDumpReader,
// compares it with what it knows of the child and of the files on disk, and then (where Breakpad's
// tools are found) has minidump_stackwalk walk it.

#include "crash/MiniDumpWriter_p.h"

#include "MiniDumpReader.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QMutex>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>
#include <QWaitCondition>
#include <QtTest>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <vector>

#include <elf.h>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

extern char **environ;

// The linker's bounds of the crashing functions' sections, and the program's own ELF header (its
// lowest address).
extern "C" {
extern const char __start_krmd_nullwrite[], __stop_krmd_nullwrite[];
extern const char __start_krmd_overflow[], __stop_krmd_overflow[];
extern const char __start_krmd_requested[], __stop_krmd_requested[];
extern const char __ehdr_start[] __attribute__((visibility("hidden")));
}

namespace {

const char HeapMarker[] = "krutils-minidump-heap-marker:5f3a9c17";
const char StackMarker[] = "krutils-minidump-stack-marker:c0ffee42";
const char EnvironmentMarker[] = "KRMD_ENVIRONMENT_MARKER=d41d8cd98f";
const char ChildOption[] = "--minidump-child";
// Thread names: the overflowing thread's is not ASCII ("krmd-über" and U+1D11E, a surrogate pair in
// UTF-16; 14 bytes of UTF-8).
const char MainThreadName[] = "krmd-main";
const char OverflowThreadName[] = "krmd-\xC3\xBC"
                                  "ber\xF0\x9D\x84\x9E";
// An ELF file that the child maps executable below the program, so that the program is not the
// lowest module.
const char DecoyModule[] = "/usr/bin/true";

// =============================================================================================
// The child.

namespace Child {

char dumpPath[4096];
char resultPath[4096];
char sidePath[4096];
char *heapBlock;
uintptr_t decoyAddress;
bool sandboxed; // process_vm_readv() refused
int *volatile nullTarget = nullptr;
volatile bool keepRecursing = true;

constexpr size_t AltStackSize = 64 * 1024;
constexpr unsigned char AltStackFill = 0xA5;
alignas(16) unsigned char mainAltStack[AltStackSize];
alignas(16) unsigned char threadAltStack[AltStackSize];
unsigned char *currentAltStack; // of the thread that crashes

void appendDecimal(char *out, size_t *used, unsigned long long value)
{
    char digits[24];
    int n = 0;
    do {
        digits[n++] = char('0' + value % 10);
        value /= 10;
    } while (value);
    while (n)
        out[(*used)++] = digits[--n];
}

void appendLine(char *out, size_t *used, const char *key, unsigned long long value)
{
    for (const char *p = key; *p; ++p)
        out[(*used)++] = *p;
    out[(*used)++] = '=';
    appendDecimal(out, used, value);
    out[(*used)++] = '\n';
}

// Async-signal-safe: the dump, its timing and (on an alternate stack) the stack used.
void writeDumpNow(const ucontext_t *context, const siginfo_t *info, const unsigned char *altStack)
{
    timespec before {}, after {};
    clock_gettime(CLOCK_MONOTONIC, &before);
    const int fd = open(dumpPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    int rc = errno;
    if (fd >= 0) {
        KrCrash::MiniDumpRequest request;
        request.crashingThread = gettid();
        request.context = context;
        request.signal = info;
        rc = KrCrash::writeMiniDump(fd, request);
        close(fd);
    }
    clock_gettime(CLOCK_MONOTONIC, &after);
    const long long ns
            = (after.tv_sec - before.tv_sec) * 1000000000LL + (after.tv_nsec - before.tv_nsec);

    char text[256];
    size_t used = 0;
    appendLine(text, &used, "rc", unsigned(rc));
    appendLine(text, &used, "ns", (unsigned long long)ns);
    if (altStack) {
        size_t untouched = 0;
        while (untouched < AltStackSize && altStack[untouched] == AltStackFill)
            ++untouched;
        appendLine(text, &used, "altstack_used", AltStackSize - untouched);
    }
    const int out = open(resultPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (out >= 0) {
        (void)!write(out, text, used);
        close(out);
    }
}

void crashHandler(int signo, siginfo_t *info, void *context)
{
    writeDumpNow(static_cast<const ucontext_t *>(context), info, currentAltStack);
    struct sigaction standard;
    std::memset(&standard, 0, sizeof standard);
    standard.sa_handler = SIG_DFL;
    sigemptyset(&standard.sa_mask);
    sigaction(signo, &standard, nullptr);
    raise(signo); // pending while the handler runs; ends the process when it returns
}

void installAltStack(unsigned char *stack)
{
    std::memset(stack, AltStackFill, AltStackSize);
    stack_t alt {};
    alt.ss_sp = stack;
    alt.ss_size = AltStackSize;
    if (sigaltstack(&alt, nullptr) != 0)
        std::perror("sigaltstack");
    currentAltStack = stack;
}

void writeSideFile(const void *functionStart, const void *functionEnd, const void *stackMarker)
{
    FILE *file = std::fopen(sidePath, "w");
    if (!file)
        return;
    std::fprintf(file, "tid=%llu\n", (unsigned long long)gettid());
    std::fprintf(file, "function_start=%llu\n", (unsigned long long)(uintptr_t)functionStart);
    std::fprintf(file, "function_end=%llu\n", (unsigned long long)(uintptr_t)functionEnd);
    std::fprintf(file, "heap_marker=%llu\n", (unsigned long long)(uintptr_t)(heapBlock + 100));
    std::fprintf(file, "stack_marker=%llu\n", (unsigned long long)(uintptr_t)stackMarker);
    std::fprintf(file, "decoy=%llu\n", (unsigned long long)decoyAddress);
    std::fprintf(file, "sandboxed=%d\n", sandboxed ? 1 : 0);
    std::fclose(file);
}

// The crashing functions, each in a section of its own. The undefined-behaviour sanitizer (the
// asan preset) would stop the null write before it faults: not here.
#define KRMD_CRASHING_FUNCTION(sectionName)                                                        \
    __attribute__((noinline, section(sectionName), no_sanitize("undefined")))

KRMD_CRASHING_FUNCTION("krmd_nullwrite") void krmdCrashNullWrite()
{
    *nullTarget = 0x4B52;
}

KRMD_CRASHING_FUNCTION("krmd_overflow") unsigned krmdOverflowStack(volatile unsigned *depth)
{
    ++*depth;
    if (keepRecursing)
        krmdOverflowStack(depth);
    return *depth;
}

KRMD_CRASHING_FUNCTION("krmd_requested") int krmdWriteRequestedDump()
{
    ucontext_t context;
    std::memset(&context, 0, sizeof context);
    getcontext(&context);
    writeDumpNow(&context, nullptr, nullptr);
    return 0;
}

void fillStackMarker(volatile char *marker)
{
    for (size_t i = 0; i < sizeof StackMarker; ++i)
        marker[i] = StackMarker[i];
}

void *overflowThread(void *)
{
    pthread_setname_np(pthread_self(), OverflowThreadName);
    installAltStack(threadAltStack);
    volatile char marker[sizeof StackMarker];
    fillStackMarker(marker);
    writeSideFile(__start_krmd_overflow, __stop_krmd_overflow, const_cast<char *>(marker));
    volatile unsigned depth = 0;
    krmdOverflowStack(&depth);
    return nullptr;
}

// A seccomp filter that refuses process_vm_readv() with EPERM, as some sandboxes do: the writer
// then reads the process's memory through a pipe. Whether it took is told in the side file.
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

// The top of the highest free range of `length` bytes below the program. No fixed address will
// do: under the sanitizers their shadow memory takes low ranges.
uintptr_t freeRangeBelowProgram(uintptr_t length)
{
    unsigned long long lowest = 65536;
    if (FILE *minimum = std::fopen("/proc/sys/vm/mmap_min_addr", "r")) {
        if (std::fscanf(minimum, "%llu", &lowest) != 1)
            lowest = 65536;
        std::fclose(minimum);
    }
    FILE *maps = std::fopen("/proc/self/maps", "r");
    if (!maps)
        return 0;
    const uintptr_t program = reinterpret_cast<uintptr_t>(__ehdr_start);
    uintptr_t freeFrom = uintptr_t(lowest);
    uintptr_t found = 0;
    unsigned long long start, end;
    while (std::fscanf(maps, "%llx-%llx%*[^\n]", &start, &end) == 2) {
        const uintptr_t gapEnd = start < program ? uintptr_t(start) : program;
        if (gapEnd >= freeFrom + length)
            found = gapEnd - length;
        if (start >= program)
            break;
        freeFrom = qMax(freeFrom, uintptr_t(end));
    }
    std::fclose(maps);
    return found;
}

int run(const char *kind, const char *directory)
{
    // No core file: the parent only wants the minidump.
    const rlimit noCore {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    std::snprintf(dumpPath, sizeof dumpPath, "%s/child.dmp", directory);
    std::snprintf(resultPath, sizeof resultPath, "%s/result.txt", directory);
    std::snprintf(sidePath, sizeof sidePath, "%s/side.txt", directory);
    pthread_setname_np(pthread_self(), MainThreadName);

    decoyAddress = freeRangeBelowProgram(4096);
    const int decoy = open(DecoyModule, O_RDONLY | O_CLOEXEC);
    if (decoy < 0 || decoyAddress == 0
        || mmap(reinterpret_cast<void *>(decoyAddress), 4096, PROT_READ | PROT_EXEC,
                MAP_PRIVATE | MAP_FIXED_NOREPLACE, decoy, 0)
                == MAP_FAILED)
        std::perror(DecoyModule);

    heapBlock = static_cast<char *>(std::malloc(4096));
    std::memset(heapBlock, 0, 4096);
    std::memcpy(heapBlock + 100, HeapMarker, sizeof HeapMarker);

    installAltStack(mainAltStack);
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_sigaction = crashHandler;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    sigaction(SIGSEGV, &action, nullptr);
    sigaction(SIGBUS, &action, nullptr);

    volatile char marker[sizeof StackMarker];
    fillStackMarker(marker);
    if (std::strcmp(kind, "nullwrite") == 0 || std::strcmp(kind, "sandboxed") == 0) {
        sandboxed = std::strcmp(kind, "sandboxed") == 0 && refuseProcessVmReadv();
        writeSideFile(__start_krmd_nullwrite, __stop_krmd_nullwrite, const_cast<char *>(marker));
        krmdCrashNullWrite();
    } else if (std::strcmp(kind, "overflow") == 0) {
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, 256 * 1024);
        pthread_t thread;
        if (pthread_create(&thread, &attributes, overflowThread, nullptr) != 0)
            return 2;
        pthread_join(thread, nullptr);
    } else if (std::strcmp(kind, "requested") == 0) {
        writeSideFile(__start_krmd_requested, __stop_krmd_requested, const_cast<char *>(marker));
        return krmdWriteRequestedDump();
    }
    return 3; // still alive: the crash did not happen
}

} // namespace Child

// =============================================================================================
// The parent's helpers.

// The GNU build id of an ELF file on disk, from its PT_NOTE segments.
QByteArray buildIdOfFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    const QByteArray elf = file.readAll();
    Elf64_Ehdr header;
    if (elf.size() < int(sizeof header))
        return QByteArray();
    std::memcpy(&header, elf.constData(), sizeof header);
    if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != ELFCLASS64)
        return QByteArray();
    for (int i = 0; i < header.e_phnum; ++i) {
        Elf64_Phdr ph;
        const quint64 at = header.e_phoff + quint64(i) * sizeof ph;
        if (at + sizeof ph > quint64(elf.size()))
            return QByteArray();
        std::memcpy(&ph, elf.constData() + at, sizeof ph);
        if (ph.p_type != PT_NOTE || ph.p_offset + ph.p_filesz > quint64(elf.size()))
            continue;
        const quint64 align = ph.p_align == 8 ? 8 : 4;
        auto alignUp = [align](quint64 v) { return (v + align - 1) & ~(align - 1); };
        for (quint64 pos = ph.p_offset; pos + 12 <= ph.p_offset + ph.p_filesz;) {
            quint32 words[3];
            std::memcpy(words, elf.constData() + pos, sizeof words);
            const quint64 name = pos + 12;
            const quint64 desc = name + alignUp(words[0]);
            const quint64 next = desc + alignUp(words[1]);
            if (next > ph.p_offset + ph.p_filesz)
                break;
            if (words[2] == NT_GNU_BUILD_ID && words[0] == 4
                && std::memcmp(elf.constData() + name, "GNU", 4) == 0)
                return elf.mid(int(desc), int(words[1]));
            pos = next;
        }
    }
    return QByteArray();
}

QString cpuInfoField(const QByteArray &cpuInfo, const char *field)
{
    for (const QByteArray &line : cpuInfo.split('\n')) {
        const int colon = line.indexOf(':');
        if (colon > 0 && line.left(colon).trimmed() == field)
            return QString::fromLatin1(line.mid(colon + 1).trimmed());
    }
    return QString();
}

QHash<QString, quint64> readKeyValues(const QString &path)
{
    QHash<QString, quint64> values;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return values;
    for (const QByteArray &line : file.readAll().split('\n')) {
        const int equals = line.indexOf('=');
        if (equals > 0)
            values.insert(QString::fromLatin1(line.left(equals)),
                          line.mid(equals + 1).toULongLong());
    }
    return values;
}

struct ChildRun
{
    bool ran = false;
    QString error;
    pid_t pid = 0;
    int status = 0;
    QString directory;
    QString dumpPath;
    QHash<QString, quint64> side; // what the child told before crashing
    QHash<QString, quint64> result; // what its handler told
};

QString toolsDirectory()
{
    return QStringLiteral(KRUTILS_MINIDUMP_TOOLS_DIR);
}

} // namespace

class tst_MiniDumpWriter : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void dumpOfChild_data();
    void dumpOfChild();
    void stackwalkNamesTheCrashingFunction_data();
    void stackwalkNamesTheCrashingFunction();
    void dumpWrittenByAnotherThread();
    void unreadablePagesBecomeZeros();
    void writeFailures();
    void readerRejectsDamagedFiles_data();
    void readerRejectsDamagedFiles();
    void readerSurvivesCorruption();

private:
    const ChildRun &runChild(const QString &kind);
    const QByteArray &inProcessDump();
    QString symbolStore();

    QTemporaryDir m_directory;
    std::map<QString, ChildRun> m_runs;
    QByteArray m_inProcessDump;
    QString m_symbolStore;
    QString m_symbolStoreError;
};

void tst_MiniDumpWriter::initTestCase()
{
    QVERIFY(m_directory.isValid());
}

const ChildRun &tst_MiniDumpWriter::runChild(const QString &kind)
{
    ChildRun &run = m_runs[kind];
    if (run.ran)
        return run;
    run.ran = true;
    run.directory = m_directory.filePath(kind);
    QDir().mkpath(run.directory);
    run.dumpPath = run.directory + QStringLiteral("/child.dmp");

    const QByteArray program = QFile::encodeName(QCoreApplication::applicationFilePath());
    const QByteArray kindBytes = kind.toLatin1();
    const QByteArray directory = QFile::encodeName(run.directory);
    char *argv[] = {const_cast<char *>(program.constData()), const_cast<char *>(ChildOption),
                    const_cast<char *>(kindBytes.constData()),
                    const_cast<char *>(directory.constData()), nullptr};
    std::vector<char *> environment;
    for (char **e = environ; *e; ++e)
        environment.push_back(*e);
    environment.push_back(const_cast<char *>(EnvironmentMarker));
    environment.push_back(nullptr);

    if (const int error
        = posix_spawn(&run.pid, program.constData(), nullptr, nullptr, argv, environment.data())) {
        run.error = QStringLiteral("posix_spawn: %1")
                            .arg(QString::fromLocal8Bit(std::strerror(error)));
        return run;
    }
    QElapsedTimer timer;
    timer.start();
    for (;;) {
        const pid_t done = waitpid(run.pid, &run.status, WNOHANG);
        if (done == run.pid)
            break;
        if (done < 0) {
            run.error = QStringLiteral("waitpid failed");
            return run;
        }
        if (timer.elapsed() > 60000) {
            kill(run.pid, SIGKILL);
            waitpid(run.pid, &run.status, 0);
            run.error = QStringLiteral("the child did not end within 60 s");
            return run;
        }
        QThread::msleep(20);
    }
    run.side = readKeyValues(run.directory + QStringLiteral("/side.txt"));
    run.result = readKeyValues(run.directory + QStringLiteral("/result.txt"));
    return run;
}

void tst_MiniDumpWriter::dumpOfChild_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<int>("signal"); // 0: no signal, the child exits normally
    QTest::newRow("null write") << QStringLiteral("nullwrite") << int(SIGSEGV);
    QTest::newRow("null write, process_vm_readv refused")
            << QStringLiteral("sandboxed") << int(SIGSEGV);
    QTest::newRow("stack overflow in a thread") << QStringLiteral("overflow") << int(SIGSEGV);
    QTest::newRow("requested, not a signal") << QStringLiteral("requested") << 0;
}

void tst_MiniDumpWriter::dumpOfChild()
{
    QFETCH(QString, kind);
    QFETCH(int, signal);
    const qint64 startedAt = QDateTime::currentSecsSinceEpoch();
    const ChildRun &run = runChild(kind);
    QVERIFY2(run.error.isEmpty(), qPrintable(run.error));

    // How the child ended.
    if (signal) {
        QVERIFY2(WIFSIGNALED(run.status), qPrintable(QStringLiteral("status %1").arg(run.status)));
        QCOMPARE(WTERMSIG(run.status), signal);
    } else {
        QVERIFY2(WIFEXITED(run.status), qPrintable(QStringLiteral("status %1").arg(run.status)));
        QCOMPARE(WEXITSTATUS(run.status), 0);
    }
    QVERIFY2(run.result.contains(QStringLiteral("rc")), "the handler wrote no result");
    QCOMPARE(run.result.value(QStringLiteral("rc")), quint64(0));
    const quint64 tid = run.side.value(QStringLiteral("tid"));
    const quint64 functionStart = run.side.value(QStringLiteral("function_start"));
    const quint64 functionEnd = run.side.value(QStringLiteral("function_end"));
    QVERIFY(tid != 0);
    QVERIFY(functionStart != 0 && functionEnd > functionStart);
    if (kind == QLatin1String("sandboxed") && run.side.value(QStringLiteral("sandboxed")) != 1)
        QSKIP("the child could not install a seccomp filter that refuses process_vm_readv()");

    MiniDumpReader dump;
    QVERIFY2(dump.open(run.dumpPath), qPrintable(dump.errorString()));
    const QByteArray cmdline = dump.streamData(MiniDumpReader::LinuxCmdLine);
    const QByteArray maps = dump.streamData(MiniDumpReader::LinuxMaps);
    qInfo("%s: %lld bytes written in %.1f ms (%d memory regions, %d modules, %d bytes of maps)%s",
          qPrintable(kind), QFileInfo(run.dumpPath).size(),
          run.result.value(QStringLiteral("ns")) / 1e6, dump.memory().size(), dump.modules().size(),
          maps.size(),
          run.result.contains(QStringLiteral("altstack_used"))
                  ? qPrintable(QStringLiteral("; %1 bytes of the alternate stack used")
                                       .arg(run.result.value(QStringLiteral("altstack_used"))))
                  : "");

    // Header.
    QCOMPARE(dump.version() & 0xFFFF, 0xA793u);
    QCOMPARE(dump.flags(), quint64(0x2));
    QVERIFY(qint64(dump.timeDateStamp()) >= startedAt - 5);
    QVERIFY(qint64(dump.timeDateStamp()) <= QDateTime::currentSecsSinceEpoch() + 5);

    // System info.
    QVERIFY(dump.hasSystemInfo());
    const MiniDumpReader::SystemInfo &system = dump.systemInfo();
    QCOMPARE(system.processorArchitecture, quint16(9));
    QCOMPARE(system.platformId, 0x8201u);
    QCOMPARE(int(system.numberOfProcessors), int(sysconf(_SC_NPROCESSORS_ONLN)));
    const QByteArray cpuInfo = dump.streamData(MiniDumpReader::LinuxCpuInfo);
    QCOMPARE(QString::fromLatin1(system.vendor), cpuInfoField(cpuInfo, "vendor_id"));
    QCOMPARE(QString::number(system.processorLevel), cpuInfoField(cpuInfo, "cpu family"));
    QCOMPARE(QString::number(system.processorRevision >> 8), cpuInfoField(cpuInfo, "model"));
    utsname names {};
    QCOMPARE(uname(&names), 0);
    QCOMPARE(system.csdVersion,
             QStringLiteral("%1 %2 %3 %4")
                     .arg(QString::fromUtf8(names.sysname), QString::fromUtf8(names.release),
                          QString::fromUtf8(names.version), QString::fromUtf8(names.machine)));
    QVERIFY(QString::fromUtf8(names.release)
                    .startsWith(QStringLiteral("%1.%2")
                                        .arg(system.majorVersion)
                                        .arg(system.minorVersion)));

    // Misc info.
    QVERIFY(dump.hasProcessId());
    QCOMPARE(dump.processId(), quint32(run.pid));

    // Exception.
    QVERIFY(dump.hasException());
    const MiniDumpReader::ExceptionInfo &exception = dump.exception();
    QCOMPARE(quint64(exception.threadId), tid);
    const MiniDumpReader::Context &context = exception.context;
    QCOMPARE(context.flags, 0x0010000Fu);
    QVERIFY2(context.rip >= functionStart && context.rip < functionEnd,
             qPrintable(QStringLiteral("rip %1 outside [%2, %3)")
                                .arg(context.rip, 0, 16)
                                .arg(functionStart, 0, 16)
                                .arg(functionEnd, 0, 16)));
    QCOMPARE(context.cs, quint16(0x33));
    QCOMPARE(context.mxcsr, 0x1F80u); // the default, as nobody changed it
    quint16 controlWord = 0;
    std::memcpy(&controlWord, context.raw.constData() + 256, 2); // FXSAVE: FCW
    QCOMPARE(controlWord, quint16(0x037F));
    if (signal) {
        QCOMPARE(exception.code, quint32(signal));
        if (kind != QLatin1String("overflow")) {
            QCOMPARE(exception.flags, quint32(SEGV_MAPERR));
            QCOMPARE(exception.address, quint64(0));
        } else {
            QVERIFY2(exception.flags == SEGV_MAPERR || exception.flags == SEGV_ACCERR,
                     qPrintable(QString::number(exception.flags)));
        }
    } else {
        QCOMPARE(exception.code, 0xFFFFFFFFu);
        QCOMPARE(exception.flags, 0u);
        QCOMPARE(exception.address, context.rip);
    }

    // Thread list: the crashing thread, with its stack.
    QCOMPARE(dump.threads().size(), 1);
    const MiniDumpReader::Thread &thread = dump.threads().first();
    QCOMPARE(quint64(thread.id), tid);
    QCOMPARE(thread.context.rip, context.rip);
    QCOMPARE(thread.context.rsp(), context.rsp());
    QVERIFY2(context.rsp() >= thread.stackStart && context.rsp() < thread.stackEnd(),
             qPrintable(QStringLiteral("rsp %1 outside the stack [%2, %3)")
                                .arg(context.rsp(), 0, 16)
                                .arg(thread.stackStart, 0, 16)
                                .arg(thread.stackEnd(), 0, 16)));
    // The red zone below the stack pointer belongs to the stack, unless the mapping ends sooner.
    const MiniDumpReader::MemoryInfo *stackInfo = dump.memoryInfoAt(context.rsp());
    QVERIFY(stackInfo);
    QCOMPARE(thread.stackStart, qMax(context.rsp() - 128, stackInfo->base));
    QCOMPARE(thread.stackEnd(), stackInfo->end());
    QCOMPARE(stackInfo->protect, quint32(MiniDumpReader::MemoryInfo::ReadWrite));
    QCOMPARE(stackInfo->type, quint32(MiniDumpReader::MemoryInfo::Private));
    QVERIFY(thread.stack.size > 0);
    QCOMPARE(dump.bytesAt(thread.stackStart, thread.stack.size), dump.stackBytes(thread));
    if (kind == QLatin1String("overflow")) {
        // The fault lies just below the stack, in the guard page.
        QVERIFY2(exception.address < thread.stackStart
                         && thread.stackStart - exception.address <= 65536,
                 qPrintable(QStringLiteral("fault at %1, stack from %2")
                                    .arg(exception.address, 0, 16)
                                    .arg(thread.stackStart, 0, 16)));
        const MiniDumpReader::MemoryInfo *guard = dump.memoryInfoAt(exception.address);
        QVERIFY(guard);
        QCOMPARE(guard->protect, quint32(MiniDumpReader::MemoryInfo::NoAccess));
        QCOMPARE(guard->end(), thread.stackStart);
    }
    QCOMPARE(dump.threadNames().value(thread.id),
             QString::fromUtf8(kind == QLatin1String("overflow") ? OverflowThreadName
                                                                 : MainThreadName));

    // Modules: the program first, then libc among the others, each with the build id of its file.
    const QString program = QFileInfo(QCoreApplication::applicationFilePath()).canonicalFilePath();
    QVERIFY(!dump.modules().isEmpty());
    const MiniDumpReader::Module &main = dump.modules().first();
    QCOMPARE(main.name, program);
    QCOMPARE(main.codeViewSignature, 0x4270454Cu);
    QCOMPARE(main.codeView.left(4), QByteArray("LEpB"));
    const QByteArray programBuildId = buildIdOfFile(program);
    QVERIFY(!programBuildId.isEmpty());
    QCOMPARE(main.buildId.toHex(), programBuildId.toHex());
    QVERIFY(functionStart >= main.base && functionEnd <= main.end());
    QCOMPARE(dump.moduleAt(context.rip), &main);
    const MiniDumpReader::MemoryInfo *codeInfo = dump.memoryInfoAt(context.rip);
    QVERIFY(codeInfo);
    QCOMPARE(codeInfo->protect, quint32(MiniDumpReader::MemoryInfo::ExecuteRead));
    QCOMPARE(codeInfo->type, quint32(MiniDumpReader::MemoryInfo::Image));
    QCOMPARE(codeInfo->allocationBase, main.base);
    const MiniDumpReader::Module *libc = nullptr;
    bool vdso = false;
    for (const MiniDumpReader::Module &module : dump.modules()) {
        QVERIFY(module.size > 0);
        if (module.name.endsWith(QLatin1String("/libc.so.6")))
            libc = &module;
        vdso = vdso || module.name == QLatin1String("linux-gate.so");
    }
    QVERIFY(libc);
    const QByteArray libcBuildId = buildIdOfFile(libc->name);
    QVERIFY(!libcBuildId.isEmpty());
    QCOMPARE(libc->buildId.toHex(), libcBuildId.toHex());
    QVERIFY(vdso);
    // The decoy lies below the program, yet the program came first.
    const quint64 decoyAddress = run.side.value(QStringLiteral("decoy"));
    const MiniDumpReader::Module *decoy = dump.moduleAt(decoyAddress);
    QVERIFY(decoy);
    QCOMPARE(decoy->name, QString::fromLatin1(DecoyModule));
    QCOMPARE(decoy->base, decoyAddress);
    QCOMPARE(decoy->buildId.toHex(), buildIdOfFile(QString::fromLatin1(DecoyModule)).toHex());
    QVERIFY(decoy->base < main.base);
    QVERIFY(maps.contains(program.toUtf8()));
    QVERIFY(maps.contains(libc->name.toUtf8()));

    // Memory: the markers.
    const quint64 heapMarker = run.side.value(QStringLiteral("heap_marker"));
    const quint64 stackMarker = run.side.value(QStringLiteral("stack_marker"));
    QCOMPARE(dump.bytesAt(heapMarker, sizeof HeapMarker),
             QByteArray(HeapMarker, sizeof HeapMarker));
    QCOMPARE(dump.bytesAt(stackMarker, sizeof StackMarker),
             QByteArray(StackMarker, sizeof StackMarker));
    QVERIFY(stackMarker >= thread.stackStart && stackMarker < thread.stackEnd());
    QCOMPARE(dump.findInMemory(QByteArray(HeapMarker)) != 0, true);
    // The program's code is in the memory list too: full memory.
    QVERIFY(!dump.bytesAt(functionStart, functionEnd - functionStart).isNull());

    // The Linux streams.
    QVERIFY(cpuInfo.contains("processor"));
    QVERIFY(dump.streamData(MiniDumpReader::LinuxProcStatus)
                    .contains(QByteArray("\nPid:\t") + QByteArray::number(run.pid) + '\n'));
    QVERIFY(!dump.streamData(MiniDumpReader::LinuxLsbRelease).isEmpty());
    QVERIFY(cmdline.contains(QByteArray(ChildOption) + '\0' + kind.toLatin1() + '\0'));
    QVERIFY(dump.streamData(MiniDumpReader::LinuxEnviron).contains(EnvironmentMarker));
    const QByteArray auxv = dump.streamData(MiniDumpReader::LinuxAuxv);
    QVERIFY(!auxv.isEmpty() && auxv.size() % 16 == 0);
    QVERIFY(maps.contains("[stack]"));
    QVERIFY(maps.contains("r-xp"));
}

QString tst_MiniDumpWriter::symbolStore()
{
    if (!m_symbolStore.isEmpty() || !m_symbolStoreError.isEmpty())
        return m_symbolStore;
    // dump_syms of the program (the child) into <store>/<name>/<debug id>/<name>.sym.
    QProcess dumpSyms;
    dumpSyms.start(toolsDirectory() + QStringLiteral("/dump_syms"),
                   {QCoreApplication::applicationFilePath()});
    if (!dumpSyms.waitForFinished(120000) || dumpSyms.exitStatus() != QProcess::NormalExit
        || dumpSyms.exitCode() != 0) {
        m_symbolStoreError = QStringLiteral("dump_syms failed: %1")
                                     .arg(QString::fromLocal8Bit(dumpSyms.readAllStandardError()));
        return QString();
    }
    const QByteArray symbols = dumpSyms.readAllStandardOutput();
    const QList<QByteArray> header = symbols.left(symbols.indexOf('\n')).split(' ');
    if (header.size() != 5 || header[0] != "MODULE") {
        m_symbolStoreError = QStringLiteral("dump_syms wrote no MODULE line");
        return QString();
    }
    const QString store = m_directory.filePath(QStringLiteral("symbols"));
    const QString name = QString::fromUtf8(header[4]);
    const QString directory
            = QStringLiteral("%1/%2/%3").arg(store, name, QString::fromLatin1(header[3]));
    QFile file(directory + QLatin1Char('/') + name + QStringLiteral(".sym"));
    if (!QDir().mkpath(directory) || !file.open(QIODevice::WriteOnly)
        || file.write(symbols) != symbols.size()) {
        m_symbolStoreError = QStringLiteral("cannot write %1").arg(file.fileName());
        return QString();
    }
    m_symbolStore = store;
    return store;
}

void tst_MiniDumpWriter::stackwalkNamesTheCrashingFunction_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("function");
    QTest::newRow("null write") << QStringLiteral("nullwrite")
                                << QStringLiteral("krmdCrashNullWrite");
    QTest::newRow("stack overflow in a thread")
            << QStringLiteral("overflow") << QStringLiteral("krmdOverflowStack");
    QTest::newRow("requested, not a signal")
            << QStringLiteral("requested") << QStringLiteral("krmdWriteRequestedDump");
}

void tst_MiniDumpWriter::stackwalkNamesTheCrashingFunction()
{
    QFETCH(QString, kind);
    QFETCH(QString, function);
    const QString stackwalk = toolsDirectory() + QStringLiteral("/minidump_stackwalk");
    if (!QFileInfo(stackwalk).isExecutable()
        || !QFileInfo(toolsDirectory() + QStringLiteral("/dump_syms")).isExecutable())
        QSKIP(qPrintable(QStringLiteral("Breakpad's minidump_stackwalk and dump_syms are not in %1 "
                                        "(KRUTILS_MINIDUMP_TOOLS_DIR; npm package \"minidump\"), "
                                        "so no independent reader walks the dumps")
                                 .arg(toolsDirectory())));
    const ChildRun &run = runChild(kind);
    QVERIFY2(run.error.isEmpty(), qPrintable(run.error));
    QVERIFY(QFileInfo::exists(run.dumpPath));
    const QString store = symbolStore();
    QVERIFY2(!store.isEmpty(), qPrintable(m_symbolStoreError));

    // The store's debug id is the one the dump gives the program.
    MiniDumpReader dump;
    QVERIFY2(dump.open(run.dumpPath), qPrintable(dump.errorString()));
    const QString name = QFileInfo(dump.modules().first().name).fileName();
    QVERIFY2(QFileInfo::exists(QStringLiteral("%1/%2/%3/%2.sym")
                                       .arg(store, name, dump.modules().first().debugId())),
             qPrintable(dump.modules().first().debugId()));

    // Breakpad's minidump_dump reads every stream without complaint. It prints all memory as
    // hex (some 5 s for a dump of 50 MB), so only one row asks it.
    if (kind == QLatin1String("nullwrite")) {
        QProcess dumper;
        dumper.setStandardOutputFile(QProcess::nullDevice());
        dumper.start(toolsDirectory() + QStringLiteral("/minidump_dump"), {run.dumpPath});
        QVERIFY(dumper.waitForFinished(120000));
        QVERIFY2(dumper.exitStatus() == QProcess::NormalExit && dumper.exitCode() == 0,
                 qPrintable(QString::fromUtf8(dumper.readAllStandardError()).right(4000)));
    }

    QProcess walker;
    walker.start(stackwalk, {run.dumpPath, store});
    QVERIFY(walker.waitForFinished(120000));
    const QString output = QString::fromUtf8(walker.readAllStandardOutput());
    const QString errors = QString::fromUtf8(walker.readAllStandardError());
    QVERIFY2(walker.exitStatus() == QProcess::NormalExit && walker.exitCode() == 0,
             qPrintable(errors.right(4000)));

    // "Thread N (crashed)" (or "(requested dump, did not crash)"), then frame 0.
    const QStringList lines = output.split(QLatin1Char('\n'));
    const QRegularExpression threadLine(QStringLiteral("^Thread \\d+ \\((crashed|requested dump)"));
    int at = 0;
    while (at < lines.size() && !threadLine.match(lines[at]).hasMatch())
        ++at;
    QVERIFY2(at + 1 < lines.size(), qPrintable(output.left(4000)));
    const QString frame0 = lines[at + 1];
    QVERIFY2(QRegularExpression(QStringLiteral("^\\s*0\\s+")).match(frame0).hasMatch(),
             qPrintable(frame0));
    QVERIFY2(frame0.contains(name + QLatin1Char('!')) && frame0.contains(function),
             qPrintable(frame0));
    QVERIFY2(output.contains(QStringLiteral("Operating system: Linux")),
             qPrintable(output.left(2000)));
    QVERIFY2(output.contains(QStringLiteral("CPU: amd64")), qPrintable(output.left(2000)));
    if (kind == QLatin1String("nullwrite"))
        QVERIFY2(output.contains(QStringLiteral("SIGSEGV")), qPrintable(output.left(2000)));
}

namespace {
// A thread that captures its context in a named function and waits there until released, as a
// crashing thread waits for the crash-reporting thread on Linux.
struct WaitingThread
{
    QMutex mutex;
    QWaitCondition changed;
    bool captured = false;
    bool released = false;
    pid_t tid = 0;
    ucontext_t context;
    quint64 stackMarker = 0;
};

__attribute__((noinline)) void krmdCaptureAndWait(WaitingThread *state)
{
    volatile char marker[sizeof StackMarker];
    for (size_t i = 0; i < sizeof StackMarker; ++i)
        marker[i] = StackMarker[i];
    std::memset(&state->context, 0, sizeof state->context);
    getcontext(&state->context);
    QMutexLocker locker(&state->mutex);
    state->tid = gettid();
    state->stackMarker = quint64(quintptr(marker));
    state->captured = true;
    state->changed.wakeAll();
    while (!state->released)
        state->changed.wait(&state->mutex);
}
} // namespace

void tst_MiniDumpWriter::dumpWrittenByAnotherThread()
{
    WaitingThread state;
    QThread *thread = QThread::create([&state] {
        pthread_setname_np(pthread_self(), "krmd-waiting");
        krmdCaptureAndWait(&state);
    });
    thread->start();
    {
        QMutexLocker locker(&state.mutex);
        while (!state.captured)
            state.changed.wait(&state.mutex);
    }

    const QString path = m_directory.filePath(QStringLiteral("another-thread.dmp"));
    const int fd = open(QFile::encodeName(path).constData(),
                        O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    QVERIFY(fd >= 0);
    KrCrash::MiniDumpRequest request;
    request.crashingThread = state.tid;
    request.context = &state.context;
    const int rc = KrCrash::writeMiniDump(fd, request);
    close(fd);
    {
        QMutexLocker locker(&state.mutex);
        state.released = true;
        state.changed.wakeAll();
    }
    thread->wait();
    delete thread;
    QCOMPARE(rc, 0);

    MiniDumpReader dump;
    QVERIFY2(dump.open(path), qPrintable(dump.errorString()));
    QCOMPARE(dump.exception().threadId, quint32(state.tid));
    QCOMPARE(dump.exception().code, 0xFFFFFFFFu);
    QCOMPARE(dump.exception().context.rip, quint64(state.context.uc_mcontext.gregs[REG_RIP]));
    QCOMPARE(dump.threads().size(), 1);
    const MiniDumpReader::Thread &waiting = dump.threads().first();
    QCOMPARE(waiting.id, quint32(state.tid));
    const quint64 rsp = quint64(state.context.uc_mcontext.gregs[REG_RSP]);
    QVERIFY(rsp >= waiting.stackStart && rsp < waiting.stackEnd());
    QVERIFY(state.stackMarker >= waiting.stackStart && state.stackMarker < waiting.stackEnd());
    QCOMPARE(dump.bytesAt(state.stackMarker, sizeof StackMarker),
             QByteArray(StackMarker, sizeof StackMarker));
    QCOMPARE(dump.threadNames().value(waiting.id), QStringLiteral("krmd-waiting"));
    // The thread's stack is not the writer's.
    const quint64 here = quint64(quintptr(&state));
    QVERIFY(here < waiting.stackStart || here >= waiting.stackEnd());
}

// A private file mapping whose file shrank after mmap() is readable in /proc/self/maps, but its
// pages past the end fault (SIGBUS in the program, EFAULT in write()). The dump holds zeros there,
// and every byte after them stays where it belongs.
void tst_MiniDumpWriter::unreadablePagesBecomeZeros()
{
    const long page = sysconf(_SC_PAGESIZE);
    // A marker page first: mmap() places later mappings below it, so it follows in the dump.
    auto *after = static_cast<char *>(mmap(nullptr, size_t(page), PROT_READ | PROT_WRITE,
                                           MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    QVERIFY(after != MAP_FAILED);
    std::memcpy(after, HeapMarker, sizeof HeapMarker);

    const QString filePath = m_directory.filePath(QStringLiteral("shrinking.bin"));
    const int file = open(QFile::encodeName(filePath).constData(),
                          O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    QVERIFY(file >= 0);
    QByteArray contents;
    for (char c : {'A', 'B', 'C'})
        contents.append(QByteArray(int(page), c));
    QCOMPARE(write(file, contents.constData(), size_t(contents.size())), ssize_t(contents.size()));
    auto *mapped
            = static_cast<char *>(mmap(nullptr, size_t(3 * page), PROT_READ, MAP_PRIVATE, file, 0));
    QVERIFY(mapped != MAP_FAILED);
    QCOMPARE(mapped[page],
             'B'); // read once: the page is in; it goes with the truncation all the same
    QCOMPARE(ftruncate(file, page), 0);
    close(file);

    ucontext_t context;
    std::memset(&context, 0, sizeof context);
    getcontext(&context);
    KrCrash::MiniDumpRequest request;
    request.context = &context;
    const QString path = m_directory.filePath(QStringLiteral("zeros.dmp"));
    const int fd = open(QFile::encodeName(path).constData(),
                        O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    QVERIFY(fd >= 0);
    const int rc = KrCrash::writeMiniDump(fd, request);
    close(fd);
    QCOMPARE(rc, 0);

    MiniDumpReader dump;
    QVERIFY2(dump.open(path), qPrintable(dump.errorString()));
    const quint64 base = quint64(quintptr(mapped));
    QCOMPARE(dump.bytesAt(base, quint64(page)), QByteArray(int(page), 'A'));
    QCOMPARE(dump.bytesAt(base + quint64(page), quint64(2 * page)),
             QByteArray(int(2 * page), '\0'));
    QCOMPARE(dump.bytesAt(quint64(quintptr(after)), sizeof HeapMarker),
             QByteArray(HeapMarker, sizeof HeapMarker));
    // Code of this program and of libc, at both sides of the mappings, as it is in memory.
    for (const void *code : {reinterpret_cast<const void *>(&krmdCaptureAndWait),
                             reinterpret_cast<const void *>(&getcontext)}) {
        const quint64 address = quint64(quintptr(code));
        QCOMPARE(dump.bytesAt(address, 64), QByteArray(static_cast<const char *>(code), 64));
    }
    const MiniDumpReader::MemoryInfo *info = dump.memoryInfoAt(base);
    QVERIFY(info);
    QCOMPARE(info->protect, quint32(MiniDumpReader::MemoryInfo::ReadOnly));
    QCOMPARE(info->type, quint32(MiniDumpReader::MemoryInfo::Mapped));
    QCOMPARE(info->size, quint64(3 * page));
    munmap(mapped, size_t(3 * page));
    munmap(after, size_t(page));
}

void tst_MiniDumpWriter::writeFailures()
{
    ucontext_t context;
    std::memset(&context, 0, sizeof context);
    getcontext(&context);
    KrCrash::MiniDumpRequest request;
    request.context = &context;

    errno = 1234;
    QCOMPARE(KrCrash::writeMiniDump(-1, request), EBADF);
    QCOMPARE(errno, 1234);

    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    if (full >= 0) {
        QCOMPARE(KrCrash::writeMiniDump(full, request), ENOSPC);
        close(full);
    }

    KrCrash::MiniDumpRequest empty;
    QCOMPARE(KrCrash::writeMiniDump(1, empty), EINVAL);
}

// A dump of this process, on request, written here: the base of the reader's rows.
const QByteArray &tst_MiniDumpWriter::inProcessDump()
{
    if (!m_inProcessDump.isEmpty())
        return m_inProcessDump;
    ucontext_t context;
    std::memset(&context, 0, sizeof context);
    getcontext(&context);
    KrCrash::MiniDumpRequest request;
    request.context = &context;
    const QString path = m_directory.filePath(QStringLiteral("in-process.dmp"));
    const int fd = open(QFile::encodeName(path).constData(),
                        O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        return m_inProcessDump;
    const int rc = KrCrash::writeMiniDump(fd, request);
    close(fd);
    QFile file(path);
    if (rc == 0 && file.open(QIODevice::ReadOnly))
        m_inProcessDump = file.readAll();
    return m_inProcessDump;
}

namespace {
void put32(QByteArray &data, qint64 offset, quint32 value)
{
    std::memcpy(data.data() + offset, &value, sizeof value);
}

quint32 get32(const QByteArray &data, qint64 offset)
{
    quint32 value = 0;
    std::memcpy(&value, data.constData() + offset, sizeof value);
    return value;
}

// The directory entry of a stream type, or -1.
qint64 directoryEntry(const QByteArray &data, quint32 type)
{
    const quint32 count = get32(data, 8);
    const quint32 rva = get32(data, 12);
    for (quint32 i = 0; i < count; ++i) {
        if (get32(data, rva + i * 12) == type)
            return rva + i * 12;
    }
    return -1;
}
} // namespace

void tst_MiniDumpWriter::readerRejectsDamagedFiles_data()
{
    QTest::addColumn<QString>("damage");
    QTest::addColumn<QString>("error");
    QTest::newRow("empty") << "empty"
                           << "too short";
    QTest::newRow("truncated in the header") << "cut:20"
                                             << "too short";
    QTest::newRow("truncated in the directory") << "cut:40"
                                                << "directory";
    QTest::newRow("truncated in the streams") << "cut:4096"
                                              << "outside the file";
    QTest::newRow("truncated by half") << "cut:half"
                                       << "outside the file";
    QTest::newRow("truncated by one byte") << "cut:-1"
                                           << "outside the file";
    QTest::newRow("wrong signature") << "signature"
                                     << "not a minidump";
    QTest::newRow("wrong version") << "version"
                                   << "version";
    QTest::newRow("directory outside the file") << "directory"
                                                << "directory";
    QTest::newRow("stream count huge") << "count"
                                       << "directory";
    QTest::newRow("stream outside the file") << "stream"
                                             << "outside the file";
    QTest::newRow("context of the wrong size") << "context"
                                               << "context";
    QTest::newRow("memory list count huge") << "memorycount"
                                            << "memory list";
    QTest::newRow("module name outside the file") << "modulename"
                                                  << "module name";
    QTest::newRow("thread stack outside the file") << "stack"
                                                   << "stack";
}

void tst_MiniDumpWriter::readerRejectsDamagedFiles()
{
    QFETCH(QString, damage);
    QFETCH(QString, error);
    const QByteArray &base = inProcessDump();
    QVERIFY(!base.isEmpty());
    {
        MiniDumpReader intact;
        QVERIFY2(intact.parse(base), qPrintable(intact.errorString()));
    }

    QByteArray data;
    if (damage == QLatin1String("empty")) {
    } else if (damage.startsWith(QLatin1String("cut:"))) {
        const QString at = damage.mid(4);
        const int size = at == QLatin1String("half") ? base.size() / 2
                : at == QLatin1String("-1")          ? base.size() - 1
                                                     : at.toInt();
        data = base.left(size);
    } else {
        data = base;
        const quint32 size = quint32(data.size());
        if (damage == QLatin1String("signature")) {
            data[0] = 'X';
        } else if (damage == QLatin1String("version")) {
            put32(data, 4, 0x1234);
        } else if (damage == QLatin1String("directory")) {
            put32(data, 12, size - 6);
        } else if (damage == QLatin1String("count")) {
            put32(data, 8, 0xFFFFFFFF);
        } else if (damage == QLatin1String("stream")) {
            const qint64 entry = directoryEntry(data, MiniDumpReader::LinuxCpuInfo);
            put32(data, entry + 4, 100);
            put32(data, entry + 8, size - 50);
        } else if (damage == QLatin1String("context")) {
            const qint64 entry = directoryEntry(data, MiniDumpReader::ExceptionStream);
            put32(data, get32(data, entry + 8) + 160, 1000);
        } else if (damage == QLatin1String("memorycount")) {
            const qint64 entry = directoryEntry(data, MiniDumpReader::MemoryListStream);
            put32(data, get32(data, entry + 8), 0x10000000);
        } else if (damage == QLatin1String("modulename")) {
            const qint64 entry = directoryEntry(data, MiniDumpReader::ModuleListStream);
            put32(data, get32(data, entry + 8) + 4 + 20, size - 2);
        } else if (damage == QLatin1String("stack")) {
            const qint64 entry = directoryEntry(data, MiniDumpReader::ThreadListStream);
            put32(data, get32(data, entry + 8) + 4 + 36, size - 16);
        }
    }
    MiniDumpReader reader;
    QVERIFY(!reader.parse(data));
    QVERIFY2(reader.errorString().contains(error), qPrintable(reader.errorString()));

    MiniDumpReader missing;
    QVERIFY(!missing.open(m_directory.filePath(QStringLiteral("no such file.dmp"))));
    QVERIFY(!missing.errorString().isEmpty());
}

// Random damage to the parts the reader interprets: it may accept or refuse, but never crashes.
void tst_MiniDumpWriter::readerSurvivesCorruption()
{
    QByteArray work = inProcessDump();
    QVERIFY(!work.isEmpty());
    work.detach();
    MiniDumpReader reader;
    QVERIFY2(reader.parse(work), qPrintable(reader.errorString()));
    // The interpreted bytes: header, directory and the parsed streams with what they point at
    // (names, CodeView records, contexts) lie before the first memory region's bytes.
    quint32 structuresEnd = quint32(work.size());
    for (const MiniDumpReader::MemoryRegion &region : reader.memory())
        structuresEnd = qMin(structuresEnd, region.memory.rva);
    reader = MiniDumpReader();

    QRandomGenerator random(20261122);
    int accepted = 0;
    for (int round = 0; round < 300; ++round) {
        struct Change
        {
            quint32 offset;
            char old;
        };
        Change changes[8];
        const int count = 1 + int(random.bounded(8));
        for (int i = 0; i < count; ++i) {
            // Half of the changes in the header and directory, the rest anywhere before the memory.
            const quint32 limit = random.bounded(2) ? 32 + 14 * 12 : structuresEnd;
            changes[i].offset = random.bounded(limit);
            changes[i].old = work.constData()[changes[i].offset];
            work.data()[changes[i].offset] = char(random.bounded(256));
        }
        if (reader.parse(work)) {
            ++accepted;
            // Whatever it accepted is usable.
            for (const MiniDumpReader::MemoryRegion &region : reader.memory())
                (void)reader.bytesAt(region.start, qMin<quint64>(region.memory.size, 64));
            for (const MiniDumpReader::Thread &thread : reader.threads())
                (void)reader.stackBytes(thread);
        } else {
            QVERIFY(!reader.errorString().isEmpty());
        }
        reader = MiniDumpReader(); // drops its share, so that the next change needs no copy
        for (int i = count - 1; i >= 0; --i)
            work.data()[changes[i].offset] = changes[i].old;
    }
    qInfo("%d of 300 damaged dumps were still accepted", accepted);
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
