#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "patch/Bspatch.h"
#include "system/FileSystem.h"
#include "update/MD5cksum.h"
#include "update/PatchApplication.h"

// Applies, on threads of its own, the patches of the entries ahead of the one running, into
// memory, with the checksum of each new file. A patched file costs the file set most of its
// time (the bzip2 blocks, the additions, the checksum of the result), and the entries around
// it mostly wait for system calls and for these threads: made ahead, the new file is only
// written when its entry comes, while the threads go on with the next patches. The patches are
// taken in the entries' order; a second thread takes them too while the first does not keep
// ahead of the entries (many patches close together), so that the entries do not wait for one
// thread while a processor idles; where one keeps ahead, the second leaves the processors to
// the entries.
//
// Each new file, once checksummed, is written here into an unnamed file in its old file's
// folder (FileSystem::createUnnamedFile) and its memory let go: its entry only gives it its
// temporary name, and the writing, the longest part of a patched file's entry, is done on
// these threads too. Such a file has no name until then, so a run killed meanwhile leaves nothing.
//
// The old file's checksum, which its entry checks first, is worked out here as well, from the
// bytes read for the patch, together with the new files' (MD5cksum remembers it); unless it is
// known already or being read by another thread (MD5cksum::openFileAhead). So each old file
// is read once, and its bytes go through the SIMD lanes beside the new files instead of alone.
//
// Nothing here decides anything. The file set takes a new file made ahead only while the old
// file and the patch are still the files it was made from (same device, inode, size and
// modification time); it still checks the old file's checksum first and the new file's after,
// journals, writes and syncs as it does for a patch it applies itself. A file an earlier entry
// changed, a patch that failed here, or one that did not fit in the memory allowed, is simply
// patched by the entry.
class PatchPrefetcher {
public:
    struct Patch {
        std::string oldFile;
        std::string patchFile;
        bool operator==(const Patch&) const = default;
    };
    using NewFile = PatchedFile;

    // The patch of each entry (nothing for an entry that patches nothing), in the order the
    // entries run. The thread starts at once and works on the entries after the one running,
    // holding at most bytesAhead bytes of new files in memory that no entry has taken yet,
    // and at most kFilesWrittenAhead written ahead.
    // The files written ahead go through files: by default the machine's, not the seam the
    // entries use, so that a run's own calls stay the same however far ahead this thread is.
    // Any call that fails here only leaves the entry to write its file itself.
    // Started before the installation's folders are confined (while the payload is
    // unpacked), it keeps its new files in memory (writingAhead false) until
    // startWritingAhead(). At most `threads` threads (one per processor) make the patches.
    explicit PatchPrefetcher(std::vector<std::optional<Patch>> patchPerEntry,
                             size_t bytesAhead = kBytesAhead,
                             FileSystem& files = RealFileSystem::instance(),
                             bool writingAhead = true, unsigned threads = kThreads);
    // Stops the threads, dropping the patches being made.
    ~PatchPrefetcher();
    PatchPrefetcher(const PatchPrefetcher&) = delete;
    PatchPrefetcher& operator=(const PatchPrefetcher&) = delete;

    // From now on new files are written ahead, those made and waiting in memory first.
    void startWritingAhead();

    // Called by the file set before it runs entry `index` (counted from 0): new files of the
    // entries before it are dropped, and this entry is no longer started here.
    void entryStarting(size_t index);

    // The new file of the entry running now, made from oldFile and patchFile as they are now;
    // waits while it is being made. Nothing when it was not made ahead, or the files are not
    // the ones it was made from.
    [[nodiscard]] std::optional<NewFile> take(const std::string& oldFile,
                                              const std::string& patchFile);

    // New files made so far, for the tests.
    size_t made() const { return _made.load(); }

    static constexpr size_t kBytesAhead = kPatchedInMemoryLimit;
    static constexpr unsigned kThreads = 2;
    // The new files made or being made for the entries ahead, from which the threads after
    // the first one wait.
    static constexpr size_t kMadeAheadByOne = 8;
    // New files written ahead (or being made to be) and not yet taken, at most: each holds a
    // descriptor, and its bytes on the file system (a new file once written ahead holds no
    // memory here).
    static constexpr size_t kFilesWrittenAhead = 32;
    static constexpr size_t kBytesWrittenAhead = 16 * kBytesAhead;
    // Patches whose new and old files are checksummed together at most (one file per SIMD
    // lane of Md5Lanes).
    static constexpr size_t kCheckedTogether = 8;

private:
    enum class State { Waiting, Making, Made, Dropped };
    struct Entry {
        State state = State::Waiting;
        NewFile newFile;
        struct stat oldIdentity {};
        struct stat patchIdentity {};
    };

    // A patch made and not yet checksummed, with the old file it was made from.
    struct Made {
        size_t index = 0;
        Entry entry;
        std::unique_ptr<BspatchOldFile> old;
        std::optional<MD5cksum::FileAhead> oldAhead; // when its checksum is worked out here
    };

    // The work of thread number `self`.
    void run(size_t self);
    // Makes the new file of a patch, outside the lock; false when it cannot be made.
    bool make(const Patch& patch, size_t newSize, Made& made);
    // Counts a new file held (memory, or a file written ahead) in or out, under the lock.
    void countIn(const NewFile& file);
    void countOut(const NewFile& file);
    // Whether the new file of entry `index`, of newSize, may be made now, under the lock.
    bool roomFor(size_t index, size_t newSize) const;
    // New files made or being made for the running entry and those after it, under the lock.
    size_t madeAhead() const;
    void drop(Entry& entry);
    // Writes ahead the new files made while writing ahead was not allowed yet.
    void writeOutMade();
    // Writes a new file ahead into an unnamed file beside oldFile; left in memory when it
    // cannot be. Its memory is kept for the next new files.
    void writeAhead(NewFile& made, const std::string& oldFile);
    // Gives made the memory of a new file written ahead before, when one has room for size
    // bytes: so the new files' bytes go to memory already touched, not fresh pages.
    void reuseMemory(size_t size, NewFile& made);

    const std::vector<std::optional<Patch>> _patches;
    const size_t _bytesAhead;
    FileSystem& _files;
    std::mutex _mutex;
    std::condition_variable _moved;
    std::map<size_t, Entry> _entries; // the entries started here and not yet passed
    size_t _current = 0;              // the entry running now
    bool _started = false;            // an entry runs
    size_t _next = 0;                 // the entry whose patch a thread takes next
    size_t _bytesHeld = 0;            // memory of new files made or being made, not yet taken
    size_t _filesWritten = 0;         // new files written ahead, not yet taken
    size_t _bytesWritten = 0;         // and their bytes
    size_t _filesMaking = 0;          // new files being made or not yet checksummed
    static constexpr size_t kNotWaiting = SIZE_MAX;
    // Per thread, the entry it took and has no room for yet (kNotWaiting when none).
    std::vector<size_t> _threadWaitsFor;
    size_t _threadsRunning = 0;
    size_t _threadsIdle = 0;      // threads waiting while enough is made ahead
    bool _writingAhead;           // new files go to unnamed files once made
    bool _writeOutWanted = false; // new files made in memory are to be written ahead
    std::atomic<bool> _stop{false};
    std::atomic<size_t> _made{0};
    // Memory of new files written ahead, for the next ones, and its size: at most bytesAhead.
    // Under the lock.
    std::vector<NewFile> _spareMemory;
    size_t _spareBytes = 0;
    std::vector<std::thread> _threads;
};
