#ifndef PROCESSMEMORYMAP_UNIX_P_H
#define PROCESSMEMORYMAP_UNIX_P_H

// Internal, Linux: the minidump writer's view of its own process (MiniDumpWriter_p.h). A
// ProcessMemoryMap parses /proc/self/maps as the writer copies it into the dump, groups the
// mappings into modules (the ELF files mapped executable), finds a module's build id and the
// mapping of a stack, and reads the process's memory so that an unreadable address gives an
// error, never a fault.
//
// Signal-safe like the writer: fixed tables (see MiniDumpLimits) and system calls only. The type
// is trivial, so that the writer's one instance in static storage needs no constructor.

#include "MiniDumpFormat_p.h"
#include "MiniDumpWriter_p.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace KrCrash {

enum MappingFlag : uint8_t {
    Readable = 0x1,
    Writable = 0x2,
    Executable = 0x4,
    Private = 0x8,
    NoMemory = 0x10, // [vvar*], [vsyscall], devices: never read
    Vdso = 0x20,
};

// One line of /proc/self/maps.
struct Mapping
{
    uint64_t start;
    uint64_t end;
    uint64_t inode;
    uint32_t device; // major << 20 | minor
    uint32_t pathOffset; // into the path pool
    uint16_t pathLength;
    uint8_t flags;
};

// Consecutive mappings of one file, one of them executable; or the vDSO.
struct Module
{
    uint64_t base;
    uint64_t end;
    uint32_t pathOffset;
    uint16_t pathLength;
    bool vdso;
    // Where the writer put the module's name and CodeView record.
    uint32_t nameRva;
    MiniDumpFormat::MdLocation codeView;
};

class ProcessMemoryMap
{
public:
    void begin(pid_t pid, uint64_t pageSize);
    // Releases what read() may have opened.
    void end();

    // Copies memory of the process; false where any of it cannot be read.
    bool read(uint64_t address, void *out, size_t length);

    // Takes /proc/self/maps in pieces of any size as they go by, then the last line at the end.
    void parseMaps(const char *bytes, size_t length);
    void finishMaps();
    size_t mappingCount() const { return m_mappingCount; }
    const Mapping &mapping(size_t i) const { return m_mappings[i]; }
    // Whether a mapping's bytes go into the memory list: readable private memory.
    static bool inMemoryList(const Mapping &m);
    // The mapping whose bytes hold the stack at `sp`, or null.
    const Mapping *stackMapping(uint64_t sp) const;

    // Groups the mappings into modules, the main program (whose program headers lie at
    // `mainProgramHeaders`, AT_PHDR) first.
    void collectModules(uint64_t mainProgramHeaders);
    size_t moduleCount() const { return m_moduleCount; }
    Module &module(size_t i) { return m_modules[i]; }
    const char *path(const Module &module) const { return m_pathPool + module.pathOffset; }
    // The GNU build id of the ELF object loaded at `base`, read from its PT_NOTE segments in
    // memory: its length (0 when there is none), the bytes at `out`.
    size_t buildId(uint64_t base, uint8_t *out, size_t capacity);

private:
    void parseMapsLine(const char *s, size_t length);

    pid_t m_pid;
    uint64_t m_pageSize;
    int m_pipe[2]; // for read() where process_vm_readv() is refused
    bool m_pipeTried;
    size_t m_mappingCount;
    size_t m_pathPoolUsed;
    size_t m_moduleCount;
    // Line assembly of /proc/self/maps.
    size_t m_lineLength;
    bool m_lineTooLong;
    Mapping m_mappings[MiniDumpLimits::MaxMappings];
    Module m_modules[MiniDumpLimits::MaxModules];
    char m_pathPool[MiniDumpLimits::MaxPathPoolBytes];
    char m_line[8192]; // a path has at most 4095 bytes
    uint8_t m_notes[4096];
};

} // namespace KrCrash

#endif // PROCESSMEMORYMAP_UNIX_P_H
