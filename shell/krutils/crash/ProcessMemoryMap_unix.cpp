// The Linux minidump writer's view of its own process: see ProcessMemoryMap_unix_p.h. May run in
// a signal handler while the process is broken: system calls and the object's tables only.

#include "ProcessMemoryMap_unix_p.h"

#include "SignalSafe_unix_p.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace KrCrash {

using namespace MiniDumpLimits;
using namespace SignalSafe;

namespace {

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

uint8_t pathFlags(const char *path, size_t length)
{
    uint8_t flags = 0;
    if (startsWith(path, length, "[vvar") || startsWith(path, length, "[vsyscall]")
        || (startsWith(path, length, "/dev/") && !startsWith(path, length, "/dev/zero")))
        flags |= NoMemory;
    if (startsWith(path, length, "[vdso]"))
        flags |= Vdso;
    return flags;
}

} // namespace

void ProcessMemoryMap::begin(pid_t pid, uint64_t pageSize)
{
    m_pid = pid;
    m_pageSize = pageSize;
    m_pipe[0] = m_pipe[1] = -1;
    m_pipeTried = false;
    m_mappingCount = 0;
    m_pathPoolUsed = 0;
    m_moduleCount = 0;
    m_lineLength = 0;
    m_lineTooLong = false;
}

void ProcessMemoryMap::end()
{
    if (m_pipe[0] >= 0) {
        ::close(m_pipe[0]);
        ::close(m_pipe[1]);
    }
}

bool ProcessMemoryMap::read(uint64_t address, void *out, size_t length)
{
    iovec local {out, length};
    iovec remote {reinterpret_cast<void *>(address), length};
    const ssize_t n = ::process_vm_readv(m_pid, &local, 1, &remote, 1, 0);
    if (n == ssize_t(length))
        return true;
    if (n >= 0 || (errno != ENOSYS && errno != EPERM))
        return false;
    // process_vm_readv() refused (an old kernel, a seccomp filter): a pipe copies as well, and
    // gives EFAULT likewise.
    if (!m_pipeTried) {
        m_pipeTried = true;
        if (::pipe2(m_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
            m_pipe[0] = m_pipe[1] = -1;
    }
    if (m_pipe[0] < 0)
        return false;
    char *dest = static_cast<char *>(out);
    while (length) {
        const size_t step = length < 4096 ? length : 4096; // below any pipe's capacity
        const ssize_t written = ::write(m_pipe[1], reinterpret_cast<const void *>(address), step);
        if (written <= 0)
            return false;
        const ssize_t got = readSome(m_pipe[0], dest, size_t(written));
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

void ProcessMemoryMap::parseMaps(const char *bytes, size_t length)
{
    for (size_t i = 0; i < length; ++i) {
        const char c = bytes[i];
        if (c == '\n') {
            if (!m_lineTooLong)
                parseMapsLine(m_line, m_lineLength);
            m_lineLength = 0;
            m_lineTooLong = false;
        } else if (m_lineLength < sizeof m_line) {
            m_line[m_lineLength++] = c;
        } else {
            m_lineTooLong = true;
        }
    }
}

void ProcessMemoryMap::finishMaps()
{
    if (m_lineLength && !m_lineTooLong)
        parseMapsLine(m_line, m_lineLength);
}

// "start-end perms offset major:minor inode   path"
void ProcessMemoryMap::parseMapsLine(const char *s, size_t length)
{
    if (m_mappingCount >= MaxMappings)
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

    Mapping &m = m_mappings[m_mappingCount];
    m.start = start;
    m.end = stop;
    m.inode = inode;
    m.device = uint32_t((major << 20) | (minor & 0xFFFFF));
    m.flags = flags | pathFlags(path, pathLength);
    m.pathOffset = 0;
    m.pathLength = 0;
    if (inode != 0 && pathLength && pathLength <= 0xFFFF) {
        // The mappings of one file come one after another: keep its path once.
        const Mapping *previous = m_mappingCount ? &m_mappings[m_mappingCount - 1] : nullptr;
        if (previous && previous->pathLength == pathLength
            && std::memcmp(m_pathPool + previous->pathOffset, path, pathLength) == 0) {
            m.pathOffset = previous->pathOffset;
            m.pathLength = previous->pathLength;
        } else if (m_pathPoolUsed + pathLength <= sizeof m_pathPool) {
            std::memcpy(m_pathPool + m_pathPoolUsed, path, pathLength);
            m.pathOffset = uint32_t(m_pathPoolUsed);
            m.pathLength = uint16_t(pathLength);
            m_pathPoolUsed += pathLength;
        }
    }
    ++m_mappingCount;
}

bool ProcessMemoryMap::inMemoryList(const Mapping &m)
{
    return (m.flags & (Readable | Private | NoMemory)) == (Readable | Private);
}

// After an overflow into a guard page (or below a grown-down stack) the stack's bytes are in the
// mapping just above.
const Mapping *ProcessMemoryMap::stackMapping(uint64_t sp) const
{
    for (size_t i = 0; i < m_mappingCount; ++i) {
        const Mapping &m = m_mappings[i];
        if (sp >= m.start && sp < m.end) {
            if (inMemoryList(m))
                return &m;
            const Mapping *above = i + 1 < m_mappingCount ? &m_mappings[i + 1] : nullptr;
            return above && above->start == m.end && inMemoryList(*above) ? above : nullptr;
        }
        if (m.start > sp)
            return inMemoryList(m) && m.start - sp <= 64 * 1024 ? &m : nullptr;
    }
    return nullptr;
}

void ProcessMemoryMap::collectModules(uint64_t mainProgramHeaders)
{
    for (size_t i = 0; i < m_mappingCount && m_moduleCount < MaxModules;) {
        const Mapping &first = m_mappings[i];
        size_t j = i + 1;
        bool executable = first.flags & Executable;
        if (first.inode != 0) {
            while (j < m_mappingCount && m_mappings[j].inode == first.inode
                   && m_mappings[j].device == first.device) {
                executable = executable || (m_mappings[j].flags & Executable);
                ++j;
            }
        } else if (!(first.flags & Vdso)) {
            executable = false;
        }
        if (executable) {
            Module &module = m_modules[m_moduleCount++];
            std::memset(&module, 0, sizeof module);
            module.base = first.start;
            module.end = m_mappings[j - 1].end;
            module.pathOffset = first.pathOffset;
            module.pathLength = first.pathLength;
            module.vdso = first.flags & Vdso;
        }
        i = j;
    }
    // The main program first: readers take the first module for it.
    for (size_t i = 1; i < m_moduleCount; ++i) {
        if (mainProgramHeaders >= m_modules[i].base && mainProgramHeaders < m_modules[i].end) {
            const Module main = m_modules[i];
            for (size_t k = i; k > 0; --k)
                m_modules[k] = m_modules[k - 1];
            m_modules[0] = main;
            break;
        }
    }
}

size_t ProcessMemoryMap::buildId(uint64_t base, uint8_t *out, size_t capacity)
{
    Elf64_Ehdr header;
    if (!read(base, &header, sizeof header) || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0
        || header.e_ident[EI_CLASS] != ELFCLASS64 || header.e_phentsize != sizeof(Elf64_Phdr)
        || header.e_phnum == 0 || header.e_phnum > 512)
        return 0;
    // The load bias: the first PT_LOAD maps the file's start at `base`.
    uint64_t bias = base;
    bool haveBias = false;
    for (unsigned pass = 0; pass < 2; ++pass) {
        for (unsigned i = 0; i < header.e_phnum; ++i) {
            Elf64_Phdr ph;
            if (!read(base + header.e_phoff + uint64_t(i) * sizeof ph, &ph, sizeof ph))
                return 0;
            if (pass == 0) {
                if (ph.p_type == PT_LOAD && !haveBias) {
                    bias = base - (ph.p_vaddr & ~(m_pageSize - 1));
                    haveBias = true;
                }
                continue;
            }
            if (ph.p_type != PT_NOTE || ph.p_filesz < 12)
                continue;
            const size_t size = ph.p_filesz < sizeof m_notes ? size_t(ph.p_filesz) : sizeof m_notes;
            if (!read(bias + ph.p_vaddr, m_notes, size))
                continue;
            const size_t align = ph.p_align == 8 ? 8 : 4;
            for (size_t at = 0; at + 12 <= size;) {
                uint32_t nameSize, descSize, type;
                std::memcpy(&nameSize, m_notes + at, 4);
                std::memcpy(&descSize, m_notes + at + 4, 4);
                std::memcpy(&type, m_notes + at + 8, 4);
                const uint64_t nameAt = at + 12;
                const uint64_t descAt = nameAt + alignUp(nameSize, align);
                const uint64_t next = descAt + alignUp(descSize, align);
                if (next > size)
                    break;
                if (type == NT_GNU_BUILD_ID && nameSize == 4
                    && std::memcmp(m_notes + nameAt, "GNU", 4) == 0) {
                    const size_t n = descSize < capacity ? descSize : capacity;
                    std::memcpy(out, m_notes + descAt, n);
                    return n;
                }
                at = size_t(next);
            }
        }
    }
    return 0;
}

} // namespace KrCrash
