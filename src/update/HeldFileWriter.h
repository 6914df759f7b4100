#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/FileUtil.h"
#include "system/FileSystem.h"
#include "update/PayloadFiles.h"

// Writes, on a thread of its own, the new files that the entries ahead of the one running copy
// from payload files held in memory (PayloadFiles): each into an unnamed file in its
// destination's folder (FileSystem::createUnnamedFile), with the mode and times the copy gets.
// Its entry then only gives it its temporary name. Creating, writing and closing a file were
// most of an added or overwritten file's entry; here they are done on the other processor
// while the entries before it run. A file written ahead has no name until its entry takes it,
// so a run killed meanwhile leaves nothing behind, and one never taken goes when it is dropped.
//
// Nothing here decides anything: the entry checks, journals and checksums as it does for a
// copy it writes itself, and writes one itself when none was written ahead (the folder did
// not exist yet, the disk was full, the entry came first).
class HeldFileWriter {
public:
    struct Copy {
        std::string source; // the payload file's path, as PayloadFiles knows it
        std::string folder; // the folder of the installed file it becomes
    };

    // The copy of each entry (nothing for an entry that copies no held file), in the order the
    // entries run. The thread starts at once and works at most entriesAhead entries after the
    // one running, holding at most bytesAhead bytes written and not yet taken. The files go
    // through `files`: by default the machine's, not the seam the entries use, so that a
    // run's own calls stay the same however far ahead this thread is; a call that fails here
    // only leaves the entry to write its file itself.
    explicit HeldFileWriter(std::vector<std::optional<Copy>> copyPerEntry,
                            size_t entriesAhead = kEntriesAhead, size_t bytesAhead = kBytesAhead,
                            FileSystem& files = RealFileSystem::instance());
    // Stops the thread; files written and not taken go.
    ~HeldFileWriter();
    HeldFileWriter(const HeldFileWriter&) = delete;
    HeldFileWriter& operator=(const HeldFileWriter&) = delete;

    // Called before entry `index` (counted from 0) runs: files of the entries before it are
    // dropped, and this entry is no longer started here.
    void entryStarting(size_t index);

    // The unnamed file written for the entry running now, holding the payload file source for
    // a new file in folder, with its mode and times; waits while it is being written. Invalid
    // when it was not written ahead, or the entry copies something else.
    [[nodiscard]] UniqueFd take(const std::string& source, const std::string& folder);

    // Files written ahead so far, for the tests.
    size_t written() const { return _written.load(); }

    static constexpr size_t kEntriesAhead = 64;
    // The thread, waiting for room, is woken when this many entries have room.
    static constexpr size_t kEntriesPerWakeUp = 8;
    static constexpr size_t kBytesAhead = size_t{64} << 20;

private:
    enum class State { Writing, Written, Dropped };
    struct Entry {
        State state = State::Writing;
        UniqueFd file;
        size_t size = 0;
    };

    void run();
    // Whether the waiting thread should be woken now (under the lock).
    bool wakeWanted() const;
    // The held file written into an unnamed file in folder; invalid when it cannot be.
    UniqueFd write(const PayloadFiles::File& held, const std::string& folder);

    const std::vector<std::optional<Copy>> _copies;
    const size_t _entriesAhead;
    const size_t _bytesAhead;
    FileSystem& _files;
    std::mutex _mutex;
    std::condition_variable _moved;
    std::map<size_t, Entry> _entries; // started here and not yet taken or passed
    size_t _current = 0;              // the entry running now
    bool _started = false;            // an entry runs
    size_t _bytesHeld = 0;            // written or being written, not yet taken
    bool _stop = false;
    bool _threadWaiting = false;   // and for these:
    bool _waitsForEntries = false; // (else for bytes)
    size_t _threadIndex = 0;       // the entry it would write next
    size_t _roomNeeded = 0;        // that entry's bytes
    std::atomic<size_t> _written{0};
    std::thread _thread;
};
