// The Linux side of the machine identity. Linux has no drive letters and no volume serial
// numbers: a drive argument is a path, the file-system type is the one the mount table gives for
// the mount that holds the path, and the serial number is 32 bits of the file system's id from
// statfs (see volumeSerial()).

#include "KrMachineIdentity_p.h"
#include "KrMachineIdentity_unix_p.h"

#include <sys/statfs.h>
#include <sys/statvfs.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <vector>

namespace KrMachine {

namespace {

// The absolute path with every symbolic link, "." and ".." resolved, or empty when the path does
// not exist (or cannot be searched).
std::string resolvedPath(const std::string &path)
{
    if (path.empty())
        return std::string();
    std::unique_ptr<char, decltype(&std::free)> resolved(realpath(path.c_str(), nullptr),
                                                         &std::free);
    return resolved ? std::string(resolved.get()) : std::string();
}

// The kernel writes space, tab, newline and backslash in the mount table's fields as octal
// escapes ("\040").
std::string unescapeMountField(const std::string &field)
{
    std::string text;
    text.reserve(field.size());
    for (size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size() && field[i + 1] >= '0' && field[i + 1] <= '3'
            && field[i + 2] >= '0' && field[i + 2] <= '7' && field[i + 3] >= '0'
            && field[i + 3] <= '7') {
            text += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8
                                      + (field[i + 3] - '0'));
            i += 3;
        } else {
            text += field[i];
        }
    }
    return text;
}

bool liesOn(const std::string &path, const std::string &mountPoint)
{
    if (mountPoint == "/")
        return true;
    return path.compare(0, mountPoint.size(), mountPoint) == 0
            && (path.size() == mountPoint.size() || path[mountPoint.size()] == '/');
}

} // namespace

bool mountedFileSystemType(std::istream &mountInfo, const std::string &path, std::string &type)
{
    std::string line;
    size_t longest = 0;
    bool found = false;
    while (std::getline(mountInfo, line)) {
        // "36 35 98:0 /mnt1 /mnt2 rw,noatime master:1 - ext3 /dev/root rw,errors=continue":
        // the mount point is the fifth field, the type follows the "-" that ends the optional
        // fields.
        std::istringstream fields(line);
        std::vector<std::string> words;
        for (std::string word; fields >> word;)
            words.push_back(word);
        if (words.size() < 8)
            continue;
        size_t separator = 6;
        while (separator < words.size() && words[separator] != "-")
            ++separator;
        if (separator + 1 >= words.size())
            continue;
        const std::string mountPoint = unescapeMountField(words[4]);
        if (!liesOn(path, mountPoint) || mountPoint.size() < longest)
            continue;
        longest = mountPoint.size();
        type = unescapeMountField(words[separator + 1]);
        found = true;
    }
    return found;
}

namespace {

// A volume's serial number: the low 32 bits of the kernel's 64-bit file-system id, which f_fsid
// holds as two words, the low one first. File systems that derive the id from their device
// number (proc, overlay and many others) have it all in the low word, the high one being 0; ext4
// and xfs derive it from the UUID written at format time, the nearest thing to a Windows serial,
// and any 32 bits of it serve. `stat -f -c %i` joins the two words into one hexadecimal number
// in the order they are stored, so a person finds this one as its high half, the digits before
// the last eight.
uint32_t volumeSerial(const struct statfs &info)
{
    uint32_t words[2] = {};
    static_assert(sizeof info.f_fsid == sizeof words, "f_fsid is two 32-bit words");
    std::memcpy(words, &info.f_fsid, sizeof words);
    return words[0];
}

VolumeInfo queryVolume(const std::string &path)
{
    VolumeInfo volume;
    const std::string resolved = resolvedPath(path);
    if (resolved.empty())
        return volume;
    struct statfs info;
    if (statfs(resolved.c_str(), &info) != 0)
        return volume;
    volume.serialNumber = volumeSerial(info);
    // /proc/self/mountinfo rather than getmntent(): its lines are read whole, whatever their
    // length (overlay mounts carry kilobytes of options), and its fields are fixed. Its mount
    // points are relative to the process's root, as resolved paths are.
    std::ifstream mountInfo("/proc/self/mountinfo");
    volume.ok = mountedFileSystemType(mountInfo, resolved, volume.fileSystemName);
    return volume;
}

} // namespace

VolumeInfo driveVolume(const std::string &drive)
{
    return queryVolume(drive);
}

// Linux has no name buffers to limit: the same query as driveVolume().
VolumeInfo rootVolume(const std::string &root)
{
    return queryVolume(root);
}

DiskSize driveSize(const std::string &drive)
{
    DiskSize size;
    const std::string resolved = resolvedPath(drive);
    struct statvfs info;
    if (resolved.empty() || statvfs(resolved.c_str(), &info) != 0)
        return size;
    size.ok = true;
    size.totalBytes = static_cast<uint64_t>(info.f_blocks) * info.f_frsize;
    return size;
}

SystemDirectory systemDirectory(uint32_t)
{
    SystemDirectory directory;
    directory.ok = true;
    directory.path = "/";
    return directory;
}

} // namespace KrMachine
