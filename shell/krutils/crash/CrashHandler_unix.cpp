// Linux side of the stack walk and the dump file. The signal handler has already stepped the
// stack (program counters only, see CompleteExceptionHandler_unix.cpp); here, on the
// crash-reporting thread, libdw names each address from the ELF symbol tables and DWARF line
// tables of the loaded objects, which needs memory and a large stack that a handler has not.

#include "CompleteExceptionHandler_unix_p.h"

#include <elfutils/libdwfl.h>

#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <memory>
#include <string>
#include <unistd.h>

namespace KrCrash {

namespace {
const char Source[] = "shell/krutils/CrashHandler";

void log(const char *text)
{
    logLine(LogLevel::Debug, Source, "GetCallStack", text);
}

// "ns::Type::method(int) const" -> "ns::Type::method": frame lines show a function as the Windows
// debug-help library names it, without its parameters.
std::string withoutParameters(const std::string &name)
{
    if (name.empty() || name.back() == '>')
        return name;
    const size_t close = name.rfind(')');
    if (close == std::string::npos)
        return name;
    int depth = 0;
    for (size_t i = close + 1; i-- > 0;) {
        if (name[i] == ')')
            ++depth;
        else if (name[i] == '(' && --depth == 0)
            return i > 0 ? name.substr(0, i) : name;
    }
    return name;
}

std::string readableName(const char *symbol)
{
    // "__libc_start_main@@GLIBC_2.34": the symbol version is not part of the name.
    const std::string plain(symbol, std::strcspn(symbol, "@"));
    symbol = plain.c_str();
    int status = -1;
    std::unique_ptr<char, decltype(&std::free)> demangled(
            abi::__cxa_demangle(symbol, nullptr, nullptr, &status), &std::free);
    return status == 0 && demangled ? withoutParameters(demangled.get()) : std::string(symbol);
}

const char *baseName(const char *path)
{
    const char *slash = std::strrchr(path, '/');
    return slash ? slash + 1 : path;
}

struct DwflDeleter
{
    void operator()(Dwfl *dwfl) const { dwfl_end(dwfl); }
};
} // namespace

std::vector<CallStackInfo> GetCallStack(const CrashEvent &event)
{
    std::vector<CallStackInfo> frames;
    log("enter GetCallBack");
    const auto *crash = static_cast<const CapturedCrash *>(event.platformData);
    if (!crash || crash->frameCount == 0) {
        log("last stack");
        log("end get call stacks");
        return frames;
    }

    log("SymInitialize");
    static const Dwfl_Callbacks callbacks
            = {dwfl_linux_proc_find_elf, dwfl_standard_find_debuginfo, nullptr, nullptr};
    std::unique_ptr<Dwfl, DwflDeleter> dwfl(dwfl_begin(&callbacks));
    if (dwfl) {
        if (dwfl_linux_proc_report(dwfl.get(), getpid()) != 0
            || dwfl_report_end(dwfl.get(), nullptr, nullptr) != 0)
            dwfl.reset();
    }

    frames.reserve(static_cast<size_t>(crash->frameCount));
    for (int i = 0; i < crash->frameCount; ++i) {
        CallStackInfo frame;
        // A return address belongs to the instruction after the call; look up the call itself.
        // The first frame of a signal is the faulting instruction.
        const bool exact = i == 0 && crash->fromSignal;
        const Dwarf_Addr address = crash->frames[i] - (exact || crash->frames[i] == 0 ? 0 : 1);
        if (Dwfl_Module *module = dwfl ? dwfl_addrmodule(dwfl.get(), address) : nullptr) {
            if (const char *symbol = dwfl_module_addrname(module, address))
                CallStackInfo::setText(frame.functionName, readableName(symbol).c_str());
            int line = 0;
            if (Dwfl_Line *lineInfo = dwfl_module_getsrc(module, address)) {
                if (const char *file
                    = dwfl_lineinfo(lineInfo, nullptr, &line, nullptr, nullptr, nullptr)) {
                    CallStackInfo::setText(frame.fileName, file);
                    CallStackInfo::setText(frame.lineNumber, std::to_string(line).c_str());
                }
            }
            if (const char *name = dwfl_module_info(module, nullptr, nullptr, nullptr, nullptr,
                                                    nullptr, nullptr, nullptr))
                CallStackInfo::setText(frame.moduleName, baseName(name));
        }
        frames.push_back(frame);
    }
    log("last stack");
    log("end get call stacks");
    return frames;
}

DumpResult writeDumpFile(const char *fileName, const CrashEvent &event)
{
    const auto *crash = static_cast<const CapturedCrash *>(event.platformData);
    return crash ? requestDumpFromCrashingThread(fileName, *crash) : DumpResult {};
}

std::string applicationDirectory()
{
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0)
        return std::string();
    const std::string executable(path, static_cast<size_t>(length));
    const size_t slash = executable.rfind('/');
    return slash == 0 ? std::string("/") : executable.substr(0, slash);
}

std::string displayModuleName(const char *moduleName)
{
    return moduleName;
}

} // namespace KrCrash
