#pragma once

#include "base/FileUtil.h"

#include <atomic>
#include <cstddef>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <utility>

class FileSystem;

// MD5 checksums of files as the file operations ask for them: logged, and answered from
// memory for files whose bytes just passed through this process (the digest itself is
// base/Md5.h).
class MD5cksum {
public:
    // The digest of the file at path (symbolic links followed), read in fixed-size pieces so
    // any file size takes the same memory. Nothing when the path is absent ("File path should
    // not be null"), when nothing is at the path ("File does not exist"), or when the file
    // cannot be read to its end ("Failed to get file check sum", level 0).
    [[nodiscard]] static std::optional<std::string>
    getMD5cksumOfFile(const std::optional<std::string>& path);
    // As above, the file opened through fileSystem.
    [[nodiscard]] static std::optional<std::string>
    getMD5cksumOfFile(const std::optional<std::string>& path, FileSystem& fileSystem);
    // The same for a file whose stat the caller took just before (info).
    [[nodiscard]] static std::optional<std::string>
    getMD5cksumOfFile(const std::string& path, FileSystem& fileSystem, const struct stat& info);

    // Remembers the checksum of a regular file whose bytes this process has just read or
    // written whole (a copy, a patch output); identity is the file's fstat taken after the
    // last write or read. getMD5cksumOfFile then answers for that path from memory as long
    // as the file's device, inode, size, modification and change times are still the ones
    // recorded: any write, truncation, replacement or mode change gives up the memory. Only
    // the last few thousand files are kept (a few hundred bytes each): those of the running
    // file operation and its journal entry, and those worked out ahead of it
    // (ChecksumPrefetcher), even before the file set starts.
    static constexpr size_t kRememberedFiles = 16384;
    static void rememberChecksumOfFile(const std::string& path, const struct stat& identity,
                                       const std::string& digest);

    // Reads a regular file, remembers its checksum and logs nothing; false when it is no
    // regular file, cannot be read, changed while it was read, or stop was set meanwhile.
    // For work done ahead.
    static bool rememberChecksumOfFileAhead(const std::string& path, const std::atomic<bool>& stop);
    // Marks a path as being read ahead for as long as it lives: asked for that file meanwhile,
    // getMD5cksumOfFile waits for the read to end instead of reading the file a second time.
    class ReadingAhead {
    public:
        ReadingAhead() = default;
        ReadingAhead(ReadingAhead&& other) noexcept;
        ReadingAhead& operator=(ReadingAhead&& other) noexcept;
        ReadingAhead(const ReadingAhead&) = delete;
        ReadingAhead& operator=(const ReadingAhead&) = delete;
        ~ReadingAhead();

    private:
        friend class MD5cksum;
        explicit ReadingAhead(std::string path) : _path(std::move(path)) {}
        void end();
        std::string _path; // empty once ended or moved from
    };

    // The same in two steps, for files checksummed together (Md5Lanes): a regular file opened
    // for it, or nothing when the path is no regular file, its checksum is remembered
    // already or it is being read ahead already; then its digest, remembered when the file
    // did not change while it was read.
    struct FileAhead {
        std::string path;
        UniqueFd fd;
        struct stat before {};
        ReadingAhead reading;
    };
    [[nodiscard]] static std::optional<FileAhead> openFileAhead(const std::string& path);
    static bool rememberChecksumOfFileAhead(const FileAhead& file,
                                            const std::optional<std::string>& digest);

    // The remembered checksum of path, when the file is still as identity (a stat or fstat
    // taken now) shows it. Logs nothing.
    [[nodiscard]] static std::optional<std::string>
    rememberedChecksumOfFile(const std::string& path, const struct stat& identity);
    // The same, and when the file is being read ahead on another thread right now, its
    // checksum once that read ends (nothing if the file changed meanwhile).
    [[nodiscard]] static std::optional<std::string>
    awaitedChecksumOfFile(const std::string& path, const struct stat& identity);
    // How many threads wait in awaitedChecksumOfFile now: whoever holds files read ahead
    // without their checksums yet works those out first.
    [[nodiscard]] static size_t readsAwaited();

    // True when two fstat/stat results show the same file with the same contents as far as
    // the file system tells: device, inode, size, modification and change times.
    [[nodiscard]] static bool sameFileState(const struct stat& a, const struct stat& b);

    // Logs a file's checksum computed from its bytes in memory with the same line, or the
    // same failure, as getMD5cksumOfFile, and passes the checksum on.
    static std::optional<std::string> logChecksumOfFile(const std::string& path,
                                                        const std::optional<std::string>& digest);
};
