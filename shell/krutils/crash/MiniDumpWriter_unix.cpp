// The minidump writer of the Linux crash interception: see MiniDumpWriter_p.h. Everything here
// may run in a signal handler while the process is broken: system calls and the static state
// below only. The file's output is a MiniDumpFile, the process's mappings and modules come from a
// ProcessMemoryMap; this file writes the streams.

#include "MiniDumpWriter_p.h"

#include "MiniDumpFile_unix_p.h"
#include "ProcessMemoryMap_unix_p.h"
#include "SignalSafe_unix_p.h"

#include <cpuid.h>
#include <elf.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace KrCrash {

namespace {

using namespace MiniDumpFormat;
using namespace MiniDumpLimits;
using namespace SignalSafe;

static_assert(sizeof(_libc_fpstate) == 512, "FXSAVE area");

// The x86-64 ABI lets a function use 128 bytes below the stack pointer without moving it.
constexpr uint64_t RedZone = 128;

// A region of the memory list: adjacent mappings merged into one.
struct Region
{
    uint64_t start;
    uint64_t end;
    uint32_t rva; // 0: left out
    bool holdsStack;
};

// ---------------------------------------------------------------------------------------------
// The writer's state: all of it in static storage with internal linkage, and all of it in this
// unit. A dump is written while the process may be broken (inside malloc, with any lock held, on
// a small alternate stack), so nothing may be allocated, and the tables (over a megabyte) do not
// fit on a stack. Kept together, it is started afresh in one place (writeMiniDump()) and covered
// by one rule: one call at a time, which the caller guarantees. MiniDumpFile and ProcessMemoryMap
// are trivial types whose only instances live here: no constructor runs before a crash, and no
// other unit can touch them while a dump is written.

struct State
{
    pid_t pid;
    pid_t tid; // the crashing thread
    uint64_t mainProgramHeaders; // AT_PHDR
    size_t regionCount;
};

State g;
MiniDumpFile file;
ProcessMemoryMap process;
Region regions[MaxMappings];
MdContextAmd64 context;
char chunk[64 * 1024]; // streamed files, batches of the memory info list
char text[1024]; // short texts: the CSD version, paths
static_assert(std::is_trivial_v<MiniDumpFile> && std::is_trivial_v<ProcessMemoryMap>,
              "static state that no constructor sets up");

// ---------------------------------------------------------------------------------------------
// The context, the exception and the process.

void fillContext(const MiniDumpRequest &request)
{
    std::memset(&context, 0, sizeof context);
    const mcontext_t &m = request.context->uc_mcontext;
    const greg_t *r = m.gregs;
    context.contextFlags = ContextFlags;
    context.rax = uint64_t(r[REG_RAX]);
    context.rcx = uint64_t(r[REG_RCX]);
    context.rdx = uint64_t(r[REG_RDX]);
    context.rbx = uint64_t(r[REG_RBX]);
    context.rsp = uint64_t(r[REG_RSP]);
    context.rbp = uint64_t(r[REG_RBP]);
    context.rsi = uint64_t(r[REG_RSI]);
    context.rdi = uint64_t(r[REG_RDI]);
    context.r8 = uint64_t(r[REG_R8]);
    context.r9 = uint64_t(r[REG_R9]);
    context.r10 = uint64_t(r[REG_R10]);
    context.r11 = uint64_t(r[REG_R11]);
    context.r12 = uint64_t(r[REG_R12]);
    context.r13 = uint64_t(r[REG_R13]);
    context.r14 = uint64_t(r[REG_R14]);
    context.r15 = uint64_t(r[REG_R15]);
    context.rip = uint64_t(r[REG_RIP]);
    if (request.signal) {
        // A signal frame: the kernel saved everything, the FP state as FXSAVE (then XSAVE) layout.
        context.eflags = uint32_t(r[REG_EFL]);
        const uint64_t segments = uint64_t(r[REG_CSGSFS]); // cs, gs, fs, ss
        context.cs = uint16_t(segments);
        context.gs = uint16_t(segments >> 16);
        context.fs = uint16_t(segments >> 32);
        if (request.context->uc_flags & 0x2 /* UC_SIGCONTEXT_SS */)
            context.ss = uint16_t(segments >> 48);
        // Read without faulting: a context handed over from another thread may point at a
        // frame that is gone.
        if (m.fpregs
            && process.read(reinterpret_cast<uint64_t>(m.fpregs), context.fltSave,
                            sizeof context.fltSave))
            std::memcpy(&context.mxCsr, context.fltSave + 24, sizeof context.mxCsr);
    } else {
        // getcontext(): the selectors are not saved, but a 64-bit Linux thread runs with these;
        // the FP state is an FNSTENV image plus MXCSR, of which the control word and MXCSR fit.
        context.cs = 0x33;
        context.ss = 0x2B;
        uint8_t head[28];
        if (m.fpregs && process.read(reinterpret_cast<uint64_t>(m.fpregs), head, sizeof head)) {
            std::memcpy(context.fltSave, head, 2); // FCW
            std::memcpy(context.fltSave + 24, head + 24, 4); // MXCSR
            std::memcpy(&context.mxCsr, head + 24, 4);
        }
    }
}

void writeExceptionStream(const MiniDumpRequest &request, MdLocation contextLocation)
{
    MdExceptionStream stream;
    std::memset(&stream, 0, sizeof stream);
    stream.threadId = uint32_t(g.tid);
    stream.exceptionRecord.exceptionAddress = context.rip;
    if (const siginfo_t *info = request.signal) {
        stream.exceptionRecord.exceptionCode = uint32_t(info->si_signo);
        stream.exceptionRecord.exceptionFlags = uint32_t(info->si_code);
        const int signo = info->si_signo;
        const bool fault = signo == SIGSEGV || signo == SIGBUS || signo == SIGILL || signo == SIGFPE
                || signo == SIGTRAP;
        if (fault && info->si_code > 0)
            stream.exceptionRecord.exceptionAddress = reinterpret_cast<uint64_t>(info->si_addr);
    } else {
        stream.exceptionRecord.exceptionCode = DumpRequested;
    }
    stream.threadContext = contextLocation;
    file.writeStream(ExceptionStream, &stream, sizeof stream);
}

// Parses "N" or "N.M.K..." from the start of a text.
uint32_t parseVersionPart(const char **p)
{
    uint32_t value = 0;
    while (**p >= '0' && **p <= '9')
        value = value * 10 + uint32_t(*(*p)++ - '0');
    if (**p == '.')
        ++*p;
    return value;
}

unsigned countProcessors()
{
    // "0-3,8-11"
    const ssize_t length = readSmallFile("/sys/devices/system/cpu/online", text, sizeof text);
    unsigned count = 0;
    if (length > 0) {
        const char *p = text;
        while (*p >= '0' && *p <= '9') {
            unsigned first = 0, last;
            while (*p >= '0' && *p <= '9')
                first = first * 10 + unsigned(*p++ - '0');
            last = first;
            if (*p == '-') {
                ++p;
                last = 0;
                while (*p >= '0' && *p <= '9')
                    last = last * 10 + unsigned(*p++ - '0');
            }
            if (last >= first)
                count += last - first + 1;
            if (*p == ',')
                ++p;
        }
    }
    if (count == 0) {
        // The CPUs this thread may run on.
        uint64_t mask[16] = {};
        const long n = ::syscall(SYS_sched_getaffinity, 0, sizeof mask, mask);
        for (long i = 0; i * 8 < n; ++i)
            count += unsigned(__builtin_popcountll(mask[i]));
    }
    return count ? count : 1;
}

// Vendor, family, model and stepping from CPUID, as Windows fills CPU_INFORMATION.
void describeProcessor(MdSystemInfo &info)
{
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    if (!__get_cpuid(0, &eax, &ebx, &ecx, &edx))
        return;
    info.vendorId[0] = ebx;
    info.vendorId[1] = edx;
    info.vendorId[2] = ecx;
    if (eax >= 1 && __get_cpuid(1, &eax, &ebx, &ecx, &edx)) {
        info.versionInformation = eax;
        info.featureInformation = edx;
        unsigned family = (eax >> 8) & 0xF;
        unsigned model = (eax >> 4) & 0xF;
        const unsigned stepping = eax & 0xF;
        if (family == 0xF)
            family += (eax >> 20) & 0xFF;
        if (family == 0x6 || family >= 0xF)
            model |= ((eax >> 16) & 0xF) << 4;
        info.processorLevel = uint16_t(family);
        info.processorRevision = uint16_t((model << 8) | stepping);
    }
    // "AuthenticAMD"
    if (info.vendorId[0] == 0x68747541 && __get_cpuid(0x80000001, &eax, &ebx, &ecx, &edx))
        info.amdExtendedCpuFeatures = edx;
}

void writeSystemInfo()
{
    MdSystemInfo info;
    std::memset(&info, 0, sizeof info);
    info.processorArchitecture = ArchitectureAmd64;
    const unsigned processors = countProcessors();
    info.numberOfProcessors = uint8_t(processors > 255 ? 255 : processors);
    info.platformId = PlatformLinux;
    describeProcessor(info);

    utsname names;
    size_t used = 0;
    text[0] = '\0';
    if (::uname(&names) == 0) {
        const char *p = names.release;
        info.majorVersion = parseVersionPart(&p);
        info.minorVersion = parseVersionPart(&p);
        info.buildNumber = parseVersionPart(&p);
        const char *parts[] = {names.sysname, names.release, names.version, names.machine};
        for (const char *part : parts) {
            if (used)
                appendText(text, sizeof text, &used, " ", 1);
            appendText(text, sizeof text, &used, part, textLength(part));
        }
    }
    info.csdVersionRva = file.writeString(text, used);
    file.writeStream(SystemInfoStream, &info, sizeof info);
}

void writeMiscInfo()
{
    MdMiscInfo info;
    std::memset(&info, 0, sizeof info);
    info.sizeOfInfo = sizeof info;
    info.flags1 = MiscInfoProcessId;
    info.processId = uint32_t(g.pid);
    file.writeStream(MiscInfoStream, &info, sizeof info);
}

void writeThreadNames()
{
    size_t used = 0;
    appendText(text, sizeof text, &used, "/proc/self/task/", 16);
    appendDecimal(text, sizeof text, &used, uint64_t(g.tid));
    appendText(text, sizeof text, &used, "/comm", 5);
    char name[65];
    ssize_t length = readSmallFile(text, name, sizeof name);
    if (length < 0)
        length = 0;
    while (length > 0 && (name[length - 1] == '\n' || name[length - 1] == '\0'))
        --length;
    MdThreadName entry {uint32_t(g.tid), file.writeString(name, size_t(length))};
    file.padTo(8);
    const uint32_t count = 1;
    const MdLocation where {sizeof count + sizeof entry, uint32_t(file.offset())};
    if (file.writeBytes(&count, sizeof count) && file.writeBytes(&entry, sizeof entry))
        file.addStream(ThreadNamesStream, where);
}

// ---------------------------------------------------------------------------------------------
// The files of /proc, copied as they are.

// Looks at each piece of a streamed file as it goes by: (bytes, length, offset in the file).
using Inspector = void (*)(const char *, size_t, uint64_t);

// Copies a file into a stream of its own, at most MaxTextStreamBytes of it; the inspector (if any)
// sees the whole file. A file that cannot be opened gives an empty stream.
void streamFile(uint32_t type, const char *path, const char *fallbackPath = nullptr,
                Inspector inspector = nullptr)
{
    file.padTo(8);
    MdLocation where {0, uint32_t(file.offset())};
    int fd = openForReading(path);
    if (fd < 0 && fallbackPath)
        fd = openForReading(fallbackPath);
    if (fd >= 0) {
        uint64_t total = 0;
        for (;;) {
            const ssize_t n = readSome(fd, chunk, sizeof chunk);
            if (n <= 0)
                break;
            if (inspector)
                inspector(chunk, size_t(n), total);
            const uint64_t room = total < MaxTextStreamBytes ? MaxTextStreamBytes - total : 0;
            const size_t keep = uint64_t(n) < room ? size_t(n) : size_t(room);
            if (keep && !file.writeBytes(chunk, keep))
                break;
            total += uint64_t(n);
            where.dataSize += uint32_t(keep);
            if (!inspector && total >= MaxTextStreamBytes)
                break;
        }
        ::close(fd);
    }
    file.addStream(type, where);
}

// Takes AT_PHDR (the main program's program headers) from /proc/self/auxv.
void inspectAuxv(const char *bytes, size_t length, uint64_t fileOffset)
{
    for (size_t i = size_t(alignUp(fileOffset, 16) - fileOffset); i + 16 <= length; i += 16) {
        uint64_t entry[2];
        std::memcpy(entry, bytes + i, sizeof entry);
        if (entry[0] == AT_PHDR)
            g.mainProgramHeaders = entry[1];
    }
}

void inspectMaps(const char *bytes, size_t length, uint64_t)
{
    process.parseMaps(bytes, length);
}

void readMaps()
{
    streamFile(LinuxMaps, "/proc/self/maps", nullptr, &inspectMaps);
    process.finishMaps();
}

// ---------------------------------------------------------------------------------------------
// Modules and mappings.

void writeModuleList()
{
    // Each module's name and CodeView record first, then the list that points at them.
    for (size_t i = 0; i < process.moduleCount(); ++i) {
        Module &module = process.module(i);
        if (module.vdso)
            module.nameRva = file.writeString("linux-gate.so", 13);
        else
            module.nameRva = file.writeString(process.path(module), module.pathLength);
        uint8_t record[4 + 64];
        std::memcpy(record, &CodeViewElfSignature, 4);
        const size_t idLength = process.buildId(module.base, record + 4, sizeof record - 4);
        file.padTo(8);
        module.codeView = {uint32_t(4 + idLength), uint32_t(file.offset())};
        file.writeBytes(record, 4 + idLength);
    }
    file.padTo(8);
    const uint32_t count = uint32_t(process.moduleCount());
    const MdLocation where {uint32_t(4 + count * sizeof(MdModule)), uint32_t(file.offset())};
    file.writeBytes(&count, sizeof count);
    for (size_t i = 0; i < process.moduleCount(); ++i) {
        const Module &module = process.module(i);
        MdModule entry;
        std::memset(&entry, 0, sizeof entry);
        entry.baseOfImage = module.base;
        const uint64_t size = module.end - module.base;
        entry.sizeOfImage = uint32_t(size > 0xFFFFFFFFu ? 0xFFFFFFFFu : size);
        entry.moduleNameRva = module.nameRva;
        entry.cvRecord = module.codeView;
        file.writeBytes(&entry, sizeof entry);
    }
    file.addStream(ModuleListStream, where);
}

// The module a mapping belongs to, or null. Modules are in address order but the main program
// first, so the search starts at the last module found (`*hint`) and goes round them all.
const Module *owningModule(const Mapping &m, size_t *hint)
{
    const size_t count = process.moduleCount();
    for (size_t k = 0; k < count; ++k) {
        const Module &candidate = process.module((*hint + k) % count);
        if (m.start >= candidate.base && m.end <= candidate.end
            && (m.inode != 0 || candidate.vdso)) {
            *hint = (*hint + k) % count;
            return &candidate;
        }
    }
    return nullptr;
}

// The memory info list: every mapping with its protection, Windows style.
void writeMemoryInfoList()
{
    file.padTo(8);
    const size_t mappingCount = process.mappingCount();
    const MdLocation where {
            uint32_t(sizeof(MdMemoryInfoListHeader) + mappingCount * sizeof(MdMemoryInfo)),
            uint32_t(file.offset())};
    const MdMemoryInfoListHeader header {sizeof(MdMemoryInfoListHeader), sizeof(MdMemoryInfo),
                                         mappingCount};
    if (!file.writeBytes(&header, sizeof header))
        return;
    auto *batch = reinterpret_cast<MdMemoryInfo *>(chunk);
    const size_t batchCapacity = sizeof chunk / sizeof(MdMemoryInfo);
    size_t filled = 0;
    size_t moduleHint = 0;
    for (size_t i = 0; i < mappingCount; ++i) {
        const Mapping &m = process.mapping(i);
        static const uint32_t protections[8] = {
                PageNoAccess, PageReadOnly,    PageReadWrite,        PageReadWrite, // -, r, w, rw
                PageExecute,  PageExecuteRead, PageExecuteReadWrite, PageExecuteReadWrite};
        const uint32_t protect = protections[m.flags & (Readable | Writable | Executable)];
        const Module *owner = owningModule(m, &moduleHint);
        MdMemoryInfo &info = batch[filled++];
        std::memset(&info, 0, sizeof info);
        info.baseAddress = m.start;
        info.allocationBase = owner ? owner->base : m.start;
        info.allocationProtect = protect;
        info.regionSize = m.end - m.start;
        info.state = MemCommit;
        info.protect = protect;
        info.type = owner ? MemImage
                          : ((m.inode != 0 || !(m.flags & Private)) ? MemMapped : MemPrivate);
        if (filled == batchCapacity || i + 1 == mappingCount) {
            if (!file.writeBytes(batch, filled * sizeof(MdMemoryInfo)))
                return;
            filled = 0;
        }
    }
    file.addStream(MemoryInfoListStream, where);
}

// ---------------------------------------------------------------------------------------------
// Memory and the thread. The memory list and the thread's stack descriptor both point into the
// bytes of memory, which come last in the file: first their layout is fixed, then the two lists
// are written, then the bytes.

// The crashing thread's stack: from the stack pointer less the red zone (not below the start of
// its mapping) to the end of the mapping.
struct Stack
{
    const Mapping *mapping;
    uint64_t start;
    uint64_t end;
};

Stack findStack(uint64_t sp)
{
    Stack stack {process.stackMapping(sp), 0, 0};
    if (stack.mapping) {
        stack.start = sp >= RedZone ? sp - RedZone : 0;
        if (stack.start < stack.mapping->start)
            stack.start = stack.mapping->start;
        stack.end = stack.mapping->end;
    }
    return stack;
}

// The regions: adjacent mappings merged, but the stack's mapping kept alone and put first, since
// its bytes come first in the file (where a file cut at 4 GiB still holds them).
void collectRegions(const Mapping *stackMapping)
{
    g.regionCount = 0;
    for (size_t i = 0; i < process.mappingCount(); ++i) {
        const Mapping &m = process.mapping(i);
        if (!ProcessMemoryMap::inMemoryList(m))
            continue;
        const bool holdsStack = &m == stackMapping;
        Region *last = g.regionCount ? &regions[g.regionCount - 1] : nullptr;
        if (last && !holdsStack && !last->holdsStack && last->end == m.start
            && m.end - last->start < 0x100000000u) {
            last->end = m.end;
            continue;
        }
        if (m.end - m.start >= 0x100000000u)
            continue;
        regions[g.regionCount++] = {m.start, m.end, 0, holdsStack};
    }
    for (size_t i = 1; i < g.regionCount; ++i) {
        if (regions[i].holdsStack) {
            const Region stack = regions[i];
            for (size_t k = i; k > 0; --k)
                regions[k] = regions[k - 1];
            regions[0] = stack;
            break;
        }
    }
}

struct MemoryLayout
{
    uint64_t listRva;
    uint64_t threadListRva;
    uint64_t dataRva;
    uint32_t included; // regions with bytes in the file
};

// Gives each region the RVA of its bytes, in the order of the regions. The thread list's place
// is counted for all regions, whether they fit below 4 GiB or not.
MemoryLayout placeRegions(uint64_t listRva)
{
    MemoryLayout layout;
    layout.listRva = listRva;
    layout.threadListRva = alignUp(listRva + 4 + g.regionCount * sizeof(MdMemoryDescriptor), 8);
    layout.dataRva = alignUp(layout.threadListRva + 4 + sizeof(MdThread), 16);
    layout.included = 0;
    uint64_t cursor = layout.dataRva;
    for (size_t i = 0; i < g.regionCount; ++i) {
        Region &region = regions[i];
        const uint64_t size = region.end - region.start;
        if (cursor + size > RvaLimit)
            continue; // left out: see MiniDumpWriter_p.h
        region.rva = uint32_t(cursor);
        cursor += size;
        ++layout.included;
    }
    return layout;
}

void writeMemoryList(const MemoryLayout &layout)
{
    const MdLocation where {uint32_t(4 + layout.included * sizeof(MdMemoryDescriptor)),
                            uint32_t(layout.listRva)};
    file.writeBytes(&layout.included, sizeof layout.included);
    for (size_t i = 0; i < g.regionCount; ++i) {
        const Region &region = regions[i];
        if (!region.rva)
            continue;
        const MdMemoryDescriptor descriptor {region.start,
                                             {uint32_t(region.end - region.start), region.rva}};
        file.writeBytes(&descriptor, sizeof descriptor);
    }
    file.addStream(MemoryListStream, where);
}

// The crashing thread alone, its stack inside the memory list's bytes.
void writeThreadList(const MemoryLayout &layout, const Stack &stack, MdLocation contextLocation)
{
    file.writeZeros(layout.threadListRva - file.offset());
    MdThread thread;
    std::memset(&thread, 0, sizeof thread);
    thread.threadId = uint32_t(g.tid);
    thread.threadContext = contextLocation;
    thread.stack.startOfMemoryRange = stack.start;
    const Region *stackRegion = g.regionCount && regions[0].holdsStack ? &regions[0] : nullptr;
    if (stackRegion && stackRegion->rva)
        thread.stack.memory = {uint32_t(stack.end - stack.start),
                               uint32_t(stackRegion->rva + (stack.start - stackRegion->start))};
    const uint32_t threadCount = 1;
    const MdLocation where {4 + sizeof thread, uint32_t(layout.threadListRva)};
    file.writeBytes(&threadCount, sizeof threadCount);
    file.writeBytes(&thread, sizeof thread);
    file.addStream(ThreadListStream, where);
}

void writeMemoryBytes(const MemoryLayout &layout)
{
    file.writeZeros(layout.dataRva - file.offset());
    for (size_t i = 0; i < g.regionCount; ++i) {
        const Region &region = regions[i];
        if (!region.rva)
            continue;
        if (file.offset() != region.rva)
            file.fail(EIO); // cannot happen: the layout is exact
        file.writeMemory(region.start, region.end - region.start);
    }
}

void writeMemoryAndThread(MdLocation contextLocation)
{
    const Stack stack = findStack(context.rsp);
    collectRegions(stack.mapping);
    file.padTo(8);
    const MemoryLayout layout = placeRegions(file.offset());
    writeMemoryList(layout);
    writeThreadList(layout, stack, contextLocation);
    writeMemoryBytes(layout);
}

} // namespace

int writeMiniDump(int fd, const MiniDumpRequest &request)
{
    const int savedErrno = errno;
    if (!request.context)
        return EINVAL;

    std::memset(&g, 0, sizeof g);
    g.pid = ::getpid();
    g.tid = request.crashingThread ? request.crashingThread : pid_t(::syscall(SYS_gettid));
    const uint64_t pageSize = uint64_t(::getpagesize());
    process.begin(g.pid, pageSize);
    // Header and directory come last; their place first.
    file.begin(fd, pageSize);

    fillContext(request);
    file.padTo(16);
    const MdLocation contextLocation {sizeof context, uint32_t(file.offset())};
    file.writeBytes(&context, sizeof context);

    writeExceptionStream(request, contextLocation);
    writeSystemInfo();
    writeMiscInfo();
    writeThreadNames();
    streamFile(LinuxCpuInfo, "/proc/cpuinfo");
    streamFile(LinuxProcStatus, "/proc/self/status");
    streamFile(LinuxLsbRelease, "/etc/lsb-release", "/etc/os-release");
    streamFile(LinuxCmdLine, "/proc/self/cmdline");
    streamFile(LinuxEnviron, "/proc/self/environ");
    streamFile(LinuxAuxv, "/proc/self/auxv", nullptr, &inspectAuxv);
    readMaps();
    process.collectModules(g.mainProgramHeaders);
    writeModuleList();
    writeMemoryInfoList();
    writeMemoryAndThread(contextLocation);

    const int result = file.finish(FlagFullMemory);
    process.end();
    errno = savedErrno;
    return result;
}

} // namespace KrCrash
