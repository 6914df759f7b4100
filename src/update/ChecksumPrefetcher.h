#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "update/MD5cksum.h"

// Works out, on a thread of its own, the checksums the file set is about to ask for: those
// of the installed files its entries back up and replace, and of the payload files they
// copy in. The file operations run one after the other on one thread, and most of their
// time is spent checksumming; this moves that work to another processor, a few entries
// ahead of the one running.
//
// Nothing here decides anything. A checksum worked out ahead is handed to MD5cksum's memory
// of files, which answers with it only while the file is still the one that was read (same
// device, inode, size and times); a file an earlier entry changes, or one the prefetcher
// guessed wrong, is simply read again when its entry asks. An entry that asks for a file
// while it is being read here waits for that read (MD5cksum::ReadingAhead).
class ChecksumPrefetcher {
public:
    // The files of each entry, in the order the entries run, read at most entriesAhead
    // entries in front of the one running: after entry 0, which its file operation reads
    // itself, or, fromFirstEntry, from entry 0 on while no entry runs yet. The thread starts
    // at once.
    explicit ChecksumPrefetcher(std::vector<std::vector<std::string>> filesPerEntry,
                                size_t entriesAhead = kEntriesAhead, bool fromFirstEntry = false);
    // Stops the thread without finishing the work left, the file being read included.
    ~ChecksumPrefetcher();
    ChecksumPrefetcher(const ChecksumPrefetcher&) = delete;
    ChecksumPrefetcher& operator=(const ChecksumPrefetcher&) = delete;

    // Called by the file set before it runs entry `index` (counted from 0): the prefetcher
    // skips what is behind and stays at most kEntriesAhead entries in front, so what it
    // remembers is still remembered when its entry comes.
    void entryStarting(size_t index);

    // Entries whose files were read ahead, for the tests.
    size_t entriesDone() const { return _done.load(); }

    // Far enough that a file of many megabytes, read in one lane among many, is done before
    // its entry comes; near enough that what is remembered for them stays remembered.
    static constexpr size_t kEntriesAhead = 128;
    // The thread is woken when this many entries have started since (fewer when it reads
    // only a few entries ahead).
    static constexpr size_t kEntriesPerWakeUp = 16;
    // Before the file set starts (while the payload is unpacked, with a processor to spare)
    // the installed files are read this far: an entry names one or two of them, so they take
    // at most what MD5cksum remembers, and leave room for the payload files and those of the
    // running entries.
    static constexpr size_t kEntriesBeforeStart = MD5cksum::kRememberedFiles / 2;

private:
    void run();
    static void checksum(const std::string& path);

    const std::vector<std::vector<std::string>> _filesPerEntry;
    std::mutex _mutex;
    std::condition_variable _moved;
    const size_t _entriesAhead;
    const size_t _entriesPerWakeUp; // at most an eighth of the entries ahead
    size_t _current = 0;            // the entry running now
    bool _started;                  // an entry runs: read only after it
    std::atomic<bool> _stop{false}; // set under _mutex; also read while a file is read
    std::atomic<size_t> _done{0};
    std::thread _thread;
};
