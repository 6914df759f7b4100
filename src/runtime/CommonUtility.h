#pragma once

#include "xplat/FileVersionCompare.h" // FileVersionCompareAllowsReplace(newFile, installedFile)

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

// Shared helpers: dotted version strings, the regular-expression test, folder creation,
// free space, the console user and the enclosing application bundle of a path.

struct DotSeparatedVersion {
    int32_t major = 0;
    int32_t minor = 0;
    int32_t third = 0;
    int32_t fourth = 0;
};

// Fills up to four fields from a dotted version text ("10.4.11"); true when the text is not
// empty. Each piece is read like a C integer (leading blanks, sign, digits, clamped).
bool GetDotSeparatedVersion(const std::string& text, DotSeparatedVersion& version);

// 1 when a is newer than b, -1 when older, 0 when equal. Texts equal ignoring case are
// equal without parsing; an absent a is equal to anything; an empty text is "newer".
int DotSeparatedVersionCompare(const std::optional<std::string>& a,
                               const std::optional<std::string>& b);
// True when a is the same as or newer than b.
bool DotSeparatedVersionCompareAllowsReplace(const std::optional<std::string>& a,
                                             const std::optional<std::string>& b);

// True when the Perl-syntax expression matches somewhere in the text. Absent arguments and
// invalid expressions give false.
bool IsStrEqualToRegEx(const char* text, const char* expression);

// Creates every missing folder of the path (mode 0755, owned by the console user and group
// root when running as root). True when the whole path exists afterwards; a failure logs
// "Failed to create directory: %@" with the level that failed.
bool CreateDirectoryAtPath(const std::string& path);

// The free bytes of the volume holding path (for the unprivileged user), 0 on any failure.
uint64_t GetFreeDiskSpaceInBytes(const std::string& path);

// The user a root run acts for, as pkexec (PKEXEC_UID) or sudo (SUDO_UID) hands it over;
// nothing when neither names one.
std::optional<uid_t> InvokingUserId();

// The user of the desktop session: PKEXEC_UID, else SUDO_USER, else the owner of the
// process's login session, else the real user. Nothing when no account is found.
std::optional<std::string> GetUserName();

// Accounts and groups by id and by name; nothing when the system knows none. An answer
// found is remembered for the rest of the process.
std::optional<std::string> UserNameOfUid(uid_t uid);
std::optional<uid_t> UidOfUserName(const std::string& name);
std::optional<std::string> GroupNameOfGid(gid_t gid);
std::optional<gid_t> GidOfGroupName(const std::string& name);

// The home folder of the process's user ($HOME, else the password database).
std::string HomeDirectory();
// "~" or "~/..." expanded with HomeDirectory(); other paths unchanged.
std::string ExpandTildeInPath(const std::string& path);

// The enclosing "<Name>.app" of a path within the path and four parents; false under a
// protected folder, after three dotted non-application components, or past four parents.
bool GetPathToAppGivenSubDirPath(const std::string& path, std::string& appPath,
                                 const std::vector<std::string>& protectedFolders);

// True when the running kernel has what the patcher needs (Linux 5.3 or later, for
// pidfd_open); true as well when the version cannot be read.
bool IsOSVersionSupported();
