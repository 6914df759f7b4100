#include "update/FileManager.h"

#include "base/FileUtil.h"
#include "base/Md5.h"
#include "base/Path.h"
#include "runtime/CommonUtility.h"
#include "runtime/LoggerUtility.h"
#include "system/FileSystem.h"
#include "update/FileOperationInfo.h"
#include "update/MD5cksum.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace {

bool IsAllDigits(const std::string& text) {
    if (text.empty())
        return false;
    for (char c : text) {
        if (c < '0' || c > '9')
            return false;
    }
    return true;
}

// An account name, or a numeric id when no account has that name.
std::optional<uid_t> UserIdOf(const std::string& name) {
    if (const auto uid = UidOfUserName(name))
        return uid;
    if (IsAllDigits(name))
        return static_cast<uid_t>(std::strtoul(name.c_str(), nullptr, 10));
    return std::nullopt;
}

std::optional<gid_t> GroupIdOf(const std::string& name) {
    if (const auto gid = GidOfGroupName(name))
        return gid;
    if (IsAllDigits(name))
        return static_cast<gid_t>(std::strtoul(name.c_str(), nullptr, 10));
    return std::nullopt;
}

// The manifest writes a mode as the digits of its octal form ("755"). The text is read as
// a decimal number first and its digits are then taken as octal digits, up to the first
// digit that is not one; 0 means no change.
mode_t ModeFromPermissionText(const std::string& text) {
    const long decimal = std::strtol(text.c_str(), nullptr, 10);
    if (decimal <= 0)
        return 0;
    const std::string digits = std::to_string(decimal);
    const long octal = std::strtol(digits.c_str(), nullptr, 8);
    if (octal <= 0 || octal > 07777)
        return 0;
    return static_cast<mode_t>(octal);
}

} // namespace

FileManager::FileManager() : _fs(&RealFileSystem::instance()) {}

bool FileManager::copyRegularFile(const std::string& source, const std::string& destination,
                                  const struct stat& sourceInfo, bool sync, bool rememberChecksum,
                                  struct stat* copyState) const {
    UniqueFd in = _fs->openForReading(source);
    if (!in.valid())
        return false;
    UniqueFd out = _fs->createFile(destination, 0600);
    if (!out.valid())
        return false;
    // From here on a failure must not leave a partial file behind.
    auto discard = [&] { return discardNewFile(out, destination); };
    // Both ends hold the bytes copied, so their checksum is known while neither changes:
    // taken from the source when it is known already, else computed on the way.
    std::optional<std::string> known;
    std::optional<Md5Stream> digest;
    struct stat opened {};
    if (rememberChecksum && ::fstat(in.get(), &opened) == 0 &&
        MD5cksum::sameFileState(sourceInfo, opened))
        known = MD5cksum::awaitedChecksumOfFile(source, opened);
    if (rememberChecksum && !known)
        digest.emplace();
    FileSystem::CopyObserver observe;
    if (digest)
        observe = [&digest](const char* data, size_t size) { digest->update(data, size); };
    const bool copied = _fs->copyData(in.get(), out.get(), observe);
    if (!copied)
        return discard();
    if (!_fs->setModeOfFile(out.get(), sourceInfo.st_mode & 07777))
        return discard();
    const timespec times[2] = {sourceInfo.st_atim, sourceInfo.st_mtim};
    (void)_fs->setTimesOfFile(out.get(), times); // a copy with today's date is still a copy
    if (sync && !_fs->syncFile(out.get(), true))
        return discard();
    // The source counts only if it did not change while it was read.
    struct stat sourceAfter {};
    struct stat copyInfo {};
    const bool remember = rememberChecksum && ::fstat(in.get(), &sourceAfter) == 0 &&
                          MD5cksum::sameFileState(sourceInfo, sourceAfter) &&
                          ::fstat(out.get(), &copyInfo) == 0;
    if (!_fs->close(out)) {
        const int error = errno;
        (void)_fs->removeFile(destination);
        errno = error;
        return false;
    }
    if (remember) {
        if (digest)
            known = digest->finish();
        if (known) {
            MD5cksum::rememberChecksumOfFile(destination, copyInfo, *known);
            MD5cksum::rememberChecksumOfFile(source, sourceAfter, *known);
        }
        if (copyState)
            *copyState = copyInfo;
    }
    return true;
}

bool FileManager::copyItem(const std::string& source, const std::string& destination, bool sync,
                           bool rememberChecksum, UniqueFd writtenAhead,
                           struct stat* copyState) const {
    if (const auto held = PayloadFiles::find(source))
        return copyHeldFile(*held, destination, sync, rememberChecksum, std::move(writtenAhead),
                            copyState);
    struct stat info {};
    if (::lstat(source.c_str(), &info) != 0)
        return false;
    if (S_ISLNK(info.st_mode)) {
        const auto content = _fs->readLink(source);
        return content && _fs->symlink(*content, destination);
    }
    if (!S_ISREG(info.st_mode))
        return false;
    return copyRegularFile(source, destination, info, sync, rememberChecksum, copyState);
}

bool FileManager::discardNewFile(UniqueFd& file, const std::string& path) const {
    const int error = errno;
    file.reset();
    (void)_fs->removeFile(path);
    errno = error;
    return false;
}

bool FileManager::copyHeldFile(const PayloadFiles::File& held, const std::string& destination,
                               bool sync, bool rememberChecksum, UniqueFd writtenAhead,
                               struct stat* copyState) const {
    UniqueFd out;
    auto discard = [&] { return discardNewFile(out, destination); };
    // Written ahead with its mode and times, the copy only needs its name; it is written here
    // when it was not, or cannot be named (its folder is on another file system by now).
    if (writtenAhead.valid() && _fs->linkFile(writtenAhead.get(), destination)) {
        out = std::move(writtenAhead);
    } else {
        writtenAhead.reset();
        out = _fs->createFile(destination, 0600);
        if (!out.valid())
            return false;
        if ((held.size > 0 && !_fs->write(out.get(), held.bytes.get(), held.size)) ||
            !_fs->setModeOfFile(out.get(), held.mode))
            return discard();
        (void)_fs->setTimesOfFile(out.get(), held.times);
    }
    if (sync && !_fs->syncFile(out.get(), true))
        return discard();
    struct stat copyInfo {};
    const bool remember = rememberChecksum && ::fstat(out.get(), &copyInfo) == 0;
    if (!_fs->close(out)) {
        const int error = errno;
        (void)_fs->removeFile(destination);
        errno = error;
        return false;
    }
    if (remember) {
        MD5cksum::rememberChecksumOfFile(destination, copyInfo, held.checksum);
        if (copyState)
            *copyState = copyInfo;
    }
    return true;
}

std::string FileManager::TemporaryPathFor(const std::string& destination) {
    std::string name = LastPathComponent(destination);
    // Within the longest name a folder takes (255 bytes); a shortened name still belongs
    // to this destination alone while no two names of one folder share their start.
    constexpr size_t kLongestName = 200;
    if (name.size() > kLongestName)
        name = name.substr(0, kLongestName) + "-" + Md5OfBytes(name).substr(0, 8);
    return JoinPath(ParentPath(destination), ".orvel-new." + name);
}

bool FileManager::replaceWith(const std::string& temporary, const std::string& destination) const {
    noteChangeAt(destination);
    return _fs->rename(temporary, destination);
}

void FileManager::noteChangeAt(const std::string& path) const {
    if (path.empty() || path.front() != '/')
        return; // not a place (a link's content, an absent field)
    // A folder noted since the last sync is known: its file system is noted already.
    std::string parent = ParentPath(path);
    if (_notedFolders.count(parent))
        return;
    _notedFolders.insert(parent);
    // The nearest folder that exists: the change happens on its file system.
    for (std::string folder = std::move(parent); !folder.empty(); folder = ParentPath(folder)) {
        struct stat info {};
        if (::stat(folder.c_str(), &info) == 0) {
            _changedFileSystems.emplace(info.st_dev, folder);
            return;
        }
        if (folder == "/" || folder == ".")
            return;
    }
}

bool FileManager::syncChangedFileSystems() const {
    _notedFolders.clear();
    while (!_changedFileSystems.empty()) {
        const auto first = _changedFileSystems.begin();
        // The folder noted may be gone since (a folder the update made and its rollback
        // removed): the nearest one left is on the same file system, up to its top.
        std::string folder = first->second;
        while (!PathExists(folder) && ParentPath(folder) != folder && !ParentPath(folder).empty())
            folder = ParentPath(folder);
        if (!_fs->syncFileSystem(folder))
            return false;
        _changedFileSystems.erase(first);
    }
    return true;
}

bool FileManager::removeTemporaryOf(const std::string& destination) const {
    const std::string temporary = TemporaryPathFor(destination);
    struct stat info {};
    if (::lstat(temporary.c_str(), &info) != 0 || S_ISDIR(info.st_mode) ||
        !_fs->removeFile(temporary))
        return false;
    NSLevelledLog(3, "Removed \"%@\", left by an interrupted change.", temporary);
    return true;
}

bool FileManager::removeItem(const std::string& path) const {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0)
        return false;
    if (!S_ISDIR(info.st_mode))
        return _fs->removeFile(path);
    // A folder: its entries first, never following a link out of it. A folder its owner
    // cannot write or search is opened up first (it goes anyway), so that a run without
    // privileges can empty it too.
    if ((info.st_mode & S_IRWXU) != S_IRWXU &&
        !_fs->setMode(path, (info.st_mode & 07777) | S_IRWXU))
        return false;
    const auto entries = _fs->listFolder(path);
    if (!entries)
        return false;
    // Files and links go with one handle on the folder; folders one by one, emptied first.
    std::vector<std::string> files;
    std::vector<std::string> folders;
    for (const std::string& name : *entries) {
        struct stat entry {};
        const bool folder =
            ::lstat(JoinPath(path, name).c_str(), &entry) == 0 && S_ISDIR(entry.st_mode);
        (folder ? folders : files).push_back(name);
    }
    // Many files (the backups of a large update, an unpacked payload) are removed by two
    // threads: freeing the removed files' pages takes as long as the calls themselves.
    bool removed = true;
    if (files.size() >= kEntriesForTwoThreads) {
        const auto middle = files.begin() + static_cast<std::ptrdiff_t>(files.size() / 2);
        const std::vector<std::string> second(middle, files.end());
        files.erase(middle, files.end());
        bool secondRemoved = false;
        std::thread other;
        try {
            other = std::thread([&] { secondRemoved = _fs->removeFilesIn(path, second); });
        } catch (const std::system_error&) {
            secondRemoved = _fs->removeFilesIn(path, second); // no thread to spare
        }
        removed = _fs->removeFilesIn(path, files);
        if (other.joinable())
            other.join();
        removed = removed && secondRemoved;
    } else {
        removed = _fs->removeFilesIn(path, files);
    }
    for (const std::string& name : folders)
        removed = removed && removeItem(JoinPath(path, name));
    return removed && _fs->removeFolder(path);
}

bool FileManager::moveItem(const std::string& source, const std::string& target) const {
    if (PathExistsNoFollow(target))
        return false;
    if (_fs->rename(source, target))
        return true;
    if (errno != EXDEV)
        return false;
    if (!copyItem(source, target, false))
        return false;
    if (!removeItem(source)) {
        (void)removeItem(target);
        return false;
    }
    return true;
}

bool FileManager::createDirectoryAtPath(const std::string& path, MadeFolders* made) const {
    // Every prefix that ends before a "/" is created when missing, so the intermediate
    // folders always are.
    MadeFolders madeHere;
    const std::string withSlash = path + "/";
    for (size_t slash = withSlash.find('/', 1); slash != std::string::npos;
         slash = withSlash.find('/', slash + 1)) {
        const std::string prefix = withSlash.substr(0, slash);
        if (prefix.empty() || prefix.back() == '/' || PathExists(prefix))
            continue;
        if (_fs->makeFolder(prefix, 0755)) {
            madeHere.push_back(prefix);
        } else if (!(errno == EEXIST && FolderExists(prefix))) {
            NSLevelledLog(3, "Failed to create directory: %@", prefix);
            removeMadeFolders(madeHere);
            return false;
        }
    }
    if (made)
        made->insert(made->end(), madeHere.begin(), madeHere.end());
    return true;
}

void FileManager::removeMadeFolders(const MadeFolders& made) const {
    for (auto folder = made.rbegin(); folder != made.rend(); ++folder) {
        if (!_fs->removeFolder(*folder))
            return; // not empty (or not removable): its parents are not empty either
    }
}

void FileManager::cleanupEmptyParentDir(const std::string& folder, bool removeDSStore,
                                        bool onlyDirsInBundle,
                                        const std::vector<std::string>& protectedFolders) const {
    auto isProtected = [&](const std::string& path) {
        for (const auto& protectedFolder : protectedFolders) {
            if (EqualsIgnoringCase(path, protectedFolder))
                return true;
        }
        return false;
    };

    // How many levels, from the folder upward, may go: up to and including the enclosing
    // bundle, or up to the first protected folder when bundles do not matter.
    int levels = 0;
    for (std::string path = folder;; path = ParentPath(path)) {
        if (isProtected(path) || path == "/" || path.empty()) {
            if (onlyDirsInBundle)
                levels = 0;
            break;
        }
        ++levels;
        if (onlyDirsInBundle) {
            const std::string extension = PathExtension(path);
            if (!extension.empty() && !EqualsIgnoringCase(extension, "lproj"))
                break;
        }
    }

    std::string path = folder;
    for (int level = 0; level < levels; ++level, path = ParentPath(path)) {
        // Removing the folder is how it is found empty: a folder with anything in it is
        // refused (ENOTEMPTY) and stays as it was, at the cost of one call instead of
        // reading its first names after it was found to exist.
        if (_fs->removeFolder(path)) {
            NSLevelledLog(3, "Also removing empty Directory \"%@\".", path);
            continue;
        }
        const int error = errno;
        if (error == ENOENT || error == ENOTDIR || error == ELOOP || error == EXDEV)
            break; // gone already, not a folder, or reached through a link: left alone
        if (error != ENOTEMPTY && error != EEXIST) {
            NSLevelledLog(3, "Also removing empty Directory \"%@\".", path);
            NSLevelledLog(3, "Minor Error - Failed to remove directory");
            break;
        }
        // Not empty: it may still go when all it holds is a .DS_Store file. Two names tell
        // that folder from a full one.
        if (!removeDSStore || !PathExistsNoFollow(JoinPath(path, ".DS_Store")))
            break;
        const auto entries = _fs->firstNamesInFolder(path, 2);
        if (!entries || entries->size() != 1 || entries->front() != ".DS_Store")
            break;
        NSLevelledLog(3, "Removing .DS_Store file at %@", path);
        if (!_fs->removeFile(JoinPath(path, ".DS_Store")))
            break;
        NSLevelledLog(3, "Also removing empty Directory \"%@\".", path);
        if (!_fs->removeFolder(path)) {
            NSLevelledLog(3, "Minor Error - Failed to remove directory");
            break;
        }
    }
}

bool FileManager::setAttribute(const std::string& path, mode_t mode,
                               const std::optional<std::string>& userName,
                               const std::optional<std::string>& groupName) const {
    struct stat current {};
    if (::lstat(path.c_str(), &current) != 0) {
        NSLevelledLog(0, "Cannot read the attributes of \"%@\": %@", path, std::strerror(errno));
        return false;
    }
    return setAttributeOf(path, current, mode, userName, groupName);
}

bool FileManager::setAttributeOf(const std::string& path, const struct stat& current, mode_t mode,
                                 const std::optional<std::string>& userName,
                                 const std::optional<std::string>& groupName) const {
    const bool isLink = S_ISLNK(current.st_mode);
    // Giving a file the owner it has is skipped, unless that would keep set-user-ID or
    // set-group-ID bits that the change clears and no mode sets again.
    const bool ownerChangeKeepsMode =
        mode != 0 || isLink || (current.st_mode & (S_ISUID | S_ISGID)) == 0;
    bool ownerChanged = false;
    bool ok = true;
    // A name this machine does not know leaves that attribute as it is (logged); only a
    // change the disk refuses is a failure.
    if (userName) {
        const auto uid = UserIdOf(*userName);
        const bool unchanged = uid && *uid == current.st_uid && ownerChangeKeepsMode;
        const bool set = unchanged || (uid && _fs->setOwner(path, *uid, static_cast<gid_t>(-1)));
        ownerChanged = ownerChanged || !unchanged;
        if (!set) {
            NSLevelledLog(0, "Failed to set owner \"%@\" on \"%@\"", *userName, path);
            ok = ok && !uid;
        }
    }
    if (groupName) {
        const auto gid = GroupIdOf(*groupName);
        const bool unchanged = gid && *gid == current.st_gid && ownerChangeKeepsMode;
        const bool set = unchanged || (gid && _fs->setOwner(path, static_cast<uid_t>(-1), *gid));
        ownerChanged = ownerChanged || !unchanged;
        if (!set) {
            NSLevelledLog(0, "Failed to set group \"%@\" on \"%@\"", *groupName, path);
            ok = ok && !gid;
        }
    }
    // The mode goes last: changing the owner clears the set-user-ID and set-group-ID bits.
    const bool modeHeld = !ownerChanged && (current.st_mode & 07777) == mode;
    if (mode != 0 && !isLink && !modeHeld && !_fs->setMode(path, mode)) {
        NSLevelledLog(0, "Failed to set permission %o on \"%@\": %@", static_cast<unsigned>(mode),
                      path, std::strerror(errno));
        ok = false;
    }
    return ok;
}

bool FileManager::setAttributesOfRecord(const FileOperationInfo& info,
                                        const struct stat* placed) const {
    const std::string& path = info.DestinationPath;
    // Nothing there, or a link to nothing: no attributes to set. (One lstat tells both for
    // anything but a link.)
    struct stat current {};
    if (placed)
        current = *placed;
    else if (::lstat(path.c_str(), &current) != 0)
        return true;
    if (S_ISLNK(current.st_mode) && !PathExists(path))
        return true;
    const auto oldUser = UserNameOfUid(current.st_uid);
    const auto oldGroup = GroupNameOfGid(current.st_gid);
    NSLevelledLog(3, "Old Permission: %o", static_cast<unsigned>(current.st_mode & 07777));
    NSLevelledLog(3, "Old UserID: %@", oldUser);
    NSLevelledLog(3, "Old GroupID: %@", oldGroup);

    const mode_t mode =
        IsAbsentField(info.Permission) ? 0 : ModeFromPermissionText(info.Permission);
    const bool userGiven = !IsAbsentField(info.UserID);
    const bool groupGiven = !IsAbsentField(info.GroupID);
    if (mode == 0 && !userGiven && !groupGiven)
        return true;
    // Values the manifest does not give stay as they are.
    const std::optional<std::string> user =
        userGiven ? std::optional(info.UserID) : std::optional<std::string>();
    const std::optional<std::string> group =
        groupGiven ? std::optional(info.GroupID) : std::optional<std::string>();
    return setAttributeOf(path, current, mode, user, group); // each failure is logged there
}

bool FileManager::touchFile(const std::string& path) const {
    if (!PathExists(path))
        return false;
    const timespec times[2] = {{0, UTIME_OMIT}, {0, UTIME_NOW}};
    return _fs->setTimes(path, times);
}

std::string FileManager::ResolveSymlinksInPath(const std::string& path) {
    // The common case in one call rather than one per folder on the way.
    if (IsItsOwnRealPath(path))
        return path;
    // Resolve the longest existing prefix; the part that does not exist yet has no links.
    std::string existing = path;
    std::string rest;
    while (!existing.empty() && !PathExistsNoFollow(existing)) {
        const std::string name = LastPathComponent(existing);
        rest = rest.empty() ? name : name + "/" + rest;
        const std::string parent = ParentPath(existing);
        if (parent == existing)
            break;
        existing = parent;
    }
    if (existing.empty())
        return path;
    std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(existing.c_str(), nullptr),
                                                         &std::free);
    if (!resolved)
        return path;
    return rest.empty() ? std::string(resolved.get()) : JoinPath(resolved.get(), rest);
}
