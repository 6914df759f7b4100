#include "patch/PipelinedWriter.h"

#include "base/FileUtil.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

PipelinedWriter::PipelinedWriter(int fd)
    : PipelinedWriter([fd](const uint8_t* data, size_t size) {
          return WriteAll(fd, reinterpret_cast<const char*>(data), size);
      }) {}

PipelinedWriter::PipelinedWriter(Sink sink) : _sink(std::move(sink)), _buffers(kBuffers) {
    for (Buffer& buffer : _buffers)
        buffer.bytes = std::make_unique_for_overwrite<uint8_t[]>(kBufferSize);
    try {
        _thread = std::thread([this] { run(); });
    } catch (const std::system_error&) {
        // No thread to spare: publish() writes in the caller's thread.
    }
}

PipelinedWriter::~PipelinedWriter() {
    {
        const std::lock_guard lock(_mutex);
        _stopping = true;
    }
    _changed.notify_all();
    if (_thread.joinable())
        _thread.join();
}

bool PipelinedWriter::write(const uint8_t* data, size_t size) {
    while (size > 0) {
        {
            const std::lock_guard lock(_mutex);
            if (_failed || _finished)
                return false;
        }
        Buffer& buffer = _buffers[_filling];
        const size_t taken = std::min(size, kBufferSize - buffer.used);
        std::memcpy(buffer.bytes.get() + buffer.used, data, taken);
        buffer.used += taken;
        data += taken;
        size -= taken;
        if (buffer.used == kBufferSize)
            publish();
    }
    const std::lock_guard lock(_mutex);
    return !_failed;
}

void PipelinedWriter::publish() {
    if (!_thread.joinable()) {
        if (!consume(_buffers[_filling]))
            _failed = true;
        _buffers[_filling].used = 0;
        return;
    }
    std::unique_lock lock(_mutex);
    ++_published;
    _changed.notify_all();
    // The next buffer is free once the writer is done with what it held before.
    _changed.wait(lock, [&] { return _failed || _published - _consumed < kBuffers; });
    _filling = _published % kBuffers;
    _buffers[_filling].used = 0;
}

bool PipelinedWriter::consume(const Buffer& buffer) {
    _digest.update(buffer.bytes.get(), buffer.used);
    if (_sink(buffer.bytes.get(), buffer.used))
        return true;
    _error = errno;
    return false;
}

void PipelinedWriter::run() {
    std::unique_lock lock(_mutex);
    for (;;) {
        _changed.wait(lock, [&] { return _stopping || _closing || _consumed < _published; });
        if (_stopping || _consumed == _published)
            break; // stopped, or closing with everything written
        const Buffer& buffer = _buffers[_consumed % kBuffers];
        lock.unlock();
        const bool written = consume(buffer);
        lock.lock();
        ++_consumed;
        if (!written)
            _failed = true;
        _changed.notify_all();
        if (_failed)
            break;
    }
    Md5ReleaseThreadState();
}

PipelinedWriter::Result PipelinedWriter::finish() {
    Result result;
    {
        const std::lock_guard lock(_mutex);
        if (_finished)
            return result;
    }
    if (_buffers[_filling].used > 0)
        publish();
    {
        const std::lock_guard lock(_mutex);
        _finished = true;
        _closing = true;
    }
    _changed.notify_all();
    if (_thread.joinable())
        _thread.join();
    result.written = !_failed;
    result.error = _error;
    if (result.written)
        result.digest = _digest.finish();
    return result;
}
