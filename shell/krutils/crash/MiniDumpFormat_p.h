#ifndef MINIDUMPFORMAT_P_H
#define MINIDUMPFORMAT_P_H

// Internal, free of Qt and of platform headers: the layout of a minidump (MDMP) file, as far as
// the Linux minidump writer (MiniDumpWriter_p.h) fills it. The structures and names follow the
// Windows headers that define the format (dbghelp.h, winnt.h), packed to 4 bytes as there; the
// sizes that readers rely on are checked below.

#include <cstddef>
#include <cstdint>

namespace KrCrash::MiniDumpFormat {

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

constexpr uint32_t HeaderSignature = 0x504D444D; // "MDMP"
constexpr uint32_t HeaderVersion = 0xA793;
constexpr uint64_t FlagFullMemory = 0x2;

// The streams the writer writes, each once.
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
// RVAs are 32 bits wide: the whole file lies below 4 GiB.
constexpr uint64_t RvaLimit = uint64_t(1) << 32;

} // namespace KrCrash::MiniDumpFormat

#endif // MINIDUMPFORMAT_P_H
