#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

// MD5 digests as the patcher and its tools compare them: lower-case hexadecimal text, the
// same as `openssl dgst -md5` and `md5sum` print. Nothing here logs.

// The digest of bytes given piece by piece, for bytes that pass through memory anyway (a
// copy, a patch) so that they are not read a second time only to be checksummed.
class Md5Stream {
public:
    Md5Stream();
    ~Md5Stream();
    Md5Stream(const Md5Stream&) = delete;
    Md5Stream& operator=(const Md5Stream&) = delete;

    void update(const void* data, size_t size);
    // The digest of everything given; nothing when the digest library failed at any point.
    // The stream takes nothing more afterwards.
    [[nodiscard]] std::optional<std::string> finish();

private:
    struct Context;
    std::unique_ptr<Context> _context;
};

// The digest of bytes in memory.
[[nodiscard]] std::string Md5OfBytes(std::string_view bytes);

// The digest of everything readable from fd, read in fixed-size pieces; nothing on a read
// error, or when stop (if given) is set meanwhile.
[[nodiscard]] std::optional<std::string> Md5OfDescriptor(int fd,
                                                         const std::atomic<bool>* stop = nullptr);

// The digest of the file at path (symbolic links followed); nothing when it cannot be opened
// or read. Opened without blocking, so a FIFO without a writer holds nothing up.
[[nodiscard]] std::optional<std::string> Md5OfFile(const std::string& path);

// Frees what the digest library keeps for the calling thread. A thread that computed
// digests calls it before it ends: a detached thread may still be ending when the process
// exits, and what it holds then counts as leaked.
void Md5ReleaseThreadState();
