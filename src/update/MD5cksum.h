#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <sys/stat.h>

// MD5 checksums of files, as the file operations compare them: lower-case hexadecimal text,
// the same as `openssl dgst -md5` and `md5sum` print.
class MD5cksum {
public:
    // The digest of the file at path (symbolic links followed), read in fixed-size pieces so
    // any file size takes the same memory. Nothing when the path is absent ("File path should
    // not be null"), when nothing is at the path ("File does not exist"), or when the file
    // cannot be read to its end ("Failed to get file check sum", level 0).
    [[nodiscard]] static std::optional<std::string>
    getMD5cksumOfFile(const std::optional<std::string>& path);
    // Frees what the digest library keeps for the calling thread. A thread that computed
    // checksums calls it before it ends: a detached thread may still be ending when the
    // process exits, and what it holds then counts as leaked.
    static void releaseThreadState();

    // The digest of bytes the caller holds or streams, given piece by piece. Used where a
    // file's bytes pass through memory anyway (a copy, a patch), so that they are not read
    // a second time only to be checksummed.
    class Stream {
    public:
        Stream();
        ~Stream();
        Stream(const Stream&) = delete;
        Stream& operator=(const Stream&) = delete;
        void update(const void* data, size_t size);
        // The lower-case hex digest of everything given; nothing when the digest library
        // failed at any point. The stream cannot be used afterwards.
        [[nodiscard]] std::optional<std::string> finish();

    private:
        struct Context;
        std::unique_ptr<Context> _context;
    };

    // Remembers the checksum of a regular file whose bytes this process has just read or
    // written whole (a copy, a patch output); identity is the file's fstat taken after the
    // last write or read. getMD5cksumOfFile then answers for that path from memory as long
    // as the file's device, inode, size, modification and change times are still the ones
    // recorded: any write, truncation, replacement or mode change gives up the memory. Only
    // the last few dozen files are kept: those of the running file operation and its journal
    // entry, and those worked out ahead of it (ChecksumPrefetcher).
    // True when two fstat/stat results show the same file with the same contents as far as
    // the file system tells: device, inode, size, modification and change times.
    [[nodiscard]] static bool sameFileState(const struct stat& a, const struct stat& b);

    static constexpr size_t kRememberedFiles = 256;
    static void rememberChecksumOfFile(const std::string& path, const struct stat& identity,
                                       const std::string& digest);

    // Reads a regular file, remembers its checksum and logs nothing; false when it is no
    // regular file, cannot be read, changed while it was read, or stop was set meanwhile.
    // For work done ahead.
    static bool rememberChecksumOfFileAhead(const std::string& path, const std::atomic<bool>& stop);

    // The remembered checksum of path, when the file is still as identity (a stat or fstat
    // taken now) shows it. Logs nothing.
    [[nodiscard]] static std::optional<std::string>
    rememberedChecksumOfFile(const std::string& path, const struct stat& identity);

    // Logs a file's checksum computed from its bytes in memory with the same line, or the
    // same failure, as getMD5cksumOfFile, and passes the checksum on.
    static std::optional<std::string> logChecksumOfFile(const std::string& path,
                                                        const std::optional<std::string>& digest);
};
