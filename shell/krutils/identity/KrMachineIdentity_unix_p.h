#ifndef KRMACHINEIDENTITY_UNIX_P_H
#define KRMACHINEIDENTITY_UNIX_P_H

// Internal, Linux: how the machine identity reads the mount table (KrMachineIdentity_unix.cpp),
// exported for the tests, which feed it tables of their own.

#include <krutils/krutils_export.h>

#include <istream>
#include <string>

namespace KrMachine {

// The file-system type ("ext4", "tmpfs", "fuse.sshfs") that a table in the format of
// /proc/self/mountinfo gives for the mount holding `path`, an absolute path with its links
// resolved: the mount with the longest mount point on the path's way (whole components only),
// and of several mounts on one point the last, which hides the others. The kernel's octal
// escapes ("\040" for a space) are undone; lines that are not mount entries are skipped. False
// when no mount holds the path.
KRUTILS_EXPORT bool mountedFileSystemType(std::istream &mountInfo, const std::string &path,
                                          std::string &type);

} // namespace KrMachine

#endif // KRMACHINEIDENTITY_UNIX_P_H
