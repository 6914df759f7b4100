#pragma once

#include "system/FileSystemPath.h"

#include <cstdint>
#include <string>
#include <sys/types.h>

// File operations on modes, owners, links, aliases and directories. Each answers with true
// when it worked; on failure the output arguments are left untouched. None of them throws.
// (The name is the one the rest of the patcher knows; the operations are POSIX.)
namespace FileSystemUtilsMac {

// Nothing to unlock on this platform; always true.
[[nodiscard]] bool UnlockPathObject(const FileSystemPath& path);

// The permission bits (mode & 0xFFF) of the entry; fails for a symbolic link.
[[nodiscard]] bool GetMode(const FileSystemPath& path, uint16_t& mode);
[[nodiscard]] bool SetMode(const FileSystemPath& path, uint16_t mode);
// The owner and group of the entry; fails for a symbolic link.
[[nodiscard]] bool GetOwnerGroup(const FileSystemPath& path, uid_t& user, gid_t& group);
// chown, following links.
[[nodiscard]] bool SetOwnerGroup(const FileSystemPath& path, uid_t user, gid_t group);

[[nodiscard]] bool IsRegularFile(const FileSystemPath& path, bool& isRegularFile);
[[nodiscard]] bool IsSymlink(const FileSystemPath& path, bool& isSymlink);

// Finder aliases exist only on Mac OS X: for an existing entry the answer is always false;
// a missing entry fails.
[[nodiscard]] bool IsMacAlias(const FileSystemPath& path, bool& isAlias);
// There is never an alias to resolve here: always false, target untouched.
[[nodiscard]] bool GetMacAliasTarget(const FileSystemPath& path, FileSystemPath& target);

// The text of a symbolic link (at most 1023 bytes; a longer text fails).
[[nodiscard]] bool GetSymlinkDestination(const FileSystemPath& path, std::string& destination);
[[nodiscard]] bool CreateSymlink(const FileSystemPath& path, const std::string& destination);

// mkdir with the mode; with forceMode the mode is also set with chmod, so the process's
// mask cannot narrow it (when that fails the new directory is removed again).
[[nodiscard]] bool CreateDirectory(const FileSystemPath& path, uint16_t mode, bool forceMode);
// True at once when the path exists; otherwise creates the missing parents first, each as
// CreateDirectory does.
[[nodiscard]] bool CreateDirectoryPath(const FileSystemPath& path, uint16_t mode, bool forceMode);
// rmdir: only an empty directory is removed; recursive is not consulted.
[[nodiscard]] bool DeleteDirectory(const FileSystemPath& path, bool recursive = false);
// A new private directory "/tmp/.tempdirXXXXXXXX" made with mkdtemp (the C library fills
// in the last six X's).
[[nodiscard]] bool CreateTemporaryDirectory(FileSystemPath& outPath);

} // namespace FileSystemUtilsMac
