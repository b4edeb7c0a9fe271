#ifndef SIGNALSAFE_UNIX_P_H
#define SIGNALSAFE_UNIX_P_H

// Internal, Linux: the small helpers that libc would give, written out for the minidump writer
// (MiniDumpWriter_p.h), which runs in a signal handler while the process may be broken: plain
// system calls (retried after EINTR), no locale, no stdio, no allocation.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace KrCrash::SignalSafe {

inline size_t textLength(const char *s)
{
    size_t n = 0;
    while (s[n])
        ++n;
    return n;
}

inline bool startsWith(const char *s, size_t length, const char *prefix)
{
    for (size_t i = 0; prefix[i]; ++i) {
        if (i >= length || s[i] != prefix[i])
            return false;
    }
    return true;
}

// Appends `s` to text at *used (always leaves a terminator).
inline void appendText(char *out, size_t capacity, size_t *used, const char *s, size_t length)
{
    for (size_t i = 0; i < length && *used + 1 < capacity; ++i)
        out[(*used)++] = s[i];
    out[*used] = '\0';
}

inline void appendDecimal(char *out, size_t capacity, size_t *used, uint64_t value)
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

inline uint64_t alignUp(uint64_t value, uint64_t alignment)
{
    return (value + alignment - 1) & ~(alignment - 1);
}

inline int openForReading(const char *path)
{
    int fd;
    do {
        fd = ::open(path, O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

inline ssize_t readSome(int fd, void *buffer, size_t length)
{
    ssize_t n;
    do {
        n = ::read(fd, buffer, length);
    } while (n < 0 && errno == EINTR);
    return n;
}

// Reads a small file whole into `out` (terminated); returns its length, or -1.
inline ssize_t readSmallFile(const char *path, char *out, size_t capacity)
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

} // namespace KrCrash::SignalSafe

#endif // SIGNALSAFE_UNIX_P_H
