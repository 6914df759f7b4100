#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unordered_set>

class FileSystem;

// Bounds on what a payload may unpack to.
struct PayloadLimits {
    uint64_t entries = 1'000'000;
    // gzip inflates about a thousandfold at most: without a bound a small hostile archive
    // could fill any disk.
    uint64_t bytes = uint64_t{64} << 30;
};

// Unpacks the patcher's payload archive (new files and patch files) into the working folder
// before the manifest is processed, and removes the working folder when the run has ended.
// Class operations only; no state.
class PayloadHandler {
public:
    // The payload's archive name inside the folder that holds it.
    static constexpr const char* kPayloadArchiveName = "Payload.cpio.gz";

    // Extracts archiveFolder/Payload.cpio.gz (a gzip-compressed cpio archive in any format GNU
    // cpio or libarchive writes) into targetFolder, which is emptied first. Every entry is
    // written through fileSystem. Nothing is ever written outside targetFolder: entries with
    // ".." or absolute paths, entries reached through symbolic links, and entries that are
    // neither files, folders nor symbolic links refuse the whole archive. A missing,
    // unreadable, truncated, non-gzip or refused archive, or any write that fails, leaves
    // targetFolder empty (or absent when there is no archive), so the manifest later finds
    // its sources missing. targetFolder is made root's alone (0700), and only inside a
    // parent that passes WorkingFolderIsSafe; otherwise nothing is unpacked. Always returns
    // 0: extraction never reports failure itself.
    //
    // A payload is refused whole before anything is written when the size its gzip trailer
    // declares exceeds the free space of targetFolder, and while it is read when the sizes
    // its entries declare do, when it inflates past the free space or limits.bytes, or when
    // it holds more than limits.entries entries.
    //
    // The regular files whose names (relative to targetFolder) are in heldNames are held in
    // memory instead (PayloadFiles), with their checksums, within PayloadFiles::kHeldBytes;
    // they are held only once the whole payload is unpacked.
    //
    // fileUnpacked, when given, is called with the name (relative to targetFolder) of each
    // regular file written to targetFolder, as soon as it is there whole, while the rest is
    // unpacked: a file of the archive's beginning can be used before its end is read. (A later
    // entry of the same name or linked to it, or a failure further on, can still change or
    // remove it.)
    using FileUnpacked = std::function<void(const std::string& relative)>;
    class InflateAhead;
    //
    // inflatedAhead, when given, is the archive inflated on another thread beforehand: it is
    // used when it is still the file opened here (same file, size and times), and the archive
    // is inflated here otherwise.
    static int32_t extractFile(const std::string& archiveFolder, const std::string& targetFolder,
                               FileSystem& fileSystem,
                               const PayloadLimits& limits = PayloadLimits(),
                               const std::unordered_set<std::string>* heldNames = nullptr,
                               const FileUnpacked& fileUnpacked = {},
                               InflateAhead* inflatedAhead = nullptr);

    // Lets go of the files held for folder, and removes folder and everything in it through
    // fileSystem (symbolic links are removed,
    // never followed). 0 when it was removed, 1 when not ("Remove operation failed.", or a
    // parent that fails WorkingFolderIsSafe: then nothing is touched).
    [[nodiscard]] static int32_t cleanupDir(const std::string& folder, FileSystem& fileSystem);

    // The working folder's parent (under /tmp, where any local user can make names) is a
    // real folder of this process's user that no one else may write; made when missing.
    // False after a log line naming the problem.
    static bool WorkingFolderIsSafe(const std::string& folder);
};

// The payload archive of a folder inflated whole in memory, on a thread of its own started at
// once: the run starts it before it reads the manifest, which takes the main thread about as
// long, so that the unpacking finds the archive inflated. Only the gzip layer, and only as
// PayloadHandler::extractFile would inflate it (one member, at most 256 MB, its checksum and
// length verified); nothing is unpacked or written here, and the unpacking applies its checks
// and limits to these bytes as to its own.
class PayloadHandler::InflateAhead {
public:
    explicit InflateAhead(const std::string& archiveFolder);
    // Waits for the thread.
    ~InflateAhead();
    InflateAhead(const InflateAhead&) = delete;
    InflateAhead& operator=(const InflateAhead&) = delete;

    struct Whole {
        std::shared_ptr<uint8_t[]> bytes;
        size_t size = 0;
        struct stat identity {}; // the archive's, when it was opened
    };
    // Waits for the thread; nothing when the archive could not be inflated whole that way.
    std::shared_ptr<const Whole> take();

    // Whether an unpacking used it, for the tests.
    bool used() const { return _used; }
    void markUsed() { _used = true; }

private:
    std::shared_ptr<const Whole> _whole;
    std::thread _thread;
    bool _used = false;
};
