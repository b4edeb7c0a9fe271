#include "MiniDumpReader.h"

#include <QFile>

#include <algorithm>
#include <cstring>
#include <limits>

namespace {
constexpr quint32 HeaderSignature = 0x504D444D; // "MDMP"
constexpr quint32 HeaderVersion = 0xA793;
constexpr quint32 ContextAmd64Size = 1232;
constexpr quint32 ContextAmd64 = 0x00100000;
constexpr quint32 ContextCpuMask = 0xFFFFFF00;
constexpr quint32 DirectoryEntrySize = 12;
constexpr quint32 ThreadSize = 48;
constexpr quint32 ModuleSize = 108;
constexpr quint32 MemoryDescriptorSize = 16;
constexpr quint32 ThreadNameSize = 12;
constexpr quint32 ExceptionStreamSize = 168;
constexpr quint32 SystemInfoSize = 56;
constexpr quint32 MiscInfoMinimumSize = 24;
constexpr quint32 MiscInfoProcessId = 0x1;

template<typename T> T valueAt(const char *p)
{
    T value;
    std::memcpy(&value, p, sizeof value);
    return value;
}

QString hex(quint64 value)
{
    return QStringLiteral("0x") + QString::number(value, 16);
}
} // namespace

QString MiniDumpReader::Module::debugId() const
{
    QByteArray id = buildId.left(16);
    id.append(QByteArray(16 - id.size(), '\0'));
    // GUID: the first three fields are little-endian numbers.
    std::reverse(id.begin(), id.begin() + 4);
    std::reverse(id.begin() + 4, id.begin() + 6);
    std::reverse(id.begin() + 6, id.begin() + 8);
    return QString::fromLatin1(id.toHex().toUpper()) + QLatin1Char('0');
}

bool MiniDumpReader::open(const QString &fileName)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly)) {
        *this = MiniDumpReader();
        return fail(QStringLiteral("cannot open %1: %2").arg(fileName, file.errorString()));
    }
    return parse(file.readAll());
}

bool MiniDumpReader::fail(const QString &text)
{
    m_error = text;
    return false;
}

bool MiniDumpReader::readAt(quint64 offset, void *out, quint64 length) const
{
    const quint64 size = quint64(m_data.size());
    if (offset > size || length > size - offset)
        return false;
    std::memcpy(out, m_data.constData() + offset, length);
    return true;
}

bool MiniDumpReader::within(const Location &location) const
{
    return quint64(location.rva) + location.size <= quint64(m_data.size());
}

bool MiniDumpReader::hasStream(quint32 type) const
{
    return std::any_of(m_streams.begin(), m_streams.end(),
                       [type](const Stream &stream) { return stream.type == type; });
}

QByteArray MiniDumpReader::streamData(quint32 type) const
{
    for (const Stream &stream : m_streams) {
        if (stream.type == type)
            return m_data.mid(int(stream.location.rva), int(stream.location.size));
    }
    return QByteArray();
}

bool MiniDumpReader::parse(const QByteArray &bytes)
{
    *this = MiniDumpReader();
    m_data = bytes;
    if (m_data.size() < 32)
        return fail(QStringLiteral("file too short for a minidump header (%1 bytes)")
                            .arg(m_data.size()));
    const char *p = m_data.constData();
    if (valueAt<quint32>(p) != HeaderSignature)
        return fail(QStringLiteral("not a minidump: signature %1").arg(hex(valueAt<quint32>(p))));
    m_version = valueAt<quint32>(p + 4);
    if ((m_version & 0xFFFF) != HeaderVersion)
        return fail(QStringLiteral("unknown minidump version %1").arg(hex(m_version)));
    const quint32 streamCount = valueAt<quint32>(p + 8);
    const quint32 directoryRva = valueAt<quint32>(p + 12);
    m_timeDateStamp = valueAt<quint32>(p + 20);
    m_flags = valueAt<quint64>(p + 24);
    if (quint64(directoryRva) + quint64(streamCount) * DirectoryEntrySize > quint64(m_data.size()))
        return fail(QStringLiteral("stream directory (%1 entries at %2) outside the file")
                            .arg(streamCount)
                            .arg(hex(directoryRva)));

    for (quint32 i = 0; i < streamCount; ++i) {
        const char *entry = p + directoryRva + quint64(i) * DirectoryEntrySize;
        Stream stream;
        stream.type = valueAt<quint32>(entry);
        stream.location.size = valueAt<quint32>(entry + 4);
        stream.location.rva = valueAt<quint32>(entry + 8);
        if (!within(stream.location))
            return fail(QStringLiteral("stream %1 (type %2: %3 bytes at %4) outside the file")
                                .arg(i)
                                .arg(hex(stream.type))
                                .arg(stream.location.size)
                                .arg(hex(stream.location.rva)));
        m_streams.append(stream);
    }

    QVector<quint32> seen;
    for (const Stream &stream : qAsConst(m_streams)) {
        bool ok = true;
        switch (stream.type) {
        case SystemInfoStream:
        case MiscInfoStream:
        case ExceptionStream:
        case ThreadListStream:
        case ModuleListStream:
        case MemoryListStream:
        case ThreadNamesStream:
        case MemoryInfoListStream:
            if (seen.contains(stream.type))
                return fail(QStringLiteral("two streams of type %1").arg(stream.type));
            seen.append(stream.type);
            break;
        default:
            continue;
        }
        switch (stream.type) {
        case SystemInfoStream:
            ok = parseSystemInfo(stream.location);
            break;
        case MiscInfoStream:
            ok = parseMiscInfo(stream.location);
            break;
        case ExceptionStream:
            ok = parseException(stream.location);
            break;
        case ThreadListStream:
            ok = parseThreadList(stream.location);
            break;
        case ModuleListStream:
            ok = parseModuleList(stream.location);
            break;
        case MemoryListStream:
            ok = parseMemoryList(stream.location);
            break;
        case ThreadNamesStream:
            ok = parseThreadNames(stream.location);
            break;
        case MemoryInfoListStream:
            ok = parseMemoryInfoList(stream.location);
            break;
        }
        if (!ok)
            return false;
    }
    return true;
}

bool MiniDumpReader::readString(quint64 rva, QString *out, const char *what)
{
    quint32 length = 0;
    if (!readAt(rva, &length, 4) || length % 2 || rva + 4 + length > quint64(m_data.size()))
        return fail(QStringLiteral("%1: string at %2 outside the file or malformed")
                            .arg(QLatin1String(what), hex(rva)));
    QVector<ushort> units(int(length / 2));
    readAt(rva + 4, units.data(), length);
    *out = QString::fromUtf16(units.constData(), units.size());
    return true;
}

bool MiniDumpReader::readContext(const Location &location, Context *out, const char *what)
{
    if (location.size != ContextAmd64Size || !within(location))
        return fail(
                QStringLiteral("%1: context (%2 bytes at %3) is no AMD64 context inside the file")
                        .arg(QLatin1String(what))
                        .arg(location.size)
                        .arg(hex(location.rva)));
    const char *p = m_data.constData() + location.rva;
    out->raw = QByteArray(p, int(location.size));
    out->flags = valueAt<quint32>(p + 48);
    if ((out->flags & ContextCpuMask) != ContextAmd64)
        return fail(QStringLiteral("%1: context flags %2 are not AMD64's")
                            .arg(QLatin1String(what), hex(out->flags)));
    out->mxcsr = valueAt<quint32>(p + 52);
    out->cs = valueAt<quint16>(p + 56);
    out->ss = valueAt<quint16>(p + 66);
    out->eflags = valueAt<quint32>(p + 68);
    for (int i = 0; i < 16; ++i)
        out->registers[i] = valueAt<quint64>(p + 120 + 8 * i);
    out->rip = valueAt<quint64>(p + 248);
    return true;
}

bool MiniDumpReader::parseSystemInfo(const Location &location)
{
    if (location.size < SystemInfoSize)
        return fail(QStringLiteral("system info stream too short (%1 bytes)").arg(location.size));
    const char *p = m_data.constData() + location.rva;
    SystemInfo &info = m_systemInfo;
    info.processorArchitecture = valueAt<quint16>(p);
    info.processorLevel = valueAt<quint16>(p + 2);
    info.processorRevision = valueAt<quint16>(p + 4);
    info.numberOfProcessors = valueAt<quint8>(p + 6);
    info.majorVersion = valueAt<quint32>(p + 8);
    info.minorVersion = valueAt<quint32>(p + 12);
    info.buildNumber = valueAt<quint32>(p + 16);
    info.platformId = valueAt<quint32>(p + 20);
    const quint32 csdRva = valueAt<quint32>(p + 24);
    info.vendor = QByteArray(p + 32, 12);
    info.versionInformation = valueAt<quint32>(p + 44);
    info.featureInformation = valueAt<quint32>(p + 48);
    if (csdRva && !readString(csdRva, &info.csdVersion, "system info"))
        return false;
    m_hasSystemInfo = true;
    return true;
}

bool MiniDumpReader::parseMiscInfo(const Location &location)
{
    if (location.size < MiscInfoMinimumSize)
        return fail(QStringLiteral("misc info stream too short (%1 bytes)").arg(location.size));
    const char *p = m_data.constData() + location.rva;
    if (valueAt<quint32>(p + 4) & MiscInfoProcessId) {
        m_hasProcessId = true;
        m_processId = valueAt<quint32>(p + 8);
    }
    return true;
}

bool MiniDumpReader::parseException(const Location &location)
{
    if (location.size < ExceptionStreamSize)
        return fail(QStringLiteral("exception stream too short (%1 bytes)").arg(location.size));
    const char *p = m_data.constData() + location.rva;
    ExceptionInfo &info = m_exception;
    info.threadId = valueAt<quint32>(p);
    info.code = valueAt<quint32>(p + 8);
    info.flags = valueAt<quint32>(p + 12);
    info.address = valueAt<quint64>(p + 24);
    const Location contextLocation {valueAt<quint32>(p + 160), valueAt<quint32>(p + 164)};
    if (!readContext(contextLocation, &info.context, "exception"))
        return false;
    m_hasException = true;
    return true;
}

bool MiniDumpReader::parseThreadList(const Location &location)
{
    quint32 count = 0;
    if (location.size < 4 || !readAt(location.rva, &count, 4)
        || quint64(count) * ThreadSize > location.size - 4)
        return fail(QStringLiteral("thread list: %1 threads do not fit its %2 bytes")
                            .arg(count)
                            .arg(location.size));
    // Some writers pad the count to 8 bytes.
    const quint64 first
            = location.rva + (location.size - 4 >= quint64(count) * ThreadSize + 4 ? 8 : 4);
    for (quint32 i = 0; i < count; ++i) {
        const char *p = m_data.constData() + first + quint64(i) * ThreadSize;
        Thread thread;
        thread.id = valueAt<quint32>(p);
        thread.stackStart = valueAt<quint64>(p + 24);
        thread.stack = {valueAt<quint32>(p + 32), valueAt<quint32>(p + 36)};
        if (!within(thread.stack))
            return fail(QStringLiteral("thread %1: stack (%2 bytes at %3) outside the file")
                                .arg(thread.id)
                                .arg(thread.stack.size)
                                .arg(hex(thread.stack.rva)));
        const Location contextLocation {valueAt<quint32>(p + 40), valueAt<quint32>(p + 44)};
        if (!readContext(contextLocation, &thread.context, "thread"))
            return false;
        m_threads.append(thread);
    }
    return true;
}

bool MiniDumpReader::parseModuleList(const Location &location)
{
    quint32 count = 0;
    if (location.size < 4 || !readAt(location.rva, &count, 4)
        || quint64(count) * ModuleSize > location.size - 4)
        return fail(QStringLiteral("module list: %1 modules do not fit its %2 bytes")
                            .arg(count)
                            .arg(location.size));
    const quint64 first
            = location.rva + (location.size - 4 >= quint64(count) * ModuleSize + 4 ? 8 : 4);
    for (quint32 i = 0; i < count; ++i) {
        const char *p = m_data.constData() + first + quint64(i) * ModuleSize;
        Module module;
        module.base = valueAt<quint64>(p);
        module.size = valueAt<quint32>(p + 8);
        const quint32 nameRva = valueAt<quint32>(p + 20);
        if (!readString(nameRva, &module.name, "module name"))
            return false;
        const Location codeView {valueAt<quint32>(p + 76), valueAt<quint32>(p + 80)};
        if (codeView.size) {
            if (!within(codeView) || codeView.size < 4)
                return fail(QStringLiteral(
                                    "module %1: CodeView record (%2 bytes at %3) outside the file")
                                    .arg(module.name)
                                    .arg(codeView.size)
                                    .arg(hex(codeView.rva)));
            module.codeView = m_data.mid(int(codeView.rva), int(codeView.size));
            module.codeViewSignature = valueAt<quint32>(module.codeView.constData());
            if (module.codeViewSignature == 0x4270454C)
                module.buildId = module.codeView.mid(4);
        }
        m_modules.append(module);
    }
    return true;
}

bool MiniDumpReader::parseMemoryList(const Location &location)
{
    quint32 count = 0;
    if (location.size < 4 || !readAt(location.rva, &count, 4)
        || quint64(count) * MemoryDescriptorSize > location.size - 4)
        return fail(QStringLiteral("memory list: %1 regions do not fit its %2 bytes")
                            .arg(count)
                            .arg(location.size));
    const quint64 first = location.rva
            + (location.size - 4 >= quint64(count) * MemoryDescriptorSize + 4 ? 8 : 4);
    for (quint32 i = 0; i < count; ++i) {
        const char *p = m_data.constData() + first + quint64(i) * MemoryDescriptorSize;
        MemoryRegion region;
        region.start = valueAt<quint64>(p);
        region.memory = {valueAt<quint32>(p + 8), valueAt<quint32>(p + 12)};
        if (!within(region.memory) || region.start + region.memory.size < region.start)
            return fail(QStringLiteral("memory region %1 (%2 bytes at %3) outside the file")
                                .arg(hex(region.start))
                                .arg(region.memory.size)
                                .arg(hex(region.memory.rva)));
        m_memory.append(region);
    }
    std::sort(m_memory.begin(), m_memory.end(),
              [](const MemoryRegion &a, const MemoryRegion &b) { return a.start < b.start; });
    for (int i = 1; i < m_memory.size(); ++i) {
        if (m_memory[i].start < m_memory[i - 1].end())
            return fail(QStringLiteral("memory regions at %1 and %2 overlap")
                                .arg(hex(m_memory[i - 1].start), hex(m_memory[i].start)));
    }
    return true;
}

bool MiniDumpReader::parseThreadNames(const Location &location)
{
    quint32 count = 0;
    if (location.size < 4 || !readAt(location.rva, &count, 4)
        || quint64(count) * ThreadNameSize > location.size - 4)
        return fail(QStringLiteral("thread names: %1 names do not fit its %2 bytes")
                            .arg(count)
                            .arg(location.size));
    for (quint32 i = 0; i < count; ++i) {
        const char *p = m_data.constData() + location.rva + 4 + quint64(i) * ThreadNameSize;
        const quint32 id = valueAt<quint32>(p);
        const quint64 rva = valueAt<quint64>(p + 4);
        QString name;
        if (!readString(rva, &name, "thread name"))
            return false;
        m_threadNames.insert(id, name);
    }
    return true;
}

bool MiniDumpReader::parseMemoryInfoList(const Location &location)
{
    quint32 headerSize = 0, entrySize = 0;
    quint64 count = 0;
    if (location.size < 16 || !readAt(location.rva, &headerSize, 4)
        || !readAt(location.rva + 4, &entrySize, 4) || !readAt(location.rva + 8, &count, 8)
        || headerSize < 16 || entrySize < 48 || headerSize > location.size
        || count > (location.size - headerSize) / entrySize)
        return fail(
                QStringLiteral("memory info list: %1 entries of %2 bytes do not fit its %3 bytes")
                        .arg(count)
                        .arg(entrySize)
                        .arg(location.size));
    for (quint64 i = 0; i < count; ++i) {
        const char *p = m_data.constData() + location.rva + headerSize + i * entrySize;
        MemoryInfo info;
        info.base = valueAt<quint64>(p);
        info.allocationBase = valueAt<quint64>(p + 8);
        info.size = valueAt<quint64>(p + 24);
        info.state = valueAt<quint32>(p + 32);
        info.protect = valueAt<quint32>(p + 36);
        info.type = valueAt<quint32>(p + 40);
        m_memoryInfo.append(info);
    }
    return true;
}

const MiniDumpReader::MemoryInfo *MiniDumpReader::memoryInfoAt(quint64 address) const
{
    for (const MemoryInfo &info : m_memoryInfo) {
        if (address >= info.base && address - info.base < info.size)
            return &info;
    }
    return nullptr;
}

const MiniDumpReader::Thread *MiniDumpReader::thread(quint32 id) const
{
    for (const Thread &thread : m_threads) {
        if (thread.id == id)
            return &thread;
    }
    return nullptr;
}

const MiniDumpReader::Module *MiniDumpReader::moduleAt(quint64 address) const
{
    for (const Module &module : m_modules) {
        if (address >= module.base && address - module.base < module.size)
            return &module;
    }
    return nullptr;
}

QByteArray MiniDumpReader::bytesAt(quint64 address, quint64 length) const
{
    const quint64 end = address + length;
    if (end < address || length > quint64(std::numeric_limits<int>::max()))
        return QByteArray();
    // Regions are sorted: find the one holding `address`, then follow adjacent ones.
    auto it = std::upper_bound(
            m_memory.begin(), m_memory.end(), address,
            [](quint64 value, const MemoryRegion &r) { return value < r.start; });
    if (it == m_memory.begin())
        return QByteArray();
    --it;
    if (address >= it->end())
        return QByteArray();
    QByteArray result("");
    for (quint64 at = address; at < end; ++it) {
        if (it == m_memory.end() || at < it->start || at >= it->end())
            return QByteArray();
        const quint64 take = qMin(end, it->end()) - at;
        result.append(m_data.constData() + it->memory.rva + (at - it->start), int(take));
        at += take;
    }
    return result;
}

quint64 MiniDumpReader::findInMemory(const QByteArray &needle) const
{
    for (const MemoryRegion &region : m_memory) {
        const QByteArray bytes = QByteArray::fromRawData(m_data.constData() + region.memory.rva,
                                                         int(region.memory.size));
        const int at = bytes.indexOf(needle);
        if (at >= 0)
            return region.start + quint64(at);
    }
    return 0;
}

QByteArray MiniDumpReader::stackBytes(const Thread &thread) const
{
    return m_data.mid(int(thread.stack.rva), int(thread.stack.size));
}
