#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <sys/types.h>

#include "base/FileUtil.h"

class FileSystem;
enum class BspatchResult;

// A new file that a patch makes is made in memory up to this size and written with one call,
// whether its entry makes it or it was made ahead (PatchPrefetcher): the same system calls
// either way. A larger one is written a piece at a time as the patch goes on.
inline constexpr size_t kPatchedInMemoryLimit = 64 << 20;

// A patched file in memory, with its MD5; or, once written ahead into an unnamed file on the
// file system where it goes, that file (its bytes then let go).
struct PatchedFile {
    std::unique_ptr<uint8_t[]> bytes;
    size_t size = 0;
    size_t capacity = 0; // the room in bytes, at least size
    std::string checksum;
    UniqueFd written;
};

// The size of the new file that the BSDIFF40 patch open on patchFd makes; nothing when it has
// no readable header.
std::optional<size_t> PatchedSizeOf(int patchFd);

// Applies the patch open on patchFd (making newSize bytes, as its header says) to oldData
// into made, with its checksum unless the caller works it out itself (withChecksum false).
// The new file is made in made's memory when it has room for it (a buffer used before),
// else in new memory.
// Stops with OutputFailed when stop (if given) is set.
BspatchResult PatchIntoMemory(std::span<const uint8_t> oldData, int patchFd, size_t newSize,
                              PatchedFile& made, std::string* detail,
                              const std::atomic<bool>* stop = nullptr, bool withChecksum = true);

// Writes output (a new file with mode) from the old file's bytes and a BSDIFF40 patch, with
// the patch code linked in, and checksums it on the way; with sync the output is on disk
// when this returns (else whoever renames it syncs its file system first). The
// output's MD5, or nothing (and no output file) when the patch could not be applied; every
// failure is logged, named after patchTool, the bundle's tool that holds the same code.
std::optional<std::string> ApplyPatchToFile(FileSystem& fileSystem,
                                            std::span<const uint8_t> oldData,
                                            const std::string& patchFile,
                                            const std::string& patchTool, const std::string& output,
                                            mode_t mode, bool sync = true);

// Writes output (a new file with mode) from a patched file's bytes made ahead in memory and
// their checksum, as ApplyPatchToFile writes a patch's result: the same failures, logged the
// same way. The checksum, or nothing (and no output file) when the file could not be written.
std::optional<std::string> WritePatchedFile(FileSystem& fileSystem, std::span<const uint8_t> bytes,
                                            const std::string& checksum,
                                            const std::string& patchTool, const std::string& output,
                                            mode_t mode, bool sync = true);

// Writes output from a patched file made ahead: the file written ahead is given the name
// output; one only in memory is written as above.
std::optional<std::string> WritePatchedFile(FileSystem& fileSystem, PatchedFile& made,
                                            const std::string& patchTool, const std::string& output,
                                            mode_t mode, bool sync = true);
