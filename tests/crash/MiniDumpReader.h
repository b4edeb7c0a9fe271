#ifndef MINIDUMPREADER_H
#define MINIDUMPREADER_H

// A small, strict reader of minidump files (MDMP) for the tests: it reads what the Linux crash
// interception writes (KrCrash::writeMiniDump(), MiniDumpWriter_p.h) and the same streams of any
// other AMD64 minidump, and checks every offset and size against the file as it goes.
//
//     MiniDumpReader dump;
//     if (!dump.open(fileName))
//         QFAIL(qPrintable(dump.errorString()));
//     QCOMPARE(dump.exception().code, quint32(SIGSEGV));
//     QVERIFY(dump.bytesAt(address, marker.size()) == marker);
//
// open() (or parse()) reads the header, the directory and the streams below; a file that is
// truncated, is no minidump or holds an offset, size or count that leads outside the file gives
// false and an error text (errorString()), never a crash. A stream the file does not have is
// absent (has*() gives false, its value stays default); a stream that is there must be whole.
// Parsed streams: SystemInfo, MiscInfo (process id), Exception, ThreadList, ModuleList,
// MemoryList, MemoryInfoList, ThreadNames; the Linux streams (0x47670003...) and any other are
// there as raw bytes (streamData()). The whole file is held in memory (a QByteArray: files up to 2
// GiB).

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QVector>

class MiniDumpReader
{
public:
    enum StreamType : quint32 {
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

    struct Location
    {
        quint32 size = 0;
        quint32 rva = 0;
    };

    struct Stream
    {
        quint32 type = 0;
        Location location;
    };

    // The AMD64 CONTEXT (1232 bytes).
    struct Context
    {
        enum Register {
            Rax,
            Rcx,
            Rdx,
            Rbx,
            Rsp,
            Rbp,
            Rsi,
            Rdi,
            R8,
            R9,
            R10,
            R11,
            R12,
            R13,
            R14,
            R15
        };
        quint32 flags = 0;
        quint32 mxcsr = 0;
        quint16 cs = 0;
        quint16 ss = 0;
        quint32 eflags = 0;
        quint64 registers[16] = {}; // by Register
        quint64 rip = 0;
        QByteArray raw; // all of it, for the rest (the FXSAVE area at offset 256)

        quint64 rsp() const { return registers[Rsp]; }
        quint64 rbp() const { return registers[Rbp]; }
    };

    struct SystemInfo
    {
        quint16 processorArchitecture = 0; // 9: AMD64
        quint16 processorLevel = 0; // the CPU family
        quint16 processorRevision = 0; // model << 8 | stepping
        quint8 numberOfProcessors = 0;
        quint32 majorVersion = 0;
        quint32 minorVersion = 0;
        quint32 buildNumber = 0;
        quint32 platformId = 0; // 0x8201: Linux
        QString csdVersion;
        QByteArray vendor; // the 12 bytes of the CPU's vendor ("GenuineIntel", "AuthenticAMD")
        quint32 versionInformation = 0; // CPUID 1, eax
        quint32 featureInformation = 0; // CPUID 1, edx
    };

    struct ExceptionInfo
    {
        quint32 threadId = 0;
        quint32 code = 0; // Linux: the signal number, or 0xFFFFFFFF for a dump on request
        quint32 flags = 0; // Linux: si_code
        quint64 address = 0;
        Context context;
    };

    struct Thread
    {
        quint32 id = 0;
        quint64 stackStart = 0;
        Location stack; // the stack's bytes in the file
        Context context;

        quint64 stackEnd() const { return stackStart + stack.size; }
    };

    struct Module
    {
        quint64 base = 0;
        quint32 size = 0;
        QString name;
        quint32 codeViewSignature = 0; // 0x4270454C ("LEpB" in the file): ELF build id
        QByteArray buildId; // after the 'BpEL' signature
        QByteArray codeView; // the whole CodeView record

        quint64 end() const { return base + size; }
        // Breakpad's debug id of an ELF module: the first 16 bytes of the build id as a GUID, in
        // upper-case hex, and the age 0 ("MODULE Linux x86_64 <debug id> <name>" of dump_syms).
        QString debugId() const;
    };

    struct MemoryRegion
    {
        quint64 start = 0;
        Location memory;

        quint64 end() const { return start + memory.size; }
    };

    // One entry of the memory info list: a mapping and its protection, Windows style.
    struct MemoryInfo
    {
        enum Protection : quint32 {
            NoAccess = 0x01,
            ReadOnly = 0x02,
            ReadWrite = 0x04,
            WriteCopy = 0x08,
            Execute = 0x10,
            ExecuteRead = 0x20,
            ExecuteReadWrite = 0x40,
            ExecuteWriteCopy = 0x80,
        };
        enum Type : quint32 { Image = 0x1000000, Mapped = 0x40000, Private = 0x20000 };
        quint64 base = 0;
        quint64 allocationBase = 0;
        quint64 size = 0;
        quint32 state = 0; // 0x1000: committed
        quint32 protect = 0;
        quint32 type = 0;

        quint64 end() const { return base + size; }
        bool isExecutable() const
        {
            return protect & (Execute | ExecuteRead | ExecuteReadWrite | ExecuteWriteCopy);
        }
    };

    bool open(const QString &fileName);
    bool parse(const QByteArray &bytes);
    QString errorString() const { return m_error; }

    quint32 version() const { return m_version; }
    quint32 timeDateStamp() const { return m_timeDateStamp; }
    quint64 flags() const { return m_flags; }
    const QVector<Stream> &streams() const { return m_streams; }
    bool hasStream(quint32 type) const;
    // The raw bytes of the first stream of that type (empty when absent).
    QByteArray streamData(quint32 type) const;

    bool hasSystemInfo() const { return m_hasSystemInfo; }
    const SystemInfo &systemInfo() const { return m_systemInfo; }
    bool hasProcessId() const { return m_hasProcessId; }
    quint32 processId() const { return m_processId; }
    bool hasException() const { return m_hasException; }
    const ExceptionInfo &exception() const { return m_exception; }
    const QVector<Thread> &threads() const { return m_threads; }
    const Thread *thread(quint32 id) const;
    const QVector<Module> &modules() const { return m_modules; }
    // The module whose range holds the address, or null.
    const Module *moduleAt(quint64 address) const;
    const QVector<MemoryRegion> &memory() const { return m_memory; }
    const QVector<MemoryInfo> &memoryInfo() const { return m_memoryInfo; }
    // The memory info entry that holds the address, or null.
    const MemoryInfo *memoryInfoAt(quint64 address) const;
    // Thread id to name (ThreadNames stream).
    const QHash<quint32, QString> &threadNames() const { return m_threadNames; }

    // The process's bytes [address, address + length) from the memory list (several adjacent
    // regions may make them up); a null QByteArray when any of them is not in the dump.
    QByteArray bytesAt(quint64 address, quint64 length) const;
    // The address of the first occurrence of the bytes in one memory region, or 0.
    quint64 findInMemory(const QByteArray &needle) const;
    // The bytes of a thread's stack as the file holds them.
    QByteArray stackBytes(const Thread &thread) const;

private:
    bool fail(const QString &text);
    bool readAt(quint64 offset, void *out, quint64 length) const;
    bool within(const Location &location) const;
    bool readString(quint64 rva, QString *out, const char *what);
    bool readContext(const Location &location, Context *out, const char *what);
    bool parseSystemInfo(const Location &location);
    bool parseMiscInfo(const Location &location);
    bool parseException(const Location &location);
    bool parseThreadList(const Location &location);
    bool parseModuleList(const Location &location);
    bool parseMemoryList(const Location &location);
    bool parseThreadNames(const Location &location);
    bool parseMemoryInfoList(const Location &location);

    QByteArray m_data;
    QString m_error;
    quint32 m_version = 0;
    quint32 m_timeDateStamp = 0;
    quint64 m_flags = 0;
    QVector<Stream> m_streams;
    bool m_hasSystemInfo = false;
    SystemInfo m_systemInfo;
    bool m_hasProcessId = false;
    quint32 m_processId = 0;
    bool m_hasException = false;
    ExceptionInfo m_exception;
    QVector<Thread> m_threads;
    QVector<Module> m_modules;
    QVector<MemoryRegion> m_memory; // sorted by start
    QHash<quint32, QString> m_threadNames;
    QVector<MemoryInfo> m_memoryInfo;
};

#endif // MINIDUMPREADER_H
