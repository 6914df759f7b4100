#pragma once

#include "base/FileUtil.h"

#include <atomic>
#include <cstdint>
#include <fcntl.h>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <vector>

// Every change the update makes to the disk, and the reads that decide one, go through this
// seam: the installed tree, the backup folder with its journal, and the payload folder.
// Each call is one system call (or one short sequence that succeeds or fails as a whole)
// and reports failure the POSIX way: false or an invalid descriptor, with errno set.
// Questions about a path's state (stat, lstat) are not part of it: they change nothing.
class FileSystem {
public:
    virtual ~FileSystem() = default;

    // A new regular file (O_CREAT|O_EXCL, write only, close-on-exec), never through an
    // existing name.
    [[nodiscard]] virtual UniqueFd createFile(const std::string& path, mode_t mode) = 0;
    // A new regular file without a name (O_TMPFILE, write only) on the file system of folder:
    // the kernel frees it when its last descriptor closes, or the process ends however it
    // ends, unless linkFile gives it a name first. New content written ahead of its entry so
    // leaves nothing behind.
    [[nodiscard]] virtual UniqueFd createUnnamedFile(const std::string& folder, mode_t mode) = 0;
    // Gives the unnamed file open on fd the name path, never through an existing name.
    [[nodiscard]] virtual bool linkFile(int fd, const std::string& path) = 0;
    // An existing file opened for writing without truncating it.
    [[nodiscard]] virtual UniqueFd openForWriting(const std::string& path) = 0;
    // An existing file opened for reading (without waiting for a writer of a FIFO).
    [[nodiscard]] virtual UniqueFd openForReading(const std::string& path) = 0;
    // All of data at the descriptor's position (or at offset), retrying short writes.
    [[nodiscard]] virtual bool write(int fd, const void* data, size_t size) = 0;
    [[nodiscard]] virtual bool writeAt(int fd, const void* data, size_t size, uint64_t offset) = 0;
    // Sees each piece of a copy as it passes.
    using CopyObserver = std::function<void(const char* data, size_t size)>;
    // What is left of in, copied to out: inside the kernel where the files allow it, through
    // memory when observe is given.
    [[nodiscard]] virtual bool copyData(int in, int out, const CopyObserver& observe) = 0;
    [[nodiscard]] virtual bool truncate(int fd, uint64_t size) = 0;
    // The file's data (and with metadata, its size and times) on disk.
    [[nodiscard]] virtual bool syncFile(int fd, bool metadata) = 0;
    // The folder's entries (creations, renames, removals in it) on disk.
    [[nodiscard]] virtual bool syncFolder(const std::string& path) = 0;
    // Everything written to the file system that holds path on disk (syncfs).
    [[nodiscard]] virtual bool syncFileSystem(const std::string& path) = 0;
    // Closes the descriptor; false when the last writes could not be completed.
    [[nodiscard]] virtual bool close(UniqueFd& fd) = 0;

    [[nodiscard]] virtual bool makeFolder(const std::string& path, mode_t mode) = 0;
    [[nodiscard]] virtual bool removeFolder(const std::string& path) = 0;
    // Removes a file or a link (not what it points to).
    [[nodiscard]] virtual bool removeFile(const std::string& path) = 0;
    // Removes the files and links of folder that names name (no folder among them), as
    // removeFile would one by one; false (errno set) at the first that cannot be removed.
    [[nodiscard]] virtual bool removeFilesIn(const std::string& folder,
                                             const std::vector<std::string>& names);
    // rename(2): replaces an existing target atomically.
    [[nodiscard]] virtual bool rename(const std::string& from, const std::string& to) = 0;
    [[nodiscard]] virtual bool link(const std::string& existing, const std::string& newPath) = 0;
    [[nodiscard]] virtual bool symlink(const std::string& content, const std::string& path) = 0;
    [[nodiscard]] virtual std::optional<std::string> readLink(const std::string& path) = 0;
    // The names in a folder, without "." and "..".
    [[nodiscard]] virtual std::optional<std::vector<std::string>>
    listFolder(const std::string& path) = 0;
    // At most count of them (which ones is the folder's order): enough to tell an empty
    // folder without reading a large one whole.
    [[nodiscard]] virtual std::optional<std::vector<std::string>>
    firstNamesInFolder(const std::string& path, size_t count) {
        auto names = listFolder(path);
        if (names && names->size() > count)
            names->resize(count);
        return names;
    }

    // Owner and group (-1 leaves one as it is); a link gets them itself, never its target.
    [[nodiscard]] virtual bool setOwner(const std::string& path, uid_t uid, gid_t gid) = 0;
    [[nodiscard]] virtual bool setMode(const std::string& path, mode_t mode) = 0;
    [[nodiscard]] virtual bool setModeOfFile(int fd, mode_t mode) = 0;
    // Access and modification times (UTIME_NOW and UTIME_OMIT as utimensat knows them); a
    // link gets them itself.
    [[nodiscard]] virtual bool setTimes(const std::string& path, const timespec times[2]) = 0;
    [[nodiscard]] virtual bool setTimesOfFile(int fd, const timespec times[2]) = 0;
    // Bytes free for an unprivileged writer on the file system that holds path.
    [[nodiscard]] virtual std::optional<uint64_t> freeSpace(const std::string& path) = 0;
};

// The machine's file system.
//
// Confined folders: a path below one of them is reached from that folder with openat2's
// RESOLVE_BENEATH and RESOLVE_NO_SYMLINKS, and the call is made on its last name relative
// to the folder so reached (unlinkat, renameat, ...). A symbolic link on the way, or one
// that a local user swaps in while the call is made, fails the call (ELOOP) instead of
// leading it elsewhere. The last name itself is changed as it is (a link is removed,
// renamed or replaced as a link, its mode and times not set through it); only reading a
// file follows a last link, and then only to a file below the same folder. Paths outside
// every confined folder are used as they are.
class RealFileSystem : public FileSystem {
public:
    // The one instance the run uses when nothing else is handed in.
    static RealFileSystem& instance();

    // Confines the paths below folders (absolute, without trailing slashes) from now on;
    // an empty list ends the confinement. The folders need not exist yet.
    void confineBelow(std::vector<std::string> folders);

    UniqueFd createFile(const std::string& path, mode_t mode) override;
    UniqueFd createUnnamedFile(const std::string& folder, mode_t mode) override;
    bool linkFile(int fd, const std::string& path) override;
    UniqueFd openForWriting(const std::string& path) override;
    UniqueFd openForReading(const std::string& path) override;
    bool write(int fd, const void* data, size_t size) override;
    bool writeAt(int fd, const void* data, size_t size, uint64_t offset) override;
    bool copyData(int in, int out, const CopyObserver& observe) override;
    bool truncate(int fd, uint64_t size) override;
    bool syncFile(int fd, bool metadata) override;
    bool syncFolder(const std::string& path) override;
    bool syncFileSystem(const std::string& path) override;
    bool close(UniqueFd& fd) override;
    bool makeFolder(const std::string& path, mode_t mode) override;
    bool removeFolder(const std::string& path) override;
    bool removeFile(const std::string& path) override;
    bool removeFilesIn(const std::string& folder, const std::vector<std::string>& names) override;
    bool rename(const std::string& from, const std::string& to) override;
    bool link(const std::string& existing, const std::string& newPath) override;
    bool symlink(const std::string& content, const std::string& path) override;
    std::optional<std::string> readLink(const std::string& path) override;
    std::optional<std::vector<std::string>> listFolder(const std::string& path) override;
    std::optional<std::vector<std::string>> firstNamesInFolder(const std::string& path,
                                                               size_t count) override;
    bool setOwner(const std::string& path, uid_t uid, gid_t gid) override;
    bool setMode(const std::string& path, mode_t mode) override;
    bool setModeOfFile(int fd, mode_t mode) override;
    bool setTimes(const std::string& path, const timespec times[2]) override;
    bool setTimesOfFile(int fd, const timespec times[2]) override;
    std::optional<uint64_t> freeSpace(const std::string& path) override;

private:
    // The folder that holds path's last name, reached without following links when path
    // is confined (an invalid handle, errno set, when it cannot be reached so); AT_FDCWD
    // with the whole path otherwise.
    struct Place {
        std::shared_ptr<const UniqueFd> base; // the confined folder
        std::string relative;                 // path below it
        UniqueFd folder;                      // the folder of the last name, when not base itself
        int at = AT_FDCWD;
        std::string name;
        bool confined = false;
    };
    Place place(const std::string& path);
    // The deepest confined folder that path lies below, and a handle on it (verify: one on
    // the folder there now, should it have been removed since the handle was opened).
    struct Base {
        std::string folder;
        std::shared_ptr<const UniqueFd> handle; // opened at first use
    };
    std::optional<Base> confiningFolder(const std::string& path, bool verify);
    // Forgets the handles on the confined folders at or below path, which a removal or a
    // rename through this object has just changed.
    void forgetHandlesAt(const std::string& path);

    std::mutex _confinementMutex;
    std::vector<Base> _confined;
};

// Confines RealFileSystem::instance() below folders for the life of this object.
class FileSystemConfinement {
public:
    explicit FileSystemConfinement(std::vector<std::string> folders) {
        RealFileSystem::instance().confineBelow(std::move(folders));
    }
    ~FileSystemConfinement() { RealFileSystem::instance().confineBelow({}); }
    FileSystemConfinement(const FileSystemConfinement&) = delete;
    FileSystemConfinement& operator=(const FileSystemConfinement&) = delete;
};

// For tests: the real file system, with every call counted and the Nth call (counting from
// 1, across all kinds) failed once with a chosen errno before it touches anything. Calls
// may come from several threads.
class FaultInjectingFileSystem : public FileSystem {
public:
    explicit FaultInjectingFileSystem(FileSystem& inner = RealFileSystem::instance())
        : _inner(inner) {}

    // Fails call number n (from now on counting from 1; 0 fails nothing) with error.
    void failCall(uint64_t n, int error);
    uint64_t calls() const { return _calls.load(); }
    // True once the chosen call has failed.
    bool failed() const { return _failed.load(); }
    // The name of each call made so far, in order, with the path it changes ("rename /a ->
    // /b", "sync-file /a" for a descriptor open on /a).
    std::vector<std::string> callLog() const;

    UniqueFd createFile(const std::string& path, mode_t mode) override;
    UniqueFd createUnnamedFile(const std::string& folder, mode_t mode) override;
    bool linkFile(int fd, const std::string& path) override;
    UniqueFd openForWriting(const std::string& path) override;
    UniqueFd openForReading(const std::string& path) override;
    bool write(int fd, const void* data, size_t size) override;
    bool writeAt(int fd, const void* data, size_t size, uint64_t offset) override;
    bool copyData(int in, int out, const CopyObserver& observe) override;
    bool truncate(int fd, uint64_t size) override;
    bool syncFile(int fd, bool metadata) override;
    bool syncFolder(const std::string& path) override;
    bool syncFileSystem(const std::string& path) override;
    bool close(UniqueFd& fd) override;
    bool makeFolder(const std::string& path, mode_t mode) override;
    bool removeFolder(const std::string& path) override;
    bool removeFile(const std::string& path) override;
    bool removeFilesIn(const std::string& folder, const std::vector<std::string>& names) override;
    bool rename(const std::string& from, const std::string& to) override;
    bool link(const std::string& existing, const std::string& newPath) override;
    bool symlink(const std::string& content, const std::string& path) override;
    std::optional<std::string> readLink(const std::string& path) override;
    std::optional<std::vector<std::string>> listFolder(const std::string& path) override;
    bool setOwner(const std::string& path, uid_t uid, gid_t gid) override;
    bool setMode(const std::string& path, mode_t mode) override;
    bool setModeOfFile(int fd, mode_t mode) override;
    bool setTimes(const std::string& path, const timespec times[2]) override;
    bool setTimesOfFile(int fd, const timespec times[2]) override;
    std::optional<uint64_t> freeSpace(const std::string& path) override;

private:
    // Counts the call; false (errno set) when it is the one to fail.
    bool admit(const std::string& what);
    std::string pathOfDescriptor(int fd) const;

    FileSystem& _inner;
    std::atomic<uint64_t> _calls{0};
    std::atomic<uint64_t> _failAt{0};
    std::atomic<bool> _failed{false};
    int _error = 0;
    mutable std::mutex _logMutex;
    std::vector<std::string> _log;
    struct LinkedName {
        std::string path;
        dev_t device;
        ino_t inode;
    };
    std::map<int, LinkedName> _linkedNames; // unnamed files named by linkFile, by descriptor
};
