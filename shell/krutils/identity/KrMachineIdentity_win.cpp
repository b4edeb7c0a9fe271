// The Windows side of the machine identity: the kernel's volume, disk-space and system-directory
// queries. Free of Qt: it builds with mingw-w64 alone and its tests run under wine.

#include "KrMachineIdentity_p.h"

#include <windows.h>

#include <vector>

namespace KrMachine {

namespace {

std::wstring toWide(const std::string &text)
{
    if (text.empty())
        return std::wstring();
    const int size = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                         nullptr, 0);
    std::wstring wide(static_cast<size_t>(size), L'\0');
    if (size > 0)
        MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &wide[0], size);
    return wide;
}

std::string toUtf8(const wchar_t *text)
{
    const int size = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (size <= 1)
        return std::string();
    std::string utf8(static_cast<size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, -1, &utf8[0], size, nullptr, nullptr);
    utf8.resize(static_cast<size_t>(size) - 1); // without the terminator
    return utf8;
}

// The drive letter as the client has always passed it to the kernel: "C" becomes "C:", with no
// backslash.
std::wstring driveRoot(const std::string &drive)
{
    return toWide(drive) + L":";
}

VolumeInfo queryVolume(const std::wstring &root, DWORD volumeNameSize, DWORD fileSystemNameSize)
{
    std::vector<wchar_t> volumeName(volumeNameSize, L'\0');
    std::vector<wchar_t> fileSystemName(fileSystemNameSize, L'\0');
    DWORD serialNumber = 0;
    DWORD maximumComponentLength = 0;
    DWORD fileSystemFlags = 0;
    VolumeInfo volume;
    volume.ok = GetVolumeInformationW(root.c_str(), volumeName.data(), volumeNameSize,
                                      &serialNumber, &maximumComponentLength, &fileSystemFlags,
                                      fileSystemName.data(), fileSystemNameSize)
            != FALSE;
    // Whatever the call wrote is passed on even when it failed; the buffers end in a zero.
    fileSystemName.back() = L'\0';
    volume.fileSystemName = toUtf8(fileSystemName.data());
    volume.serialNumber = serialNumber;
    return volume;
}

} // namespace

VolumeInfo driveVolume(const std::string &drive)
{
    return queryVolume(driveRoot(drive), 255, 255);
}

VolumeInfo rootVolume(const std::string &root)
{
    return queryVolume(toWide(root), 12, 10);
}

DiskSize driveSize(const std::string &drive)
{
    ULARGE_INTEGER available = {}, total = {}, freeBytes = {};
    DiskSize size;
    if (GetDiskFreeSpaceExW(driveRoot(drive).c_str(), &available, &total, &freeBytes)) {
        size.ok = true;
        size.totalBytes = total.QuadPart;
    }
    return size;
}

SystemDirectory systemDirectory(uint32_t bufferSize)
{
    SystemDirectory directory;
    if (bufferSize == 0)
        return directory;
    std::vector<wchar_t> buffer(bufferSize, L'\0');
    // The length without the terminator when the directory fits; the size it needs otherwise.
    const UINT length = GetSystemDirectoryW(buffer.data(), bufferSize);
    if (length > 0 && length < bufferSize) {
        directory.ok = true;
        directory.path = toUtf8(buffer.data());
    }
    return directory;
}

} // namespace KrMachine
