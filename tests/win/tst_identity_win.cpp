// The Windows side of the machine identity, cross-compiled with mingw-w64 and run under wine.
//
// The layer's answers are checked against the kernel asked directly here, in other ways where
// the layer has fixed ones (the root with its backslash, the Windows directory instead of the
// system directory, the processor instruction through another entry point), and against what
// wine is known to answer: drive C is an NTFS volume with a serial number.

#include "KrMachineIdentity_p.h"
#include "WinTestChecks.h"

#include <windows.h>

#include <cpuid.h>

#include <cctype>
#include <cwchar>

namespace {

using namespace WinTest;

std::string lowerCase(std::string text)
{
    for (char &c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

void cpuSignature()
{
    const KrMachine::CpuSignature signature = KrMachine::cpuSignature();
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    CHECK(signature.ok && __get_cpuid(1, &eax, &ebx, &ecx, &edx));
    CHECK_EQ(signature.eax, eax);
    CHECK_EQ(signature.edx, edx);
}

// The buffer holds the terminator too: one of the path's length fails.
void systemDirectory()
{
    wchar_t windows[MAX_PATH] = {};
    CHECK(GetWindowsDirectoryW(windows, MAX_PATH) > 0);
    const std::string path = lowerCase(KrMachine::systemDirectory(512).path);
    CHECK_EQ(path, lowerCase(std::string(windows, windows + wcslen(windows))) + "\\system32");
    const uint32_t length = static_cast<uint32_t>(path.size()); // ASCII under wine
    for (const uint32_t size : {512u, 260u, length + 1, length, 0u}) {
        const KrMachine::SystemDirectory directory = KrMachine::systemDirectory(size);
        const bool fits = size > length;
        CHECK_EQ(show(size) + ": " + show(directory.ok), show(size) + ": " + show(fits));
        CHECK_EQ(lowerCase(directory.path), fits ? path : "");
    }
}

// Drive C against the kernel asked for "C:\"; drives that do not exist, and arguments that name
// no drive, fail with empty answers.
void volumes()
{
    DWORD serial = 0;
    wchar_t fileSystem[MAX_PATH + 1] = {};
    ULARGE_INTEGER available = {}, total = {}, freeBytes = {};
    CHECK(GetVolumeInformationW(L"C:\\", nullptr, 0, &serial, nullptr, nullptr, fileSystem,
                                MAX_PATH + 1));
    CHECK(GetDiskFreeSpaceExW(L"C:\\", &available, &total, &freeBytes) && total.QuadPart > 0);
    CHECK(std::wstring(fileSystem) == L"NTFS");
    CHECK(serial != 0);
    std::string unused; // a letter that names no drive of this prefix
    for (char letter = 'Y'; letter >= 'D'; --letter) {
        if (!(GetLogicalDrives() & (1u << (letter - 'A'))))
            unused = std::string(1, letter);
    }
    const std::string systemRoot = KrMachine::systemDirectory(512).path.substr(0, 3);
    CHECK(systemRoot == "C:\\" || systemRoot == "c:\\");
    const struct
    {
        std::string drive;
        bool ok;
        bool isRoot; // passed as it is, with the system volume's buffers
    } rows[] = {{"C", true, false},
                {"c", true, false},
                {systemRoot, true, true},
                {unused, false, false},
                {unused + ":\\", false, true},
                {"", false, false},
                {"\xc3\xa9", false, false},
                {"C:\\Windows", false, false}};
    for (const auto &row : rows) {
        const KrMachine::VolumeInfo volume
                = row.isRoot ? KrMachine::rootVolume(row.drive) : KrMachine::driveVolume(row.drive);
        CHECK_EQ(row.drive + ": " + show(volume.ok), row.drive + ": " + show(row.ok));
        CHECK_EQ(volume.fileSystemName, row.ok ? "NTFS" : "");
        CHECK_EQ(volume.serialNumber, row.ok ? serial : 0u);
        if (row.isRoot)
            continue;
        const KrMachine::DiskSize size = KrMachine::driveSize(row.drive);
        CHECK_EQ(row.drive + " size: " + show(size.ok), row.drive + " size: " + show(row.ok));
        CHECK_EQ(size.totalBytes, row.ok ? static_cast<uint64_t>(total.QuadPart) : 0u);
    }
}

} // namespace

int main()
{
    runCase("CPUID leaf 1 of this processor", cpuSignature);
    runCase("system directory", systemDirectory);
    runCase("volumes and sizes", volumes);
    return failedChecks == 0 ? 0 : 1;
}
