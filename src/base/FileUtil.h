#pragma once

#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>

// Small file helpers for the base layer: whole-file writes, atomic replacement and an
// owned file descriptor.

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : _fd(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : _fd(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return _fd; }
    bool valid() const { return _fd >= 0; }
    int release() {
        int fd = _fd;
        _fd = -1;
        return fd;
    }
    void reset(int fd = -1);

private:
    int _fd = -1;
};

// A file that only root can have put there or changed: a regular file of root's that
// neither its group nor others may write, every folder of its real path up to "/" root's
// and writable by root alone. A folder others may write counts only with its sticky bit
// set (as /tmp has), since then nobody but root can rename or remove root's names in it.
// The file is opened (following links) and the checks are made on what was opened, so
// the descriptor is the file that was checked, and realPath (when given) its path without
// links: no one but root can change what that path names. Otherwise no handle, and
// problem says why.
UniqueFd OpenFileOnlyRootControls(const std::string& path, std::string* problem = nullptr,
                                  std::string* realPath = nullptr);

// The path to hand the dynamic loader for a library named by path. A root process loads a
// library named by a path only when OpenFileOnlyRootControls accepts it, and then by its
// real path: once that holds, nobody else can change what the path names before the loader
// opens it. A bare name is the loader's to look up in the system's folders, and another
// process's library is its own business: both are given back as they are. Nothing, with
// the reason in problem, for a library root may not load.
std::optional<std::string> LibraryPathToLoad(const std::string& path,
                                             std::string* problem = nullptr);

// A folder to write in where other users can make names (under /tmp): made (mode) when
// missing, then opened without following a symbolic link in its place, and accepted only
// when it is a real folder whose owner trustedOwner accepts and that no one but its owner
// may write. Otherwise no handle, and problem (when given) says why, for the log.
UniqueFd OpenPrivateFolder(const std::string& path, mode_t mode,
                           const std::function<bool(uid_t)>& trustedOwner,
                           std::string* problem = nullptr);

// path below the folder handle, opened with flags, without following a symbolic link on
// the way (noLinks: nor a last one) and never leaving the folder. openat2 where the kernel
// has it, else a walk of folder handles opened without following links.
UniqueFd OpenBeneath(int folder, const std::string& path, int flags, bool noLinks);

// True when the absolute path, written without "." or ".." names, empty names or a last
// "/", names something that is reached without a symbolic link anywhere on the way, its
// last name included: then it is its own real path. False when it is not, or when that
// cannot be told with one call (no openat2, or the path is not written so).
bool IsItsOwnRealPath(const std::string& path);

// Reads fd to its end in pieces of at most chunkSize bytes, handing each to consume; false
// on a read error, or as soon as consume returns false.
[[nodiscard]] bool ReadInChunks(int fd, size_t chunkSize,
                                const std::function<bool(const char*, size_t)>& consume);

// Writes all of data to fd, retrying short writes and EINTR.
[[nodiscard]] bool WriteAll(int fd, const char* data, size_t size);

// Replaces (or creates, mode 0644) the file with the text.
[[nodiscard]] bool WriteFile(const std::string& path, const std::string& text,
                             std::string* error = nullptr);
// As WriteFile, but through a synced temporary file renamed over the target, so the target
// is always either the old or the new file. The new file keeps the old file's mode.
[[nodiscard]] bool WriteFileAtomically(const std::string& path, const std::string& text,
                                       std::string* error = nullptr);
// The whole file, or nothing when it cannot be read or is larger than maxBytes.
std::optional<std::string> ReadFileText(const std::string& path,
                                        size_t maxBytes = 64 * 1024 * 1024);
