#pragma once

#include "base/Md5.h"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

// Writes a stream of bytes to a file descriptor and checksums it on a thread of its own,
// so that whoever produces the bytes (a patch being applied) goes on meanwhile. The bytes
// pass through a few buffers; the producer waits only when all of them are full.
//
// Without a thread to spare the writer works in the caller's thread, with the same results.
class PipelinedWriter {
public:
    // Where the bytes go: true when all of them were written, false with errno set.
    using Sink = std::function<bool(const uint8_t* data, size_t size)>;

    // Writes to the descriptor.
    explicit PipelinedWriter(int fd);
    explicit PipelinedWriter(Sink sink);
    // Stops the thread; what was not written by then is not written.
    ~PipelinedWriter();
    PipelinedWriter(const PipelinedWriter&) = delete;
    PipelinedWriter& operator=(const PipelinedWriter&) = delete;

    // Queues the bytes; false when an earlier write failed (nothing more is written).
    [[nodiscard]] bool write(const uint8_t* data, size_t size);

    struct Result {
        bool written = false;              // every byte reached the descriptor
        int error = 0;                     // errno of the failed write
        std::optional<std::string> digest; // MD5 of all bytes given, when written
    };
    // Waits until everything is written. Call once; write() is refused afterwards.
    Result finish();

    static constexpr size_t kBufferSize = 256 * 1024;
    static constexpr size_t kBuffers = 8;

private:
    struct Buffer {
        std::unique_ptr<uint8_t[]> bytes;
        size_t used = 0;
    };

    void run();
    // Writes and checksums one buffer; false (with _error set) when the write failed.
    bool consume(const Buffer& buffer);
    void publish(); // hands the buffer being filled to the writer

    const Sink _sink;
    Md5Stream _digest;
    std::vector<Buffer> _buffers;
    size_t _filling = 0; // the buffer the producer fills
    std::mutex _mutex;
    std::condition_variable _changed;
    size_t _published = 0;  // buffers handed over, in all
    size_t _consumed = 0;   // buffers written, in all
    bool _closing = false;  // no more buffers will come
    bool _stopping = false; // write nothing more
    bool _failed = false;
    int _error = 0;
    bool _finished = false;
    std::thread _thread;
};
