// Crash interception end to end: the test program, started as "--crash <kind>", installs the
// handlers and crashes in a child process, in a directory of its own; the test reads the monitor
// log and the dump file it left behind. The crash routine's handling of events that Linux never
// raises (pure calls, invalid parameters) runs in this process.

#include "KrTestSupport.h"
#include "MiniDumpReader.h"
#include "crash/KrCrashRoutine_p.h"
#include <krutils/CompleteExceptionHandler.h>
#include <krutils/KrThread.h>

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <atomic>
#include <cfenv>
#include <csignal>
#include <cstdint>
#include <new>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

namespace {

// Under the sanitizer build the crashes must still happen for real, not be caught by
// UndefinedBehaviorSanitizer's checks first.
#define NOINLINE __attribute__((noinline, no_sanitize("undefined")))

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
NOINLINE void failAllocation()
{
    try {
        // More than any allocator hands out, whatever the machine's overcommit policy.
        volatile size_t huge = size_t(PTRDIFF_MAX) + 1;
        ::operator delete(::operator new(huge));
    } catch (const std::bad_alloc &) {
        std::exit(0);
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
    close(open("previous_handler.txt", O_WRONLY | O_CREAT | O_TRUNC, 0644));
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

// The child: installs the handlers as an application does, and crashes in the way `kind` names.
int crash(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QByteArray kind = argv[2];
    if (kind == "previous-handler")
        signal(SIGSEGV, previousSegvHandler);
    set_process_exception_handlers();
    set_thread_exception_handlers();
    QThread::currentThread()->setObjectName(QStringLiteral("CrashMain"));
    const std::pair<const char *, void (*)()> kinds[] = {
            {"null-write", crashByNullWrite},
            {"previous-handler", crashByNullWrite},
            {"abort", crashByAbort},
            {"integer-division", crashByIntegerDivision},
            {"float-division", crashByFloatDivision},
            {"trap", crashByTrap},
            {"breakpoint", crashByBreakpoint},
            {"interrupt", crashByInterrupt},
            {"stack-overflow", [] { sink = crashByStackOverflow(0); }},
            {"stack-overflow-thread",
             [] { crashOnKrThread([] { sink = crashByStackOverflow(0); }); }},
            {"null-write-thread", [] { crashOnKrThread(crashByNullWrite); }},
            {"uncaught-exception", crashByUncaughtException},
            {"allocation-failure", failAllocation},
            {"inside-malloc", crashInsideMalloc},
            {"two-threads", crashTwoThreadsAtOnce},
    };
    for (const auto &[name, crashNow] : kinds) {
        if (kind == name)
            crashNow();
    }
    return 1; // not reached when the crash happens
}

// The crash text of the in-process events' record: its address cut to the low 32 bits.
const char CallStackOfRecord[]
        = "\nErrorCode: 00000000\nAddress: 90ABCDEF\nFlags: 00000001\nCallStack: \n";

// What a crashed child left behind.
struct CrashRun
{
    bool finished = false; // false: killed after the time limit
    int signal = 0; // the terminating signal, 0 for a normal exit
    int exitCode = 0;
    qint64 pid = 0;
    QList<QJsonObject> records;
    QStringList dumps;
};

QList<QJsonObject> monitorRecords(const QString &directory, qint64 pid)
{
    QList<QJsonObject> records;
    QFile log(QStringLiteral("%1/log/monitorLog_%2").arg(directory).arg(pid));
    if (log.open(QIODevice::ReadOnly)) {
        for (const QByteArray &line : log.readAll().split('\n')) {
            if (!line.isEmpty())
                records.append(QJsonDocument::fromJson(line).object());
        }
    }
    return records;
}

// The child runs from a copy of this program in `dir`, so that its application directory (where the
// monitor log and the pruning look) is `dir`, which is also its working directory (where the dump
// goes). A fake "PeltoMonitor.exe" on PATH makes the appender keep its log at a normal exit.
CrashRun runChild(const QString &kind, const QString &dir)
{
    CrashRun run;
    const QString program = dir + QStringLiteral("/tst_krcrash");
    QFile monitor(dir + QStringLiteral("/bin/PeltoMonitor.exe"));
    if (!QFile::copy(QCoreApplication::applicationFilePath(), program)
        || !QDir(dir).mkpath(QStringLiteral("log")) || !QDir(dir).mkpath(QStringLiteral("bin"))
        || !monitor.open(QIODevice::WriteOnly))
        return run;
    monitor.write("#!/bin/sh\nexit 0\n");
    monitor.close();
    monitor.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);

    QProcess child;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("PATH"),
                       dir + QStringLiteral("/bin:") + environment.value(QStringLiteral("PATH")));
    child.setProcessEnvironment(environment);
    child.setWorkingDirectory(dir);
    child.setProcessChannelMode(QProcess::MergedChannels);
    child.setStandardOutputFile(dir + QStringLiteral("/output.txt"));
    child.start(program, {QStringLiteral("--crash"), kind});
    if (!child.waitForStarted())
        return run;
    run.pid = child.processId();
    run.finished = child.waitForFinished(90000);
    // A crashed child's exit code is its signal.
    run.signal = child.exitStatus() == QProcess::CrashExit ? child.exitCode() : 0;
    run.exitCode = child.exitStatus() == QProcess::NormalExit ? child.exitCode() : -1;
    run.records = monitorRecords(dir, run.pid);
    run.dumps = QDir(dir).entryList({QStringLiteral("*.dmp")}, QDir::Files, QDir::Name);
    return run;
}

} // namespace

class tst_KrCrash : public QObject
{
    Q_OBJECT

private slots:
    void crashes_data();
    void crashes();
    void eventsLinuxNeverRaises_data();
    void eventsLinuxNeverRaises();
};

void tst_KrCrash::crashes_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<int>("signal");
    QTest::addColumn<QString>("description");
    QTest::addColumn<QString>("errorCode"); // faults carry theirs, other events the code 0
    QTest::addColumn<bool>("dump");
    QTest::addColumn<QString>("function"); // expected in a frame line
    QTest::addColumn<QString>("threadName");
    QTest::addColumn<int>("olderDumps"); // in the directory before the crash

    auto row = [](const char *name, const char *kind, int signal, const char *description,
                  const char *errorCode, bool dump, const char *function,
                  const char *threadName = "CrashMain", int olderDumps = 0) {
        QTest::newRow(name) << kind << signal << description << errorCode << dump << function
                            << threadName << olderDumps;
    };
    const char *seh = "catch seh exception";
    const char *abort = "catch signal abort exception";
    row("null pointer write, seven older dumps", "null-write", SIGSEGV, seh, "C0000005", true,
        "crashByNullWrite", "CrashMain", 7);
    row("null pointer write on a KrThread", "null-write-thread", SIGSEGV, seh, "C0000005", true,
        "crashByNullWrite", "CrashWorker");
    // The handler installed before krutils' gets the signal afterwards.
    row("null pointer write, a handler installed before", "previous-handler", SIGSEGV, seh,
        "C0000005", true, "crashByNullWrite");
    row("abort()", "abort", SIGABRT, abort, "00000000", true, "crashByAbort");
    row("integer division by zero", "integer-division", SIGFPE,
        "catch signal float-point exception:8, 1", "C0000094", false, "crashByIntegerDivision");
    row("float division by zero, trapping", "float-division", SIGFPE,
        "catch signal float-point exception:8, 3", "C000008E", false, "crashByFloatDivision");
    row("__builtin_trap", "trap", SIGILL, seh, "C000001D", true, "crashByTrap");
    row("breakpoint", "breakpoint", SIGTRAP, seh, "80000003", true, "crashByBreakpoint");
    row("interrupt", "interrupt", SIGINT, "catch signal int exception", "00000000", false,
        "crashByInterrupt");
    row("stack overflow, main thread", "stack-overflow", SIGSEGV, seh, "C00000FD", true,
        "crashByStackOverflow");
    row("stack overflow on a KrThread", "stack-overflow-thread", SIGSEGV, seh, "C00000FD", true,
        "crashByStackOverflow", "CrashWorker");
    row("uncaught exception", "uncaught-exception", SIGABRT, "catch terminate exception",
        "00000000", true, "crashByUncaughtException");
    // Reported, then operator new throws std::bad_alloc, which the child catches: a normal exit.
    row("allocation failure", "allocation-failure", 0, "catch new exception", "00000000", false,
        "failAllocation");
    // malloc aborts on the corrupted heap while it holds its lock: the report must not hang.
    row("inside malloc, another thread running", "inside-malloc", SIGABRT, abort, "00000000", true,
        "crashInsideMalloc");
    // Plain threads with their handlers, crashing together: one report, one dump, one end.
    row("two threads at once", "two-threads", SIGSEGV, seh, "C0000005", true, "crashByNullWrite",
        "");
}

void tst_KrCrash::crashes()
{
    QFETCH(QString, kind);
    QFETCH(int, signal);
    QFETCH(QString, description);
    QFETCH(QString, errorCode);
    QFETCH(bool, dump);
    QFETCH(QString, function);
    QFETCH(QString, threadName);
    QFETCH(int, olderDumps);
    // The events that are not faults have a synthetic record: code 0, non-continuable.
    const QString flags = errorCode == QLatin1String("00000000") ? "00000001" : "00000000";
#ifdef __SANITIZE_ADDRESS__
    // AddressSanitizer brings its own malloc and operator new: the first never aborts on a
    // corrupted glibc heap, the second reports a failed allocation itself, without the handler.
    if (kind == QLatin1String("inside-malloc") || kind == QLatin1String("allocation-failure"))
        QSKIP("AddressSanitizer replaces the allocator that this case needs");
#endif
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    // Older dumps a day apart (newest first), and a file of another kind, for the pruning.
    QStringList older;
    for (int age = 1; age <= olderDumps; ++age) {
        QFile file(dir.filePath(QStringLiteral("trelk_dump-old%1.dmp").arg(age)));
        QVERIFY(file.open(QIODevice::WriteOnly));
        QVERIFY(file.setFileTime(QDateTime::currentDateTime().addDays(-age),
                                 QFileDevice::FileModificationTime));
        older.append(QFileInfo(file).fileName());
    }
    QFile other(dir.filePath(QStringLiteral("notes.txt")));
    QVERIFY(other.open(QIODevice::WriteOnly));
    other.close();

    const CrashRun run = runChild(kind, dir.path());
    QVERIFY2(run.finished, "the crashed process did not end within the time limit");
    QCOMPARE(run.signal, signal);
    QCOMPARE(run.exitCode, signal ? -1 : 0);
    QCOMPARE(QFile::exists(dir.filePath(QStringLiteral("previous_handler.txt"))),
             kind == QLatin1String("previous-handler"));

    // The early record (thread and description only), then the full one.
    QCOMPARE(run.records.size(), 2);
    const QRegularExpression time(
            QStringLiteral("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}$"));
    for (const QJsonObject &record : run.records) {
        QCOMPARE(record.value(QStringLiteral("type")).toString(), QStringLiteral("dump"));
        QVERIFY(time.match(record.value(QStringLiteral("time")).toString()).hasMatch());
    }
    const QJsonObject early = run.records.at(0).value(QStringLiteral("content")).toObject();
    const QJsonObject content = run.records.at(1).value(QStringLiteral("content")).toObject();
    QCOMPARE(early.keys(), (QStringList {"dmpDesc", "threadId", "threadName"}));
    QCOMPARE(content.keys(),
             (QStringList {"callStack", "dmpDesc", "dmpErrorCode", "dmpFlag", "threadId",
                           "threadName"}));
    for (const QString &key : early.keys())
        QCOMPARE(early.value(key), content.value(key));
    QCOMPARE(content.value(QStringLiteral("dmpDesc")).toString(), description);
    QCOMPARE(content.value(QStringLiteral("threadName")).toString(), threadName);
    QVERIFY(content.value(QStringLiteral("threadId")).toDouble() > 0);
    QCOMPARE(content.value(QStringLiteral("dmpErrorCode")).toString(), errorCode);
    QCOMPARE(content.value(QStringLiteral("dmpFlag")).toString(), flags);

    const QString stack = content.value(QStringLiteral("callStack")).toString();
    const QRegularExpressionMatch header
            = QRegularExpression(QStringLiteral("^\\nErrorCode: %1\\nAddress: ([0-9A-F]{8})\\n"
                                                "Flags: %2\\nCallStack: \\n")
                                         .arg(errorCode, flags))
                      .match(stack);
    QVERIFY2(header.hasMatch(), qPrintable(stack));
    QStringList frames = stack.mid(header.capturedLength()).split(QLatin1Char('\n'));
    QCOMPARE(frames.takeLast(), QString()); // every frame line ends with "\n"
    QVERIFY(!frames.isEmpty());
    const QRegularExpression frameLine(
            QStringLiteral("^    at [^!]+![^\\n]*\\(([^:()]+(:\\d+)?)?\\)$"));
    for (const QString &frame : frames)
        QVERIFY2(frameLine.match(frame).hasMatch(), qPrintable(frame));
    QVERIFY2(stack.contains(QStringLiteral("    at tst_krcrash!(anonymous namespace)::%1("
                                           "tst_krcrash.cpp:")
                                    .arg(function)),
             qPrintable(stack));

    // The new dump, the newest of the older ones (six dumps in all), and the other file.
    const QStringList newDumps
            = run.dumps.filter(QRegularExpression(QStringLiteral("^trelk_dump-\\d{14}\\.dmp$")));
    QCOMPARE(newDumps.size(), dump ? 1 : 0);
    QStringList expectedDumps = newDumps + older.mid(0, dump ? 5 : -1);
    expectedDumps.sort();
    QCOMPARE(run.dumps, expectedDumps);
    QVERIFY(other.exists());
    if (!dump)
        return;
    MiniDumpReader reader;
    QVERIFY(reader.open(dir.filePath(newDumps.first())));
    QCOMPARE(qint64(reader.processId()), run.pid);
    // Signals carry their number; std::terminate is a dump on request.
    const bool terminate = description.contains(QLatin1String("terminate"));
    QCOMPARE(reader.exception().code, terminate ? 0xFFFFFFFF : quint32(signal));
    QCOMPARE(reader.threadCount(), 1);
    const MiniDumpReader::Thread crashed = reader.thread(0);
    QCOMPARE(crashed.id, reader.exception().threadId);
    // The stack's bytes hold the stack pointer, or after an overflow begin just above it.
    QVERIFY(!crashed.stack.isEmpty());
    QVERIFY(crashed.registers.rsp < crashed.stackEnd());
    QVERIFY(crashed.stackStart <= crashed.registers.rsp + 64 * 1024);
    // A fault's record and dump name the same instruction.
    if (errorCode != QLatin1String("00000000"))
        QCOMPARE(header.captured(1), QString::asprintf("%08X", quint32(crashed.registers.rip)));
}

// The routine on events that Linux never raises (the others are rows of crashes()): their
// descriptions, records and progress lines, for an event with an exception record but an all-zero
// context (a pure call on Windows: no frame to walk) and for events without a record.
void tst_KrCrash::eventsLinuxNeverRaises_data()
{
    QTest::addColumn<int>("handler");
    QTest::addColumn<QByteArrayList>("texts"); // expression, function, file; "-" for not given
    QTest::addColumn<unsigned>("line");
    QTest::addColumn<bool>("withRecord");
    QTest::addColumn<QString>("description");
    QTest::addColumn<QStringList>("lines"); // empty: not compared

    auto steps = [](const char *function, QStringList texts) {
        for (QString &text : texts)
            text.prepend(QLatin1String(function) + QLatin1Char(' '));
        return texts;
    };
    const char *routine = "`anonymous-namespace'::HandleException";
    using H = KrCrash::Handler;
    const QByteArrayList none {"-", "-", "-"};
    QTest::newRow("pure call, no context")
            << int(H::PureCall) << none << 0u << true << "catch pure call exception"
            << QStringList {"catched_pure_call_handler EXCEPTION catch pure call exception"}
                    + steps(routine,
                            {"enter exception handler", "packing crash map", "packing crash map",
                             "begin get crash info", "end get crash info", "packing crash map",
                             "packing crash map", "begin get call stack"})
                    + steps("GetCallStack",
                            {"enter GetCallBack", "last stack", "end get call stacks"})
                    + steps(routine, {"end get call stack", CallStackOfRecord});
    QTest::newRow("interrupt, no record")
            << int(H::SigInt) << none << 0u << false << "catch signal int exception"
            << QStringList {"catched_sigint_handler EXCEPTION catch signal int exception"}
                    + steps(routine,
                            {"enter exception handler", "packing crash map", "packing crash map",
                             "exception info null"});
    QTest::newRow("unexpected") << int(H::Unexpected) << none << 0u << false
                                << "catch unexpected exception" << QStringList();
    QTest::newRow("invalid parameter, all given")
            << int(H::InvalidParameter) << QByteArrayList {"e", "f", "g"} << 7u << false
            << "catch invalid parameter exceptione f g 7" << QStringList();
    QTest::newRow("invalid parameter, nothing given")
            << int(H::InvalidParameter) << none << 0u << false
            << "catch invalid parameter exception" << QStringList();
    QTest::newRow("invalid parameter, function and line")
            << int(H::InvalidParameter) << QByteArrayList {"-", "wcscpy_s", "-"} << 12u << false
            << "catch invalid parameter exceptionwcscpy_s 12" << QStringList();
    QTest::newRow("invalid parameter, empty texts count")
            << int(H::InvalidParameter) << QByteArrayList {"", "", "-"} << 0u << false
            << "catch invalid parameter exception  " << QStringList();
}

void tst_KrCrash::eventsLinuxNeverRaises()
{
    QFETCH(int, handler);
    QFETCH(QByteArrayList, texts);
    QFETCH(unsigned, line);
    QFETCH(bool, withRecord);
    QFETCH(QString, description);
    QFETCH(QStringList, lines);

    // This process's own monitor log; the appender needs its folder.
    const QString logDirectory = QCoreApplication::applicationDirPath();
    const qint64 pid = QCoreApplication::applicationPid();
    QVERIFY(QDir(logDirectory).mkpath(QStringLiteral("log")));
    const int before = monitorRecords(logDirectory, pid).size();
    KrCrash::ExceptionRecord record;
    record.flags = 1;
    record.address = 0x1234567890ABCDEFull; // shown by its low 32 bits
    KrCrash::CrashEvent event;
    event.handler = static_cast<KrCrash::Handler>(handler);
    event.record = withRecord ? &record : nullptr;
    event.threadId = 42;
    auto given = [&](int i) { return texts.at(i) == "-" ? nullptr : texts.at(i).constData(); };
    event.expression = given(0);
    event.function = given(1);
    event.file = given(2);
    event.line = line;

    MessageCapture capture;
    QCOMPARE(KrCrashRoutine::handleEvent(event), withRecord);
    const QList<QJsonObject> records = monitorRecords(logDirectory, pid).mid(before);
    QCOMPARE(records.size(), 2);
    const QJsonObject early = records.at(0).value(QStringLiteral("content")).toObject();
    const QJsonObject full = records.at(1).value(QStringLiteral("content")).toObject();
    QCOMPARE(early.keys(), (QStringList {"dmpDesc", "threadId", "threadName"}));
    QCOMPARE(early.value(QStringLiteral("dmpDesc")).toString(), description);
    QCOMPARE(early.value(QStringLiteral("threadId")).toDouble(), 42.0);
    QCOMPARE(full.keys().size(), withRecord ? 6 : 3);
    QCOMPARE(full.value(QStringLiteral("dmpErrorCode")).toString(),
             withRecord ? QStringLiteral("00000000") : QString());
    QCOMPARE(full.value(QStringLiteral("dmpFlag")).toString(),
             withRecord ? QStringLiteral("00000001") : QString());
    QCOMPARE(full.value(QStringLiteral("callStack")).toString(),
             withRecord ? QString::fromLatin1(CallStackOfRecord) : QString());

    QStringList logged;
    for (const CapturedMessage &message : capture.messages()) {
        if (message.file == QLatin1String("shell/krutils/CompleteExceptionHandler")
            || message.file == QLatin1String("shell/krutils/CrashHandler"))
            logged.append(message.text);
    }
    if (!lines.isEmpty())
        QCOMPARE(logged, lines);
}

int main(int argc, char **argv)
{
    if (argc == 3 && qstrcmp(argv[1], "--crash") == 0)
        return crash(argc, argv);
    QCoreApplication app(argc, argv);
    tst_KrCrash test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_krcrash.moc"
