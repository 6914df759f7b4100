#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

// Makes BSDIFF40 patches (format in bspatch/BsdiffFormat.h) that this project's bspatch and
// the usual bspatch programs apply.
//
// The old file's suffix array (libdivsufsort) finds, for each position of the new file, the
// longest matching string of the old file. Matches are extended forwards and backwards while
// at least half of the bytes agree, so nearby small changes (moved addresses in a rebuilt
// program) become mostly-zero "diff" bytes that compress well; the rest of the new file goes
// to the "extra" block. Memory: the two files, 4 bytes per old byte for the suffix array
// (8 above 2 GiB), a prefix table of about a quarter of that, and the compressed blocks; the
// diff and extra blocks are compressed on other threads while the matching goes on and are
// never held whole.
class Bsdiff {
public:
    struct Stats {
        uint64_t controlEntries = 0;
        uint64_t diffBytes = 0;  // bytes of the diff block before compression
        uint64_t extraBytes = 0; // bytes of the extra block before compression
        uint64_t patchBytes = 0;
    };

    // Receives the share of the new file done, from 0 to 1, now and then.
    using Progress = std::function<void(double done)>;

    // The patch that turns oldData into newData. False with a message when compression fails
    // or there is no memory.
    [[nodiscard]] static bool diff(std::span<const uint8_t> oldData,
                                   std::span<const uint8_t> newData, std::vector<uint8_t>* patch,
                                   std::string* error, Stats* stats = nullptr,
                                   const Progress& progress = {});

    // Reads both files, writes the patch through a synced temporary file renamed over
    // patchPath, so patchPath is either whole or untouched.
    [[nodiscard]] static bool diffFiles(const std::string& oldPath, const std::string& newPath,
                                        const std::string& patchPath, std::string* error,
                                        Stats* stats = nullptr, const Progress& progress = {});
};
