#pragma once

#include <cstdint>
#include <set>
#include <string>

// Writes the payload archive a patcher unpacks before it walks its manifest: a cpio archive
// in the "newc" form, gzip-compressed, made in-process with libarchive.
class PayloadArchive {
public:
    struct Summary {
        uint64_t files = 0;
        uint64_t bytes = 0; // file contents before compression
    };

    // Packs every file, folder and symbolic link below folder, with paths relative to it, in
    // name order so that the same folder always gives the same archive; the files named in
    // first (relative paths) go before all others, in name order too: the patcher starts
    // applying its patch files while it unpacks the rest. An empty folder name writes an
    // archive without entries. False with a message when anything cannot be read or written;
    // a partly written archive is removed.
    [[nodiscard]] static bool write(const std::string& folder, const std::string& archivePath,
                                    Summary* summary, std::string* error,
                                    const std::set<std::string>& first = {});
};
