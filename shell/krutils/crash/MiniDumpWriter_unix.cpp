// The minidump writer of the Linux crash interception: see MiniDumpWriter_p.h. Everything here
// may run in a signal handler while the process is broken: system calls and this file's static
// buffers only.

#include "MiniDumpWriter_p.h"

#include <cpuid.h>
#include <elf.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace KrCrash {

namespace {

using namespace MiniDumpLimits;

// ---------------------------------------------------------------------------------------------
// The file format, packed to 4 bytes as in the Windows headers (dbghelp.h, winnt.h).

#pragma pack(push, 4)

struct MdLocation
{
    uint32_t dataSize;
    uint32_t rva;
};

struct MdHeader
{
    uint32_t signature;
    uint32_t version;
    uint32_t streamCount;
    uint32_t streamDirectoryRva;
    uint32_t checksum;
    uint32_t timeDateStamp;
    uint64_t flags;
};

struct MdDirectory
{
    uint32_t streamType;
    MdLocation location;
};

struct MdMemoryDescriptor
{
    uint64_t startOfMemoryRange;
    MdLocation memory;
};

struct MdThread
{
    uint32_t threadId;
    uint32_t suspendCount;
    uint32_t priorityClass;
    uint32_t priority;
    uint64_t teb;
    MdMemoryDescriptor stack;
    MdLocation threadContext;
};

struct MdException
{
    uint32_t exceptionCode;
    uint32_t exceptionFlags;
    uint64_t exceptionRecord;
    uint64_t exceptionAddress;
    uint32_t numberParameters;
    uint32_t unusedAlignment;
    uint64_t exceptionInformation[15];
};

struct MdExceptionStream
{
    uint32_t threadId;
    uint32_t alignment;
    MdException exceptionRecord;
    MdLocation threadContext;
};

struct MdSystemInfo
{
    uint16_t processorArchitecture;
    uint16_t processorLevel;
    uint16_t processorRevision;
    uint8_t numberOfProcessors;
    uint8_t productType;
    uint32_t majorVersion;
    uint32_t minorVersion;
    uint32_t buildNumber;
    uint32_t platformId;
    uint32_t csdVersionRva;
    uint16_t suiteMask;
    uint16_t reserved2;
    // CPU_INFORMATION, x86 variant
    uint32_t vendorId[3];
    uint32_t versionInformation;
    uint32_t featureInformation;
    uint32_t amdExtendedCpuFeatures;
};

struct MdMiscInfo
{
    uint32_t sizeOfInfo;
    uint32_t flags1;
    uint32_t processId;
    uint32_t processCreateTime;
    uint32_t processUserTime;
    uint32_t processKernelTime;
};

struct MdModule
{
    uint64_t baseOfImage;
    uint32_t sizeOfImage;
    uint32_t checksum;
    uint32_t timeDateStamp;
    uint32_t moduleNameRva;
    uint32_t versionInfo[13]; // VS_FIXEDFILEINFO, left empty
    MdLocation cvRecord;
    MdLocation miscRecord;
    uint64_t reserved0;
    uint64_t reserved1;
};

struct MdMemoryInfoListHeader
{
    uint32_t sizeOfHeader;
    uint32_t sizeOfEntry;
    uint64_t numberOfEntries;
};

struct MdMemoryInfo
{
    uint64_t baseAddress;
    uint64_t allocationBase;
    uint32_t allocationProtect;
    uint32_t alignment1;
    uint64_t regionSize;
    uint32_t state;
    uint32_t protect;
    uint32_t type;
    uint32_t alignment2;
};

struct MdThreadName
{
    uint32_t threadId;
    uint64_t rvaOfThreadName; // RVA64
};

struct MdUint128
{
    uint64_t low;
    uint64_t high;
};

// CONTEXT of AMD64.
struct MdContextAmd64
{
    uint64_t pHome[6];
    uint32_t contextFlags;
    uint32_t mxCsr;
    uint16_t cs, ds, es, fs, gs, ss;
    uint32_t eflags;
    uint64_t dr0, dr1, dr2, dr3, dr6, dr7;
    uint64_t rax, rcx, rdx, rbx, rsp, rbp, rsi, rdi;
    uint64_t r8, r9, r10, r11, r12, r13, r14, r15;
    uint64_t rip;
    uint8_t fltSave[512]; // XMM_SAVE_AREA32: the FXSAVE layout
    MdUint128 vectorRegister[26];
    uint64_t vectorControl;
    uint64_t debugControl;
    uint64_t lastBranchToRip;
    uint64_t lastBranchFromRip;
    uint64_t lastExceptionToRip;
    uint64_t lastExceptionFromRip;
};

#pragma pack(pop)

static_assert(sizeof(MdHeader) == 32, "MINIDUMP_HEADER");
static_assert(sizeof(MdDirectory) == 12, "MINIDUMP_DIRECTORY");
static_assert(sizeof(MdMemoryDescriptor) == 16, "MINIDUMP_MEMORY_DESCRIPTOR");
static_assert(sizeof(MdThread) == 48, "MINIDUMP_THREAD");
static_assert(sizeof(MdExceptionStream) == 168, "MINIDUMP_EXCEPTION_STREAM");
static_assert(sizeof(MdSystemInfo) == 56, "MINIDUMP_SYSTEM_INFO");
static_assert(sizeof(MdMiscInfo) == 24, "MINIDUMP_MISC_INFO");
static_assert(sizeof(MdModule) == 108, "MINIDUMP_MODULE");
static_assert(sizeof(MdThreadName) == 12, "MINIDUMP_THREAD_NAME");
static_assert(sizeof(MdMemoryInfoListHeader) == 16, "MINIDUMP_MEMORY_INFO_LIST");
static_assert(sizeof(MdMemoryInfo) == 48, "MINIDUMP_MEMORY_INFO");
static_assert(sizeof(MdContextAmd64) == 1232, "CONTEXT (AMD64)");
static_assert(offsetof(MdContextAmd64, rip) == 248 && offsetof(MdContextAmd64, fltSave) == 256,
              "CONTEXT (AMD64) layout");
static_assert(sizeof(_libc_fpstate) == 512, "FXSAVE area");

constexpr uint32_t HeaderSignature = 0x504D444D; // "MDMP"
constexpr uint32_t HeaderVersion = 0xA793;
constexpr uint64_t FlagFullMemory = 0x2;

enum StreamType : uint32_t {
    ThreadListStream = 3,
    ModuleListStream = 4,
    MemoryListStream = 5,
    ExceptionStream = 6,
    SystemInfoStream = 7,
    MiscInfoStream = 15,
    MemoryInfoListStream = 16,
    ThreadNamesStream = 24,
    LinuxCpuInfo = 0x47670003,
    LinuxProcStatus = 0x47670004,
    LinuxLsbRelease = 0x47670005,
    LinuxCmdLine = 0x47670006,
    LinuxEnviron = 0x47670007,
    LinuxAuxv = 0x47670008,
    LinuxMaps = 0x47670009,
};
constexpr uint32_t StreamCount = 15;

constexpr uint16_t ArchitectureAmd64 = 9;
constexpr uint32_t PlatformLinux = 0x8201;
constexpr uint32_t MiscInfoProcessId = 0x1;
constexpr uint32_t ContextAmd64 = 0x00100000;
constexpr uint32_t ContextFlags = ContextAmd64 | 0x1 /* control */ | 0x2 /* integer */
        | 0x4 /* segments */ | 0x8 /* floating point */;
constexpr uint32_t CodeViewElfSignature = 0x4270454C; // 'BpEL', the bytes "LEpB"
constexpr uint32_t DumpRequested = 0xFFFFFFFF;
// MINIDUMP_MEMORY_INFO: protections, state and types of Windows.
constexpr uint32_t PageNoAccess = 0x01;
constexpr uint32_t PageReadOnly = 0x02;
constexpr uint32_t PageReadWrite = 0x04;
constexpr uint32_t PageExecute = 0x10;
constexpr uint32_t PageExecuteRead = 0x20;
constexpr uint32_t PageExecuteReadWrite = 0x40;
constexpr uint32_t MemCommit = 0x1000;
constexpr uint32_t MemPrivate = 0x20000;
constexpr uint32_t MemMapped = 0x40000;
constexpr uint32_t MemImage = 0x1000000;
constexpr uint64_t RedZone = 128;
constexpr uint64_t RvaLimit = uint64_t(1) << 32;

// ---------------------------------------------------------------------------------------------
// Static state: one call at a time.

enum MappingFlag : uint8_t {
    Readable = 0x1,
    Writable = 0x2,
    Executable = 0x4,
    Private = 0x8,
    NoMemory = 0x10, // [vvar*], [vsyscall], devices: never read
    Vdso = 0x20,
};

struct Mapping
{
    uint64_t start;
    uint64_t end;
    uint64_t inode;
    uint32_t device; // major << 20 | minor
    uint32_t pathOffset; // into pathPool
    uint16_t pathLength;
    uint8_t flags;
};

struct Region
{
    uint64_t start;
    uint64_t end;
    uint32_t rva; // 0: left out
    bool holdsStack;
};

struct Module
{
    uint64_t base;
    uint64_t end;
    uint32_t pathOffset;
    uint16_t pathLength;
    bool vdso;
    MdLocation name;
    MdLocation codeView;
};

struct State
{
    int fd;
    uint64_t offset; // where the next write goes
    int error; // the first failure
    pid_t pid;
    pid_t tid;
    uint64_t pageSize;
    int pipe[2]; // for safeRead() where process_vm_readv() is refused
    bool pipeTried;
    uint64_t mainProgramHeaders; // AT_PHDR
    size_t mappingCount;
    size_t pathPoolUsed;
    size_t moduleCount;
    size_t regionCount;
    // Line assembly of /proc/self/maps.
    size_t lineLength;
    bool lineTooLong;
};

State g;
Mapping mappings[MaxMappings];
Region regions[MaxMappings];
Module modules[MaxModules];
char pathPool[MaxPathPoolBytes];
MdDirectory directory[StreamCount];
uint32_t directoryCount;
MdContextAmd64 context;
char chunk[64 * 1024]; // streamed files
char line[8192]; // one line of /proc/self/maps (a path has at most 4095 bytes)
char text[1024]; // short texts: the CSD version, paths
uint16_t utf16[512];
uint8_t notes[4096];
const uint8_t zeros[4096] = {};

// ---------------------------------------------------------------------------------------------
// Small helpers that libc would give, without libc.

size_t textLength(const char *s)
{
    size_t n = 0;
    while (s[n])
        ++n;
    return n;
}

bool startsWith(const char *s, size_t length, const char *prefix)
{
    for (size_t i = 0; prefix[i]; ++i) {
        if (i >= length || s[i] != prefix[i])
            return false;
    }
    return true;
}

// Appends `s` to text at *used (always leaves a terminator).
void appendText(char *out, size_t capacity, size_t *used, const char *s, size_t length)
{
    for (size_t i = 0; i < length && *used + 1 < capacity; ++i)
        out[(*used)++] = s[i];
    out[*used] = '\0';
}

void appendDecimal(char *out, size_t capacity, size_t *used, uint64_t value)
{
    char digits[24];
    size_t n = 0;
    do {
        digits[n++] = char('0' + value % 10);
        value /= 10;
    } while (value);
    while (n && *used + 1 < capacity)
        out[(*used)++] = digits[--n];
    out[*used] = '\0';
}

uint64_t alignUp(uint64_t value, uint64_t alignment)
{
    return (value + alignment - 1) & ~(alignment - 1);
}

int openForReading(const char *path)
{
    int fd;
    do {
        fd = ::open(path, O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

ssize_t readSome(int fd, void *buffer, size_t length)
{
    ssize_t n;
    do {
        n = ::read(fd, buffer, length);
    } while (n < 0 && errno == EINTR);
    return n;
}

// Reads a small file whole into `out` (terminated); returns its length, or -1.
ssize_t readSmallFile(const char *path, char *out, size_t capacity)
{
    const int fd = openForReading(path);
    if (fd < 0)
        return -1;
    size_t used = 0;
    while (used + 1 < capacity) {
        const ssize_t n = readSome(fd, out + used, capacity - 1 - used);
        if (n <= 0)
            break;
        used += size_t(n);
    }
    ::close(fd);
    out[used] = '\0';
    return ssize_t(used);
}

// ---------------------------------------------------------------------------------------------
// Writing the file.

bool writeBytes(const void *data, size_t length)
{
    if (g.error)
        return false;
    const char *p = static_cast<const char *>(data);
    while (length) {
        const ssize_t n = ::write(g.fd, p, length);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            g.error = errno;
            return false;
        }
        if (n == 0) {
            g.error = EIO;
            return false;
        }
        p += n;
        length -= size_t(n);
        g.offset += uint64_t(n);
    }
    return true;
}

bool writeZeros(uint64_t length)
{
    while (length) {
        const size_t n = length < sizeof zeros ? size_t(length) : sizeof zeros;
        if (!writeBytes(zeros, n))
            return false;
        length -= n;
    }
    return true;
}

bool padTo(uint64_t alignment)
{
    return writeZeros(alignUp(g.offset, alignment) - g.offset);
}

// Writes `length` bytes of the process's memory at `address` straight from the mapping. Where the
// kernel cannot read a page (EFAULT), that page's part is written as zeros. The system call is
// made directly: the sanitizers' interceptors of write() would check the bytes (and report the
// red zones that full memory includes).
bool writeMemory(uint64_t address, uint64_t length)
{
    while (length && !g.error) {
        const size_t request = length < (uint64_t(1) << 30) ? size_t(length) : size_t(1) << 30;
        const ssize_t n = ssize_t(::syscall(SYS_write, g.fd, address, request));
        if (n > 0) {
            address += uint64_t(n);
            length -= uint64_t(n);
            g.offset += uint64_t(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && errno == EFAULT) {
            uint64_t rest = g.pageSize - address % g.pageSize;
            if (rest > length)
                rest = length;
            if (!writeZeros(rest))
                return false;
            address += rest;
            length -= rest;
            continue;
        }
        g.error = n < 0 ? errno : EIO;
        return false;
    }
    return !g.error;
}

// Decodes one UTF-8 character (invalid bytes give U+FFFD).
uint32_t decodeUtf8(const unsigned char *s, size_t length, size_t *used)
{
    const unsigned char c = s[0];
    uint32_t value;
    size_t count;
    uint32_t minimum;
    if (c < 0x80) {
        *used = 1;
        return c;
    } else if ((c & 0xE0) == 0xC0) {
        value = c & 0x1F, count = 2, minimum = 0x80;
    } else if ((c & 0xF0) == 0xE0) {
        value = c & 0x0F, count = 3, minimum = 0x800;
    } else if ((c & 0xF8) == 0xF0) {
        value = c & 0x07, count = 4, minimum = 0x10000;
    } else {
        *used = 1;
        return 0xFFFD;
    }
    if (count > length) {
        *used = 1;
        return 0xFFFD;
    }
    for (size_t i = 1; i < count; ++i) {
        if ((s[i] & 0xC0) != 0x80) {
            *used = 1;
            return 0xFFFD;
        }
        value = (value << 6) | (s[i] & 0x3F);
    }
    *used = count;
    if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF))
        return 0xFFFD;
    return value;
}

// Writes a MINIDUMP_STRING (UTF-16, its byte length first, a terminator after) and returns where.
MdLocation writeString(const char *utf8, size_t length)
{
    padTo(8);
    const auto *s = reinterpret_cast<const unsigned char *>(utf8);
    uint32_t units = 0;
    for (size_t i = 0, used = 0; i < length; i += used)
        units += decodeUtf8(s + i, length - i, &used) >= 0x10000 ? 2 : 1;
    MdLocation where {4 + units * 2 + 2, uint32_t(g.offset)};
    const uint32_t bytes = units * 2;
    writeBytes(&bytes, sizeof bytes);
    size_t filled = 0;
    for (size_t i = 0, used = 0; i < length; i += used) {
        const uint32_t c = decodeUtf8(s + i, length - i, &used);
        if (filled + 2 > sizeof utf16 / sizeof utf16[0]) {
            writeBytes(utf16, filled * 2);
            filled = 0;
        }
        if (c >= 0x10000) {
            utf16[filled++] = uint16_t(0xD800 + ((c - 0x10000) >> 10));
            utf16[filled++] = uint16_t(0xDC00 + ((c - 0x10000) & 0x3FF));
        } else {
            utf16[filled++] = uint16_t(c);
        }
    }
    utf16[filled++] = 0;
    writeBytes(utf16, filled * 2);
    return where;
}

void addStream(uint32_t type, MdLocation location)
{
    if (directoryCount < StreamCount)
        directory[directoryCount++] = {type, location};
}

// Writes a structure as a stream of its own.
void writeStream(uint32_t type, const void *data, uint32_t size)
{
    padTo(8);
    const MdLocation where {size, uint32_t(g.offset)};
    if (writeBytes(data, size))
        addStream(type, where);
}

// ---------------------------------------------------------------------------------------------
// Reading the process's own memory without faulting.

bool safeRead(uint64_t address, void *out, size_t length)
{
    iovec local {out, length};
    iovec remote {reinterpret_cast<void *>(address), length};
    const ssize_t n = ::process_vm_readv(g.pid, &local, 1, &remote, 1, 0);
    if (n == ssize_t(length))
        return true;
    if (n >= 0 || (errno != ENOSYS && errno != EPERM))
        return false;
    // process_vm_readv() refused (an old kernel, a seccomp filter): a pipe copies as well, and
    // gives EFAULT likewise.
    if (!g.pipeTried) {
        g.pipeTried = true;
        if (::pipe2(g.pipe, O_CLOEXEC | O_NONBLOCK) != 0)
            g.pipe[0] = g.pipe[1] = -1;
    }
    if (g.pipe[0] < 0)
        return false;
    char *dest = static_cast<char *>(out);
    while (length) {
        const size_t step = length < 4096 ? length : 4096; // below any pipe's capacity
        const ssize_t written = ::write(g.pipe[1], reinterpret_cast<const void *>(address), step);
        if (written <= 0)
            return false;
        const ssize_t got = readSome(g.pipe[0], dest, size_t(written));
        if (got != written)
            return false;
        if (size_t(written) != step)
            return false;
        address += step;
        dest += step;
        length -= step;
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// The streams.

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
            && safeRead(reinterpret_cast<uint64_t>(m.fpregs), context.fltSave,
                        sizeof context.fltSave))
            std::memcpy(&context.mxCsr, context.fltSave + 24, sizeof context.mxCsr);
    } else {
        // getcontext(): the selectors are not saved, but a 64-bit Linux thread runs with these;
        // the FP state is an FNSTENV image plus MXCSR, of which the control word and MXCSR fit.
        context.cs = 0x33;
        context.ss = 0x2B;
        uint8_t head[28];
        if (m.fpregs && safeRead(reinterpret_cast<uint64_t>(m.fpregs), head, sizeof head)) {
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
    writeStream(ExceptionStream, &stream, sizeof stream);
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

void writeSystemInfo()
{
    MdSystemInfo info;
    std::memset(&info, 0, sizeof info);
    info.processorArchitecture = ArchitectureAmd64;
    const unsigned processors = countProcessors();
    info.numberOfProcessors = uint8_t(processors > 255 ? 255 : processors);
    info.platformId = PlatformLinux;

    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    if (__get_cpuid(0, &eax, &ebx, &ecx, &edx)) {
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
    info.csdVersionRva = writeString(text, used).rva;
    writeStream(SystemInfoStream, &info, sizeof info);
}

void writeMiscInfo()
{
    MdMiscInfo info;
    std::memset(&info, 0, sizeof info);
    info.sizeOfInfo = sizeof info;
    info.flags1 = MiscInfoProcessId;
    info.processId = uint32_t(g.pid);
    writeStream(MiscInfoStream, &info, sizeof info);
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
    const MdLocation nameLocation = writeString(name, size_t(length));
    MdThreadName entry {uint32_t(g.tid), nameLocation.rva};
    padTo(8);
    const uint32_t count = 1;
    const MdLocation where {sizeof count + sizeof entry, uint32_t(g.offset)};
    if (writeBytes(&count, sizeof count) && writeBytes(&entry, sizeof entry))
        addStream(ThreadNamesStream, where);
}

// Looks at each piece of a streamed file as it goes by: (bytes, length, offset in the file).
using Inspector = void (*)(const char *, size_t, uint64_t);

// Copies a file into a stream of its own, at most MaxTextStreamBytes of it; the inspector (if any)
// sees the whole file. A file that cannot be opened gives an empty stream.
void streamFile(uint32_t type, const char *path, const char *fallbackPath = nullptr,
                Inspector inspector = nullptr)
{
    padTo(8);
    MdLocation where {0, uint32_t(g.offset)};
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
            if (keep && !writeBytes(chunk, keep))
                break;
            total += uint64_t(n);
            where.dataSize += uint32_t(keep);
            if (!inspector && total >= MaxTextStreamBytes)
                break;
        }
        ::close(fd);
    }
    addStream(type, where);
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

// --- /proc/self/maps -------------------------------------------------------------------------

bool parseHex(const char **p, const char *end, uint64_t *value)
{
    const char *start = *p;
    uint64_t v = 0;
    for (; *p < end; ++*p) {
        const char c = **p;
        unsigned digit;
        if (c >= '0' && c <= '9')
            digit = unsigned(c - '0');
        else if (c >= 'a' && c <= 'f')
            digit = unsigned(c - 'a' + 10);
        else if (c >= 'A' && c <= 'F')
            digit = unsigned(c - 'A' + 10);
        else
            break;
        v = (v << 4) | digit;
    }
    *value = v;
    return *p != start;
}

bool expect(const char **p, const char *end, char c)
{
    if (*p >= end || **p != c)
        return false;
    ++*p;
    return true;
}

// "start-end perms offset major:minor inode   path"
void parseMapsLine(const char *s, size_t length)
{
    if (g.mappingCount >= MaxMappings)
        return;
    const char *p = s;
    const char *end = s + length;
    uint64_t start, stop, offset, major, minor;
    if (!parseHex(&p, end, &start) || !expect(&p, end, '-') || !parseHex(&p, end, &stop)
        || !expect(&p, end, ' ') || end - p < 5)
        return;
    uint8_t flags = 0;
    if (p[0] == 'r')
        flags |= Readable;
    if (p[1] == 'w')
        flags |= Writable;
    if (p[2] == 'x')
        flags |= Executable;
    if (p[3] == 'p')
        flags |= Private;
    p += 4;
    if (!expect(&p, end, ' ') || !parseHex(&p, end, &offset) || !expect(&p, end, ' ')
        || !parseHex(&p, end, &major) || !expect(&p, end, ':') || !parseHex(&p, end, &minor)
        || !expect(&p, end, ' '))
        return;
    uint64_t inode = 0;
    while (p < end && *p >= '0' && *p <= '9')
        inode = inode * 10 + uint64_t(*p++ - '0');
    while (p < end && *p == ' ')
        ++p;
    const char *path = p;
    const size_t pathLength = size_t(end - p);
    if (stop <= start)
        return;

    if (startsWith(path, pathLength, "[vvar") || startsWith(path, pathLength, "[vsyscall]")
        || (startsWith(path, pathLength, "/dev/") && !startsWith(path, pathLength, "/dev/zero")))
        flags |= NoMemory;
    if (startsWith(path, pathLength, "[vdso]"))
        flags |= Vdso;

    Mapping &m = mappings[g.mappingCount];
    m.start = start;
    m.end = stop;
    m.inode = inode;
    m.device = uint32_t((major << 20) | (minor & 0xFFFFF));
    m.flags = flags;
    m.pathOffset = 0;
    m.pathLength = 0;
    if (inode != 0 && pathLength && pathLength <= 0xFFFF) {
        // The mappings of one file come one after another: keep its path once.
        const Mapping *previous = g.mappingCount ? &mappings[g.mappingCount - 1] : nullptr;
        if (previous && previous->pathLength == pathLength
            && std::memcmp(pathPool + previous->pathOffset, path, pathLength) == 0) {
            m.pathOffset = previous->pathOffset;
            m.pathLength = previous->pathLength;
        } else if (g.pathPoolUsed + pathLength <= sizeof pathPool) {
            std::memcpy(pathPool + g.pathPoolUsed, path, pathLength);
            m.pathOffset = uint32_t(g.pathPoolUsed);
            m.pathLength = uint16_t(pathLength);
            g.pathPoolUsed += pathLength;
        }
    }
    ++g.mappingCount;
}

void inspectMaps(const char *bytes, size_t length, uint64_t)
{
    for (size_t i = 0; i < length; ++i) {
        const char c = bytes[i];
        if (c == '\n') {
            if (!g.lineTooLong)
                parseMapsLine(line, g.lineLength);
            g.lineLength = 0;
            g.lineTooLong = false;
        } else if (g.lineLength < sizeof line) {
            line[g.lineLength++] = c;
        } else {
            g.lineTooLong = true;
        }
    }
}

void readMaps()
{
    g.lineLength = 0;
    g.lineTooLong = false;
    streamFile(LinuxMaps, "/proc/self/maps", nullptr, &inspectMaps);
    if (g.lineLength && !g.lineTooLong)
        parseMapsLine(line, g.lineLength);
}

// --- Modules ---------------------------------------------------------------------------------

void collectModules()
{
    for (size_t i = 0; i < g.mappingCount && g.moduleCount < MaxModules;) {
        const Mapping &first = mappings[i];
        size_t j = i + 1;
        bool executable = first.flags & Executable;
        if (first.inode != 0) {
            while (j < g.mappingCount && mappings[j].inode == first.inode
                   && mappings[j].device == first.device) {
                executable = executable || (mappings[j].flags & Executable);
                ++j;
            }
        } else if (!(first.flags & Vdso)) {
            executable = false;
        }
        if (executable) {
            Module &module = modules[g.moduleCount++];
            std::memset(&module, 0, sizeof module);
            module.base = first.start;
            module.end = mappings[j - 1].end;
            module.pathOffset = first.pathOffset;
            module.pathLength = first.pathLength;
            module.vdso = first.flags & Vdso;
        }
        i = j;
    }
    // The main program first: readers take the first module for it.
    for (size_t i = 1; i < g.moduleCount; ++i) {
        if (g.mainProgramHeaders >= modules[i].base && g.mainProgramHeaders < modules[i].end) {
            const Module main = modules[i];
            for (size_t k = i; k > 0; --k)
                modules[k] = modules[k - 1];
            modules[0] = main;
            break;
        }
    }
}

// The GNU build id of the ELF object loaded at `base`, read from its PT_NOTE segments in memory;
// its length (0 when there is none) and the bytes at `out`.
size_t readBuildId(uint64_t base, uint8_t *out, size_t capacity)
{
    Elf64_Ehdr header;
    if (!safeRead(base, &header, sizeof header) || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0
        || header.e_ident[EI_CLASS] != ELFCLASS64 || header.e_phentsize != sizeof(Elf64_Phdr)
        || header.e_phnum == 0 || header.e_phnum > 512)
        return 0;
    // The load bias: the first PT_LOAD maps the file's start at `base`.
    uint64_t bias = base;
    bool haveBias = false;
    for (unsigned pass = 0; pass < 2; ++pass) {
        for (unsigned i = 0; i < header.e_phnum; ++i) {
            Elf64_Phdr ph;
            if (!safeRead(base + header.e_phoff + uint64_t(i) * sizeof ph, &ph, sizeof ph))
                return 0;
            if (pass == 0) {
                if (ph.p_type == PT_LOAD && !haveBias) {
                    bias = base - (ph.p_vaddr & ~(g.pageSize - 1));
                    haveBias = true;
                }
                continue;
            }
            if (ph.p_type != PT_NOTE || ph.p_filesz < 12)
                continue;
            const size_t size = ph.p_filesz < sizeof notes ? size_t(ph.p_filesz) : sizeof notes;
            if (!safeRead(bias + ph.p_vaddr, notes, size))
                continue;
            const size_t align = ph.p_align == 8 ? 8 : 4;
            for (size_t at = 0; at + 12 <= size;) {
                uint32_t nameSize, descSize, type;
                std::memcpy(&nameSize, notes + at, 4);
                std::memcpy(&descSize, notes + at + 4, 4);
                std::memcpy(&type, notes + at + 8, 4);
                const uint64_t nameAt = at + 12;
                const uint64_t descAt = nameAt + alignUp(nameSize, align);
                const uint64_t next = descAt + alignUp(descSize, align);
                if (next > size)
                    break;
                if (type == NT_GNU_BUILD_ID && nameSize == 4
                    && std::memcmp(notes + nameAt, "GNU", 4) == 0) {
                    const size_t n = descSize < capacity ? descSize : capacity;
                    std::memcpy(out, notes + descAt, n);
                    return n;
                }
                at = size_t(next);
            }
        }
    }
    return 0;
}

void writeModuleList()
{
    // Each module's name and CodeView record first, then the list that points at them.
    for (size_t i = 0; i < g.moduleCount; ++i) {
        Module &module = modules[i];
        if (module.vdso)
            module.name = writeString("linux-gate.so", 13);
        else
            module.name = writeString(pathPool + module.pathOffset, module.pathLength);
        uint8_t record[4 + 64];
        std::memcpy(record, &CodeViewElfSignature, 4);
        const size_t idLength = readBuildId(module.base, record + 4, sizeof record - 4);
        padTo(8);
        module.codeView = {uint32_t(4 + idLength), uint32_t(g.offset)};
        writeBytes(record, 4 + idLength);
    }
    padTo(8);
    const uint32_t count = uint32_t(g.moduleCount);
    const MdLocation where {uint32_t(4 + count * sizeof(MdModule)), uint32_t(g.offset)};
    writeBytes(&count, sizeof count);
    for (size_t i = 0; i < g.moduleCount; ++i) {
        const Module &module = modules[i];
        MdModule entry;
        std::memset(&entry, 0, sizeof entry);
        entry.baseOfImage = module.base;
        const uint64_t size = module.end - module.base;
        entry.sizeOfImage = uint32_t(size > 0xFFFFFFFFu ? 0xFFFFFFFFu : size);
        entry.moduleNameRva = module.name.rva;
        entry.cvRecord = module.codeView;
        writeBytes(&entry, sizeof entry);
    }
    addStream(ModuleListStream, where);
}

// The memory info list: every mapping with its protection, Windows style.
void writeMemoryInfoList()
{
    padTo(8);
    const MdLocation where {
            uint32_t(sizeof(MdMemoryInfoListHeader) + g.mappingCount * sizeof(MdMemoryInfo)),
            uint32_t(g.offset)};
    const MdMemoryInfoListHeader header {sizeof(MdMemoryInfoListHeader), sizeof(MdMemoryInfo),
                                         g.mappingCount};
    if (!writeBytes(&header, sizeof header))
        return;
    auto *batch = reinterpret_cast<MdMemoryInfo *>(chunk);
    const size_t batchCapacity = sizeof chunk / sizeof(MdMemoryInfo);
    size_t filled = 0;
    size_t module = 0;
    for (size_t i = 0; i < g.mappingCount; ++i) {
        const Mapping &m = mappings[i];
        static const uint32_t protections[8] = {
                PageNoAccess, PageReadOnly,    PageReadWrite,        PageReadWrite, // -, r, w, rw
                PageExecute,  PageExecuteRead, PageExecuteReadWrite, PageExecuteReadWrite};
        const uint32_t protect = protections[m.flags & (Readable | Writable | Executable)];
        // Modules are in address order but the main program first: search them all.
        const Module *owner = nullptr;
        for (size_t k = 0; k < g.moduleCount && !owner; ++k) {
            const Module &candidate = modules[(module + k) % g.moduleCount];
            if (m.start >= candidate.base && m.end <= candidate.end
                && (m.inode != 0 || candidate.vdso)) {
                owner = &candidate;
                module = (module + k) % g.moduleCount;
            }
        }
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
        if (filled == batchCapacity || i + 1 == g.mappingCount) {
            if (!writeBytes(batch, filled * sizeof(MdMemoryInfo)))
                return;
            filled = 0;
        }
    }
    addStream(MemoryInfoListStream, where);
}

// --- Memory and the thread -------------------------------------------------------------------

bool inMemoryList(const Mapping &m)
{
    return (m.flags & (Readable | Private | NoMemory)) == (Readable | Private);
}

// The mapping whose bytes hold the stack: the one with the stack pointer, or after an overflow
// into a guard page (or below a grown-down stack) the one just above.
const Mapping *findStackMapping(uint64_t sp)
{
    for (size_t i = 0; i < g.mappingCount; ++i) {
        const Mapping &m = mappings[i];
        if (sp >= m.start && sp < m.end) {
            if (inMemoryList(m))
                return &m;
            const Mapping *above = i + 1 < g.mappingCount ? &mappings[i + 1] : nullptr;
            return above && above->start == m.end && inMemoryList(*above) ? above : nullptr;
        }
        if (m.start > sp)
            return inMemoryList(m) && m.start - sp <= 64 * 1024 ? &m : nullptr;
    }
    return nullptr;
}

void writeMemoryAndThread(MdLocation contextLocation)
{
    const uint64_t sp = context.rsp;
    const Mapping *stackMapping = findStackMapping(sp);
    uint64_t stackStart = 0, stackEnd = 0;
    if (stackMapping) {
        stackStart = sp >= RedZone ? sp - RedZone : 0;
        if (stackStart < stackMapping->start)
            stackStart = stackMapping->start;
        stackEnd = stackMapping->end;
    }

    // The regions: adjacent mappings merged, but the stack's mapping kept alone.
    g.regionCount = 0;
    for (size_t i = 0; i < g.mappingCount; ++i) {
        const Mapping &m = mappings[i];
        if (!inMemoryList(m))
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

    // The layout: the memory list, the thread list, then the bytes, the stack's region first.
    padTo(8);
    const uint64_t listRva = g.offset;
    const uint64_t threadListRva
            = alignUp(listRva + 4 + g.regionCount * sizeof(MdMemoryDescriptor), 8);
    const uint64_t dataRva = alignUp(threadListRva + 4 + sizeof(MdThread), 16);
    uint64_t cursor = dataRva;
    uint32_t included = 0;
    for (unsigned pass = 0; pass < 2; ++pass) {
        for (size_t i = 0; i < g.regionCount; ++i) {
            Region &region = regions[i];
            if (region.holdsStack != (pass == 0))
                continue;
            const uint64_t size = region.end - region.start;
            if (cursor + size > RvaLimit)
                continue; // left out: see MiniDumpWriter_p.h
            region.rva = uint32_t(cursor);
            cursor += size;
            ++included;
        }
    }

    // The memory list, in the order of the bytes.
    const MdLocation listWhere {uint32_t(4 + included * sizeof(MdMemoryDescriptor)),
                                uint32_t(listRva)};
    writeBytes(&included, sizeof included);
    for (unsigned pass = 0; pass < 2; ++pass) {
        for (size_t i = 0; i < g.regionCount; ++i) {
            const Region &region = regions[i];
            if (region.holdsStack != (pass == 0) || !region.rva)
                continue;
            const MdMemoryDescriptor descriptor {region.start,
                                                 {uint32_t(region.end - region.start), region.rva}};
            writeBytes(&descriptor, sizeof descriptor);
        }
    }
    addStream(MemoryListStream, listWhere);

    // The thread list: the crashing thread, its stack inside the memory list's bytes.
    writeZeros(threadListRva - g.offset);
    MdThread thread;
    std::memset(&thread, 0, sizeof thread);
    thread.threadId = uint32_t(g.tid);
    thread.threadContext = contextLocation;
    thread.stack.startOfMemoryRange = stackStart;
    for (size_t i = 0; i < g.regionCount; ++i) {
        const Region &region = regions[i];
        if (region.holdsStack && region.rva)
            thread.stack.memory = {uint32_t(stackEnd - stackStart),
                                   uint32_t(region.rva + (stackStart - region.start))};
    }
    const uint32_t threadCount = 1;
    const MdLocation threadWhere {4 + sizeof thread, uint32_t(threadListRva)};
    writeBytes(&threadCount, sizeof threadCount);
    writeBytes(&thread, sizeof thread);
    addStream(ThreadListStream, threadWhere);

    // The bytes.
    writeZeros(dataRva - g.offset);
    for (unsigned pass = 0; pass < 2; ++pass) {
        for (size_t i = 0; i < g.regionCount; ++i) {
            const Region &region = regions[i];
            if (region.holdsStack != (pass == 0) || !region.rva)
                continue;
            if (g.offset != region.rva && !g.error)
                g.error = EIO; // cannot happen: the layout above is exact
            writeMemory(region.start, region.end - region.start);
        }
    }
}

} // namespace

int writeMiniDump(int fd, const MiniDumpRequest &request)
{
    const int savedErrno = errno;
    if (!request.context)
        return EINVAL;

    std::memset(&g, 0, sizeof g);
    g.fd = fd;
    g.pid = ::getpid();
    g.tid = request.crashingThread ? request.crashingThread : pid_t(::syscall(SYS_gettid));
    g.pageSize = uint64_t(::getpagesize());
    g.pipe[0] = g.pipe[1] = -1;
    directoryCount = 0;

    // Header and directory come last; their place first.
    writeZeros(sizeof(MdHeader) + sizeof directory);

    fillContext(request);
    padTo(16);
    const MdLocation contextLocation {sizeof context, uint32_t(g.offset)};
    writeBytes(&context, sizeof context);

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
    collectModules();
    writeModuleList();
    writeMemoryInfoList();
    writeMemoryAndThread(contextLocation);

    // Even after a failure the header goes in, so that what was written can still be read.
    MdHeader header;
    std::memset(&header, 0, sizeof header);
    header.signature = HeaderSignature;
    header.version = HeaderVersion;
    header.streamCount = directoryCount;
    header.streamDirectoryRva = sizeof header;
    timespec now {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    header.timeDateStamp = uint32_t(now.tv_sec);
    header.flags = FlagFullMemory;
    const int firstError = g.error;
    g.error = 0;
    if (::lseek(fd, 0, SEEK_SET) != 0) {
        g.error = errno;
    } else {
        g.offset = 0;
        writeBytes(&header, sizeof header);
        writeBytes(directory, directoryCount * sizeof(MdDirectory));
    }

    if (g.pipe[0] >= 0) {
        ::close(g.pipe[0]);
        ::close(g.pipe[1]);
    }
    const int result = firstError ? firstError : g.error;
    errno = savedErrno;
    return result;
}

} // namespace KrCrash
