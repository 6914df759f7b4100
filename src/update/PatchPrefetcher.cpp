#include "update/PatchPrefetcher.h"

#include "base/Md5.h"
#include "base/Md5Lanes.h"
#include "base/Path.h"
#include "base/ThreadPriority.h"
#include "patch/BsdiffFormat.h"
#include "patch/Bspatch.h"
#include "system/FileSystem.h"
#include "update/MD5cksum.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <string_view>
#include <system_error>
#include <unistd.h>

namespace {

// The same file with the same bytes as far as the file system tells, its change time left
// out: the entry keeps the old file by a hard link before it patches, which changes that time
// and nothing else. Every change of content this process makes replaces the file (a new
// inode) or moves its modification time.
bool SameFileAndBytes(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

struct PatchFd {
    int fd;
    ~PatchFd() {
        if (fd >= 0)
            ::close(fd);
    }
};

} // namespace

PatchPrefetcher::PatchPrefetcher(std::vector<std::optional<Patch>> patchPerEntry, size_t bytesAhead,
                                 FileSystem& files, bool writingAhead, unsigned threads)
    : _patches(std::move(patchPerEntry)), _bytesAhead(bytesAhead), _files(files),
      _writingAhead(writingAhead) {
    const size_t count = static_cast<size_t>(std::count_if(
        _patches.begin(), _patches.end(), [](const auto& patch) { return patch.has_value(); }));
    const size_t wanted =
        std::min<size_t>({count, threads, std::max(1U, std::thread::hardware_concurrency())});
    _threadWaitsFor.assign(wanted, kNotWaiting);
    try {
        for (size_t self = 0; self < wanted; ++self)
            _threads.emplace_back([this, self] { run(self); });
    } catch (const std::system_error&) {
        // No thread to spare: the entries then patch their files themselves, or fewer
        // threads make them.
    }
}

PatchPrefetcher::~PatchPrefetcher() {
    {
        const std::lock_guard lock(_mutex);
        _stop = true;
    }
    _moved.notify_all();
    for (std::thread& thread : _threads)
        thread.join();
}

void PatchPrefetcher::startWritingAhead() {
    {
        const std::lock_guard lock(_mutex);
        if (_writingAhead)
            return;
        _writingAhead = true;
        _writeOutWanted = true;
    }
    _moved.notify_all();
}

void PatchPrefetcher::writeOutMade() {
    // In the entries' order, each once (one that cannot be written stays in memory).
    for (size_t from = 0;;) {
        size_t index = 0;
        Entry entry;
        {
            const std::lock_guard lock(_mutex);
            const auto it =
                std::find_if(_entries.lower_bound(from), _entries.end(), [](const auto& held) {
                    return held.second.state == State::Made && held.second.newFile.bytes;
                });
            if (_stop || it == _entries.end())
                return;
            index = it->first;
            from = index + 1;
            entry = std::move(it->second);
            it->second = Entry{};
            it->second.state = State::Making; // an entry that wants it waits meanwhile
        }
        writeAhead(entry.newFile, _patches[index]->oldFile);
        {
            // Counted as memory until here; as what it is now from here.
            const std::lock_guard lock(_mutex);
            _bytesHeld -= entry.newFile.size;
            const auto it = _entries.find(index);
            if (it != _entries.end() && it->second.state == State::Making) {
                countIn(entry.newFile);
                it->second = std::move(entry);
            } else if (it != _entries.end()) {
                _entries.erase(it); // passed meanwhile
            }
        }
        _moved.notify_all();
    }
}

void PatchPrefetcher::entryStarting(size_t index) {
    bool wake = false;
    {
        const std::lock_guard lock(_mutex);
        _current = index;
        _started = true;
        for (auto it = _entries.begin(); it != _entries.end() && it->first < index;) {
            if (it->second.state == State::Making) {
                it->second.state = State::Dropped; // the thread lets it go when it is done
                ++it;
                continue;
            }
            drop(it->second);
            it = _entries.erase(it);
            wake = true; // room for the next, and less made ahead
        }
        // A thread waits for room, or for the entry it would make to come, or for the new
        // files made ahead to be fewer.
        wake = (wake && _threadsIdle > 0) ||
               std::any_of(_threadWaitsFor.begin(), _threadWaitsFor.end(), [&](size_t waitsFor) {
                   return waitsFor != kNotWaiting && (wake || index >= waitsFor);
               });
    }
    if (wake)
        _moved.notify_all();
}

void PatchPrefetcher::countIn(const NewFile& file) {
    if (file.bytes) {
        _bytesHeld += file.size;
    } else if (file.written.valid()) {
        ++_filesWritten;
        _bytesWritten += file.size;
    }
}

void PatchPrefetcher::countOut(const NewFile& file) {
    if (file.bytes) {
        _bytesHeld -= file.size;
    } else if (file.written.valid()) {
        --_filesWritten;
        _bytesWritten -= file.size;
    }
}

bool PatchPrefetcher::roomFor(size_t index, size_t newSize) const {
    // The room goes to the entries in their order: none for this one while a thread has an
    // earlier one and no room for it yet, which its entry would otherwise not find made.
    if (std::any_of(_threadWaitsFor.begin(), _threadWaitsFor.end(),
                    [&](size_t waitsFor) { return waitsFor < index; }))
        return false;
    // Made in memory first; written ahead, it then holds a file instead.
    return _bytesHeld + newSize <= _bytesAhead &&
           (!_writingAhead || (_filesWritten + _filesMaking < kFilesWrittenAhead &&
                               _bytesWritten + newSize <= kBytesWrittenAhead));
}

size_t PatchPrefetcher::madeAhead() const {
    return static_cast<size_t>(
        std::distance(_entries.lower_bound(_started ? _current : 0), _entries.end()));
}

void PatchPrefetcher::drop(Entry& entry) {
    countOut(entry.newFile);
    entry.newFile = NewFile{};
}

std::optional<PatchPrefetcher::NewFile> PatchPrefetcher::take(const std::string& oldFile,
                                                              const std::string& patchFile) {
    Entry entry;
    {
        std::unique_lock lock(_mutex);
        const size_t index = _current;
        if (!_started || index >= _patches.size() || !_patches[index] ||
            _patches[index]->oldFile != oldFile || _patches[index]->patchFile != patchFile)
            return std::nullopt;
        _moved.wait(lock, [&] {
            const auto it = _entries.find(index);
            return it == _entries.end() || it->second.state != State::Making;
        });
        const auto it = _entries.find(index);
        if (it == _entries.end() || it->second.state != State::Made)
            return std::nullopt;
        entry = std::move(it->second);
        countOut(entry.newFile);
        _entries.erase(it);
    }
    _moved.notify_all();
    // Made from these files only if they are still the files that were read.
    struct stat oldNow {};
    struct stat patchNow {};
    if (::stat(oldFile.c_str(), &oldNow) != 0 || ::stat(patchFile.c_str(), &patchNow) != 0 ||
        !SameFileAndBytes(oldNow, entry.oldIdentity) ||
        !SameFileAndBytes(patchNow, entry.patchIdentity))
        return std::nullopt;
    return std::move(entry.newFile);
}

void PatchPrefetcher::run(size_t self) {
    (void)RunThisThreadBehind(); // makes patches ahead; an entry waits for its own
    {
        const std::lock_guard lock(_mutex);
        ++_threadsRunning;
    }
    // Patches made and not yet checksummed: their new files and the old files read for them
    // are checksummed together, in SIMD lanes (Md5Lanes), a few patches at a time, when an
    // entry waits for one of them, or before this thread waits.
    std::vector<Made> unchecked;
    size_t oldBytesUnchecked = 0;
    std::vector<std::unique_ptr<BspatchOldFile>> spareOld; // buffers for the old files
    auto publish = [&](size_t index, Entry* made, size_t reserved) {
        const std::lock_guard lock(_mutex);
        _bytesHeld -= reserved;
        --_filesMaking;
        const auto it = _entries.find(index);
        if (made && it != _entries.end() && it->second.state == State::Making) {
            made->state = State::Made;
            countIn(made->newFile);
            it->second = std::move(*made);
            ++_made;
        } else if (it != _entries.end()) {
            _entries.erase(it);
        }
    };
    auto checkAndPublish = [&] {
        if (unchecked.empty())
            return;
        std::vector<std::string_view> bytes;
        for (const Made& made : unchecked)
            bytes.emplace_back(reinterpret_cast<const char*>(made.entry.newFile.bytes.get()),
                               made.entry.newFile.size);
        for (const Made& made : unchecked) {
            if (made.oldAhead)
                bytes.emplace_back(reinterpret_cast<const char*>(made.old->bytes().data()),
                                   made.old->bytes().size());
        }
        const std::vector<std::string> checksums = Md5OfAll(bytes);
        // The old files first: their entries check them before anything else.
        size_t next = unchecked.size();
        for (Made& made : unchecked) {
            if (made.oldAhead) {
                (void)MD5cksum::rememberChecksumOfFileAhead(*made.oldAhead, checksums[next++]);
                made.oldAhead.reset(); // whoever waits for it reads it from memory now
            }
            spareOld.push_back(std::move(made.old));
        }
        oldBytesUnchecked = 0;
        bool writing = false;
        {
            const std::lock_guard lock(_mutex);
            writing = _writingAhead;
        }
        for (size_t i = 0; i < unchecked.size(); ++i) {
            Made& made = unchecked[i];
            const size_t reserved = made.entry.newFile.size;
            made.entry.newFile.checksum = checksums[i];
            if (writing)
                writeAhead(made.entry.newFile, _patches[made.index]->oldFile);
            publish(made.index, &made.entry, reserved);
        }
        unchecked.clear();
        _moved.notify_all();
    };
    // Writes out what was made in memory, once that is wanted.
    auto writeOutWhenWanted = [&](std::unique_lock<std::mutex>& lock) {
        if (!_writeOutWanted)
            return;
        _writeOutWanted = false;
        lock.unlock();
        writeOutMade();
        lock.lock();
    };
    for (;;) {
        size_t index = 0;
        {
            std::unique_lock lock(_mutex);
            // The threads after the first help only while it does not keep ahead of the
            // entries: else they would only take the processors from the entries.
            while (self > 0 && !_stop && !_writeOutWanted && madeAhead() >= kMadeAheadByOne) {
                if (!unchecked.empty()) {
                    lock.unlock();
                    checkAndPublish();
                    lock.lock();
                    continue;
                }
                ++_threadsIdle;
                _moved.wait(lock);
                --_threadsIdle;
            }
            writeOutWhenWanted(lock);
            if (_stop)
                break;
            if (_started)
                _next = std::max(_next, _current + 1);
            while (_next < _patches.size() && !_patches[_next])
                ++_next;
            if (_next >= _patches.size())
                break;
            index = _next++;
            // From now until it has its room (or is left to its entry), the entries after it
            // get none (roomFor).
            _threadWaitsFor[self] = index;
        }
        const Patch& patch = *_patches[index];
        const PatchFd patchFd{::open(patch.patchFile.c_str(), O_RDONLY | O_CLOEXEC)};
        const std::optional<size_t> newSize =
            patchFd.fd >= 0 ? PatchedSizeOf(patchFd.fd) : std::nullopt;
        if (!newSize || *newSize > _bytesAhead) {
            // Its entry patches it, a piece at a time.
            {
                const std::lock_guard lock(_mutex);
                _threadWaitsFor[self] = kNotWaiting;
            }
            _moved.notify_all();
            continue;
        }
        {
            // Room for it among the new files not yet taken, unless its entry comes first.
            std::unique_lock lock(_mutex);
            for (;;) {
                _moved.wait(lock, [&] {
                    return _stop || _writeOutWanted || (_started && _current >= index) ||
                           roomFor(index, *newSize) || !unchecked.empty();
                });
                if (_stop)
                    break;
                if (_writeOutWanted) {
                    writeOutWhenWanted(lock);
                } else if ((_started && _current >= index) || roomFor(index, *newSize)) {
                    break;
                } else {
                    // Nothing held back while this thread waits: the room may be its own.
                    lock.unlock();
                    checkAndPublish();
                    lock.lock();
                }
            }
            _threadWaitsFor[self] = kNotWaiting;
            if (_threadWaitsFor.size() > 1)
                _moved.notify_all(); // the room this thread waited for may be another's now
            if (_stop)
                break;
            if (_started && _current >= index)
                continue;
            _entries[index].state = State::Making;
            _bytesHeld += *newSize;
            ++_filesMaking;
        }
        Made made;
        made.index = index;
        reuseMemory(*newSize, made.entry.newFile);
        if (spareOld.empty()) {
            made.old = std::make_unique<BspatchOldFile>();
        } else {
            made.old = std::move(spareOld.back());
            spareOld.pop_back();
        }
        if (!make(patch, *newSize, made)) {
            spareOld.push_back(std::move(made.old));
            publish(index, nullptr, *newSize);
            _moved.notify_all();
            continue;
        }
        oldBytesUnchecked += made.old->bytes().size();
        unchecked.push_back(std::move(made));
        // The patch the entries want next, and the old file an entry waits for the checksum
        // of, are checksummed as soon as they are made: the others while the entries are
        // behind, in batches.
        bool wanted = false;
        {
            const std::lock_guard lock(_mutex);
            // (Entries passed and still being made are let go when made.)
            const auto next = _entries.lower_bound(_started ? _current : 0);
            const size_t first = next == _entries.end() ? kNotWaiting : next->first;
            wanted = std::any_of(unchecked.begin(), unchecked.end(), [&](const Made& held) {
                return held.index == first || (held.oldAhead && MD5cksum::readsAwaited() > 0);
            });
        }
        if (wanted || unchecked.size() >= kCheckedTogether || oldBytesUnchecked >= _bytesAhead)
            checkAndPublish();
    }
    checkAndPublish();
    spareOld.clear();
    {
        // What was made in memory while writing ahead was not allowed is written once it is.
        std::unique_lock lock(_mutex);
        _moved.wait(lock, [&] { return _stop || _writingAhead; });
        writeOutWhenWanted(lock);
    }
    {
        const std::lock_guard lock(_mutex);
        if (--_threadsRunning == 0) {
            _spareMemory.clear();
            _spareBytes = 0;
            // The last thread out: whoever waits for an entry finds it not made.
            for (auto it = _entries.begin(); it != _entries.end();) {
                if (it->second.state == State::Making)
                    it = _entries.erase(it);
                else
                    ++it;
            }
        }
    }
    _moved.notify_all();
    Md5ReleaseThreadState();
}

void PatchPrefetcher::writeAhead(NewFile& made, const std::string& oldFile) {
    UniqueFd out = _files.createUnnamedFile(ParentPath(oldFile), 0600);
    if (!out.valid() || (made.size > 0 && !_files.write(out.get(), made.bytes.get(), made.size)))
        return; // a full disk, a folder gone: the entry writes the bytes itself
    made.written = std::move(out);
    if (made.bytes) {
        const std::lock_guard lock(_mutex);
        if (_spareBytes + made.capacity <= _bytesAhead) {
            NewFile spare;
            spare.bytes = std::move(made.bytes);
            spare.capacity = made.capacity;
            _spareBytes += spare.capacity;
            _spareMemory.push_back(std::move(spare));
        }
    }
    made.bytes.reset();
    made.capacity = 0;
}

void PatchPrefetcher::reuseMemory(size_t size, NewFile& made) {
    const std::lock_guard lock(_mutex);
    // The smallest that has room.
    auto best = _spareMemory.end();
    for (auto it = _spareMemory.begin(); it != _spareMemory.end(); ++it) {
        if (it->capacity >= size && (best == _spareMemory.end() || it->capacity < best->capacity))
            best = it;
    }
    if (best == _spareMemory.end())
        return;
    _spareBytes -= best->capacity;
    made.bytes = std::move(best->bytes);
    made.capacity = best->capacity;
    _spareMemory.erase(best);
}

bool PatchPrefetcher::make(const Patch& patch, size_t newSize, Made& made) {
    try {
        // An old file larger than the memory allowed for new files is its entry's to read.
        struct stat before {};
        if (::stat(patch.oldFile.c_str(), &before) != 0 || !S_ISREG(before.st_mode) ||
            static_cast<uint64_t>(before.st_size) > _bytesAhead)
            return false;
        // Read for its checksum as well, unless that is known or being worked out already.
        made.oldAhead = MD5cksum::openFileAhead(patch.oldFile);
        BspatchOldFile& old = *made.old;
        if (!(made.oldAhead ? old.read(made.oldAhead->fd.get()) : old.read(patch.oldFile)) ||
            old.bytes().size() != static_cast<size_t>(before.st_size))
            return false;
        const PatchFd patchFd{::open(patch.patchFile.c_str(), O_RDONLY | O_CLOEXEC)};
        if (patchFd.fd < 0 || ::fstat(patchFd.fd, &made.entry.patchIdentity) != 0)
            return false;

        // The old file read is the file as it was before the reading, and still is.
        return PatchIntoMemory(old.bytes(), patchFd.fd, newSize, made.entry.newFile, nullptr,
                               &_stop, false) == BspatchResult::Success &&
               ::stat(patch.oldFile.c_str(), &made.entry.oldIdentity) == 0 &&
               MD5cksum::sameFileState(before, made.entry.oldIdentity);
    } catch (const std::bad_alloc&) {
        return false;
    }
}
