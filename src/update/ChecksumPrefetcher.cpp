#include "update/ChecksumPrefetcher.h"

#include "base/Md5.h"
#include "update/MD5cksum.h"

#include <algorithm>
#include <system_error>

ChecksumPrefetcher::ChecksumPrefetcher(std::vector<std::vector<std::string>> filesPerEntry,
                                       size_t entriesAhead, bool fromFirstEntry)
    : _filesPerEntry(std::move(filesPerEntry)), _entriesAhead(entriesAhead),
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
    {
        const std::lock_guard lock(_mutex);
        _current = index;
        _started = true;
    }
    _moved.notify_all();
}

void ChecksumPrefetcher::run() {
    size_t next = 0;
    while (next < _filesPerEntry.size()) {
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
        for (const auto& path : _filesPerEntry[next])
            (void)MD5cksum::rememberChecksumOfFileAhead(path, _stop);
        ++next;
        ++_done;
    }
    Md5ReleaseThreadState();
}
