// The Windows side of the machine identity, cross-compiled with mingw-w64 and run under wine.
//
// The layer's answers are checked against the kernel asked directly here, in other ways where
// the layer has fixed ones (the root with its backslash, the Windows directory instead of the
// system directory, the processor instruction through another entry point), and against what
// wine is known to answer: drive C is an NTFS volume with a serial number.
//
// New cases go into the table at the end: one function per case.

#include "KrMachineIdentity_p.h"
#include "WinTestChecks.h"

#include <windows.h>

#include <cpuid.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <string>

namespace {

using namespace WinTest;

std::string utf8(const wchar_t *text)
{
    const int size = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (size <= 1)
        return std::string();
    std::string result(static_cast<size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, -1, &result[0], size, nullptr, nullptr);
    result.pop_back();
    return result;
}

std::string lowerCase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// A drive letter that names no drive of this prefix, or 0 when every letter is taken.
char unusedDriveLetter()
{
    const DWORD drives = GetLogicalDrives();
    for (char letter = 'D'; letter <= 'Y'; ++letter) {
        if (!(drives & (1u << (letter - 'A'))))
            return letter;
    }
    return 0;
}

// ---- Cases

void cpuSignatureOfThisProcessor()
{
    const KrMachine::CpuSignature signature = KrMachine::cpuSignature();
    CHECK(signature.ok);
    CHECK(signature.eax != 0);
    CHECK(signature.edx != 0);
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    if (CHECK(__get_cpuid(1, &eax, &ebx, &ecx, &edx))) {
        CHECK_EQ(signature.eax, eax);
        CHECK_EQ(signature.edx, edx);
    }
    // Every x86-64 processor has the x87 unit (EDX bit 0) and SSE2 (bit 26).
    CHECK((signature.edx & 1u) != 0);
    CHECK((signature.edx & (1u << 26)) != 0);
}

void systemDirectoryOfWine()
{
    const KrMachine::SystemDirectory directory = KrMachine::systemDirectory(512);
    CHECK(directory.ok);
    wchar_t windows[MAX_PATH] = {};
    CHECK(GetWindowsDirectoryW(windows, MAX_PATH) > 0);
    CHECK_EQ(lowerCase(directory.path), lowerCase(utf8(windows) + "\\system32"));
    CHECK(directory.path.size() > 3 && directory.path[1] == ':' && directory.path[2] == '\\');
    CHECK_EQ(KrMachine::systemDirectory(260).path, directory.path);
}

void systemDirectoryBuffers()
{
    const std::string path = KrMachine::systemDirectory(512).path;
    const uint32_t length = static_cast<uint32_t>(path.size()); // ASCII under wine
    const KrMachine::SystemDirectory exact = KrMachine::systemDirectory(length + 1);
    CHECK(exact.ok);
    CHECK_EQ(exact.path, path);
    // No room for the terminator: the kernel answers with the size it needs, which is a failure.
    const KrMachine::SystemDirectory tooSmall = KrMachine::systemDirectory(length);
    CHECK(!tooSmall.ok);
    CHECK_EQ(tooSmall.path, "");
    CHECK(!KrMachine::systemDirectory(0).ok);
}

void volumeOfDriveC()
{
    const KrMachine::VolumeInfo volume = KrMachine::driveVolume("C");
    CHECK(volume.ok);
    CHECK_EQ(volume.fileSystemName, "NTFS");
    CHECK(volume.serialNumber != 0);

    DWORD serial = 0;
    wchar_t fileSystem[MAX_PATH + 1] = {};
    CHECK(GetVolumeInformationW(L"C:\\", nullptr, 0, &serial, nullptr, nullptr, fileSystem,
                                MAX_PATH + 1));
    CHECK_EQ(volume.serialNumber, serial);
    CHECK_EQ(volume.fileSystemName, utf8(fileSystem));
    CHECK_EQ(KrMachine::driveVolume("c").serialNumber, serial);
}

void volumeOfTheSystemRoot()
{
    const std::string root = KrMachine::systemDirectory(512).path.substr(0, 3);
    CHECK_EQ(lowerCase(root), "c:\\");
    const KrMachine::VolumeInfo volume = KrMachine::rootVolume(root);
    CHECK(volume.ok);
    CHECK_EQ(volume.fileSystemName, "NTFS");
    CHECK_EQ(volume.serialNumber, KrMachine::driveVolume("C").serialNumber);
}

void sizeOfDriveC()
{
    const KrMachine::DiskSize size = KrMachine::driveSize("C");
    CHECK(size.ok);
    CHECK(size.totalBytes > 0);
    ULARGE_INTEGER available = {}, total = {}, freeBytes = {};
    CHECK(GetDiskFreeSpaceExW(L"C:\\", &available, &total, &freeBytes));
    CHECK_EQ(size.totalBytes, static_cast<uint64_t>(total.QuadPart));
}

void drivesThatDoNotExist()
{
    const char letter = unusedDriveLetter();
    if (!CHECK(letter != 0))
        return;
    for (const std::string &drive : {std::string(1, letter), std::string(), std::string("\xc3\xa9"),
                                     std::string("C:\\Windows")}) {
        const KrMachine::VolumeInfo volume = KrMachine::driveVolume(drive);
        if (!CHECK(!volume.ok))
            std::printf("      drive %s\n", show(drive).c_str());
        CHECK_EQ(volume.fileSystemName, "");
        CHECK_EQ(volume.serialNumber, 0u);
        const KrMachine::DiskSize size = KrMachine::driveSize(drive);
        CHECK(!size.ok);
        CHECK_EQ(size.totalBytes, 0u);
    }
    CHECK(!KrMachine::rootVolume(std::string(1, letter) + ":\\").ok);
}

// ---- The table of cases

struct Case
{
    const char *name;
    void (*run)();
};

const Case cases[] = {
        {"CPUID leaf 1 of this processor", cpuSignatureOfThisProcessor},
        {"system directory", systemDirectoryOfWine},
        {"system directory buffers", systemDirectoryBuffers},
        {"volume of drive C", volumeOfDriveC},
        {"volume of the system root", volumeOfTheSystemRoot},
        {"size of drive C", sizeOfDriveC},
        {"drives that do not exist", drivesThatDoNotExist},
};

} // namespace

int main()
{
    int passed = 0, failed = 0;
    for (const Case &testCase : cases) {
        const int failedBefore = failedChecks;
        testCase.run();
        report(testCase.name, failedBefore) ? ++passed : ++failed;
    }
    std::printf("tst_identity_win: %d passed, %d failed\n", passed, failed);
    return failed == 0 ? 0 : 1;
}
