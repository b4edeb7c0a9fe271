#ifndef CRASHHANDLER_P_H
#define CRASHHANDLER_P_H

// Internal: the two heavy tools of the crash routine, free of Qt like the rest of the platform
// layer (see CompleteExceptionHandler_p.h): the stack walk, and the dump file with its retention.
// CrashHandler.cpp holds what both platforms share; CrashHandler_win.cpp and CrashHandler_unix.cpp
// the rest.

#include "CompleteExceptionHandler_p.h"

#include <string>
#include <vector>

namespace KrCrash {

// One frame of a call stack. Every field starts as "N/A" and keeps it when its lookup fails; a
// longer text is cut to 1023 bytes (at a UTF-8 character boundary).
struct CallStackInfo
{
    static constexpr int TextSize = 1024;

    CallStackInfo();
    static void setText(char (&field)[TextSize], const char *text);

    char moduleName[TextSize];
    char functionName[TextSize];
    char fileName[TextSize]; // with its directory
    char lineNumber[TextSize]; // decimal
};

// The frames of the crashing thread, innermost first. Empty when the event carries no context to
// walk from (the synthetic events of the Windows runtime handlers).
std::vector<CallStackInfo> GetCallStack(const CrashEvent &event);

// "    at module!function(file:line)\n". Windows shows the module as "name.exe" for the main
// program and "name.dll" otherwise; Linux shows the ELF object's file name as it is. The file
// is shown without its directory; "(file:line)" loses the parts that are "N/A".
std::string frameLine(const CallStackInfo &frame);

struct DumpResult
{
    bool created = false; // the file was created (Windows: the handle is not null)
    bool written = false; // the dump writer reported success
    int systemError = 0; // errno or GetLastError() of the first failure
};

// Creates `fileName` (relative names land in the working directory) and writes a full-memory
// minidump of the crashing process into it, with the event's exception and thread.
DumpResult writeDumpFile(const char *fileName, const CrashEvent &event);

// Keeps the `keep` newest "*.dmp" files of `directory` (by last-modified time) and deletes the
// rest. Of several files with the same time only the last listed takes part; the others are
// neither counted nor deleted.
void pruneDumpFiles(const std::string &directory, int keep = 6);

// The directory of the running executable (UTF-8), where pruning looks.
std::string applicationDirectory();

// Platform part of frameLine(): how a module is named in a frame line.
std::string displayModuleName(const char *moduleName);

// The layer's progress lines ("GetCallStack" "SymInitialize", ...) go to a sink that the Qt side
// sets (the library's log) and that the Windows test sets to its own output. Never called from a
// signal handler.
enum class LogLevel { Debug, Warning };
using LogSink
        = void (*)(LogLevel level, const char *source, const char *function, const char *text);
void setLogSink(LogSink sink);
// Writes one line to the sink, if any; `source` is the class file, "shell/krutils/CrashHandler".
void logLine(LogLevel level, const char *source, const char *function, const char *text);

} // namespace KrCrash

#endif // CRASHHANDLER_P_H
