#ifndef KRMACHINEIDENTITY_P_H
#define KRMACHINEIDENTITY_P_H

// Internal: the operating-system facts behind KrCommonUtils' machine identity, raw and
// unformatted. Free of Qt (and of <windows.h>), like the crash layer, so that the Windows side
// builds with mingw-w64 alone and is tested under wine; KrCommonUtils_identity.cpp turns the
// facts into the texts the client reports.
//
// KrMachineIdentity.cpp holds the processor query that both platforms share,
// KrMachineIdentity_win.cpp and KrMachineIdentity_unix.cpp the rest. Texts are UTF-8. Every
// function is reentrant and keeps no state. A failed query says so in `ok`, and its other fields
// hold what the system wrote before it failed, else their initial empty or 0: some of the
// client's reports are built without looking at the flag.

#include <cstdint>
#include <string>

namespace KrMachine {

// The processor's CPUID leaf 1 (EAX = 1, ECX = 0): the signature in eax, the feature flags in
// edx. `ok` is false only where the processor has no CPUID instruction (not x86).
struct CpuSignature
{
    bool ok = false;
    uint32_t eax = 0;
    uint32_t edx = 0;
};
CpuSignature cpuSignature();

struct VolumeInfo
{
    bool ok = false;
    std::string fileSystemName;
    uint32_t serialNumber = 0;
};

// The volume a drive argument names. Windows: the drive letter with ":" appended ("C" queries
// "C:"), through GetVolumeInformationW with 255-character name buffers. Linux: the argument is a
// path on the volume (a mount point or anything below one, relative to the working directory),
// nothing appended; the file-system type comes from the mount table and the serial number from
// statfs (see KrMachineIdentity_unix.cpp).
VolumeInfo driveVolume(const std::string &drive);

// The volume of a root given as it is ("C:\\" on Windows, a path on Linux), queried as the system
// volume always has been on Windows: with a 12-character volume-name buffer and a 10-character
// file-system-name buffer, so that a longer file-system name fails the call.
VolumeInfo rootVolume(const std::string &root);

struct DiskSize
{
    bool ok = false;
    uint64_t totalBytes = 0;
};

// The total size of the volume a drive argument names (read as driveVolume() reads it). Windows:
// GetDiskFreeSpaceExW's total bytes, which honour the caller's disk quota. Linux: statvfs's
// f_blocks * f_frsize.
DiskSize driveSize(const std::string &drive);

struct SystemDirectory
{
    bool ok = false;
    std::string path;
};

// Windows: GetSystemDirectoryW with a buffer of `bufferSize` characters (terminator included);
// a directory that does not fit fails. Linux has no system directory and answers "/", the root
// of the system volume, whatever the size.
SystemDirectory systemDirectory(uint32_t bufferSize);

} // namespace KrMachine

#endif // KRMACHINEIDENTITY_P_H
