// The parts of the stack walk and the dump retention that both platforms share. Free of Qt: the
// Windows build of this file runs under wine in the tests.

#include "CrashHandler_p.h"

#include <atomic>
#include <cstring>
#include <filesystem>
#include <map>
#include <system_error>

namespace KrCrash {

namespace {
const char NotAvailable[] = "N/A";

std::atomic<LogSink> logSink {nullptr};

// The text after the last directory separator; both kinds are accepted, since DWARF and PDB
// paths may carry either.
const char *baseName(const char *path)
{
    const char *name = path;
    for (const char *p = path; *p; ++p) {
        if (*p == '/' || *p == '\\')
            name = p + 1;
    }
    return name;
}
} // namespace

void setLogSink(LogSink sink)
{
    logSink.store(sink);
}

void logLine(LogLevel level, const char *source, const char *function, const char *text)
{
    if (const LogSink sink = logSink.load())
        sink(level, source, function, text);
}

CallStackInfo::CallStackInfo()
{
    setText(moduleName, NotAvailable);
    setText(functionName, NotAvailable);
    setText(fileName, NotAvailable);
    setText(lineNumber, NotAvailable);
}

void CallStackInfo::setText(char (&field)[TextSize], const char *text)
{
    size_t length = text ? std::strlen(text) : 0;
    if (length >= TextSize) {
        length = TextSize - 1;
        // Never leave half a UTF-8 sequence at the end.
        while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80)
            --length;
    }
    if (length)
        std::memcpy(field, text, length);
    field[length] = '\0';
}

std::string frameLine(const CallStackInfo &frame)
{
    std::string line = "    at ";
    line += displayModuleName(frame.moduleName);
    line += '!';
    line += frame.functionName;
    line += '(';
    if (std::strcmp(frame.fileName, NotAvailable) != 0)
        line += baseName(frame.fileName);
    if (frame.lineNumber[0] && std::strcmp(frame.lineNumber, NotAvailable) != 0) {
        line += ':';
        line += frame.lineNumber;
    }
    line += ")\n";
    return line;
}

void pruneDumpFiles(const std::string &directory, int keep)
{
    namespace fs = std::filesystem;
    std::error_code error;
    fs::directory_iterator it(fs::u8path(directory), error), end;
    if (error)
        return;

    std::map<fs::file_time_type, fs::path> dumps; // oldest first
    for (; it != end; it.increment(error)) {
        if (error)
            break;
        const fs::path &path = it->path();
        if (path.extension() != ".dmp" || !it->is_regular_file(error))
            continue;
        const fs::file_time_type modified = it->last_write_time(error);
        if (!error)
            dumps[modified] = path;
    }
    while (dumps.size() > static_cast<size_t>(keep < 0 ? 0 : keep)) {
        fs::remove(dumps.begin()->second, error);
        dumps.erase(dumps.begin());
    }
}

} // namespace KrCrash
