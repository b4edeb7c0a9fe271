// The Windows side of crash interception, cross-compiled with mingw-w64 and run under wine.
//
// Run without arguments, the driver makes its in-process checks, then runs itself as a child
// process per crash case ("--child <case>"), each in a fresh directory that holds a copy of the
// program, so that the application directory and the working directory are the same. The child
// installs the handlers with a crash routine of its own that writes everything it receives into
// a result file, and then crashes; the parent reads the file and checks it.
//
// New cases go into the two tables at the end: one function per case.

#include "CompleteExceptionHandler_p.h"
#include "CrashHandler_p.h"
#include "CrashHandler_win_p.h"
#include "WinTestChecks.h"

#include <windows.h>

#include <excpt.h>
#include <float.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using KrCrash::CrashEvent;
using KrCrash::Handler;

#define NOINLINE __attribute__((noinline))

extern "C" int __cdecl _callnewh(size_t size); // msvcrt's: what operator new calls on failure

namespace {

using namespace WinTest;

std::string hex(uint64_t value, int digits)
{
    char text[32];
    std::snprintf(text, sizeof text, "%0*llX", digits, static_cast<unsigned long long>(value));
    return text;
}

uint64_t parseHex(const std::string &text)
{
    return std::strtoull(text.c_str(), nullptr, 16);
}

std::string utf8(const std::wstring &text)
{
    return KrCrash::toUtf8(text.c_str());
}

std::wstring executablePath()
{
    wchar_t path[MAX_PATH * 4] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH * 4);
    return path;
}

// The program's file name and its module name (the file name without ".exe").
std::wstring executableFileName()
{
    return fs::path(executablePath()).filename().wstring();
}
std::string moduleName()
{
    return utf8(fs::path(executablePath()).stem().wstring());
}

// ---- The child: the crash routine and the crashes

const char ResultFileName[] = "crash-result.txt";
// Not ASCII, so that the file name goes through the UTF-8 conversion on its way to CreateFileW.
const char DumpFileName[] = "trelk_dump-\xe6\xb5\x8b\xe8\xaf\x95.dmp";

int mainThreadTag;
int workerThreadTag;
bool caseWritesDump; // set from the case table

// Appends "key=value" to the result file, opened and closed each time so that what is written
// survives however the child ends.
void note(const char *key, const std::string &value)
{
    if (FILE *file = std::fopen(ResultFileName, "ab")) {
        std::fprintf(file, "%s=%s\n", key, value.c_str());
        std::fclose(file);
    }
}

// In the order of KrCrash::Handler.
const char *const handlerNames[]
        = {"Seh",        "SigAbrt", "Terminate", "Unexpected",      "PureCall",
           "NewFailure", "SigInt",  "SigFpe",    "InvalidParameter"};

std::string tagName(const void *tag)
{
    return tag == &mainThreadTag      ? "main"
            : tag == &workerThreadTag ? "worker"
            : tag                     ? "other"
                                      : "none";
}

void logToResult(KrCrash::LogLevel, const char *source, const char *function, const char *text)
{
    note("log", std::string(source) + ' ' + function + ' ' + text);
}

// Like the library's crash routine: a dump for the gravest kinds, then the stack. Only the cases
// that check the dump write one (a full-memory dump under wine takes seconds), and only for the
// first event, since one crash may pass through several handlers.
bool recordingRoutine(const CrashEvent &event)
{
    static int events = 0;
    ++events;
    note("event", handlerNames[static_cast<int>(event.handler)]);
    if (event.record) {
        note("code", hex(event.record->code, 8));
        note("flags", hex(event.record->flags, 8));
        note("address", hex(event.record->address, 16));
    }
    note("signal", show(event.signalNumber));
    note("subCode", show(event.subCode));
    note("expression", event.expression ? event.expression : "<null>");
    note("function", event.function ? event.function : "<null>");
    note("file", event.file ? event.file : "<null>");
    note("line", show(event.line));
    note("threadId", show(event.threadId));
    note("threadTag", tagName(event.threadTag));
    note("inCrashingThread", show(event.inCrashingThread));
    note("platformData", show(event.platformData != nullptr));
    note("runtimePointers", show(event.platformData == _pxcptinfoptrs));

    const bool grave = event.handler == Handler::Seh || event.handler == Handler::SigAbrt
            || event.handler == Handler::Terminate || event.handler == Handler::Unexpected;
    if (grave && caseWritesDump && events == 1) {
        const KrCrash::DumpResult dump = KrCrash::writeDumpFile(DumpFileName, event);
        note("dumpCreated", show(dump.created));
        note("dumpWritten", show(dump.written));
        note("dumpError", show(dump.systemError));
        KrCrash::pruneDumpFiles(KrCrash::applicationDirectory());
    }
    const std::vector<KrCrash::CallStackInfo> frames = KrCrash::GetCallStack(event);
    note("frames", show(frames.size()));
    for (const KrCrash::CallStackInfo &frame : frames) {
        std::string line = KrCrash::frameLine(frame);
        line.pop_back(); // the newline
        note("frame", line);
    }
    note("end", "");
    return true;
}

volatile int *volatile nullTarget = nullptr;
volatile int zero = 0;
volatile int dividend = 1000; // not 1: g++ computes 1 / x without dividing
int callCount;

// The walk must name this line: keep the constant right above the function.
constexpr int NullWriteLine = __LINE__ + 3;
NOINLINE void writeThroughNull()
{
    *nullTarget = 1;
}

NOINLINE int callWriteThroughNull()
{
    writeThroughNull();
    return ++callCount; // no tail call: this frame stays on the stack
}

NOINLINE int divideByZero()
{
    return dividend / zero;
}

NOINLINE void executeIllegalInstruction()
{
    __builtin_trap();
}

void noteFunction(const char *key, const void *function)
{
    note(key, hex(reinterpret_cast<uintptr_t>(function), 16));
}

void accessViolation()
{
    noteFunction("crashFunction", reinterpret_cast<const void *>(&writeThroughNull));
    callWriteThroughNull();
}

void accessViolationInWorker()
{
    const HANDLE thread = CreateThread(
            nullptr, 0,
            [](void *) -> DWORD {
                KrCrash::installThreadHandlers(&workerThreadTag, recordingRoutine);
                note("workerThreadId", show(GetCurrentThreadId()));
                callWriteThroughNull();
                return 0;
            },
            nullptr, 0, nullptr);
    WaitForSingleObject(thread, INFINITE);
}

void integerDivideByZero()
{
    noteFunction("crashFunction", reinterpret_cast<const void *>(&divideByZero));
    note("quotient", show(divideByZero()));
}

void illegalInstruction()
{
    noteFunction("crashFunction", reinterpret_cast<const void *>(&executeIllegalInstruction));
    executeIllegalInstruction();
}

void abortCall()
{
    std::abort();
}

void terminateCall()
{
    std::terminate();
}

void unexpectedCall()
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    std::unexpected();
#pragma GCC diagnostic pop
}

void interruptSignal()
{
    std::raise(SIGINT);
    note("returned", "1");
}

void floatingPointSignal()
{
    std::raise(SIGFPE);
    note("returned", "1");
}

// The filter, called as the system calls it, must let the search go on whatever the routine did.
void unhandledExceptionFilterCall()
{
    const LPTOP_LEVEL_EXCEPTION_FILTER filter = SetUnhandledExceptionFilter(nullptr);
    CONTEXT context = {};
    RtlCaptureContext(&context);
    EXCEPTION_RECORD record = {};
    record.ExceptionCode = 0xE0000001; // an application's own code
    record.ExceptionFlags = EXCEPTION_NONCONTINUABLE;
    record.ExceptionAddress = reinterpret_cast<void *>(context.Rip);
    EXCEPTION_POINTERS pointers = {&record, &context};
    if (filter)
        note("filterResult", show(filter(&pointers)));
}

// What MSVC's start-up code does with a floating-point fault in the main thread: it hands the
// exception to the runtime's filter, which calls the SIGFPE handler with the sub-code and with
// the exception pointers in _pxcptinfoptrs. g++'s start-up code never calls that filter, so the
// child does, with a fault of its own making.
NOINLINE void floatingPointFaultThroughRuntimeFilter()
{
    noteFunction("crashFunction",
                 reinterpret_cast<const void *>(&floatingPointFaultThroughRuntimeFilter));
    CONTEXT context = {};
    RtlCaptureContext(&context);
    EXCEPTION_RECORD record = {};
    record.ExceptionCode = EXCEPTION_FLT_DIVIDE_BY_ZERO;
    record.ExceptionAddress = reinterpret_cast<void *>(context.Rip);
    EXCEPTION_POINTERS pointers = {&record, &context};
    note("filterResult", show(_XcptFilter(EXCEPTION_FLT_DIVIDE_BY_ZERO, &pointers)));
}

// msvcrt's own allocation-failure path, as MSVC's operator new and malloc in new mode 1 take it.
void newHandlerCall()
{
    note("callnewh", show(_callnewh(64)));
}

// g++ never reaches the pure-call and invalid-parameter handlers through the runtime, so the
// children call them as the runtime would, taken from where the handlers were installed.
NOINLINE void pureCallHandlerCall()
{
    noteFunction("caller", reinterpret_cast<const void *>(&pureCallHandlerCall));
    const _purecall_handler handler = _set_purecall_handler(nullptr);
    if (handler)
        handler();
    note("returned", "1");
}

void invalidParameterHandlerCall()
{
    const _invalid_parameter_handler handler = _get_invalid_parameter_handler();
    if (!handler)
        return;
    handler(L"e", L"f", L"g", 7, 0);
    // "表达式" in UTF-16; function and line not given, as the release runtime passes them.
    handler(L"\u8868\u8fbe\u5f0f", nullptr, L"C:\\src\\file.cpp", 0, 0);
    note("returned", "1");
}

// ---- The parent: running a child and reading its result

struct Event
{
    std::map<std::string, std::string> fields;
    std::vector<std::string> frames;
    std::vector<std::string> logs;

    std::string operator[](const std::string &key) const
    {
        const auto it = fields.find(key);
        return it == fields.end() ? std::string("<no such field>") : it->second;
    }
};

struct ChildRun
{
    fs::path directory;
    bool finished = false;
    DWORD exitCode = 0;
    double seconds = 0;
    std::map<std::string, std::string> notes; // written outside the routine
    std::vector<Event> events;
    std::string output; // the child's standard output and error

    std::string note(const std::string &key) const
    {
        const auto it = notes.find(key);
        return it == notes.end() ? std::string("<no such note>") : it->second;
    }
};

void readResult(ChildRun &run)
{
    std::ifstream in(run.directory / ResultFileName, std::ios::binary);
    std::string line;
    Event *event = nullptr;
    while (std::getline(in, line)) {
        const size_t equals = line.find('=');
        if (equals == std::string::npos)
            continue;
        const std::string key = line.substr(0, equals), value = line.substr(equals + 1);
        if (key == "event") {
            run.events.emplace_back();
            event = &run.events.back();
            event->fields[key] = value;
        } else if (key == "end") {
            event = nullptr;
        } else if (event && key == "frame") {
            event->frames.push_back(value);
        } else if (event && key == "log") {
            event->logs.push_back(value);
        } else if (event) {
            event->fields[key] = value;
        } else {
            run.notes[key] = value;
        }
    }
}

struct ChildCase
{
    const char *name;
    void (*crash)(); // in the child
    void (*check)(const ChildRun &run); // in the parent
    void (*prepare)(const fs::path &directory) = nullptr; // in the parent, before the child starts
    bool writesDump = false;
};

const DWORD ChildTimeLimitMs = 60000;
int runNumber;

ChildRun runChild(const ChildCase &childCase)
{
    ChildRun run;
    // Not ASCII either, so that the application directory goes through the conversions.
    wchar_t temp[MAX_PATH + 1] = {};
    GetTempPathW(MAX_PATH + 1, temp);
    run.directory = fs::path(temp)
            / (L"krcrash-\u6d4b\u8bd5-" + std::to_wstring(GetCurrentProcessId()) + L"-"
               + std::to_wstring(++runNumber));
    std::error_code error;
    fs::remove_all(run.directory, error);
    fs::create_directories(run.directory, error);
    const fs::path program = run.directory / executableFileName();
    if (!CopyFileW(executablePath().c_str(), program.c_str(), FALSE)) {
        std::printf("    cannot copy the program into %s\n", utf8(run.directory.wstring()).c_str());
        return run;
    }
    if (childCase.prepare)
        childCase.prepare(run.directory);

    SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
    const fs::path outputPath = run.directory / "child-output.txt";
    const HANDLE output = CreateFileW(outputPath.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherit,
                                      CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = output;
    startup.hStdError = output;
    std::wstring commandLine
            = L"\"" + program.wstring() + L"\" --child " + KrCrash::toWide(childCase.name);
    PROCESS_INFORMATION process = {};
    const auto start = std::chrono::steady_clock::now();
    if (!CreateProcessW(program.c_str(), &commandLine[0], nullptr, nullptr, TRUE, 0, nullptr,
                        run.directory.c_str(), &startup, &process)) {
        std::printf("    CreateProcessW failed: %lu\n", GetLastError());
        CloseHandle(output);
        return run;
    }
    if (WaitForSingleObject(process.hProcess, ChildTimeLimitMs) == WAIT_OBJECT_0) {
        run.finished = true;
        GetExitCodeProcess(process.hProcess, &run.exitCode);
    } else {
        std::printf("    the child did not end within %lu ms\n", ChildTimeLimitMs);
        TerminateProcess(process.hProcess, 1);
        WaitForSingleObject(process.hProcess, 5000);
    }
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    CloseHandle(output);

    readResult(run);
    std::ifstream outputFile(outputPath, std::ios::binary);
    run.output.assign(std::istreambuf_iterator<char>(outputFile), {});
    return run;
}

// ---- Child cases: what the parent expects

// What every event carries, whichever handler caught it.
void checkCommon(const ChildRun &run, const Event &event, const char *threadTag,
                 const char *threadIdNote)
{
    CHECK_EQ(event["threadId"], run.note(threadIdNote));
    CHECK_EQ(event["threadTag"], std::string(threadTag));
    CHECK_EQ(event["inCrashingThread"], "1");
    CHECK_EQ(event["platformData"], "1");
}

// The stack walk's progress lines: the fixed start, one of the two ends (wine's walk fails past
// the thread's start routine instead of reaching a zero address), the fixed last line.
void checkWalkLog(const Event &event)
{
    const std::string prefix = "shell/krutils/CrashHandler GetCallStack ";
    const std::vector<std::string> expected
            = {prefix + "enter GetCallBack", prefix + "SymInitialize", prefix + "GetCurrentThread",
               prefix + "<end>", prefix + "end get call stacks"};
    if (!CHECK_EQ(show(event.logs.size()), show(expected.size())))
        return;
    for (size_t i : {0, 1, 2, 4})
        CHECK_EQ(event.logs[i], expected[i]);
    CHECK(event.logs[3] == prefix + "last stack" || event.logs[3] == prefix + "StackWalk64 fail");
}

// A dump as the crash routine asks for it: a minidump with the whole memory (a Memory64List
// stream) and the event's exception, in the event's thread.
void checkDumpFile(const ChildRun &run, const Event &event)
{
    CHECK_EQ(event["dumpCreated"], "1");
    CHECK_EQ(event["dumpWritten"], "1");
    CHECK_EQ(event["dumpError"], "0");
    std::ifstream dump(run.directory / fs::u8path(DumpFileName), std::ios::binary);
    const auto read32 = [&dump](uint64_t offset) {
        uint32_t value = 0;
        dump.seekg(static_cast<std::streamoff>(offset));
        dump.read(reinterpret_cast<char *>(&value), sizeof value);
        return dump ? value : 0;
    };
    const auto read64
            = [&](uint64_t offset) { return read32(offset) | uint64_t(read32(offset + 4)) << 32; };
    if (!CHECK_EQ(hex(read32(0), 8), "504D444D")) // "MDMP"
        return;
    const uint32_t streams = read32(8), directory = read32(12);
    const uint32_t Memory64ListStream = 9, ExceptionStream = 6;
    bool fullMemory = false, exception = false;
    for (uint32_t i = 0; i < streams && i < 64; ++i) {
        const uint32_t type = read32(directory + 12 * i), rva = read32(directory + 12 * i + 8);
        fullMemory = fullMemory || type == Memory64ListStream;
        if (type != ExceptionStream)
            continue;
        exception = true;
        // Thread id, alignment, then the exception record: code, flags, nested record, address.
        CHECK_EQ(show(read32(rva)), event["threadId"]);
        CHECK_EQ(hex(read32(rva + 8), 8), event["code"]);
        CHECK_EQ(hex(read32(rva + 12), 8), event["flags"]);
        CHECK_EQ(hex(read64(rva + 24), 16), event["address"]);
    }
    CHECK(fullMemory);
    CHECK(exception);
    std::error_code error;
    const auto size = fs::file_size(run.directory / fs::u8path(DumpFileName), error);
    std::printf("    dump file: %.1f MB\n", error ? 0.0 : size / 1e6);
}

// A hardware fault caught by the SEH filter in the named function, the child's last event: its
// code and address, its frame with file and line (the line only where `line` is given).
void checkFault(const ChildRun &run, size_t events, const char *code, const char *function,
                int line)
{
    if (!CHECK_EQ(show(run.events.size()), show(events)))
        return;
    const Event &event = run.events.back();
    CHECK_EQ(event["event"], "Seh");
    CHECK_EQ(event["code"], std::string(code));
    CHECK_EQ(event["flags"], "00000000");
    const uint64_t address = parseHex(event["address"]);
    const uint64_t functionStart = parseHex(run.note("crashFunction"));
    CHECK(functionStart != 0 && address >= functionStart && address < functionStart + 64);
    checkCommon(run, event, "main", "mainThreadId");
    checkWalkLog(event);
    std::string expected = "    at " + moduleName() + ".exe!" + function + "(tst_crash_win.cpp";
    expected += line ? ":" + std::to_string(line) + ")" : std::string(":");
    CHECK(!event.frames.empty());
    if (!event.frames.empty())
        CHECK_EQ(event.frames[0].substr(0, expected.size()), expected);
}

void createOldDumps(const fs::path &directory)
{
    const auto now = fs::file_time_type::clock::now();
    for (int i = 1; i <= 7; ++i) {
        const fs::path path = directory / ("old-" + std::to_string(i) + ".dmp");
        std::ofstream(path) << "old dump " << i;
        fs::last_write_time(path, now - std::chrono::hours(8 - i)); // old-1 is the oldest
    }
}

void checkAccessViolation(const ChildRun &run)
{
    checkFault(run, 1, "C0000005", "writeThroughNull", NullWriteLine);
    if (run.events.empty())
        return;
    checkDumpFile(run, run.events[0]);
    const std::vector<std::string> &frames = run.events[0].frames;
    const std::string caller
            = "    at " + moduleName() + ".exe!callWriteThroughNull(tst_crash_win.cpp:";
    if (CHECK(frames.size() >= 2))
        CHECK_EQ(frames[1].substr(0, caller.size()), caller);

    // The new dump and the five newest of the seven older ones.
    std::set<std::string> dumps;
    for (const fs::directory_entry &entry : fs::directory_iterator(run.directory)) {
        if (entry.path().extension() == ".dmp")
            dumps.insert(utf8(entry.path().filename().wstring()));
    }
    const std::set<std::string> expected
            = {DumpFileName, "old-3.dmp", "old-4.dmp", "old-5.dmp", "old-6.dmp", "old-7.dmp"};
    CHECK(dumps == expected);
    CHECK_EQ(run.note("applicationDirectory"), utf8(run.directory.wstring()));
}

void checkAccessViolationInWorker(const ChildRun &run)
{
    if (!CHECK_EQ(show(run.events.size()), "1"))
        return;
    const Event &event = run.events[0];
    CHECK_EQ(event["event"], "Seh");
    CHECK_EQ(event["code"], "C0000005");
    checkCommon(run, event, "worker", "workerThreadId");
    CHECK(event.frames.size() >= 2);
}

void checkUnhandledExceptionFilterResult(const ChildRun &run)
{
    if (!CHECK_EQ(show(run.events.size()), "1"))
        return;
    CHECK_EQ(run.events[0]["event"], "Seh");
    CHECK_EQ(run.events[0]["code"], "E0000001");
    CHECK_EQ(run.events[0]["flags"], "00000001");
    CHECK_EQ(run.note("filterResult"), show(EXCEPTION_CONTINUE_SEARCH));
}

void checkIntegerDivideByZero(const ChildRun &run)
{
    // mingw-w64's start-up code gives the image an exception handler of its own, which passes the
    // fault to the SIGFPE handler first: with no sub-code (garbage in its place) and no exception
    // pointers. It resets the handler and resumes; the division faults again and reaches the
    // filter.
    checkFault(run, 2, "C0000094", "divideByZero", 0);
    if (run.events.size() != 2)
        return;
    CHECK_EQ(run.events[0]["event"], "SigFpe");
    CHECK_EQ(run.events[0]["signal"], show(SIGFPE));
    CHECK_EQ(run.events[0]["platformData"], "0");
}

void checkIllegalInstruction(const ChildRun &run)
{
    checkFault(run, 1, "C000001D", "executeIllegalInstruction", 0);
}

// The synthetic exception of the runtime's handlers: code 0, non-continuable, the handler's
// return address, and a context from which no frame can be walked.
void checkSynthetic(const ChildRun &run, size_t index, const char *handler)
{
    if (!CHECK(run.events.size() > index))
        return;
    const Event &event = run.events[index];
    CHECK_EQ(event["event"], std::string(handler));
    CHECK_EQ(event["code"], "00000000");
    CHECK_EQ(event["flags"], "00000001");
    CHECK(parseHex(event["address"]) != 0);
    checkCommon(run, event, "main", "mainThreadId");
    CHECK_EQ(event["frames"], "0");
    checkWalkLog(event);
}

void checkAbort(const ChildRun &run)
{
    CHECK_EQ(show(run.events.size()), "1");
    checkSynthetic(run, 0, "SigAbrt");
    if (!run.events.empty())
        checkDumpFile(run, run.events[0]);
}

// The runtime goes on after each handler returns: terminate() aborts, unexpected() terminates.
void checkTerminate(const ChildRun &run)
{
    CHECK_EQ(show(run.events.size()), "2");
    checkSynthetic(run, 0, "Terminate");
    checkSynthetic(run, 1, "SigAbrt");
}

void checkUnexpected(const ChildRun &run)
{
    CHECK_EQ(show(run.events.size()), "3");
    checkSynthetic(run, 0, "Unexpected");
    checkSynthetic(run, 1, "Terminate");
    checkSynthetic(run, 2, "SigAbrt");
}

void checkInterrupt(const ChildRun &run)
{
    CHECK_EQ(show(run.events.size()), "1");
    checkSynthetic(run, 0, "SigInt");
    CHECK_EQ(run.note("returned"), "1");
}

void checkFloatingPointSignal(const ChildRun &run)
{
    const int explicitlyGenerated = 0x8c; // _FPE_EXPLICITGEN: what raise(SIGFPE) passes
    if (!CHECK_EQ(show(run.events.size()), "1"))
        return;
    const Event &event = run.events[0];
    CHECK_EQ(event["event"], "SigFpe");
    CHECK_EQ(event["signal"], show(SIGFPE));
    CHECK_EQ(event["subCode"], show(explicitlyGenerated));
    CHECK_EQ(event["runtimePointers"], "1");
    CHECK_EQ(event["threadTag"], "main");
    CHECK_EQ(run.note("returned"), "1");
}

void checkFloatingPointFault(const ChildRun &run)
{
    if (!CHECK_EQ(show(run.events.size()), "1"))
        return;
    const Event &event = run.events[0];
    CHECK_EQ(event["event"], "SigFpe");
    CHECK_EQ(event["signal"], show(SIGFPE));
    CHECK_EQ(event["subCode"], show(_FPE_ZERODIVIDE));
    CHECK_EQ(event["code"], hex(EXCEPTION_FLT_DIVIDE_BY_ZERO, 8));
    CHECK_EQ(event["flags"], "00000000");
    CHECK_EQ(event["runtimePointers"], "1");
    checkCommon(run, event, "main", "mainThreadId");
    const uint64_t address = parseHex(event["address"]);
    const uint64_t functionStart = parseHex(run.note("crashFunction"));
    CHECK(functionStart != 0 && address > functionStart && address < functionStart + 256);
    const std::string expected = "    at " + moduleName()
            + ".exe!floatingPointFaultThroughRuntimeFilter(tst_crash_win.cpp:";
    CHECK(!event.frames.empty() && event.frames[0].compare(0, expected.size(), expected) == 0);
    CHECK_EQ(run.note("filterResult"), show(EXCEPTION_CONTINUE_EXECUTION));
}

void checkNewHandler(const ChildRun &run)
{
    CHECK_EQ(show(run.events.size()), "1");
    checkSynthetic(run, 0, "NewFailure");
    CHECK_EQ(run.note("callnewh"), "0");
}

void checkPureCallHandler(const ChildRun &run)
{
    CHECK_EQ(show(run.events.size()), "1");
    checkSynthetic(run, 0, "PureCall");
    if (run.events.empty())
        return;
    // The handler's return address lies in the function that called it.
    const uint64_t caller = parseHex(run.note("caller"));
    const uint64_t address = parseHex(run.events[0]["address"]);
    CHECK(address > caller && address < caller + 256);
}

void checkInvalidParameterHandler(const ChildRun &run)
{
    if (!CHECK_EQ(show(run.events.size()), "2"))
        return;
    checkSynthetic(run, 0, "InvalidParameter");
    CHECK_EQ(run.events[0]["expression"], "e");
    CHECK_EQ(run.events[0]["function"], "f");
    CHECK_EQ(run.events[0]["file"], "g");
    CHECK_EQ(run.events[0]["line"], "7");
    CHECK_EQ(run.events[1]["expression"], "\xe8\xa1\xa8\xe8\xbe\xbe\xe5\xbc\x8f");
    CHECK_EQ(run.events[1]["function"], "<null>");
    CHECK_EQ(run.events[1]["file"], "C:\\src\\file.cpp");
    CHECK_EQ(run.events[1]["line"], "0");
}

// ---- In-process checks

KrCrash::CallStackInfo frameOf(const char *module, const char *function, const char *file,
                               const char *line)
{
    KrCrash::CallStackInfo frame;
    KrCrash::CallStackInfo::setText(frame.moduleName, module);
    KrCrash::CallStackInfo::setText(frame.functionName, function);
    KrCrash::CallStackInfo::setText(frame.fileName, file);
    KrCrash::CallStackInfo::setText(frame.lineNumber, line);
    return frame;
}

void frameLineFormatting()
{
    const std::string program = moduleName();
    const char *src = "C:\\src\\app\\main.cpp";
    using KrCrash::frameLine;
    CHECK_EQ(frameLine(frameOf(program.c_str(), "main", src, "42")),
             "    at " + program + ".exe!main(main.cpp:42)\n");
    CHECK_EQ(frameLine(frameOf("kernel32", "f", src, "42")),
             "    at kernel32.dll!f(main.cpp:42)\n");
    // A module whose name only starts like the program's is another module.
    CHECK_EQ(frameLine(frameOf((program + "x").c_str(), "f", src, "42")),
             "    at " + program + "x.dll!f(main.cpp:42)\n");
    CHECK_EQ(frameLine(frameOf("somelib", "f", "N/A", "42")), "    at somelib.dll!f(:42)\n");
    CHECK_EQ(frameLine(frameOf("somelib", "f", src, "N/A")), "    at somelib.dll!f(main.cpp)\n");
    CHECK_EQ(frameLine(frameOf("somelib", "f", src, "")), "    at somelib.dll!f(main.cpp)\n");
    CHECK_EQ(frameLine(frameOf("somelib", "f", "/usr/src/x.cpp", "3")),
             "    at somelib.dll!f(x.cpp:3)\n");
    CHECK_EQ(frameLine(KrCrash::CallStackInfo()), "    at N/A.dll!N/A()\n");
}

void callStackInfoLimits()
{
    KrCrash::CallStackInfo frame;
    CHECK_EQ(std::string(frame.functionName), "N/A");
    const std::string longName(2000, 'f');
    KrCrash::CallStackInfo::setText(frame.functionName, longName.c_str());
    CHECK_EQ(std::string(frame.functionName), longName.substr(0, 1023));
    // Two-byte characters: the cut falls before the one that no longer fits whole.
    std::string wide;
    for (int i = 0; i < 1000; ++i)
        wide += "\xc3\xa9";
    KrCrash::CallStackInfo::setText(frame.fileName, wide.c_str());
    CHECK_EQ(std::string(frame.fileName), wide.substr(0, 1022));
}

void dumpIntoMissingDirectory()
{
    // CreateFileW answers INVALID_HANDLE_VALUE, which counts as created; the error is its own.
    // (Whether the dump writer then reports its failure is up to DbgHelp: wine's does not.)
    const KrCrash::DumpResult result
            = KrCrash::writeDumpFile("no-such-directory\\trelk_dump.dmp", CrashEvent());
    CHECK(result.created);
    CHECK_EQ(result.systemError, static_cast<int>(ERROR_PATH_NOT_FOUND));
}

void applicationDirectoryOfDriver()
{
    CHECK_EQ(KrCrash::applicationDirectory(),
             utf8(fs::path(executablePath()).parent_path().wstring()));
}

// ---- The tables of cases

struct InProcessCase
{
    const char *name;
    void (*run)();
};

const InProcessCase inProcessCases[] = {
        {"frame line formatting", frameLineFormatting},
        {"call stack texts are cut to 1023 bytes", callStackInfoLimits},
        {"dump into a missing directory", dumpIntoMissingDirectory},
        {"application directory", applicationDirectoryOfDriver},
};

const ChildCase childCases[] = {
        {"access-violation", accessViolation, checkAccessViolation, createOldDumps, true},
        {"access-violation-in-worker", accessViolationInWorker, checkAccessViolationInWorker},
        {"integer-divide-by-zero", integerDivideByZero, checkIntegerDivideByZero},
        {"illegal-instruction", illegalInstruction, checkIllegalInstruction},
        {"unhandled-exception-filter-result", unhandledExceptionFilterCall,
         checkUnhandledExceptionFilterResult},
        {"abort", abortCall, checkAbort, nullptr, true},
        {"terminate", terminateCall, checkTerminate},
        {"unexpected", unexpectedCall, checkUnexpected},
        {"interrupt-signal", interruptSignal, checkInterrupt},
        {"floating-point-signal", floatingPointSignal, checkFloatingPointSignal},
        {"floating-point-fault-through-runtime-filter", floatingPointFaultThroughRuntimeFilter,
         checkFloatingPointFault},
        {"allocation-failure-handler", newHandlerCall, checkNewHandler},
        {"pure-call-handler", pureCallHandlerCall, checkPureCallHandler},
        {"invalid-parameter-handler", invalidParameterHandlerCall, checkInvalidParameterHandler},
};

int runAsChild(const char *name)
{
    for (const ChildCase &childCase : childCases) {
        if (std::strcmp(childCase.name, name) != 0)
            continue;
        KrCrash::setLogSink(logToResult);
        KrCrash::installProcessHandlers(recordingRoutine);
        KrCrash::installThreadHandlers(&mainThreadTag, recordingRoutine);
        note("mainThreadId", show(GetCurrentThreadId()));
        note("applicationDirectory", KrCrash::applicationDirectory());
        caseWritesDump = childCase.writesDump;
        childCase.crash();
        return 0;
    }
    std::fprintf(stderr, "unknown case %s\n", name);
    return 2;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 3 && std::strcmp(argv[1], "--child") == 0)
        return runAsChild(argv[2]);

    int passed = 0, failed = 0;
    for (const InProcessCase &testCase : inProcessCases) {
        const int failedBefore = failedChecks;
        testCase.run();
        report(testCase.name, failedBefore) ? ++passed : ++failed;
    }
    for (const ChildCase &childCase : childCases) {
        const int failedBefore = failedChecks;
        const ChildRun run = runChild(childCase);
        if (run.finished || !run.events.empty())
            childCase.check(run);
        else
            check(false, "the child ran", __LINE__);
        std::printf("    child: %.2f s, exit code %08lX\n", run.seconds, run.exitCode);
        const bool ok = report(childCase.name, failedBefore);
        ok ? ++passed : ++failed;
        if (!ok && !run.output.empty())
            std::printf("    child output:\n%s\n", run.output.c_str());
        std::error_code error;
        fs::remove_all(run.directory, error);
    }
    std::printf("tst_crash_win: %d passed, %d failed\n", passed, failed);
    return failed == 0 ? 0 : 1;
}
