// Crash interception end to end: krcrash_helper crashes in a child process, in a directory of its
// own; the test reads the monitor log and the dump file it left behind. The routine's handling of
// events that Linux never raises (pure calls, invalid parameters) runs in this process.

#include "KrTestSupport.h"
#include "MiniDumpReader.h"
#include "crash/KrCrashRoutine_p.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace {

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

const int ChildTimeLimitMs = 90000;

QStringList dumpFiles(const QString &dir)
{
    return QDir(dir).entryList({QStringLiteral("*.dmp")}, QDir::Files, QDir::Name);
}

// The helper runs from a copy in `dir`, so that its application directory (where the monitor log
// and the pruning look) is `dir`, which is also its working directory (where the dump goes). A
// fake "PeltoMonitor.exe" on PATH makes the appender keep its log at a normal exit.
CrashRun runHelper(const QString &kind, const QString &dir)
{
    CrashRun run;
    const QString program = dir + QStringLiteral("/krcrash_helper");
    QFile::remove(program);
    if (!QFile::copy(QStringLiteral(KRCRASH_HELPER), program)
        || !QDir(dir).mkpath(QStringLiteral("log")) || !QDir(dir).mkpath(QStringLiteral("bin")))
        return run;
    QFile monitor(dir + QStringLiteral("/bin/PeltoMonitor.exe"));
    if (!monitor.open(QIODevice::WriteOnly))
        return run;
    monitor.write("#!/bin/sh\nexit 0\n");
    monitor.close();
    monitor.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);

    QByteArrayList environment;
    for (char **entry = environ; *entry; ++entry) {
        if (qstrncmp(*entry, "PATH=", 5) != 0)
            environment.append(*entry);
    }
    environment.append("PATH=" + QFile::encodeName(dir) + "/bin:" + qgetenv("PATH"));
    std::vector<char *> envp;
    for (QByteArray &entry : environment)
        envp.push_back(entry.data());
    envp.push_back(nullptr);
    QByteArray path = QFile::encodeName(program);
    QByteArray argument = kind.toLatin1();
    char *argv[] = {path.data(), argument.data(), nullptr};

    const QString previousDir = QDir::currentPath();
    QDir::setCurrent(dir);
    pid_t pid = 0;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "stdout.txt",
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "stderr.txt",
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int spawned = posix_spawn(&pid, path.constData(), &actions, nullptr, argv, envp.data());
    posix_spawn_file_actions_destroy(&actions);
    QDir::setCurrent(previousDir);
    if (spawned != 0)
        return run;

    int status = 0;
    QElapsedTimer clock;
    clock.start();
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (clock.elapsed() > ChildTimeLimitMs) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return run;
        }
        QThread::msleep(10);
    }
    run.finished = true;
    run.pid = pid;
    run.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;

    QFile log(QStringLiteral("%1/log/monitorLog_%2").arg(dir).arg(pid));
    if (log.open(QIODevice::ReadOnly)) {
        for (const QByteArray &line : log.readAll().split('\n')) {
            if (!line.isEmpty())
                run.records.append(QJsonDocument::fromJson(line).object());
        }
    }
    run.dumps = dumpFiles(dir);
    return run;
}

QString signalName(int signal)
{
    return signal ? QString::fromLatin1(strsignal(signal)) : QStringLiteral("none");
}

} // namespace

class tst_KrCrash : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void crashes_data();
    void crashes();
    void previousHandlerIsChained();
    void olderDumpsArePruned();
    void stackwalkReadsTheDump();
    void descriptions_data();
    void descriptions();
    void eventWithoutContext();
    void eventWithoutRecord();

private:
    QList<QJsonObject> ownRecordsSince(int count) const;
    int ownRecordCount() const { return ownRecordsSince(0).size(); }
};

void tst_KrCrash::initTestCase()
{
    QVERIFY(QFile::exists(QStringLiteral(KRCRASH_HELPER)));
    // The in-process cases write this process's own monitor log; the appender needs its folder.
    QVERIFY(QDir(QCoreApplication::applicationDirPath()).mkpath(QStringLiteral("log")));
}

void tst_KrCrash::crashes_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<int>("signal");
    QTest::addColumn<QString>("description");
    QTest::addColumn<QString>("errorCode");
    QTest::addColumn<QString>("flags");
    QTest::addColumn<bool>("dump");
    QTest::addColumn<QString>("function"); // expected in a frame line
    QTest::addColumn<QString>("threadName");

    const QString seh = QStringLiteral("catch seh exception");
    QTest::newRow("null pointer write") << "null-write" << SIGSEGV << seh << "C0000005"
                                        << "00000000" << true << "crashByNullWrite"
                                        << "CrashMain";
    QTest::newRow("null pointer write on a KrThread")
            << "null-write-thread" << SIGSEGV << seh << "C0000005"
            << "00000000" << true << "crashByNullWrite"
            << "CrashWorker";
    QTest::newRow("abort()") << "abort" << SIGABRT << "catch signal abort exception"
                             << "00000000"
                             << "00000001" << true << "crashByAbort"
                             << "CrashMain";
    QTest::newRow("integer division by zero")
            << "integer-division" << SIGFPE << "catch signal float-point exception:8, 1"
            << "C0000094"
            << "00000000" << false << "crashByIntegerDivision"
            << "CrashMain";
    QTest::newRow("float division by zero, trapping")
            << "float-division" << SIGFPE << "catch signal float-point exception:8, 3"
            << "C000008E"
            << "00000000" << false << "crashByFloatDivision"
            << "CrashMain";
    QTest::newRow("__builtin_trap") << "trap" << SIGILL << seh << "C000001D"
                                    << "00000000" << true << "crashByTrap"
                                    << "CrashMain";
    QTest::newRow("breakpoint") << "breakpoint" << SIGTRAP << seh << "80000003"
                                << "00000000" << true << "crashByBreakpoint"
                                << "CrashMain";
    QTest::newRow("interrupt") << "interrupt" << SIGINT << "catch signal int exception"
                               << "00000000"
                               << "00000001" << false << "crashByInterrupt"
                               << "CrashMain";
    QTest::newRow("stack overflow, main thread") << "stack-overflow" << SIGSEGV << seh << "C00000FD"
                                                 << "00000000" << true << "crashByStackOverflow"
                                                 << "CrashMain";
    QTest::newRow("stack overflow on a KrThread")
            << "stack-overflow-thread" << SIGSEGV << seh << "C00000FD"
            << "00000000" << true << "crashByStackOverflow"
            << "CrashWorker";
    QTest::newRow("uncaught exception")
            << "uncaught-exception" << SIGABRT << "catch terminate exception"
            << "00000000"
            << "00000001" << true << "crashByUncaughtException"
            << "CrashMain";
    // Reported, then operator new throws std::bad_alloc, which the helper catches: a normal exit.
    QTest::newRow("allocation failure") << "allocation-failure" << 0 << "catch new exception"
                                        << "00000000"
                                        << "00000001" << false << "failAllocation"
                                        << "CrashMain";
    // malloc aborts on the corrupted heap while it holds its lock: the report must not hang.
    QTest::newRow("inside malloc, another thread running")
            << "inside-malloc" << SIGABRT << "catch signal abort exception"
            << "00000000"
            << "00000001" << true << "crashInsideMalloc"
            << "CrashMain";
    // Plain threads with their handlers, crashing together: one report, one dump, one end.
    QTest::newRow("two threads at once") << "two-threads" << SIGSEGV << seh << "C0000005"
                                         << "00000000" << true << "crashByNullWrite"
                                         << "";
}

void tst_KrCrash::crashes()
{
    QFETCH(QString, kind);
    QFETCH(int, signal);
    QFETCH(QString, description);
    QFETCH(QString, errorCode);
    QFETCH(QString, flags);
    QFETCH(bool, dump);
    QFETCH(QString, function);
    QFETCH(QString, threadName);

#ifdef __SANITIZE_ADDRESS__
    // AddressSanitizer brings its own malloc and operator new: the first never aborts on a
    // corrupted glibc heap, the second reports a failed allocation itself, without the handler.
    if (kind == QLatin1String("inside-malloc") || kind == QLatin1String("allocation-failure"))
        QSKIP("AddressSanitizer replaces the allocator that this case needs");
#endif
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const CrashRun run = runHelper(kind, dir.path());
    QVERIFY2(run.finished, "the crashed process did not end within the time limit");
    QCOMPARE(signalName(run.signal), signalName(signal));
    if (signal == 0)
        QCOMPARE(run.exitCode, 0);

    // The early record: thread and description only; then the full one.
    QCOMPARE(run.records.size(), 2);
    const QJsonObject early = run.records.at(0);
    const QJsonObject full = run.records.at(1);
    const QRegularExpression time(
            QStringLiteral("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}$"));
    for (const QJsonObject &record : run.records) {
        QCOMPARE(record.value(QStringLiteral("type")).toString(), QStringLiteral("dump"));
        QVERIFY(time.match(record.value(QStringLiteral("time")).toString()).hasMatch());
    }
    const QJsonObject earlyContent = early.value(QStringLiteral("content")).toObject();
    const QJsonObject content = full.value(QStringLiteral("content")).toObject();
    QCOMPARE(earlyContent.keys(), (QStringList {"dmpDesc", "threadId", "threadName"}));
    QCOMPARE(content.keys(),
             (QStringList {"callStack", "dmpDesc", "dmpErrorCode", "dmpFlag", "threadId",
                           "threadName"}));
    QCOMPARE(earlyContent.value(QStringLiteral("dmpDesc")).toString(), description);
    QCOMPARE(content.value(QStringLiteral("dmpDesc")).toString(), description);
    QCOMPARE(content.value(QStringLiteral("threadName")).toString(), threadName);
    QVERIFY(content.value(QStringLiteral("threadId")).toDouble() > 0);
    QCOMPARE(content.value(QStringLiteral("threadId")),
             earlyContent.value(QStringLiteral("threadId")));
    QCOMPARE(content.value(QStringLiteral("dmpErrorCode")).toString(), errorCode);
    QCOMPARE(content.value(QStringLiteral("dmpFlag")).toString(), flags);

    const QString stack = content.value(QStringLiteral("callStack")).toString();
    const QRegularExpression header(
            QStringLiteral(
                    "^\\nErrorCode: %1\\nAddress: ([0-9A-F]{8})\\nFlags: %2\\nCallStack: \\n")
                    .arg(errorCode, flags));
    const QRegularExpressionMatch headerMatch = header.match(stack);
    QVERIFY2(headerMatch.hasMatch(), qPrintable(stack));
    QStringList frames = stack.mid(headerMatch.capturedLength()).split(QLatin1Char('\n'));
    QCOMPARE(frames.takeLast(), QString()); // every frame line ends with "\n"
    QVERIFY(!frames.isEmpty());
    const QRegularExpression frameLine(
            QStringLiteral("^    at [^!]+![^\\n]*\\(([^:()]+(:\\d+)?)?\\)$"));
    for (const QString &frame : frames)
        QVERIFY2(frameLine.match(frame).hasMatch(), qPrintable(frame));
    const QString ownFrame
            = QStringLiteral("    at krcrash_helper!(anonymous namespace)::%1(krcrash_helper.cpp:")
                      .arg(function);
    QVERIFY2(stack.contains(ownFrame), qPrintable(stack));

    const QRegularExpression dumpName(QStringLiteral("^trelk_dump-\\d{14}\\.dmp$"));
    QCOMPARE(run.dumps.size(), dump ? 1 : 0);
    if (dump) {
        QVERIFY2(dumpName.match(run.dumps.first()).hasMatch(), qPrintable(run.dumps.first()));
        MiniDumpReader reader;
        QVERIFY2(reader.open(dir.filePath(run.dumps.first())), qPrintable(reader.errorString()));
        QCOMPARE(qint64(reader.processId()), run.pid);
        // Signals carry their number; std::terminate is a dump on request.
        const quint32 dumpCode
                = signal == SIGABRT && description.contains(QLatin1String("terminate"))
                ? 0xFFFFFFFF
                : quint32(signal);
        QCOMPARE(reader.exception().code, dumpCode);
        const MiniDumpReader::Thread *crashed = reader.thread(reader.exception().threadId);
        QVERIFY(crashed);
        // The stack's bytes hold the stack pointer, or after an overflow begin just above it.
        QVERIFY(crashed->stack.size > 0);
        QVERIFY(crashed->context.rsp() < crashed->stackEnd());
        QVERIFY(crashed->stackStart <= crashed->context.rsp() + 64 * 1024);
        const MiniDumpReader::Module *module = reader.moduleAt(crashed->context.rip);
        QVERIFY(module);
        // A fault's record and dump name the same instruction.
        if (errorCode != QLatin1String("00000000")) {
            QCOMPARE(QFileInfo(module->name).fileName(), QStringLiteral("krcrash_helper"));
            QCOMPARE(headerMatch.captured(1),
                     QString::asprintf("%08X", quint32(crashed->context.rip)));
        }
    }
}

void tst_KrCrash::previousHandlerIsChained()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const CrashRun run = runHelper(QStringLiteral("previous-handler"), dir.path());
    QVERIFY(run.finished);
    QCOMPARE(signalName(run.signal), signalName(SIGSEGV));
    QCOMPARE(run.records.size(), 2);
    QCOMPARE(run.dumps.size(), 1);
    QFile note(dir.filePath(QStringLiteral("previous_handler.txt")));
    QVERIFY2(note.open(QIODevice::ReadOnly), "the handler installed before krutils' did not run");
    QCOMPARE(note.readAll(), QByteArray("previous handler ran\n"));
}

void tst_KrCrash::olderDumpsArePruned()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    // Seven older dumps, a day apart, and a file of another kind.
    const QDateTime now = QDateTime::currentDateTime();
    QStringList older;
    for (int age = 7; age >= 1; --age) {
        const QString name = QStringLiteral("trelk_dump-old%1.dmp").arg(age);
        QFile file(dir.filePath(name));
        QVERIFY(file.open(QIODevice::WriteOnly));
        QVERIFY(file.setFileTime(now.addDays(-age), QFileDevice::FileModificationTime));
        older.prepend(name); // newest first
    }
    QFile other(dir.filePath(QStringLiteral("notes.txt")));
    QVERIFY(other.open(QIODevice::WriteOnly));
    other.close();

    const CrashRun run = runHelper(QStringLiteral("null-write"), dir.path());
    QVERIFY(run.finished);
    QCOMPARE(run.dumps.size(), 6);
    // The new dump and the five newest older ones stay.
    QStringList expected = older.mid(0, 5);
    for (const QString &name : run.dumps) {
        if (name.startsWith(QStringLiteral("trelk_dump-2")))
            expected.append(name);
    }
    expected.sort();
    QCOMPARE(run.dumps, expected);
    QVERIFY(QFile::exists(other.fileName()));
}

// Breakpad's reader, where set-up installed it, accepts the dump and unwinds the crashed thread to
// the crashing function, with the symbols dump_syms makes from the helper.
void tst_KrCrash::stackwalkReadsTheDump()
{
    const QString tools = QStringLiteral(KRUTILS_MINIDUMP_TOOLS_DIR);
    if (!QFileInfo(tools + QStringLiteral("/minidump_stackwalk")).isExecutable())
        QSKIP("minidump_stackwalk is not installed here (setup.sh installs it with npm)");

    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const CrashRun run = runHelper(QStringLiteral("null-write"), dir.path());
    QVERIFY(run.finished);
    QCOMPARE(run.dumps.size(), 1);

    QProcess dumpSyms;
    dumpSyms.start(tools + QStringLiteral("/dump_syms"),
                   {dir.filePath(QStringLiteral("krcrash_helper"))});
    QVERIFY(dumpSyms.waitForFinished(120000));
    const QByteArray symbols = dumpSyms.readAllStandardOutput();
    const QList<QByteArray> module = symbols.left(symbols.indexOf('\n')).split(' ');
    QCOMPARE(module.value(0), QByteArray("MODULE"));
    const QString store = dir.filePath(QStringLiteral("symbols"));
    const QString moduleDir = QStringLiteral("%1/krcrash_helper/%2")
                                      .arg(store, QString::fromLatin1(module.value(3)));
    QVERIFY(QDir().mkpath(moduleDir));
    QFile symbolFile(moduleDir + QStringLiteral("/krcrash_helper.sym"));
    QVERIFY(symbolFile.open(QIODevice::WriteOnly));
    symbolFile.write(symbols);
    symbolFile.close();

    QProcess stackwalk;
    stackwalk.start(tools + QStringLiteral("/minidump_stackwalk"),
                    {dir.filePath(run.dumps.first()), store});
    QVERIFY(stackwalk.waitForFinished(120000));
    const QString report = QString::fromUtf8(stackwalk.readAllStandardOutput());
    QCOMPARE(stackwalk.exitCode(), 0);
    QVERIFY2(report.contains(QStringLiteral("SIGSEGV")), qPrintable(report));
    // The first frame of the crashed thread.
    const QRegularExpression frameZero(
            QStringLiteral("\\(crashed\\)\\n 0  krcrash_helper![^\\n]*crashByNullWrite"));
    QVERIFY2(frameZero.match(report).hasMatch(), qPrintable(report.left(3000)));
}

void tst_KrCrash::descriptions_data()
{
    QTest::addColumn<int>("handler");
    QTest::addColumn<QByteArrayList>("texts"); // expression, function, file; "-" for not given
    QTest::addColumn<int>("number"); // line, or SIGFPE's signal number
    QTest::addColumn<int>("subCode");
    QTest::addColumn<QString>("expected");

    using H = KrCrash::Handler;
    const QByteArrayList none {"-", "-", "-"};
    QTest::newRow("seh") << int(H::Seh) << none << 0 << 0 << "catch seh exception";
    QTest::newRow("abort") << int(H::SigAbrt) << none << 0 << 0 << "catch signal abort exception";
    QTest::newRow("terminate") << int(H::Terminate) << none << 0 << 0
                               << "catch terminate exception";
    QTest::newRow("unexpected") << int(H::Unexpected) << none << 0 << 0
                                << "catch unexpected exception";
    QTest::newRow("pure call") << int(H::PureCall) << none << 0 << 0 << "catch pure call exception";
    QTest::newRow("new") << int(H::NewFailure) << none << 0 << 0 << "catch new exception";
    QTest::newRow("interrupt") << int(H::SigInt) << none << 0 << 0 << "catch signal int exception";
    QTest::newRow("fpe") << int(H::SigFpe) << none << 8 << 131
                         << "catch signal float-point exception:8, 131";
    QTest::newRow("invalid parameter, all given")
            << int(H::InvalidParameter) << QByteArrayList {"e", "f", "g"} << 7 << 0
            << "catch invalid parameter exceptione f g 7";
    QTest::newRow("invalid parameter, nothing given")
            << int(H::InvalidParameter) << none << 0 << 0 << "catch invalid parameter exception";
    QTest::newRow("invalid parameter, function and line")
            << int(H::InvalidParameter) << QByteArrayList {"-", "wcscpy_s", "-"} << 12 << 0
            << "catch invalid parameter exceptionwcscpy_s 12";
    QTest::newRow("invalid parameter, empty texts count")
            << int(H::InvalidParameter) << QByteArrayList {"", "", "-"} << 0 << 0
            << "catch invalid parameter exception  ";
}

void tst_KrCrash::descriptions()
{
    QFETCH(int, handler);
    QFETCH(QByteArrayList, texts);
    QFETCH(int, number);
    QFETCH(int, subCode);
    QFETCH(QString, expected);

    KrCrash::CrashEvent event;
    event.handler = static_cast<KrCrash::Handler>(handler);
    auto given = [&](int i) { return texts.at(i) == "-" ? nullptr : texts.at(i).constData(); };
    event.expression = given(0);
    event.function = given(1);
    event.file = given(2);
    if (event.handler == KrCrash::Handler::SigFpe) {
        event.signalNumber = number;
        event.subCode = subCode;
    } else {
        event.line = static_cast<unsigned>(number);
    }
    QCOMPARE(KrCrashRoutine::description(event), expected);
}

QList<QJsonObject> tst_KrCrash::ownRecordsSince(int count) const
{
    QFile log(QStringLiteral("%1/log/monitorLog_%2")
                      .arg(QCoreApplication::applicationDirPath())
                      .arg(QCoreApplication::applicationPid()));
    QList<QJsonObject> records;
    if (log.open(QIODevice::ReadOnly)) {
        for (const QByteArray &line : log.readAll().split('\n')) {
            if (!line.isEmpty())
                records.append(QJsonDocument::fromJson(line)
                                       .object()
                                       .value(QStringLiteral("content"))
                                       .toObject());
        }
    }
    return records.mid(count);
}

// A pure virtual call on Windows: synthetic exception record, all-zero context. Both records,
// no dump, no frame, and the routine's progress lines in order.
void tst_KrCrash::eventWithoutContext()
{
    const int before = ownRecordCount();
    const QStringList dumpsBefore = dumpFiles(QDir::currentPath());
    KrCrash::ExceptionRecord record;
    record.code = 0;
    record.flags = 1;
    record.address = 0x1234567890ABCDEFull;
    KrCrash::CrashEvent event;
    event.handler = KrCrash::Handler::PureCall;
    event.record = &record;
    event.threadId = 42;

    MessageCapture capture;
    QVERIFY(KrCrashRoutine::handleEvent(event));

    const QList<QJsonObject> records = ownRecordsSince(before);
    QCOMPARE(records.size(), 2);
    QCOMPARE(records.at(0).value(QStringLiteral("dmpDesc")).toString(),
             QStringLiteral("catch pure call exception"));
    QCOMPARE(records.at(0).value(QStringLiteral("threadId")).toDouble(), 42.0);
    QCOMPARE(records.at(1).value(QStringLiteral("dmpErrorCode")).toString(),
             QStringLiteral("00000000"));
    QCOMPARE(records.at(1).value(QStringLiteral("dmpFlag")).toString(), QStringLiteral("00000001"));
    QCOMPARE(records.at(1).value(QStringLiteral("callStack")).toString(),
             QStringLiteral(
                     "\nErrorCode: 00000000\nAddress: 90ABCDEF\nFlags: 00000001\nCallStack: \n"));
    QCOMPARE(dumpFiles(QDir::currentPath()), dumpsBefore);

    QStringList lines;
    for (const CapturedMessage &message : capture.messages()) {
        if (message.file == QLatin1String("shell/krutils/CompleteExceptionHandler")
            || message.file == QLatin1String("shell/krutils/CrashHandler"))
            lines.append(message.text);
    }
    const QString routine = QStringLiteral("`anonymous-namespace'::HandleException ");
    const QString walk = QStringLiteral("GetCallStack ");
    QStringList expected {
            QStringLiteral("catched_pure_call_handler EXCEPTION catch pure call exception")};
    for (const char *step : {"enter exception handler", "packing crash map", "packing crash map",
                             "begin get crash info", "end get crash info", "packing crash map",
                             "packing crash map", "begin get call stack"})
        expected.append(routine + QLatin1String(step));
    for (const char *step : {"enter GetCallBack", "last stack", "end get call stacks"})
        expected.append(walk + QLatin1String(step));
    expected.append(routine + QStringLiteral("end get call stack"));
    expected.append(routine + records.at(1).value(QStringLiteral("callStack")).toString());
    QCOMPARE(lines, expected);
}

void tst_KrCrash::eventWithoutRecord()
{
    const int before = ownRecordCount();
    KrCrash::CrashEvent event;
    event.handler = KrCrash::Handler::SigInt;
    event.threadId = 7;

    MessageCapture capture;
    QVERIFY(!KrCrashRoutine::handleEvent(event));
    const QList<QJsonObject> records = ownRecordsSince(before);
    QCOMPARE(records.size(), 2);
    for (const QJsonObject &content : records)
        QCOMPARE(content.keys(), (QStringList {"dmpDesc", "threadId", "threadName"}));
    QCOMPARE(capture.matching(QtDebugMsg, QStringLiteral("exception info null")).size(), 1);
}

QTEST_GUILESS_MAIN(tst_KrCrash)
#include "tst_krcrash.moc"
