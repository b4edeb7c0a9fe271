#ifndef MINIDUMPWRITER_P_H
#define MINIDUMPWRITER_P_H

// Internal, Linux (x86-64) only, free of Qt: the minidump writer of the crash interception (see
// CompleteExceptionHandler_p.h). It writes the calling process as a minidump file in the MDMP
// format of Windows' MiniDumpWriteDump, with the conventions that Breakpad-style readers
// (minidump_stackwalk, minidump_dump, ...) expect for a Linux process. Its parts: the file's
// layout (MiniDumpFormat_p.h), the output (MiniDumpFile_unix_p.h), the process's mappings and
// modules (ProcessMemoryMap_unix_p.h), and the streams with the writer's state
// (MiniDumpWriter_unix.cpp).
//
// It is written to run inside a signal handler, on a small alternate stack, while the rest of the
// process may be broken: it calls only async-signal-safe system calls (open, read, write, lseek,
// close, uname, getpid, clock_gettime, process_vm_readv, pipe2) and uses static buffers of its
// own, with no malloc, no stdio, no locks and no loader calls (dl_iterate_phdr takes the loader's
// lock). Memory of the process is read with write() straight from the mapping into the file or
// with process_vm_readv(), so an unreadable address gives an error, never a fault. Its own frames
// take under 2 KiB of stack. errno is left as it was.
//
// The crashing thread need not be the calling one: the thread id, the registers and the stack all
// come from the request, so a crash-reporting thread can write the dump while the crashing thread
// waits (its context, and the FP state that the context points at, must stay in place meanwhile;
// an FP state that cannot be read is left empty instead of faulting).
//
// The streams of the file:
//   - SystemInfo (7): AMD64 (9), platform id 0x8201 (Linux), the processors online, vendor and
//     family from CPUID, the kernel version from uname() (the major, minor and build numbers from
//     its release; "sysname release version machine" as the CSD version string);
//   - MiscInfo (15): the process id;
//   - Exception (6): the crashing thread's id; for a signal the Linux convention (code = signal
//     number, flags = si_code, address = si_addr for SIGSEGV, SIGBUS, SIGILL, SIGFPE and SIGTRAP
//     raised by the kernel, else the context's instruction pointer); for an event that is not a
//     signal code 0xFFFFFFFF ("dump requested"), flags 0, address = the instruction pointer. Its
//     thread context is the crashing thread's context;
//   - ThreadList (3): the crashing thread only, with its AMD64 CONTEXT (1232 bytes, flags
//     0x0010000F: control, integer, segments, floating point) and its stack: from the stack
//     pointer less the 128-byte red zone (not below the start of its mapping) to the end of the
//     mapping that holds the stack pointer (or, after a stack overflow, of the mapping just above
//     the guard page it stands in). The stack descriptor points into the same bytes of the memory
//     list;
//   - ModuleList (4): one module per ELF file mapped executable (consecutive mappings of one file
//     form one module from its lowest start to its highest end; the vDSO is "linux-gate.so"),
//     the main program first, the full path as name, a CodeView record 'BpEL' (0x4270454C, the
//     bytes "LEpB") with the GNU build id read from the PT_NOTE segments in memory (a module
//     without one gets the signature alone);
//   - MemoryList (5): the bytes of every readable private mapping ("r" and "p" in /proc/self/maps)
//     except [vvar*], [vsyscall] and private mappings of devices (/dev/*, but /dev/zero): full
//     memory. Adjacent mappings are merged into one region. Pages that cannot be read (the kernel
//     answers EFAULT) are written as zeros, so offsets stay right;
//   - MemoryInfoList (16): every mapping (readable or not) with its protection as Windows names it
//     (PAGE_NOACCESS, PAGE_READONLY, PAGE_EXECUTE_READ, ...), committed, of type MEM_IMAGE (a
//     module's mapping), MEM_MAPPED (other files, shared memory) or MEM_PRIVATE;
//   - ThreadNames (24): the crashing thread's name (/proc/self/task/<tid>/comm);
//   - the Linux streams, raw text as read: LinuxCpuInfo 0x47670003 (/proc/cpuinfo),
//     LinuxProcStatus 0x47670004 (/proc/self/status), LinuxLsbRelease 0x47670005 (/etc/lsb-release,
//     else /etc/os-release), LinuxCmdLine 0x47670006, LinuxEnviron 0x47670007, LinuxAuxv
//     0x47670008, LinuxMaps 0x47670009 (the /proc/self/... files). A file that cannot be opened
//     gives an empty stream.
// The header carries the time stamp and the flags MiniDumpWithFullMemory (0x2). Other threads are
// neither stopped nor listed; memory they change while the dump is written may be torn.
//
// Limits (the writer has fixed static tables; what lies beyond them is left out, and the dump is
// still valid):
//   - MaxMappings mappings of /proc/self/maps are parsed (the kernel's default maximum per
//     process, vm.max_map_count, is 65530); later ones give neither memory nor modules;
//   - MaxModules modules; MaxPathPoolBytes bytes of distinct mapping paths;
//   - each Linux text stream is cut after MaxTextStreamBytes bytes (the maps are still parsed
//     whole); a thread name after 64 bytes;
//   - a 32-bit RVA addresses the file, so the file stays below 4 GiB: the memory regions come last,
//     the one that holds the stack first, then the others in address order; a region that would
//     end beyond 4 GiB is left out (smaller ones after it may still fit). A region also holds at
//     most 4 GiB - 1 bytes.
//   - readers cap the number of memory regions and modules they take (Breakpad's at some
//     thousands), which merging adjacent mappings keeps far away.

#include <signal.h>
#include <sys/types.h>
#include <ucontext.h>

#include <cstddef>

namespace KrCrash {

struct MiniDumpRequest
{
    // Kernel thread id (gettid) of the crashing thread; 0 means the calling thread.
    pid_t crashingThread = 0;
    // Its registers, FP state included: the signal handler's third argument, or what getcontext()
    // filled for events that are not signals (zero the ucontext_t first: getcontext() leaves the
    // segment registers, rax, r10, r11 and the flags unset, and its FP state is the x87 control
    // word and MXCSR only, which is all the dump gets then). Required.
    const ucontext_t *context = nullptr;
    // The signal's information; null for events that are not signals (std::terminate, a failed
    // allocation, a dump on request).
    const siginfo_t *signal = nullptr;
};

namespace MiniDumpLimits {
constexpr size_t MaxMappings = 16384;
constexpr size_t MaxModules = 1024;
constexpr size_t MaxPathPoolBytes = 256 * 1024;
constexpr size_t MaxTextStreamBytes = 4 * 1024 * 1024;
} // namespace MiniDumpLimits

// Writes a minidump of the calling process into fd (open for writing, at offset 0; the file is
// written in sequence and its first bytes, header and directory, last, after an lseek to 0).
// Uses only async-signal-safe system calls and the writer's static buffers. One call at a time
// per process (the caller guarantees it). Returns 0, or the errno of the first failure: writing
// or seeking fd, or EINVAL when the request has no context. Sources that cannot be read (a /proc
// file, a module's notes) leave their part empty and are no failure.
int writeMiniDump(int fd, const MiniDumpRequest &request);

} // namespace KrCrash

#endif // MINIDUMPWRITER_P_H
