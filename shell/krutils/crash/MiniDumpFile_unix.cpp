// The output of the Linux minidump writer: see MiniDumpFile_unix_p.h. May run in a signal handler
// while the process is broken: system calls and the object's members only.

#include "MiniDumpFile_unix_p.h"

#include "SignalSafe_unix_p.h"

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace KrCrash {

using namespace MiniDumpFormat;

namespace {

const uint8_t zeros[4096] = {};

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

} // namespace

void MiniDumpFile::begin(int fd, uint64_t pageSize)
{
    m_fd = fd;
    m_offset = 0;
    m_error = 0;
    m_pageSize = pageSize;
    m_directoryCount = 0;
    writeZeros(sizeof(MdHeader) + sizeof m_directory);
}

int MiniDumpFile::finish(uint64_t flags)
{
    MdHeader header;
    std::memset(&header, 0, sizeof header);
    header.signature = HeaderSignature;
    header.version = HeaderVersion;
    header.streamCount = m_directoryCount;
    header.streamDirectoryRva = sizeof header;
    timespec now {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    header.timeDateStamp = uint32_t(now.tv_sec);
    header.flags = flags;
    const int firstError = m_error;
    m_error = 0;
    if (::lseek(m_fd, 0, SEEK_SET) != 0) {
        m_error = errno;
    } else {
        m_offset = 0;
        writeBytes(&header, sizeof header);
        writeBytes(m_directory, m_directoryCount * sizeof(MdDirectory));
    }
    return firstError ? firstError : m_error;
}

void MiniDumpFile::fail(int error)
{
    if (!m_error)
        m_error = error;
}

bool MiniDumpFile::writeBytes(const void *data, size_t length)
{
    if (m_error)
        return false;
    const char *p = static_cast<const char *>(data);
    while (length) {
        const ssize_t n = ::write(m_fd, p, length);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            m_error = errno;
            return false;
        }
        if (n == 0) {
            m_error = EIO;
            return false;
        }
        p += n;
        length -= size_t(n);
        m_offset += uint64_t(n);
    }
    return true;
}

bool MiniDumpFile::writeZeros(uint64_t length)
{
    while (length) {
        const size_t n = length < sizeof zeros ? size_t(length) : sizeof zeros;
        if (!writeBytes(zeros, n))
            return false;
        length -= n;
    }
    return true;
}

bool MiniDumpFile::padTo(uint64_t alignment)
{
    return writeZeros(SignalSafe::alignUp(m_offset, alignment) - m_offset);
}

// The system call is made directly: the sanitizers' interceptors of write() would check the
// bytes (and report the red zones that full memory includes).
bool MiniDumpFile::writeMemory(uint64_t address, uint64_t length)
{
    while (length && !m_error) {
        const size_t request = length < (uint64_t(1) << 30) ? size_t(length) : size_t(1) << 30;
        const ssize_t n = ssize_t(::syscall(SYS_write, m_fd, address, request));
        if (n > 0) {
            address += uint64_t(n);
            length -= uint64_t(n);
            m_offset += uint64_t(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && errno == EFAULT) {
            uint64_t rest = m_pageSize - address % m_pageSize;
            if (rest > length)
                rest = length;
            if (!writeZeros(rest))
                return false;
            address += rest;
            length -= rest;
            continue;
        }
        m_error = n < 0 ? errno : EIO;
        return false;
    }
    return !m_error;
}

uint32_t MiniDumpFile::writeString(const char *utf8, size_t length)
{
    padTo(8);
    const auto *s = reinterpret_cast<const unsigned char *>(utf8);
    uint32_t units = 0;
    for (size_t i = 0, used = 0; i < length; i += used)
        units += decodeUtf8(s + i, length - i, &used) >= 0x10000 ? 2 : 1;
    const auto where = uint32_t(m_offset);
    const uint32_t bytes = units * 2;
    writeBytes(&bytes, sizeof bytes);
    size_t filled = 0;
    for (size_t i = 0, used = 0; i < length; i += used) {
        const uint32_t c = decodeUtf8(s + i, length - i, &used);
        if (filled + 2 > sizeof m_utf16 / sizeof m_utf16[0]) {
            writeBytes(m_utf16, filled * 2);
            filled = 0;
        }
        if (c >= 0x10000) {
            m_utf16[filled++] = uint16_t(0xD800 + ((c - 0x10000) >> 10));
            m_utf16[filled++] = uint16_t(0xDC00 + ((c - 0x10000) & 0x3FF));
        } else {
            m_utf16[filled++] = uint16_t(c);
        }
    }
    m_utf16[filled++] = 0;
    writeBytes(m_utf16, filled * 2);
    return where;
}

void MiniDumpFile::addStream(uint32_t type, MdLocation location)
{
    if (m_directoryCount < StreamCount)
        m_directory[m_directoryCount++] = {type, location};
}

void MiniDumpFile::writeStream(uint32_t type, const void *data, uint32_t size)
{
    padTo(8);
    const MdLocation where {size, uint32_t(m_offset)};
    if (writeBytes(data, size))
        addStream(type, where);
}

} // namespace KrCrash
