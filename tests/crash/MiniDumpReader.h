#ifndef MINIDUMPREADER_H
#define MINIDUMPREADER_H

// A small reader of the minidumps that the Linux crash interception writes, for what Breakpad's
// tools do not show: the exact layout of the crashing thread's streams, its registers against its
// stack bytes, the process's memory and mappings. An absent stream, or an offset that leads
// outside the file, reads as zeros.

#include <QByteArray>
#include <QFile>
#include <QString>

#include <cstring>

class MiniDumpReader
{
public:
    // The system information, and Breakpad's streams of the files of /proc as they were.
    static constexpr quint32 SystemInfoStream = 7, LinuxCpuInfo = 0x47670003,
                             LinuxProcStatus = 0x47670004, LinuxLsbRelease = 0x47670005,
                             LinuxCmdLine = 0x47670006, LinuxEnviron = 0x47670007,
                             LinuxAuxv = 0x47670008, LinuxMaps = 0x47670009;

    struct Registers // of an AMD64 CONTEXT (1232 bytes)
    {
        quint32 flags = 0, mxcsr = 0;
        quint16 cs = 0, fpuControlWord = 0; // the FXSAVE area's first word
        quint64 rsp = 0, rip = 0;
        QByteArray raw;
    };
    struct ExceptionInfo
    {
        quint32 threadId = 0, code = 0, flags = 0;
        quint64 address = 0;
        Registers registers;
    };
    struct Thread
    {
        quint32 id = 0;
        quint64 stackStart = 0;
        QByteArray stack; // where the thread list points
        Registers registers;
        quint64 stackEnd() const { return stackStart + quint64(stack.size()); }
    };
    // A mapping, with its protection and type as Windows names them.
    struct MemoryInfo
    {
        enum : quint32 { NoAccess = 0x01, ReadOnly = 0x02, ReadWrite = 0x04, ExecuteRead = 0x20 };
        enum : quint32 { Private = 0x20000, Mapped = 0x40000, Image = 0x1000000 };
        quint64 base = 0, allocationBase = 0, size = 0;
        quint32 protect = 0, type = 0;
        quint64 end() const { return base + size; }
    };

    bool open(const QString &fileName)
    {
        QFile file(fileName);
        m_data = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
        return u32(0) == 0x504D444D; // "MDMP"
    }
    quint32 timeDateStamp() const { return u32(20); }
    quint64 flags() const { return u64(24); }

    QByteArray stream(quint32 type) const
    {
        return bytes(streamRva(type), u32(directoryEntry(type) + 4));
    }
    quint32 processId() const { return u32(streamRva(MiscInfoStream) + 8); }

    ExceptionInfo exception() const
    {
        const quint64 rva = streamRva(ExceptionStream);
        return {u32(rva), u32(rva + 8), u32(rva + 12), u64(rva + 24),
                registersAt(u32(rva + 164), u32(rva + 160))};
    }

    int threadCount() const { return int(u32(streamRva(ThreadListStream))); }
    Thread thread(int index) const
    {
        const quint64 rva = streamRva(ThreadListStream) + 4 + 48 * quint64(index);
        return {u32(rva), u64(rva + 24), bytes(u32(rva + 36), u32(rva + 32)),
                registersAt(u32(rva + 44), u32(rva + 40))};
    }

    QString threadName(quint32 id) const
    {
        const quint64 rva = streamRva(ThreadNamesStream);
        for (quint64 entry = rva + 4; entry < rva + 4 + 12 * u32(rva); entry += 12) {
            if (u32(entry) == id)
                return stringAt(u64(entry + 4));
        }
        return QString();
    }

    // The process's bytes [address, address + length) from one region of the memory list, or a
    // null array.
    QByteArray bytesAt(quint64 address, quint64 length) const
    {
        const quint64 rva = streamRva(MemoryListStream);
        for (quint64 region = rva + 4; region < rva + 4 + 16 * u32(rva); region += 16) {
            if (address >= u64(region) && address + length <= u64(region) + u32(region + 8))
                return bytes(u32(region + 12) + address - u64(region), length);
        }
        return QByteArray();
    }

    MemoryInfo memoryInfoAt(quint64 address) const
    {
        const quint64 rva = streamRva(MemoryInfoListStream);
        for (quint64 i = 0; i < u64(rva + 8); ++i) {
            const quint64 entry = rva + u32(rva) + u32(rva + 4) * i;
            const MemoryInfo info {u64(entry), u64(entry + 8), u64(entry + 24), u32(entry + 36),
                                   u32(entry + 40)};
            if (address >= info.base && address < info.end())
                return info;
        }
        return MemoryInfo();
    }

private:
    enum : quint32 { ThreadListStream = 3, MemoryListStream = 5, ExceptionStream = 6 };
    enum : quint32 { MiscInfoStream = 15, MemoryInfoListStream = 16, ThreadNamesStream = 24 };

    template<typename T> T at(quint64 offset) const
    {
        T value {};
        if (offset <= quint64(m_data.size()) && sizeof value <= quint64(m_data.size()) - offset)
            std::memcpy(&value, m_data.constData() + offset, sizeof value);
        return value;
    }
    quint32 u32(quint64 offset) const { return at<quint32>(offset); }
    quint64 u64(quint64 offset) const { return at<quint64>(offset); }
    // Past the end of the file when there is no such stream.
    quint64 directoryEntry(quint32 type) const
    {
        for (quint64 entry = u32(12); entry < u32(12) + 12 * quint64(u32(8)); entry += 12) {
            if (u32(entry) == type)
                return entry;
        }
        return quint64(m_data.size());
    }
    quint64 streamRva(quint32 type) const
    {
        const quint64 entry = directoryEntry(type);
        return entry < quint64(m_data.size()) ? u32(entry + 8) : quint64(m_data.size());
    }
    QByteArray bytes(quint64 rva, quint64 size) const
    {
        return rva + size <= quint64(m_data.size()) ? m_data.mid(int(rva), int(size))
                                                    : QByteArray();
    }
    QString stringAt(quint64 rva) const
    {
        const QByteArray utf16 = bytes(rva + 4, u32(rva));
        return QString::fromUtf16(reinterpret_cast<const char16_t *>(utf16.constData()),
                                  utf16.size() / 2);
    }
    Registers registersAt(quint64 rva, quint32 size) const
    {
        return {u32(rva + 48),  u32(rva + 52),  at<quint16>(rva + 56), at<quint16>(rva + 256),
                u64(rva + 152), u64(rva + 248), bytes(rva, size)};
    }

    QByteArray m_data;
};

#endif // MINIDUMPREADER_H
