#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

// Applying BSDIFF40 patches (format in BsdiffFormat.h).
//
// The old file is held in memory; the patch is read in small pieces and its three bzip2
// blocks are decompressed as they are needed; the new file is produced front to back and
// never held whole. Every length and position in the patch is checked before use, so a
// hostile patch fails instead of reading or writing outside a buffer.

enum class BspatchResult {
    Success,
    OldFileUnreadable,
    PatchUnreadable,
    NotBsdiffPatch, // no BSDIFF40 header, or a negative number in it
    CorruptPatch,   // truncated, bad bzip2 data, or control entries outside the files
    OutputFailed,   // the new file could not be written, synced or put in place
    OutOfMemory,
};

const char* DescribeBspatchResult(BspatchResult result);

// Receives the new file's bytes in order; returning false stops patching with OutputFailed.
using BspatchSink = std::function<bool(const uint8_t* data, size_t size)>;

// Applies the patch read from patchFd (a regular file, read from offset 0 with pread, so the
// descriptor's position is left alone) to oldData and hands the new file to sink. Success
// only when exactly the header's new size was produced and every bzip2 block ended where the
// header says. detail, when given, receives a one-line explanation of a failure.
[[nodiscard]] BspatchResult ApplyBsdiffPatchToSink(std::span<const uint8_t> oldData, int patchFd,
                                                   const BspatchSink& sink,
                                                   std::string* detail = nullptr);
// The same, the new file made in place in into, which sink then sees piece by piece: no copy
// of it is made on the way. OutputFailed when the header's new size does not fit in into.
[[nodiscard]] BspatchResult ApplyBsdiffPatchInto(std::span<const uint8_t> oldData, int patchFd,
                                                 std::span<uint8_t> into, const BspatchSink& sink,
                                                 std::string* detail = nullptr);

// The whole old file in memory, in a buffer that is kept for the next file: patching many
// files in turn touches fresh memory only for a file larger than all before it, and the
// buffer is never filled with zeros first.
class BspatchOldFile {
public:
    // Reads the file to its end; false with errno set when it cannot be read.
    [[nodiscard]] bool read(const std::string& path);
    // The same from a file open for reading, from where it stands to its end.
    [[nodiscard]] bool read(int fd);
    std::span<const uint8_t> bytes() const { return {_buffer.get(), _size}; }
    // Gives the memory back.
    void release();

private:
    std::unique_ptr<uint8_t[]> _buffer;
    size_t _capacity = 0;
    size_t _size = 0;
};

// Writes newPath from oldPath and patchPath. The new file is written to a temporary file
// beside newPath, synced and renamed over it, so on success newPath is whole and on any
// failure newPath is as it was before and no temporary file remains. The new file gets mode
// 0666 less the umask. oldPath and newPath may name the same file.
[[nodiscard]] BspatchResult ApplyBsdiffPatch(const std::string& oldPath, const std::string& newPath,
                                             const std::string& patchPath,
                                             std::string* detail = nullptr);
