#pragma once

#include <optional>
#include <string>

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
};
