// The Windows side of crash interception, cross-compiled with mingw-w64 and run under wine.
//
// Run without arguments, the driver makes its in-process checks, then runs itself as a child
// process per crash case ("--child <case>"), each in a fresh directory that holds a copy of the
// program, so that the application directory and the working directory are the same. The child
// installs the handlers with a crash routine of its own that writes everything it receives into
// a result file, and then crashes; the parent reads the file and checks it against the case's row.

#include "CompleteExceptionHandler_p.h"
#include "CrashHandler_p.h"
#include "CrashHandler_win_p.h"
#include "WinTestChecks.h"

#include <windows.h>

#include <float.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
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

fs::path executablePath()
{
    wchar_t path[MAX_PATH * 4] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH * 4);
    return path;
}

// The program's module name: its file name without ".exe".
std::string moduleName()
{
    return KrCrash::toUtf8(executablePath().stem().c_str());
}

// ---- The child: the crash routine and the crashes

const char ResultFileName[] = "crash-result.txt";
// Not ASCII, so that the file name goes through the UTF-8 conversion on its way to CreateFileW.
const char DumpFileName[] = "trelk_dump-\xe6\xb5\x8b\xe8\xaf\x95.dmp";

int mainThreadTag;
int workerThreadTag;
bool caseWritesDump; // from the case's row

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
    const auto text = [](const char *given) { return given ? given : "<null>"; };
    std::ostringstream fields; // the handler, then "key=value" words
    fields << handlerNames[static_cast<int>(event.handler)] << " signal=" << event.signalNumber
           << " subCode=" << event.subCode << " expression=" << text(event.expression)
           << " function=" << text(event.function) << " file=" << text(event.file)
           << " line=" << event.line << " threadId=" << event.threadId << " threadTag="
           << (event.threadTag == &workerThreadTag         ? "worker"
                       : event.threadTag == &mainThreadTag ? "main"
                                                           : "other")
           << " inCrashingThread=" << event.inCrashingThread
           << " platformData=" << (event.platformData != nullptr)
           << " runtimePointers=" << (event.platformData == _pxcptinfoptrs);
    if (event.record)
        fields << " code=" << hex(event.record->code, 8) << " flags=" << hex(event.record->flags, 8)
               << " address=" << hex(event.record->address, 16);
    if (KrCrash::dumpWanted(event.handler) && caseWritesDump && events == 1) {
        const KrCrash::DumpResult dump = KrCrash::writeDumpFile(DumpFileName, event);
        fields << " dumpCreated=" << dump.created << " dumpWritten=" << dump.written
               << " dumpError=" << dump.systemError;
        KrCrash::pruneDumpFiles(KrCrash::applicationDirectory());
    }
    note("event", fields.str()); // before the walk's lines
    const std::vector<KrCrash::CallStackInfo> frames = KrCrash::GetCallStack(event);
    for (const KrCrash::CallStackInfo &frame : frames) {
        std::string line = KrCrash::frameLine(frame);
        line.pop_back(); // the newline
        note("frame", line);
    }
    note("end", show(frames.size()));
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

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
void unexpectedCall()
{
    std::unexpected();
}
#pragma GCC diagnostic pop

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

// The filter, called as the system calls it, must let the search go on whatever the routine did.
void unhandledExceptionFilterCall()
{
    const LPTOP_LEVEL_EXCEPTION_FILTER filter = SetUnhandledExceptionFilter(nullptr);
    CONTEXT context = {};
    RtlCaptureContext(&context);
    // An application's own code.
    EXCEPTION_RECORD record = {0xE0000001, EXCEPTION_NONCONTINUABLE,
                               nullptr,    reinterpret_cast<void *>(context.Rip),
                               0,          {}};
    EXCEPTION_POINTERS pointers = {&record, &context};
    note("filterResult", show(filter(&pointers)));
}

// What MSVC's start-up code does with a floating-point fault in the main thread: it hands the
// exception to the runtime's filter, which calls the SIGFPE handler with the sub-code and with
// the exception pointers in _pxcptinfoptrs. g++'s start-up code never calls that filter, so the
// child does, with a fault of its own making.
NOINLINE void floatingPointFaultThroughRuntimeFilter()
{
    CONTEXT context = {};
    RtlCaptureContext(&context);
    EXCEPTION_RECORD record = {EXCEPTION_FLT_DIVIDE_BY_ZERO,          0, nullptr,
                               reinterpret_cast<void *>(context.Rip), 0, {}};
    EXCEPTION_POINTERS pointers = {&record, &context};
    note("filterResult", show(_XcptFilter(EXCEPTION_FLT_DIVIDE_BY_ZERO, &pointers)));
}

// g++ never reaches the pure-call and invalid-parameter handlers through the runtime, so the
// children call them as the runtime would, taken from where the handlers were installed.
NOINLINE void pureCallHandlerCall()
{
    if (const _purecall_handler handler = _set_purecall_handler(nullptr))
        handler();
}

void invalidParameterHandlerCall()
{
    const _invalid_parameter_handler handler = _get_invalid_parameter_handler();
    handler(L"e", L"f", L"g", 7, 0);
    // "表达式" in UTF-16; function and line not given, as the release runtime passes them.
    handler(L"\u8868\u8fbe\u5f0f", nullptr, L"C:\\src\\file.cpp", 0, 0);
}

// ---- The parent: running a child and reading its result

using Fields = std::map<std::string, std::string>;

struct Event
{
    Fields fields;
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
    Event notes; // written outside the routine
    std::vector<Event> events;
};

// "key=value" words, and a word without "=" for the event's handler; "synthetic" stands for the
// exception pointers of the runtime's handlers: code 0, non-continuable, no frame to walk.
Fields parseFields(const std::string &text)
{
    Fields fields;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        const size_t equals = word.find('=');
        if (word == "synthetic")
            fields.insert({{"code", "00000000"}, {"flags", "00000001"}, {"frames", "0"}});
        else if (equals == std::string::npos)
            fields["event"] = word;
        else
            fields[word.substr(0, equals)] = word.substr(equals + 1);
    }
    return fields;
}

void readResult(ChildRun &run)
{
    std::ifstream in(run.directory / ResultFileName, std::ios::binary);
    Event *event = &run.notes;
    for (std::string line; std::getline(in, line);) {
        const size_t equals = line.find('=');
        const std::string key = line.substr(0, equals), value = line.substr(equals + 1);
        if (key == "event") {
            event = &run.events.emplace_back();
            event->fields = parseFields(value);
        } else if (key == "end") {
            event->fields["frames"] = value;
            event = &run.notes;
        } else if (key == "frame") {
            event->frames.push_back(value);
        } else if (key == "log") {
            event->logs.push_back(value);
        } else {
            event->fields[key] = value;
        }
    }
}

// A crash case: what the child does, and what the parent expects of it.
struct ChildCase
{
    const char *name;
    void (*crash)(); // in the child, which notes "returned=1" if it returns
    // Where the last event's address lies: a fault's function, a handler's caller.
    const void *function;
    // The events the routine receives, ";" between them, as parseFields() reads them.
    const char *events;
    // The last event's first frames: "function" or "function:line", in this file.
    std::string frames = "";
    // "key=value" notes written outside the routine.
    const char *notes = "";
    int options = 0;
};

enum Option { WritesDump = 1, WithOlderDumps = 2 };

template<typename Function> const void *address(Function *function)
{
    return reinterpret_cast<const void *>(function);
}

const ChildCase childCases[] = {
        {"access-violation", [] { callWriteThroughNull(); }, address(&writeThroughNull),
         "Seh code=C0000005 flags=00000000",
         "writeThroughNull:" + std::to_string(NullWriteLine) + " callWriteThroughNull", "",
         WritesDump | WithOlderDumps},
        {"access-violation-in-worker", accessViolationInWorker, nullptr,
         "Seh code=C0000005 threadTag=worker", "writeThroughNull callWriteThroughNull"},
        // mingw-w64's start-up code gives the image an exception handler of its own, which passes
        // the fault to the SIGFPE handler first, with no exception pointers (and garbage for the
        // sub-code). It resets the handler and resumes; the division faults again, to the filter.
        {"integer-divide-by-zero", [] { divideByZero(); }, address(&divideByZero),
         "SigFpe signal=8 platformData=0; Seh code=C0000094 flags=00000000", "divideByZero"},
        {"illegal-instruction", executeIllegalInstruction, address(&executeIllegalInstruction),
         "Seh code=C000001D flags=00000000", "executeIllegalInstruction"},
        // EXCEPTION_CONTINUE_SEARCH
        {"unhandled-exception-filter-result", unhandledExceptionFilterCall, nullptr,
         "Seh code=E0000001 flags=00000001", "", "filterResult=0"},
        {"abort", [] { std::abort(); }, nullptr, "SigAbrt synthetic", "", "", WritesDump},
        // The runtime goes on after each handler: terminate() aborts, unexpected() terminates.
        {"terminate", [] { std::terminate(); }, nullptr, "Terminate synthetic; SigAbrt synthetic"},
        {"unexpected", unexpectedCall, nullptr,
         "Unexpected synthetic; Terminate synthetic; SigAbrt synthetic"},
        {"interrupt-signal", [] { std::raise(SIGINT); }, nullptr, "SigInt synthetic", "",
         "returned=1"},
        // raise() passes _FPE_EXPLICITGEN (140) and sets no exception pointers.
        {"floating-point-signal", [] { std::raise(SIGFPE); }, nullptr,
         "SigFpe signal=8 subCode=140 platformData=0 runtimePointers=1", "", "returned=1"},
        // _FPE_ZERODIVIDE (131); the filter answers EXCEPTION_CONTINUE_EXECUTION.
        {"floating-point-fault-through-runtime-filter", floatingPointFaultThroughRuntimeFilter,
         address(&floatingPointFaultThroughRuntimeFilter),
         "SigFpe signal=8 subCode=131 code=C000008E flags=00000000 runtimePointers=1",
         "floatingPointFaultThroughRuntimeFilter", "filterResult=-1"},
        // msvcrt's own allocation-failure path, as MSVC's operator new and malloc in new mode 1
        // take it.
        {"allocation-failure-handler", [] { note("callnewh", show(_callnewh(64))); }, nullptr,
         "NewFailure synthetic", "", "callnewh=0"},
        {"pure-call-handler", pureCallHandlerCall, address(&pureCallHandlerCall),
         "PureCall synthetic", "", "returned=1"},
        {"invalid-parameter-handler", invalidParameterHandlerCall, nullptr,
         "InvalidParameter synthetic expression=e function=f file=g line=7; InvalidParameter "
         "synthetic expression=\xe8\xa1\xa8\xe8\xbe\xbe\xe5\xbc\x8f function=<null> "
         "file=C:\\src\\file.cpp line=0"},
};

void createOldDumps(const fs::path &directory)
{
    const auto now = fs::file_time_type::clock::now();
    for (int i = 1; i <= 7; ++i) {
        const fs::path path = directory / ("old-" + std::to_string(i) + ".dmp");
        std::ofstream(path) << "old dump " << i;
        fs::last_write_time(path, now - std::chrono::hours(8 - i)); // old-1 is the oldest
    }
}

ChildRun runChild(const ChildCase &childCase, int number)
{
    ChildRun run;
    // Not ASCII either, so that the application directory goes through the conversions.
    wchar_t temp[MAX_PATH + 1] = {};
    GetTempPathW(MAX_PATH + 1, temp);
    run.directory = fs::path(temp)
            / (L"krcrash-\u6d4b\u8bd5-" + std::to_wstring(GetCurrentProcessId()) + L"-"
               + std::to_wstring(number));
    std::error_code error;
    fs::remove_all(run.directory, error);
    fs::create_directories(run.directory, error);
    const fs::path program = run.directory / executablePath().filename();
    if (!CopyFileW(executablePath().c_str(), program.c_str(), FALSE))
        return run;
    if (childCase.options & WithOlderDumps)
        createOldDumps(run.directory);

    // The child's output goes to the driver's own.
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    std::wstring commandLine
            = L"\"" + program.wstring() + L"\" --child " + KrCrash::toWide(childCase.name);
    PROCESS_INFORMATION process = {};
    if (CreateProcessW(program.c_str(), &commandLine[0], nullptr, nullptr, TRUE, 0, nullptr,
                       run.directory.c_str(), &startup, &process)) {
        run.finished = WaitForSingleObject(process.hProcess, 60000) == WAIT_OBJECT_0;
        if (!run.finished)
            TerminateProcess(process.hProcess, 1);
        CloseHandle(process.hThread);
        CloseHandle(process.hProcess);
    }
    readResult(run);
    return run;
}

// The stack walk's progress lines: the fixed start, one of the two ends (wine's walk fails past
// the thread's start routine instead of reaching a zero address), the fixed last line.
void checkWalkLog(const Event &event)
{
    const std::string walk = "shell/krutils/CrashHandler GetCallStack ";
    if (!CHECK_EQ(event.logs.size(), 5u))
        return;
    CHECK_EQ(event.logs[0], walk + "enter GetCallBack");
    CHECK_EQ(event.logs[1], walk + "SymInitialize");
    CHECK_EQ(event.logs[2], walk + "GetCurrentThread");
    CHECK(event.logs[3] == walk + "last stack" || event.logs[3] == walk + "StackWalk64 fail");
    CHECK_EQ(event.logs[4], walk + "end get call stacks");
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
    if (!CHECK_EQ(hex(read32(0), 8), "504D444D")) // "MDMP"
        return;
    const uint32_t Memory64ListStream = 9, ExceptionStream = 6;
    std::set<uint32_t> types;
    for (uint32_t i = 0; i < read32(8) && i < 64; ++i) {
        const uint32_t entry = read32(12) + 12 * i, rva = read32(entry + 8);
        types.insert(read32(entry));
        if (read32(entry) != ExceptionStream)
            continue;
        // Thread id, alignment, then the exception record: code, flags, nested record, address.
        CHECK_EQ(show(read32(rva)), event["threadId"]);
        CHECK_EQ(hex(read32(rva + 8), 8), event["code"]);
        CHECK_EQ(hex(read32(rva + 12), 8), event["flags"]);
        CHECK_EQ(hex(read32(rva + 24) | uint64_t(read32(rva + 28)) << 32, 16), event["address"]);
    }
    CHECK(types.count(Memory64ListStream) && types.count(ExceptionStream));
}

void checkChild(const ChildCase &childCase, const ChildRun &run)
{
    std::vector<std::string> events;
    std::istringstream list(childCase.events);
    for (std::string event; std::getline(list, event, ';');)
        events.push_back(event);
    if (!CHECK_EQ(run.events.size(), events.size()))
        return;
    for (size_t i = 0; i < events.size(); ++i) {
        const Event &event = run.events[i];
        // What every event carries, then the row's own fields.
        Fields expected
                = parseFields("threadTag=main inCrashingThread=1 platformData=1 " + events[i]);
        for (const auto &[key, value] : expected)
            CHECK_EQ(key + '=' + event[key], key + '=' + value);
        CHECK_EQ(event["threadId"], run.notes[expected["threadTag"] + "ThreadId"]);
        if (event.fields.count("address"))
            CHECK(parseHex(event["address"]) != 0);
        if (expected["platformData"] == "1")
            checkWalkLog(event);
    }
    const Event &last = run.events.back();
    std::istringstream frames(childCase.frames);
    size_t index = 0;
    for (std::string frame; frames >> frame; ++index) {
        const size_t colon = frame.find(':'); // a line given, or any line
        const std::string expected = "    at " + moduleName() + ".exe!" + frame.substr(0, colon)
                + "(tst_crash_win.cpp:"
                + (colon == std::string::npos ? "" : frame.substr(colon + 1) + ")");
        if (CHECK(index < last.frames.size()))
            CHECK_EQ(last.frames[index].substr(0, expected.size()), expected);
    }
    if (const uint64_t start = parseHex(run.notes["crashFunction"])) {
        const uint64_t address = parseHex(last["address"]);
        CHECK(address >= start && address < start + 256);
    }
    for (const auto &[key, value] : parseFields(childCase.notes))
        CHECK_EQ(key + '=' + run.notes[key], key + '=' + value);
    if (childCase.options & WritesDump)
        checkDumpFile(run, run.events[0]);
    if (childCase.options & WithOlderDumps) {
        // The new dump and the five newest of the seven older ones.
        std::set<std::string> dumps;
        for (const fs::directory_entry &entry : fs::directory_iterator(run.directory)) {
            if (entry.path().extension() == ".dmp")
                dumps.insert(KrCrash::toUtf8(entry.path().filename().c_str()));
        }
        CHECK(dumps
              == std::set<std::string>({DumpFileName, "old-3.dmp", "old-4.dmp", "old-5.dmp",
                                        "old-6.dmp", "old-7.dmp"}));
        CHECK_EQ(run.notes["applicationDirectory"], KrCrash::toUtf8(run.directory.c_str()));
    }
}

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
        note("crashFunction", hex(reinterpret_cast<uintptr_t>(childCase.function), 16));
        caseWritesDump = childCase.options & WritesDump;
        childCase.crash();
        note("returned", "1");
        return 0;
    }
    return 2; // no such case
}

// ---- In-process checks

void frameLines()
{
    const std::string program = moduleName();
    const char *src = "C:\\src\\app\\main.cpp";
    std::string wide; // two-byte characters: a text is cut before the one that no longer fits
    for (int i = 0; i < 1000; ++i)
        wide += "\xc3\xa9";
    const struct
    {
        std::string module, function, file, line, expected;
    } rows[] = {
            {program, "main", src, "42", "    at " + program + ".exe!main(main.cpp:42)\n"},
            {"kernel32", "f", src, "42", "    at kernel32.dll!f(main.cpp:42)\n"},
            // A module whose name only starts like the program's is another module.
            {program + "x", "f", src, "42", "    at " + program + "x.dll!f(main.cpp:42)\n"},
            {"somelib", "f", "N/A", "42", "    at somelib.dll!f(:42)\n"},
            {"somelib", "f", src, "N/A", "    at somelib.dll!f(main.cpp)\n"},
            {"somelib", "f", src, "", "    at somelib.dll!f(main.cpp)\n"},
            {"somelib", "f", "/usr/src/x.cpp", "3", "    at somelib.dll!f(x.cpp:3)\n"},
            // Every text is cut to 1023 bytes.
            {std::string(2000, 'm'), "f", "N/A", "1",
             "    at " + std::string(1023, 'm') + ".dll!f(:1)\n"},
            {"m", "f", wide, "1", "    at m.dll!f(" + wide.substr(0, 1022) + ":1)\n"},
    };
    for (const auto &row : rows) {
        KrCrash::CallStackInfo frame;
        KrCrash::CallStackInfo::setText(frame.moduleName, row.module.c_str());
        KrCrash::CallStackInfo::setText(frame.functionName, row.function.c_str());
        KrCrash::CallStackInfo::setText(frame.fileName, row.file.c_str());
        KrCrash::CallStackInfo::setText(frame.lineNumber, row.line.c_str());
        CHECK_EQ(KrCrash::frameLine(frame), row.expected);
    }
    CHECK_EQ(KrCrash::frameLine(KrCrash::CallStackInfo()), "    at N/A.dll!N/A()\n"); // untouched
}

void dumpFilesAndDirectories()
{
    // CreateFileW answers INVALID_HANDLE_VALUE, which counts as created; the error is its own.
    // (Whether the dump writer then reports its failure is up to DbgHelp: wine's does not.)
    const KrCrash::DumpResult result
            = KrCrash::writeDumpFile("no-such-directory\\trelk_dump.dmp", CrashEvent());
    CHECK(result.created);
    CHECK_EQ(result.systemError, static_cast<int>(ERROR_PATH_NOT_FOUND));
    CHECK_EQ(KrCrash::applicationDirectory(),
             KrCrash::toUtf8(executablePath().parent_path().c_str()));
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 3 && std::strcmp(argv[1], "--child") == 0)
        return runAsChild(argv[2]);

    runCase("frame lines, their texts cut to 1023 bytes", frameLines);
    runCase("dump files and directories", dumpFilesAndDirectories);
    int number = 0;
    for (const ChildCase &childCase : childCases) {
        runCase(childCase.name, [&] {
            const ChildRun run = runChild(childCase, ++number);
            if (CHECK(run.finished || !run.events.empty()))
                checkChild(childCase, run);
            std::error_code error;
            fs::remove_all(run.directory, error);
        });
    }
    return failedChecks == 0 ? 0 : 1;
}
