#include "update/HeldFileWriter.h"

#include "base/ThreadPriority.h"

#include <algorithm>
#include <system_error>

HeldFileWriter::HeldFileWriter(std::vector<std::optional<Copy>> copyPerEntry, size_t entriesAhead,
                               size_t bytesAhead, FileSystem& files)
    : _copies(std::move(copyPerEntry)), _entriesAhead(entriesAhead), _bytesAhead(bytesAhead),
      _files(files) {
    if (std::none_of(_copies.begin(), _copies.end(), [](const auto& copy) { return copy; }))
        return;
    try {
        _thread = std::thread([this] { run(); });
    } catch (const std::system_error&) {
        // No thread to spare: every entry then writes its file itself.
    }
}

HeldFileWriter::~HeldFileWriter() {
    {
        const std::lock_guard lock(_mutex);
        _stop = true;
    }
    _moved.notify_all();
    if (_thread.joinable())
        _thread.join();
}

void HeldFileWriter::entryStarting(size_t index) {
    bool wake = false;
    {
        const std::lock_guard lock(_mutex);
        _current = index;
        _started = true;
        for (auto it = _entries.begin(); it != _entries.end() && it->first < index;) {
            if (it->second.state == State::Writing) {
                it->second.state = State::Dropped; // the thread lets it go when it is written
                ++it;
                continue;
            }
            _bytesHeld -= it->second.size;
            it = _entries.erase(it);
        }
        wake = wakeWanted();
    }
    if (wake)
        _moved.notify_all();
}

bool HeldFileWriter::wakeWanted() const {
    if (!_threadWaiting)
        return false;
    if (_started && _current >= _threadIndex)
        return true; // its entry came first
    // Waiting for entries to pass, it is woken once several have, to write several files on
    // each wake-up.
    const size_t room = _waitsForEntries ? std::min(kEntriesPerWakeUp, _entriesAhead) : 1;
    return _threadIndex + room <= _current + _entriesAhead &&
           _bytesHeld + _roomNeeded <= _bytesAhead;
}

UniqueFd HeldFileWriter::take(const std::string& source, const std::string& folder) {
    UniqueFd file;
    {
        std::unique_lock lock(_mutex);
        const size_t index = _current;
        if (!_started || index >= _copies.size() || !_copies[index] ||
            _copies[index]->source != source || _copies[index]->folder != folder)
            return file;
        _moved.wait(lock, [&] {
            const auto it = _entries.find(index);
            return it == _entries.end() || it->second.state != State::Writing;
        });
        const auto it = _entries.find(index);
        if (it == _entries.end() || it->second.state != State::Written)
            return file;
        file = std::move(it->second.file);
        _bytesHeld -= it->second.size;
        _entries.erase(it);
        if (!wakeWanted())
            return file;
    }
    _moved.notify_all();
    return file;
}

void HeldFileWriter::run() {
    (void)RunThisThreadBehind(); // writes ahead of the entries; they write it when it has not
    size_t next = 0;             // the first entry not yet looked at
    for (;;) {
        {
            const std::lock_guard lock(_mutex);
            if (_stop)
                return;
            if (_started)
                next = std::max(next, _current + 1);
        }
        while (next < _copies.size() && !_copies[next])
            ++next;
        if (next >= _copies.size())
            return;
        const size_t index = next++;
        const auto held = PayloadFiles::find(_copies[index]->source);
        if (!held || held->size > _bytesAhead)
            continue; // unpacked to the working folder, or too large to wait here
        {
            // Within the entries allowed ahead and the bytes allowed, unless its entry comes
            // first.
            std::unique_lock lock(_mutex);
            const auto canGo = [&] {
                return _stop || (_started && _current >= index) ||
                       (index < _current + _entriesAhead && _bytesHeld + held->size <= _bytesAhead);
            };
            if (!canGo()) {
                _threadWaiting = true;
                _waitsForEntries = index >= _current + _entriesAhead;
                _threadIndex = index;
                _roomNeeded = held->size;
                _moved.wait(lock, canGo);
                _threadWaiting = false;
            }
            if (_stop)
                return;
            if (_started && _current >= index)
                continue;
            _entries[index].size = held->size;
            _bytesHeld += held->size;
        }
        UniqueFd file = write(*held, _copies[index]->folder);
        {
            const std::lock_guard lock(_mutex);
            const auto it = _entries.find(index);
            if (it != _entries.end() && it->second.state == State::Writing && file.valid()) {
                it->second.state = State::Written;
                it->second.file = std::move(file);
                ++_written;
            } else if (it != _entries.end()) {
                _bytesHeld -= it->second.size;
                _entries.erase(it);
            }
        }
        _moved.notify_all();
    }
}

UniqueFd HeldFileWriter::write(const PayloadFiles::File& held, const std::string& folder) {
    UniqueFd file = _files.createUnnamedFile(folder, 0600);
    if (!file.valid() ||
        (held.size > 0 && !_files.write(file.get(), held.bytes.get(), held.size)) ||
        !_files.setModeOfFile(file.get(), held.mode))
        return UniqueFd(); // a folder not made yet, a full disk: its entry writes it
    (void)_files.setTimesOfFile(file.get(), held.times);
    return file;
}
