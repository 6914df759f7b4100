#include "update/MD5cksum.h"

#include "base/FileState.h"
#include "base/FileUtil.h"
#include "base/Md5.h"
#include "runtime/LoggerUtility.h"
#include "system/FileSystem.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <fcntl.h>
#include <iterator>
#include <list>
#include <mutex>
#include <sys/stat.h>
#include <unordered_map>
#include <unordered_set>

namespace {

// The files whose checksums are known without reading them: a list, newest first, and
// indexes of it by path and by file (device and inode), so that a file known under one of
// its names (a backup's hard link) is known under the others.
struct RememberedChecksum {
    std::string path;
    struct stat identity;
    std::string digest;
};
struct FileKey {
    dev_t device;
    ino_t inode;
    bool operator==(const FileKey&) const = default;
};
struct FileKeyHash {
    size_t operator()(const FileKey& key) const {
        return std::hash<uint64_t>()(static_cast<uint64_t>(key.inode) * 0x9E3779B97F4A7C15ull ^
                                     static_cast<uint64_t>(key.device));
    }
};
using RememberedEntry = std::list<RememberedChecksum>::iterator;
std::mutex gRememberedMutex;
std::list<RememberedChecksum> gRemembered;
std::unordered_map<std::string, RememberedEntry> gRememberedByPath;
std::unordered_map<FileKey, RememberedEntry, FileKeyHash> gRememberedByFile;
// The paths being read ahead now, and the signal that one of those reads ended.
std::unordered_set<std::string> gReadingAhead;
std::condition_variable gReadAheadEnded;
std::atomic<size_t> gReadsAwaited{0};

FileKey KeyOf(const struct stat& info) {
    return {info.st_dev, info.st_ino};
}

void ForgetLocked(RememberedEntry entry) {
    gRememberedByPath.erase(entry->path);
    if (const auto byFile = gRememberedByFile.find(KeyOf(entry->identity));
        byFile != gRememberedByFile.end() && byFile->second == entry)
        gRememberedByFile.erase(byFile);
    gRemembered.erase(entry);
}

} // namespace

std::optional<std::string> MD5cksum::rememberedChecksumOfFile(const std::string& path,
                                                              const struct stat& current) {
    const std::lock_guard lock(gRememberedMutex);
    if (const auto found = gRememberedByPath.find(path); found != gRememberedByPath.end()) {
        if (MD5cksum::sameFileState(found->second->identity, current))
            return found->second->digest;
        ForgetLocked(found->second); // changed since: read it again
    }
    // The same file, unchanged, known under another of its names.
    if (const auto found = gRememberedByFile.find(KeyOf(current));
        found != gRememberedByFile.end() &&
        MD5cksum::sameFileState(found->second->identity, current))
        return found->second->digest;
    return std::nullopt;
}

std::optional<std::string> MD5cksum::awaitedChecksumOfFile(const std::string& path,
                                                           const struct stat& identity) {
    if (auto remembered = rememberedChecksumOfFile(path, identity))
        return remembered;
    {
        std::unique_lock lock(gRememberedMutex);
        if (!gReadingAhead.count(path))
            return std::nullopt;
        ++gReadsAwaited;
        gReadAheadEnded.wait(lock, [&] { return !gReadingAhead.count(path); });
        --gReadsAwaited;
    }
    return rememberedChecksumOfFile(path, identity);
}

size_t MD5cksum::readsAwaited() {
    return gReadsAwaited.load();
}

MD5cksum::ReadingAhead::ReadingAhead(ReadingAhead&& other) noexcept
    : _path(std::exchange(other._path, {})) {}

MD5cksum::ReadingAhead& MD5cksum::ReadingAhead::operator=(ReadingAhead&& other) noexcept {
    if (this != &other) {
        end();
        _path = std::exchange(other._path, {});
    }
    return *this;
}

MD5cksum::ReadingAhead::~ReadingAhead() {
    end();
}

void MD5cksum::ReadingAhead::end() {
    if (_path.empty())
        return;
    {
        const std::lock_guard lock(gRememberedMutex);
        gReadingAhead.erase(_path);
    }
    _path.clear();
    gReadAheadEnded.notify_all();
}

bool MD5cksum::sameFileState(const struct stat& a, const struct stat& b) {
    return SameFileState(a, b);
}

void MD5cksum::rememberChecksumOfFile(const std::string& path, const struct stat& identity,
                                      const std::string& digest) {
    if (!S_ISREG(identity.st_mode))
        return;
    const std::lock_guard lock(gRememberedMutex);
    if (const auto found = gRememberedByPath.find(path); found != gRememberedByPath.end())
        ForgetLocked(found->second);
    gRemembered.push_front(RememberedChecksum{path, identity, digest});
    gRememberedByPath.emplace(path, gRemembered.begin());
    gRememberedByFile.insert_or_assign(KeyOf(identity), gRemembered.begin());
    if (gRemembered.size() > kRememberedFiles)
        ForgetLocked(std::prev(gRemembered.end()));
}

bool MD5cksum::rememberChecksumOfFileAhead(const std::string& path, const std::atomic<bool>& stop) {
    const std::optional<FileAhead> file = openFileAhead(path);
    if (!file) { // no regular file, or one remembered already
        struct stat info {};
        return ::stat(path.c_str(), &info) == 0 && rememberedChecksumOfFile(path, info);
    }
    return rememberChecksumOfFileAhead(*file, Md5OfDescriptor(file->fd.get(), &stop));
}

std::optional<MD5cksum::FileAhead> MD5cksum::openFileAhead(const std::string& path) {
    // Only a regular file is opened: opening a device can have effects of its own.
    struct stat found {};
    if (::stat(path.c_str(), &found) != 0 || !S_ISREG(found.st_mode) ||
        rememberedChecksumOfFile(path, found))
        return std::nullopt;
    FileAhead file{
        path, UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK)), {}, {}};
    if (!file.fd.valid() || ::fstat(file.fd.get(), &file.before) != 0 ||
        !S_ISREG(file.before.st_mode) || rememberedChecksumOfFile(path, file.before))
        return std::nullopt;
    {
        const std::lock_guard lock(gRememberedMutex);
        if (!gReadingAhead.insert(path).second)
            return std::nullopt; // another thread reads it already
    }
    file.reading = ReadingAhead(path);
    return file;
}

bool MD5cksum::rememberChecksumOfFileAhead(const FileAhead& file,
                                           const std::optional<std::string>& digest) {
    struct stat after {};
    if (!digest || ::fstat(file.fd.get(), &after) != 0 || !sameFileState(file.before, after))
        return false;
    rememberChecksumOfFile(file.path, after, *digest);
    return true;
}

std::optional<std::string> MD5cksum::logChecksumOfFile(const std::string& path,
                                                       const std::optional<std::string>& digest) {
    if (!digest) {
        NSLevelledLog(0, "Failed to get file check sum");
        return std::nullopt;
    }
    NSLevelledLog(3, "Checksum of file : %@ is : %@", path, *digest);
    return digest;
}

std::optional<std::string> MD5cksum::getMD5cksumOfFile(const std::optional<std::string>& path) {
    return getMD5cksumOfFile(path, RealFileSystem::instance());
}

std::optional<std::string> MD5cksum::getMD5cksumOfFile(const std::optional<std::string>& path,
                                                       FileSystem& fileSystem) {
    if (!path) {
        NSLevelledLog(3, "File path should not be null");
        return std::nullopt;
    }
    struct stat info {};
    if (::stat(path->c_str(), &info) != 0) {
        NSLevelledLog(3, "File does not exist");
        return std::nullopt;
    }
    return getMD5cksumOfFile(*path, fileSystem, info);
}

std::optional<std::string> MD5cksum::getMD5cksumOfFile(const std::string& path,
                                                       FileSystem& fileSystem,
                                                       const struct stat& info) {
    if (auto remembered = awaitedChecksumOfFile(path, info))
        return logChecksumOfFile(path, remembered);
    const UniqueFd fd = fileSystem.openForReading(path);
    if (!fd.valid())
        return logChecksumOfFile(path, std::nullopt);
    ::posix_fadvise(fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    const auto digest = Md5OfDescriptor(fd.get());
    // Read once: asked again (for its backup's name too) while it stays as it was, the file
    // is answered from memory.
    struct stat before {
    }, after{};
    if (digest && ::fstat(fd.get(), &after) == 0 && ::stat(path.c_str(), &before) == 0 &&
        sameFileState(info, after) && sameFileState(before, after))
        rememberChecksumOfFile(path, after, *digest);
    return logChecksumOfFile(path, digest);
}
