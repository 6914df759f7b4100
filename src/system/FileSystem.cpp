#include "system/FileSystem.h"

#include "base/Path.h"

#include <cerrno>
#include <climits>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <string_view>
#include <sys/sendfile.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

constexpr size_t kCopyBufferSize = 256 * 1024;
constexpr size_t kSendFileChunk = 8 * 1024 * 1024;

// Copies what is left of in to out through memory.
bool CopyThroughMemory(int in, int out, const FileSystem::CopyObserver& observe) {
    return ReadInChunks(in, kCopyBufferSize, [&](const char* data, size_t size) {
        if (observe)
            observe(data, size);
        return WriteAll(out, data, size);
    });
}

// The last name of `to` when it lies in the same folder as `from` (same path up to the last
// slash), so that one handle on that folder serves both; else nothing.
std::optional<std::string> NameInSameFolder(const std::string& from, const std::string& to) {
    const size_t slash = from.rfind('/');
    if (slash == std::string::npos || slash != to.rfind('/') || slash + 1 >= from.size() ||
        slash + 1 >= to.size() || from.compare(0, slash, to, 0, slash) != 0)
        return std::nullopt;
    std::string name = to.substr(slash + 1);
    if (name == "." || name == "..")
        return std::nullopt;
    return name;
}

} // namespace

RealFileSystem& RealFileSystem::instance() {
    static RealFileSystem fileSystem;
    return fileSystem;
}

void RealFileSystem::confineBelow(std::vector<std::string> folders) {
    const std::lock_guard<std::mutex> lock(_confinementMutex);
    _confined.clear();
    for (std::string& folder : folders)
        _confined.push_back(Base{std::move(folder), nullptr});
}

std::optional<RealFileSystem::Base> RealFileSystem::confiningFolder(const std::string& path,
                                                                    bool verify) {
    const std::lock_guard<std::mutex> lock(_confinementMutex);
    Base* deepest = nullptr;
    for (Base& base : _confined) {
        const std::string& folder = base.folder;
        if (path.size() > folder.size() + 1 && path.compare(0, folder.size(), folder) == 0 &&
            path[folder.size()] == '/' && (!deepest || folder.size() > deepest->folder.size()))
            deepest = &base;
    }
    if (!deepest)
        return std::nullopt;
    // One handle on the folder serves every call below it, rather than one opened and closed
    // per call (three for an entry that replaces a file): it is opened again when the folder
    // was removed since (by anyone: a removed folder has no links left), or removed or renamed
    // through this object. (One renamed away by someone else stays the one reached: only who
    // may change the folder's parent can do that, and the paths below it are still reached
    // without following a link.) Whether it was removed is asked when verify is set; a
    // caller that reaches a folder below it asks only when that folder is not found, as
    // nothing is found in a removed folder.
    struct stat info {};
    if (verify && deepest->handle &&
        (::fstat(deepest->handle->get(), &info) != 0 || info.st_nlink == 0))
        deepest->handle.reset();
    if (!deepest->handle) {
        auto handle = std::make_shared<const UniqueFd>(
            ::open(deepest->folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!handle->valid())
            return Base{deepest->folder, std::move(handle)}; // errno tells why; not kept
        deepest->handle = std::move(handle);
    }
    return *deepest;
}

void RealFileSystem::forgetHandlesAt(const std::string& path) {
    const std::lock_guard<std::mutex> lock(_confinementMutex);
    for (Base& base : _confined) {
        if (base.folder.compare(0, path.size(), path) == 0 &&
            (base.folder.size() == path.size() || base.folder[path.size()] == '/'))
            base.handle.reset();
    }
}

RealFileSystem::Place RealFileSystem::place(const std::string& path) {
    Place place;
    auto base = confiningFolder(path, false);
    if (!base) {
        place.name = path;
        return place;
    }
    place.confined = true;
    place.at = -1;
    const std::string& folder = base->folder;
    std::string relative = path.substr(folder.size() + 1);
    while (!relative.empty() && relative.back() == '/')
        relative.pop_back();
    const size_t slash = relative.rfind('/');
    place.name = slash == std::string::npos ? relative : relative.substr(slash + 1);
    place.relative = relative;
    if (place.name.empty() || place.name == "." || place.name == "..") {
        errno = EXDEV;
        return place;
    }
    if (slash == std::string::npos) {
        // The call is made in the confined folder itself: it must be the one there now.
        if (auto verified = confiningFolder(path, true))
            base = std::move(verified);
        place.base = std::move(base->handle);
        place.at = place.base->valid() ? place.base->get() : -1;
        return place;
    }
    place.base = std::move(base->handle);
    if (!place.base->valid())
        return place;
    const std::string below = relative.substr(0, slash);
    const auto walk = [&] {
        return OpenBeneath(place.base->get(), below, O_PATH | O_DIRECTORY | O_CLOEXEC, true);
    };
    place.folder = walk();
    if (!place.folder.valid() && errno == ENOENT) {
        // Not there, or the confined folder was removed since (and maybe made again).
        struct stat info {};
        auto again = ::fstat(place.base->get(), &info) == 0 && info.st_nlink == 0
                         ? confiningFolder(path, true)
                         : std::nullopt;
        if (again && again->handle->valid()) {
            place.base = std::move(again->handle);
            place.folder = walk();
        } else if (!again) {
            errno = ENOENT;
        }
    }
    place.at = place.folder.valid() ? place.folder.get() : -1;
    return place;
}

UniqueFd RealFileSystem::createFile(const std::string& path, mode_t mode) {
    const Place at = place(path);
    if (at.at == -1)
        return UniqueFd();
    return UniqueFd(::openat(at.at, at.name.c_str(),
                             O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW,
                             mode));
}

UniqueFd RealFileSystem::createUnnamedFile(const std::string& folder, mode_t mode) {
    constexpr int kFlags = O_TMPFILE | O_WRONLY | O_CLOEXEC;
    // The folder that holds a name in folder is folder, reached as any place is.
    const Place at = place(JoinPath(folder, "unnamed"));
    if (!at.confined)
        return UniqueFd(::open(folder.c_str(), kFlags, mode));
    if (at.at == -1)
        return UniqueFd();
    return UniqueFd(::openat(at.at, ".", kFlags, mode));
}

bool RealFileSystem::linkFile(int fd, const std::string& path) {
    const Place at = place(path);
    if (at.at == -1)
        return false;
    if (::linkat(fd, "", at.at, at.name.c_str(), AT_EMPTY_PATH) == 0)
        return true;
    if (errno != ENOENT && errno != EPERM)
        return false;
    // Naming a file by its descriptor alone takes CAP_DAC_READ_SEARCH; without it, the
    // descriptor's entry in /proc leads to the same file.
    const std::string byDescriptor = "/proc/self/fd/" + std::to_string(fd);
    return ::linkat(AT_FDCWD, byDescriptor.c_str(), at.at, at.name.c_str(), AT_SYMLINK_FOLLOW) == 0;
}

UniqueFd RealFileSystem::openForWriting(const std::string& path) {
    const Place at = place(path);
    if (at.at == -1)
        return UniqueFd();
    return UniqueFd(::openat(at.at, at.name.c_str(),
                             O_WRONLY | O_CLOEXEC | O_NOCTTY | (at.confined ? O_NOFOLLOW : 0)));
}

UniqueFd RealFileSystem::openForReading(const std::string& path) {
    const Place at = place(path);
    if (at.at == -1)
        return UniqueFd();
    // Opened without blocking, so a FIFO without a writer holds nothing up; reads block.
    const int flags = O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    UniqueFd fd(::openat(at.at, at.name.c_str(), flags | (at.confined ? O_NOFOLLOW : 0)));
    if (!fd.valid() && at.confined && errno == ELOOP) {
        // The last name is a link: read what it leads to, as long as that lies below the
        // same confined folder.
        fd = OpenBeneath(at.base->get(), at.relative, flags, false);
    }
    if (!fd.valid())
        return fd;
    // Of the flags F_SETFL changes, the open set O_NONBLOCK alone.
    if (::fcntl(fd.get(), F_SETFL, 0) != 0)
        return UniqueFd();
    return fd;
}

bool RealFileSystem::write(int fd, const void* data, size_t size) {
    return WriteAll(fd, static_cast<const char*>(data), size);
}

bool RealFileSystem::writeAt(int fd, const void* data, size_t size, uint64_t offset) {
    const char* bytes = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t written = ::pwrite(fd, bytes, size, static_cast<off_t>(offset));
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return false;
        bytes += written;
        size -= static_cast<size_t>(written);
        offset += static_cast<uint64_t>(written);
    }
    return true;
}

bool RealFileSystem::copyData(int in, int out, const CopyObserver& observe) {
    if (observe)
        return CopyThroughMemory(in, out, observe);
    for (bool first = true;; first = false) {
        const ssize_t sent = ::sendfile(out, in, nullptr, kSendFileChunk);
        if (sent < 0 && errno == EINTR)
            continue;
        // EINVAL and ENOSYS before the first byte: these files cannot be copied inside the
        // kernel.
        if (sent < 0 && first && (errno == EINVAL || errno == ENOSYS))
            return CopyThroughMemory(in, out, nullptr);
        if (sent < 0)
            return false;
        if (sent == 0)
            return true;
    }
}

bool RealFileSystem::truncate(int fd, uint64_t size) {
    return ::ftruncate(fd, static_cast<off_t>(size)) == 0;
}

bool RealFileSystem::syncFile(int fd, bool metadata) {
    return (metadata ? ::fsync(fd) : ::fdatasync(fd)) == 0;
}

bool RealFileSystem::syncFolder(const std::string& path) {
    const Place at = place(path);
    if (at.at == -1)
        return false;
    const UniqueFd folder(
        ::openat(at.at, at.name.c_str(),
                 O_RDONLY | O_DIRECTORY | O_CLOEXEC | (at.confined ? O_NOFOLLOW : 0)));
    return folder.valid() && ::fsync(folder.get()) == 0;
}

bool RealFileSystem::close(UniqueFd& fd) {
    return ::close(fd.release()) == 0;
}

bool RealFileSystem::syncFileSystem(const std::string& path) {
    const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    return fd.valid() && ::syncfs(fd.get()) == 0;
}

bool RealFileSystem::makeFolder(const std::string& path, mode_t mode) {
    const Place at = place(path);
    return at.at != -1 && ::mkdirat(at.at, at.name.c_str(), mode) == 0;
}

bool RealFileSystem::removeFolder(const std::string& path) {
    const Place at = place(path);
    if (at.at == -1 || ::unlinkat(at.at, at.name.c_str(), AT_REMOVEDIR) != 0)
        return false;
    forgetHandlesAt(path);
    return true;
}

bool RealFileSystem::removeFile(const std::string& path) {
    const Place at = place(path);
    return at.at != -1 && ::unlinkat(at.at, at.name.c_str(), 0) == 0;
}

bool RealFileSystem::removeFilesIn(const std::string& folder,
                                   const std::vector<std::string>& names) {
    if (names.empty())
        return true;
    // A confined folder is reached once, as removeFile reaches it, for all of its names: a
    // large update's backups go with one call each instead of five.
    const Place at = place(JoinPath(folder, names.front()));
    if (!at.confined)
        return FileSystem::removeFilesIn(folder, names);
    if (at.at == -1)
        return false;
    for (const std::string& name : names) {
        if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos) {
            errno = EINVAL;
            return false;
        }
        if (::unlinkat(at.at, name.c_str(), 0) != 0)
            return false;
    }
    return true;
}

bool RealFileSystem::rename(const std::string& from, const std::string& to) {
    const Place source = place(from);
    if (source.at == -1)
        return false;
    bool renamed = false;
    if (const auto name = source.confined ? NameInSameFolder(from, to) : std::nullopt) {
        renamed = ::renameat(source.at, source.name.c_str(), source.at, name->c_str()) == 0;
    } else {
        const Place target = place(to);
        renamed = target.at != -1 &&
                  ::renameat(source.at, source.name.c_str(), target.at, target.name.c_str()) == 0;
    }
    if (renamed) {
        forgetHandlesAt(from);
        forgetHandlesAt(to);
    }
    return renamed;
}

bool RealFileSystem::link(const std::string& existing, const std::string& newPath) {
    const Place source = place(existing);
    if (source.at == -1)
        return false;
    if (const auto name = source.confined ? NameInSameFolder(existing, newPath) : std::nullopt)
        return ::linkat(source.at, source.name.c_str(), source.at, name->c_str(), 0) == 0;
    const Place target = place(newPath);
    return target.at != -1 &&
           ::linkat(source.at, source.name.c_str(), target.at, target.name.c_str(), 0) == 0;
}

bool RealFileSystem::symlink(const std::string& content, const std::string& path) {
    const Place at = place(path);
    return at.at != -1 && ::symlinkat(content.c_str(), at.at, at.name.c_str()) == 0;
}

std::optional<std::string> RealFileSystem::readLink(const std::string& path) {
    const Place at = place(path);
    if (at.at == -1)
        return std::nullopt;
    std::vector<char> buffer(PATH_MAX + 1);
    for (;;) {
        const ssize_t length = ::readlinkat(at.at, at.name.c_str(), buffer.data(), buffer.size());
        if (length < 0)
            return std::nullopt;
        if (static_cast<size_t>(length) < buffer.size())
            return std::string(buffer.data(), static_cast<size_t>(length));
        buffer.resize(buffer.size() * 2); // the content may have grown since it was measured
    }
}

std::optional<std::vector<std::string>> RealFileSystem::firstNamesInFolder(const std::string& path,
                                                                           size_t count) {
    const Place at = place(path);
    if (at.at == -1)
        return std::nullopt;
    const UniqueFd folder(
        ::openat(at.at, at.name.c_str(),
                 O_RDONLY | O_DIRECTORY | O_CLOEXEC | (at.confined ? O_NOFOLLOW : 0)));
    if (!folder.valid())
        return std::nullopt;
    // Read a few entries at a time: the kernel hands out no more than fit, however large the
    // folder (readdir's buffer takes hundreds at once).
    std::vector<std::string> names;
    alignas(dirent64) char buffer[2048];
    while (names.size() < count) {
        const ssize_t size = ::getdents64(folder.get(), buffer, sizeof buffer);
        if (size < 0 && errno == EINTR)
            continue;
        if (size < 0)
            return std::nullopt;
        if (size == 0)
            break;
        for (ssize_t offset = 0; offset < size && names.size() < count;) {
            const auto* entry = reinterpret_cast<const dirent64*>(buffer + offset);
            offset += entry->d_reclen;
            const std::string_view name = entry->d_name;
            if (name != "." && name != "..")
                names.emplace_back(name);
        }
    }
    return names;
}

std::optional<std::vector<std::string>> RealFileSystem::listFolder(const std::string& path) {
    const Place at = place(path);
    if (at.at == -1)
        return std::nullopt;
    struct DirCloser {
        void operator()(DIR* dir) const { ::closedir(dir); }
    };
    UniqueFd folder(::openat(at.at, at.name.c_str(),
                             O_RDONLY | O_DIRECTORY | O_CLOEXEC | (at.confined ? O_NOFOLLOW : 0)));
    if (!folder.valid())
        return std::nullopt;
    std::unique_ptr<DIR, DirCloser> dir(::fdopendir(folder.get()));
    if (!dir)
        return std::nullopt;
    (void)folder.release(); // the stream owns it now
    std::vector<std::string> entries;
    errno = 0;
    while (const dirent* entry = ::readdir(dir.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            entries.push_back(name);
    }
    if (errno != 0)
        return std::nullopt;
    return entries;
}

bool RealFileSystem::setOwner(const std::string& path, uid_t uid, gid_t gid) {
    const Place at = place(path);
    return at.at != -1 && ::fchownat(at.at, at.name.c_str(), uid, gid, AT_SYMLINK_NOFOLLOW) == 0;
}

bool RealFileSystem::setMode(const std::string& path, mode_t mode) {
    const Place at = place(path);
    // A confined last name that is a link has no mode of its own to set (EOPNOTSUPP).
    return at.at != -1 &&
           ::fchmodat(at.at, at.name.c_str(), mode, at.confined ? AT_SYMLINK_NOFOLLOW : 0) == 0;
}

bool RealFileSystem::setModeOfFile(int fd, mode_t mode) {
    return ::fchmod(fd, mode) == 0;
}

bool RealFileSystem::setTimes(const std::string& path, const timespec times[2]) {
    const Place at = place(path);
    return at.at != -1 && ::utimensat(at.at, at.name.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0;
}

bool RealFileSystem::setTimesOfFile(int fd, const timespec times[2]) {
    return ::futimens(fd, times) == 0;
}

std::optional<uint64_t> RealFileSystem::freeSpace(const std::string& path) {
    struct statvfs info {};
    if (::statvfs(path.c_str(), &info) != 0)
        return std::nullopt;
    return static_cast<uint64_t>(info.f_bavail) * info.f_frsize;
}

// ---------------------------------------------------------------------------------------

void FaultInjectingFileSystem::failCall(uint64_t n, int error) {
    _error = error;
    _failed = false;
    _calls = 0;
    _failAt = n;
    const std::lock_guard lock(_logMutex);
    _log.clear();
}

std::vector<std::string> FaultInjectingFileSystem::callLog() const {
    const std::lock_guard lock(_logMutex);
    return _log;
}

// The file behind a descriptor, for the call log. An unnamed file named since is known by that
// name: /proc still shows the name it was made without.
std::string FaultInjectingFileSystem::pathOfDescriptor(int fd) const {
    struct stat info {};
    if (::fstat(fd, &info) == 0) {
        const std::lock_guard lock(_logMutex);
        const auto named = _linkedNames.find(fd);
        // The descriptor may have been closed since, and its number reused.
        if (named != _linkedNames.end() && named->second.device == info.st_dev &&
            named->second.inode == info.st_ino)
            return named->second.path;
    }
    char target[PATH_MAX];
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t n = ::readlink(link.c_str(), target, sizeof target - 1);
    return n > 0 ? std::string(target, static_cast<size_t>(n)) : "fd " + std::to_string(fd);
}

bool FaultInjectingFileSystem::admit(const std::string& what) {
    const uint64_t number = ++_calls;
    {
        const std::lock_guard lock(_logMutex);
        _log.push_back(what);
    }
    if (number != _failAt.load())
        return true;
    _failed = true;
    errno = _error;
    return false;
}

UniqueFd FaultInjectingFileSystem::createFile(const std::string& path, mode_t mode) {
    return admit("create " + path) ? _inner.createFile(path, mode) : UniqueFd();
}

UniqueFd FaultInjectingFileSystem::createUnnamedFile(const std::string& folder, mode_t mode) {
    return admit("create-unnamed " + folder) ? _inner.createUnnamedFile(folder, mode) : UniqueFd();
}

bool FaultInjectingFileSystem::linkFile(int fd, const std::string& path) {
    if (!admit("link-fd " + path) || !_inner.linkFile(fd, path))
        return false;
    struct stat info {};
    if (::fstat(fd, &info) == 0) {
        const std::lock_guard lock(_logMutex);
        _linkedNames[fd] = {path, info.st_dev, info.st_ino};
    }
    return true;
}

UniqueFd FaultInjectingFileSystem::openForWriting(const std::string& path) {
    return admit("open-write " + path) ? _inner.openForWriting(path) : UniqueFd();
}

UniqueFd FaultInjectingFileSystem::openForReading(const std::string& path) {
    return admit("open-read " + path) ? _inner.openForReading(path) : UniqueFd();
}

bool FaultInjectingFileSystem::write(int fd, const void* data, size_t size) {
    return admit("write " + pathOfDescriptor(fd)) && _inner.write(fd, data, size);
}

bool FaultInjectingFileSystem::writeAt(int fd, const void* data, size_t size, uint64_t offset) {
    return admit("write-at " + pathOfDescriptor(fd)) && _inner.writeAt(fd, data, size, offset);
}

bool FaultInjectingFileSystem::copyData(int in, int out, const CopyObserver& observe) {
    return admit("copy-data " + pathOfDescriptor(out)) && _inner.copyData(in, out, observe);
}

bool FaultInjectingFileSystem::truncate(int fd, uint64_t size) {
    return admit("truncate " + pathOfDescriptor(fd)) && _inner.truncate(fd, size);
}

bool FaultInjectingFileSystem::syncFile(int fd, bool metadata) {
    return admit("sync-file " + pathOfDescriptor(fd)) && _inner.syncFile(fd, metadata);
}

bool FaultInjectingFileSystem::syncFolder(const std::string& path) {
    return admit("sync-folder " + path) && _inner.syncFolder(path);
}

bool FaultInjectingFileSystem::syncFileSystem(const std::string& path) {
    return admit("sync-filesystem " + path) && _inner.syncFileSystem(path);
}

bool FaultInjectingFileSystem::close(UniqueFd& fd) {
    if (!admit("close " + pathOfDescriptor(fd.get()))) {
        const int error = errno;
        fd.reset(); // a failed close still releases the descriptor
        errno = error;
        return false;
    }
    return _inner.close(fd);
}

bool FaultInjectingFileSystem::makeFolder(const std::string& path, mode_t mode) {
    return admit("mkdir " + path) && _inner.makeFolder(path, mode);
}

bool FaultInjectingFileSystem::removeFolder(const std::string& path) {
    return admit("rmdir " + path) && _inner.removeFolder(path);
}

bool FaultInjectingFileSystem::removeFile(const std::string& path) {
    return admit("unlink " + path) && _inner.removeFile(path);
}

bool FaultInjectingFileSystem::removeFilesIn(const std::string& folder,
                                             const std::vector<std::string>& names) {
    // One call per name, as removeFile counts them.
    for (const std::string& name : names) {
        if (!admit("unlink " + JoinPath(folder, name)) || !_inner.removeFilesIn(folder, {name}))
            return false;
    }
    return true;
}

bool FaultInjectingFileSystem::rename(const std::string& from, const std::string& to) {
    return admit("rename " + from + " -> " + to) && _inner.rename(from, to);
}

bool FaultInjectingFileSystem::link(const std::string& existing, const std::string& newPath) {
    return admit("link " + existing + " -> " + newPath) && _inner.link(existing, newPath);
}

bool FaultInjectingFileSystem::symlink(const std::string& content, const std::string& path) {
    return admit("symlink " + path) && _inner.symlink(content, path);
}

std::optional<std::string> FaultInjectingFileSystem::readLink(const std::string& path) {
    if (!admit("readlink " + path))
        return std::nullopt;
    return _inner.readLink(path);
}

std::optional<std::vector<std::string>>
FaultInjectingFileSystem::listFolder(const std::string& path) {
    if (!admit("list " + path))
        return std::nullopt;
    return _inner.listFolder(path);
}

bool FaultInjectingFileSystem::setOwner(const std::string& path, uid_t uid, gid_t gid) {
    return admit("chown " + path) && _inner.setOwner(path, uid, gid);
}

bool FaultInjectingFileSystem::setMode(const std::string& path, mode_t mode) {
    return admit("chmod " + path) && _inner.setMode(path, mode);
}

bool FaultInjectingFileSystem::setModeOfFile(int fd, mode_t mode) {
    return admit("fchmod " + pathOfDescriptor(fd)) && _inner.setModeOfFile(fd, mode);
}

bool FaultInjectingFileSystem::setTimes(const std::string& path, const timespec times[2]) {
    return admit("utimens " + path) && _inner.setTimes(path, times);
}

bool FaultInjectingFileSystem::setTimesOfFile(int fd, const timespec times[2]) {
    return admit("futimens " + pathOfDescriptor(fd)) && _inner.setTimesOfFile(fd, times);
}

std::optional<uint64_t> FaultInjectingFileSystem::freeSpace(const std::string& path) {
    if (!admit("statvfs " + path))
        return std::nullopt;
    return _inner.freeSpace(path);
}

bool FileSystem::removeFilesIn(const std::string& folder, const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        if (!removeFile(JoinPath(folder, name)))
            return false;
    }
    return true;
}
