#include "system/FileSystemUtilsMac.h"

#include "system/FileSystemUtils.h"

#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace FileSystemUtilsMac {

namespace {

bool LstatOf(const FileSystemPath& path, struct stat& info) {
    return ::lstat(path.AsUTF8String().c_str(), &info) == 0;
}

} // namespace

bool UnlockPathObject(const FileSystemPath& /*path*/) {
    return true;
}

bool GetMode(const FileSystemPath& path, uint16_t& mode) {
    struct stat info {};
    if (!LstatOf(path, info) || S_ISLNK(info.st_mode))
        return false;
    mode = static_cast<uint16_t>(info.st_mode & 0xFFF);
    return true;
}

bool SetMode(const FileSystemPath& path, uint16_t mode) {
    return ::chmod(path.AsUTF8String().c_str(), mode) == 0;
}

bool GetOwnerGroup(const FileSystemPath& path, uid_t& user, gid_t& group) {
    struct stat info {};
    if (!LstatOf(path, info) || S_ISLNK(info.st_mode))
        return false;
    user = info.st_uid;
    group = info.st_gid;
    return true;
}

bool SetOwnerGroup(const FileSystemPath& path, uid_t user, gid_t group) {
    return ::chown(path.AsUTF8String().c_str(), user, group) == 0;
}

bool IsRegularFile(const FileSystemPath& path, bool& isRegularFile) {
    struct stat info {};
    if (!LstatOf(path, info))
        return false;
    isRegularFile = S_ISREG(info.st_mode);
    return true;
}

bool IsSymlink(const FileSystemPath& path, bool& isSymlink) {
    struct stat info {};
    if (!LstatOf(path, info))
        return false;
    isSymlink = S_ISLNK(info.st_mode);
    return true;
}

bool IsMacAlias(const FileSystemPath& path, bool& isAlias) {
    struct stat info {};
    if (!LstatOf(path, info))
        return false;
    isAlias = false;
    return true;
}

bool GetMacAliasTarget(const FileSystemPath& /*path*/, FileSystemPath& /*target*/) {
    return false;
}

bool GetSymlinkDestination(const FileSystemPath& path, std::string& destination) {
    char buffer[1024];
    ssize_t length = ::readlink(path.AsUTF8String().c_str(), buffer, sizeof buffer);
    // A text that fills the whole buffer may have been cut short.
    if (length < 0 || static_cast<size_t>(length) >= sizeof buffer)
        return false;
    destination.assign(buffer, static_cast<size_t>(length));
    return true;
}

bool CreateSymlink(const FileSystemPath& path, const std::string& destination) {
    return ::symlink(destination.c_str(), path.AsUTF8String().c_str()) == 0;
}

bool CreateDirectory(const FileSystemPath& path, uint16_t mode, bool forceMode) {
    const char* text = path.AsUTF8String().c_str();
    if (::mkdir(text, mode) != 0)
        return false;
    if (forceMode && ::chmod(text, mode) != 0) {
        ::rmdir(text);
        return false;
    }
    return true;
}

bool CreateDirectoryPath(const FileSystemPath& path, uint16_t mode, bool forceMode) {
    if (FileSystemUtils::Exists(path))
        return true;
    try {
        FileSystemPath parent = path.Parent();
        if (parent != path && !CreateDirectoryPath(parent, mode, forceMode))
            return false;
    } catch (const std::runtime_error&) {
        return false;
    }
    return CreateDirectory(path, mode, forceMode);
}

bool DeleteDirectory(const FileSystemPath& path, bool /*recursive*/) {
    return ::rmdir(path.AsUTF8String().c_str()) == 0;
}

bool CreateTemporaryDirectory(FileSystemPath& outPath) {
    std::string pattern = "/tmp/.tempdirXXXXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (::mkdtemp(buffer.data()) == nullptr)
        return false;
    try {
        outPath = FileSystemPath(std::string(buffer.data()));
    } catch (const std::runtime_error&) {
        ::rmdir(buffer.data());
        return false;
    }
    return true;
}

} // namespace FileSystemUtilsMac
