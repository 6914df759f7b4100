#include "update/ChecksumPrefetcher.h"

#include "base/Md5.h"
#include "base/Md5Lanes.h"
#include "base/ThreadPriority.h"
#include "update/MD5cksum.h"

#include <algorithm>
#include <cerrno>
#include <functional>
#include <map>
#include <memory>
#include <system_error>
#include <unistd.h>

ChecksumPrefetcher::ChecksumPrefetcher(std::vector<std::vector<std::string>> filesPerEntry,
                                       size_t entriesAhead, bool fromFirstEntry)
    : _filesPerEntry(std::move(filesPerEntry)), _entriesAhead(entriesAhead),
      _entriesPerWakeUp(std::clamp<size_t>(entriesAhead / 8, 1, kEntriesPerWakeUp)),
      _started(!fromFirstEntry) {
    if (_filesPerEntry.empty())
        return;
    try {
        _thread = std::thread([this] { run(); });
    } catch (const std::system_error&) {
        // No thread to spare: every checksum is then taken when its entry asks for it.
    }
}

ChecksumPrefetcher::~ChecksumPrefetcher() {
    {
        const std::lock_guard lock(_mutex);
        _stop = true;
    }
    _moved.notify_all();
    if (_thread.joinable())
        _thread.join();
}

void ChecksumPrefetcher::entryStarting(size_t index) {
    // Woken once every few entries, the thread reads ahead a few entries at a time instead
    // of one per wake-up: two switches of processor per entry cost more than the reads.
    bool wake = false;
    {
        const std::lock_guard lock(_mutex);
        _current = index;
        wake = !_started || index % _entriesPerWakeUp == 0;
        _started = true;
    }
    if (wake)
        _moved.notify_all();
}

void ChecksumPrefetcher::run() {
    (void)RunThisThreadBehind(); // reads ahead of the entries; they wait for it when they must
    // The files go through SIMD lanes several at a time (Md5Lanes): as soon as one is done
    // the next goes in, so the lanes stay full while entries are allowed ahead.
    Md5Lanes lanes;
    const size_t width = Md5Lanes::lanes();
    size_t next = 0;     // the next entry whose files go in
    size_t inFlight = 0; // files in the lanes
    // Files of each entry not yet done: an entry counts as done when the last of them is.
    std::map<size_t, size_t> pending;
    auto fileDone = [&](size_t entry) {
        const auto it = pending.find(entry);
        if (it != pending.end() && --it->second == 0) {
            pending.erase(it);
            ++_done;
        }
    };
    std::function<void()> feed = [&] {
        while (inFlight < width) {
            {
                const std::lock_guard lock(_mutex);
                if (_stop.load() || next >= _current + _entriesAhead)
                    return;
                if (_started)
                    next = std::max(next, _current + 1);
            }
            if (next >= _filesPerEntry.size())
                return;
            const size_t entry = next++;
            size_t left = 0;
            for (const auto& path : _filesPerEntry[entry]) {
                auto file = MD5cksum::openFileAhead(path);
                if (!file)
                    continue;
                auto shared = std::make_shared<MD5cksum::FileAhead>(std::move(*file));
                ++left;
                ++inFlight;
                lanes.add(
                    [shared](uint8_t* buffer, size_t size) -> ssize_t {
                        for (;;) {
                            const ssize_t got = ::read(shared->fd.get(), buffer, size);
                            if (got >= 0 || errno != EINTR)
                                return got;
                        }
                    },
                    [&, shared, entry](std::optional<std::string> digest) {
                        (void)MD5cksum::rememberChecksumOfFileAhead(*shared, digest);
                        --inFlight;
                        fileDone(entry);
                        feed();
                    });
            }
            if (left == 0)
                ++_done;
            else
                pending[entry] = left;
        }
    };
    for (;;) {
        {
            std::unique_lock lock(_mutex);
            // An entry already running, or run, is asked for its checksums by now.
            _moved.wait(lock, [&] { return _stop.load() || next < _current + _entriesAhead; });
            if (_stop.load())
                break;
            if (_started)
                next = std::max(next, _current + 1);
        }
        if (next >= _filesPerEntry.size())
            break;
        feed();
        lanes.run(&_stop);
        inFlight = 0; // whatever a stop left in the lanes is dropped
    }
    Md5ReleaseThreadState();
}
