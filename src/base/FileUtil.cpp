#include "base/FileUtil.h"

#include "base/Path.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/openat2.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

std::string ModeText(mode_t mode) {
    char text[8];
    std::snprintf(text, sizeof text, "%03o", static_cast<unsigned>(mode & 07777));
    return text;
}

} // namespace

void UniqueFd::reset(int fd) {
    if (_fd >= 0)
        ::close(_fd);
    _fd = fd;
}

UniqueFd OpenBeneath(int folder, const std::string& path, int flags, bool noLinks) {
    open_how how{};
    how.flags = static_cast<uint64_t>(flags);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS | (noLinks ? RESOLVE_NO_SYMLINKS : 0);
    const long fd = ::syscall(SYS_openat2, folder, path.c_str(), &how, sizeof how);
    if (fd >= 0 || errno != ENOSYS)
        return UniqueFd(static_cast<int>(fd));
    // Without openat2: each folder on the way opened without following a link; a last link
    // is not followed either.
    UniqueFd current(::fcntl(folder, F_DUPFD_CLOEXEC, 0));
    size_t start = 0;
    for (;;) {
        const size_t slash = path.find('/', start);
        const std::string name =
            path.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
        if (name == "..") {
            errno = EXDEV;
            return UniqueFd();
        }
        if (slash == std::string::npos)
            return UniqueFd(::openat(current.get(), name.c_str(), flags | O_NOFOLLOW));
        if (!name.empty() && name != ".") {
            UniqueFd next(::openat(current.get(), name.c_str(),
                                   O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (!next.valid())
                return next;
            current = std::move(next);
        }
        start = slash + 1;
    }
}

bool IsItsOwnRealPath(const std::string& path) {
    if (path.empty() || path.front() != '/' || (path.size() > 1 && path.back() == '/'))
        return false;
    for (size_t start = 1; start < path.size();) {
        const size_t slash = std::min(path.find('/', start), path.size());
        const std::string_view name(path.data() + start, slash - start);
        if (name.empty() || name == "." || name == "..")
            return false;
        start = slash + 1;
    }
    open_how how{};
    how.flags = static_cast<uint64_t>(O_PATH | O_CLOEXEC);
    how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    const UniqueFd fd(
        static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how)));
    return fd.valid();
}

bool ReadInChunks(int fd, size_t chunkSize,
                  const std::function<bool(const char*, size_t)>& consume) {
    const auto buffer = std::make_unique_for_overwrite<char[]>(chunkSize);
    for (;;) {
        const ssize_t got = ::read(fd, buffer.get(), chunkSize);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return false;
        if (got == 0)
            return true;
        if (!consume(buffer.get(), static_cast<size_t>(got)))
            return false;
    }
}

bool WriteAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        ssize_t n = ::write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

namespace {

bool Fail(std::string* error, const std::string& what) {
    if (error)
        *error = what + ": " + std::strerror(errno);
    return false;
}

} // namespace

bool WriteFile(const std::string& path, const std::string& text, std::string* error) {
    UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!fd.valid())
        return Fail(error, "cannot open " + path);
    if (!WriteAll(fd.get(), text.data(), text.size()))
        return Fail(error, "cannot write " + path);
    if (::close(fd.release()) != 0)
        return Fail(error, "cannot close " + path);
    return true;
}

bool WriteFileAtomically(const std::string& path, const std::string& text, std::string* error) {
    mode_t mode = 0644;
    struct stat existing {};
    if (::stat(path.c_str(), &existing) == 0)
        mode = existing.st_mode & 07777;

    std::string temp = path + ".tmpXXXXXX";
    UniqueFd fd(::mkstemp(temp.data()));
    if (!fd.valid())
        return Fail(error, "cannot create a temporary file beside " + path);
    auto discard = [&](const std::string& what) {
        bool result = Fail(error, what);
        ::unlink(temp.c_str());
        return result;
    };
    if (::fchmod(fd.get(), mode) != 0)
        return discard("cannot set the mode of " + temp);
    if (!WriteAll(fd.get(), text.data(), text.size()))
        return discard("cannot write " + temp);
    if (::fsync(fd.get()) != 0)
        return discard("cannot sync " + temp);
    if (::close(fd.release()) != 0)
        return discard("cannot close " + temp);
    if (::rename(temp.c_str(), path.c_str()) != 0)
        return discard("cannot rename " + temp + " to " + path);
    // Make the rename itself durable.
    // A bare name lives in the working folder.
    const std::string parent = ParentPath(path);
    UniqueFd dir(::open(parent.empty() ? "." : parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.valid())
        ::fsync(dir.get());
    return true;
}

std::optional<std::string> ReadFileText(const std::string& path, size_t maxBytes) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid())
        return std::nullopt;
    std::string text;
    char buffer[65536];
    for (;;) {
        ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return std::nullopt;
        }
        if (n == 0)
            break;
        if (text.size() + static_cast<size_t>(n) > maxBytes) {
            errno = EFBIG;
            return std::nullopt;
        }
        text.append(buffer, static_cast<size_t>(n));
    }
    return text;
}

UniqueFd OpenPrivateFolder(const std::string& path, mode_t mode,
                           const std::function<bool(uid_t)>& trustedOwner, std::string* problem) {
    auto refuse = [&](const std::string& why) {
        if (problem)
            *problem = why;
        return UniqueFd();
    };
    if (::mkdir(path.c_str(), mode) != 0 && errno != EEXIST)
        return refuse("cannot make " + path + ": " + std::strerror(errno));
    UniqueFd handle(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat info {};
    if (!handle.valid() || ::fstat(handle.get(), &info) != 0)
        return refuse(path + " is not a folder (" + std::strerror(errno) + ")");
    if (!trustedOwner(info.st_uid) || (info.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        return refuse(path + " belongs to user " + std::to_string(info.st_uid) + " with mode " +
                      ModeText(info.st_mode));
    return handle;
}

UniqueFd OpenFileOnlyRootControls(const std::string& path, std::string* problem,
                                  std::string* realPath) {
    auto refuse = [&](const std::string& why) {
        if (problem)
            *problem = why;
        return UniqueFd();
    };
    UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    struct stat info {};
    if (!file.valid() || ::fstat(file.get(), &info) != 0)
        return refuse("cannot open " + path + ": " + std::strerror(errno));
    if (!S_ISREG(info.st_mode))
        return refuse(path + " is not a regular file");
    if (info.st_uid != 0 || (info.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        return refuse(path + " belongs to user " + std::to_string(info.st_uid) + " with mode " +
                      ModeText(info.st_mode));
    // The folders of the file that was opened, whatever links led to it.
    char real[PATH_MAX];
    const std::string self = "/proc/self/fd/" + std::to_string(file.get());
    const ssize_t length = ::readlink(self.c_str(), real, sizeof real - 1);
    if (length <= 0 || real[0] != '/')
        return refuse("cannot tell where " + path + " is: " + std::strerror(errno));
    std::string folder(real, static_cast<size_t>(length));
    if (realPath)
        *realPath = folder;
    for (;;) {
        const size_t slash = folder.find_last_of('/');
        folder.resize(slash == 0 ? 1 : slash);
        struct stat level {};
        if (::lstat(folder.c_str(), &level) != 0 || !S_ISDIR(level.st_mode))
            return refuse("cannot check the folder " + folder + ": " + std::strerror(errno));
        const bool othersMayWrite = (level.st_mode & (S_IWGRP | S_IWOTH)) != 0;
        if (level.st_uid != 0 || (othersMayWrite && (level.st_mode & S_ISVTX) == 0))
            return refuse("its folder " + folder + " belongs to user " +
                          std::to_string(level.st_uid) + " with mode " + ModeText(level.st_mode));
        if (folder == "/")
            return file;
    }
}

std::optional<std::string> LibraryPathToLoad(const std::string& path, std::string* problem) {
    if (::geteuid() != 0 || path.find('/') == std::string::npos)
        return path;
    std::string realPath;
    if (!OpenFileOnlyRootControls(path, problem, &realPath).valid())
        return std::nullopt;
    return realPath;
}
