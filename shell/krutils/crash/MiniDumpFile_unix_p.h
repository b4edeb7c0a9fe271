#ifndef MINIDUMPFILE_UNIX_P_H
#define MINIDUMPFILE_UNIX_P_H

// Internal, Linux: the output side of the minidump writer (MiniDumpWriter_p.h). A MiniDumpFile
// writes the file in sequence through one cursor, collects the stream directory, and at the end
// puts the header and the directory into the place kept for them at the start. The first failure
// is kept and every later write does nothing, so the writer goes on without testing each step.
//
// Signal-safe like the writer: write() and lseek() on the file and the object's own members. The
// type is trivial, so that the writer's one instance in static storage needs no constructor.

#include "MiniDumpFormat_p.h"

#include <cstddef>
#include <cstdint>

namespace KrCrash {

class MiniDumpFile
{
public:
    using MdLocation = MiniDumpFormat::MdLocation;

    // Starts a file on `fd` (open for writing, at offset 0) and keeps the place of the header and
    // the directory.
    void begin(int fd, uint64_t pageSize);
    // Writes the header, stamped with the current time and `flags`, and the directory at the
    // start, even after a failure, so that what was written can still be read. Returns 0, or the
    // errno of the first failure.
    int finish(uint64_t flags);

    uint64_t offset() const { return m_offset; }
    // Keeps `error` unless an earlier failure is kept already.
    void fail(int error);

    bool writeBytes(const void *data, size_t length);
    bool writeZeros(uint64_t length);
    bool padTo(uint64_t alignment);
    // Writes `length` bytes of the process's memory at `address` straight from the mapping; pages
    // that the kernel cannot read are written as zeros.
    bool writeMemory(uint64_t address, uint64_t length);
    // Writes a MINIDUMP_STRING (UTF-16, its byte length first, a terminator after) of UTF-8 text
    // and returns its offset in the file.
    uint32_t writeString(const char *utf8, size_t length);

    void addStream(uint32_t type, MdLocation location);
    // Writes a structure as a stream of its own.
    void writeStream(uint32_t type, const void *data, uint32_t size);

private:
    int m_fd;
    uint64_t m_offset; // where the next write goes
    int m_error; // the first failure
    uint64_t m_pageSize;
    MiniDumpFormat::MdDirectory m_directory[MiniDumpFormat::StreamCount];
    uint32_t m_directoryCount;
    uint16_t m_utf16[512];
};

} // namespace KrCrash

#endif // MINIDUMPFILE_UNIX_P_H
