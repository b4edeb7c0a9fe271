// The Windows side of the stack walk and the dump file, on the debug-help library (DbgHelp). Free
// of Qt: it builds with mingw-w64 alone and its tests run under wine. Everything here runs in the
// crashing thread, once per crash, so DbgHelp's lack of thread safety does not matter.

#include "CrashHandler_p.h"
#include "CrashHandler_win_p.h"

#include <windows.h>

#include <dbghelp.h>

#include <cstdio>
#include <vector>

namespace KrCrash {

namespace {
void walkLog(const char *text)
{
    logLine(LogLevel::Debug, "shell/krutils/CrashHandler", "GetCallStack", text);
}

// DbgHelp's narrow lookups answer in the ANSI code page; the frames carry UTF-8.
void setAnsiText(char (&field)[CallStackInfo::TextSize], const char *text)
{
    CallStackInfo::setText(field, ansiToUtf8(text).c_str());
}

void describeFrame(HANDLE process, DWORD64 address, CallStackInfo &frame)
{
    // The symbol's name runs on behind the structure, 1024 characters at most; the buffer is
    // zeroed, and one byte longer, so that even the longest name ends in a zero.
    alignas(IMAGEHLP_SYMBOL64) char symbolBuffer[sizeof(IMAGEHLP_SYMBOL64) + 1024 + 1] = {};
    auto *symbol = reinterpret_cast<IMAGEHLP_SYMBOL64 *>(symbolBuffer);
    symbol->SizeOfStruct = sizeof(IMAGEHLP_SYMBOL64);
    symbol->MaxNameLength = 1024;
    DWORD64 symbolDisplacement = 0;
    if (SymGetSymFromAddr64(process, address, &symbolDisplacement, symbol))
        setAnsiText(frame.functionName, symbol->Name);

    IMAGEHLP_LINE64 line = {};
    line.SizeOfStruct = sizeof(line);
    DWORD lineDisplacement = 0;
    if (SymGetLineFromAddr64(process, address, &lineDisplacement, &line)) {
        setAnsiText(frame.fileName, line.FileName);
        char number[16];
        std::snprintf(number, sizeof number, "%d", static_cast<int>(line.LineNumber));
        CallStackInfo::setText(frame.lineNumber, number);
    }

    IMAGEHLP_MODULE64 module = {};
    module.SizeOfStruct = sizeof(module);
    if (SymGetModuleInfo64(process, address, &module))
        setAnsiText(frame.moduleName, module.ModuleName);
}

// The running executable's full path, however long.
std::wstring executablePath()
{
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = GetModuleFileNameW(nullptr, &path[0], static_cast<DWORD>(path.size()));
        if (length == 0)
            return std::wstring();
        if (length < path.size()) {
            path.resize(length);
            return path;
        }
        path.resize(path.size() * 2);
    }
}
} // namespace

std::string toUtf8(const wchar_t *text)
{
    if (!text || !*text)
        return std::string();
    const int size = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (size <= 1)
        return std::string();
    std::string utf8(static_cast<size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, -1, &utf8[0], size, nullptr, nullptr);
    utf8.resize(static_cast<size_t>(size) - 1);
    return utf8;
}

std::string ansiToUtf8(const char *text)
{
    if (!text)
        return std::string();
    bool ascii = true;
    for (const char *p = text; *p && ascii; ++p)
        ascii = static_cast<unsigned char>(*p) < 0x80;
    if (ascii)
        return text;
    const int size = MultiByteToWideChar(CP_ACP, 0, text, -1, nullptr, 0);
    if (size <= 1)
        return std::string();
    std::wstring wide(static_cast<size_t>(size), L'\0');
    MultiByteToWideChar(CP_ACP, 0, text, -1, &wide[0], size);
    return toUtf8(wide.c_str());
}

std::wstring toWide(const char *text)
{
    if (!text || !*text)
        return std::wstring();
    const int size = MultiByteToWideChar(CP_UTF8, 0, text, -1, nullptr, 0);
    if (size <= 1)
        return std::wstring();
    std::wstring wide(static_cast<size_t>(size), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text, -1, &wide[0], size);
    wide.resize(static_cast<size_t>(size) - 1);
    return wide;
}

std::vector<CallStackInfo> GetCallStack(const CrashEvent &event)
{
    walkLog("enter GetCallBack");
    std::vector<CallStackInfo> frames;
    const auto *pointers = static_cast<const EXCEPTION_POINTERS *>(event.platformData);
    if (!pointers || !pointers->ContextRecord)
        return frames;

    const HANDLE process = GetCurrentProcess();
    walkLog("SymInitialize");
    // DbgHelp reads line numbers only when asked to; without them every frame's file and line
    // would stay "N/A".
    SymSetOptions(SymGetOptions() | SYMOPT_LOAD_LINES);
    // Loads the symbols of every module now, so that each frame's lookups find them.
    SymInitialize(process, nullptr, TRUE);

    // StackWalk64 unwinds the context it is given; the exception's own stays as the dump needs it.
    CONTEXT context = *pointers->ContextRecord;
    STACKFRAME64 frame = {};
    frame.AddrPC.Offset = context.Rip;
    frame.AddrPC.Mode = AddrModeFlat;
    frame.AddrFrame.Offset = context.Rbp;
    frame.AddrFrame.Mode = AddrModeFlat;
    frame.AddrStack.Offset = context.Rsp;
    frame.AddrStack.Mode = AddrModeFlat;
    walkLog("GetCurrentThread");
    const HANDLE thread = GetCurrentThread();

    const auto walk = [&] {
        return StackWalk64(IMAGE_FILE_MACHINE_AMD64, process, thread, &frame, &context, nullptr,
                           SymFunctionTableAccess64, SymGetModuleBase64, nullptr);
    };
    // No limit on the number of frames: the walk ends where the stack does, or where it breaks.
    bool walked = walk();
    while (walked && frame.AddrPC.Offset != 0) {
        CallStackInfo info;
        describeFrame(process, frame.AddrPC.Offset, info);
        frames.push_back(info);
        walked = walk();
    }
    walkLog(walked ? "last stack" : "StackWalk64 fail");

    SymCleanup(process);
    walkLog("end get call stacks");
    return frames;
}

DumpResult writeDumpFile(const char *fileName, const CrashEvent &event)
{
    DumpResult result;
    const HANDLE file = CreateFileW(toWide(fileName).c_str(), GENERIC_WRITE, 0, nullptr,
                                    CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    // Deliberately tested against null only, as the crash routine has always done:
    // INVALID_HANDLE_VALUE counts as created. systemError still carries CreateFileW's error.
    if (file == nullptr) {
        result.systemError = static_cast<int>(GetLastError());
        return result;
    }
    result.created = true;
    if (file == INVALID_HANDLE_VALUE)
        result.systemError = static_cast<int>(GetLastError());

    auto *pointers = static_cast<EXCEPTION_POINTERS *>(const_cast<void *>(event.platformData));
    MINIDUMP_EXCEPTION_INFORMATION exception = {GetCurrentThreadId(), pointers, FALSE};
    // Without exception pointers the dump still holds the process, only no exception stream.
    result.written = MiniDumpWriteDump(GetCurrentProcess(), GetCurrentProcessId(), file,
                                       MiniDumpWithFullMemory, pointers ? &exception : nullptr,
                                       nullptr, nullptr)
            != FALSE;
    if (!result.written && result.systemError == 0)
        result.systemError = static_cast<int>(GetLastError());
    CloseHandle(file);
    return result;
}

std::string applicationDirectory()
{
    const std::wstring path = executablePath();
    const size_t separator = path.find_last_of(L"\\/");
    return toUtf8(separator == std::wstring::npos ? L"" : path.substr(0, separator).c_str());
}

std::string displayModuleName(const char *moduleName)
{
    // At most 256 characters of the program's path, as the crash routine has always read it: a
    // longer path is cut, and its program then shows as a ".dll".
    wchar_t path[256] = {};
    GetModuleFileNameW(nullptr, path, 256);
    path[255] = L'\0'; // older systems leave a cut path unterminated
    std::string programName = toUtf8(path);
    programName.erase(0, programName.rfind('\\') + 1);
    const size_t dot = programName.rfind('.');
    if (dot != std::string::npos)
        programName.erase(dot);

    std::string name = moduleName ? moduleName : "";
    name += name == programName ? ".exe" : ".dll";
    return name;
}

} // namespace KrCrash
