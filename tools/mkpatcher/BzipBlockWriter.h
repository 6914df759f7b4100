#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// One bzip2 stream (block size 900k, as BSDIFF40 patches use), compressed into memory on a
// thread of its own while the producer goes on: the diff and extra blocks of a patch are
// compressed while the matching is still running. Bytes are handed over in pieces of 256 KiB
// and at most a few pieces wait, so memory stays bounded whatever the input size.
class BzipBlockWriter {
public:
    BzipBlockWriter();
    ~BzipBlockWriter();
    BzipBlockWriter(const BzipBlockWriter&) = delete;
    BzipBlockWriter& operator=(const BzipBlockWriter&) = delete;

    void write(const uint8_t* data, size_t size);
    void put(uint8_t byte) {
        _pending.push_back(byte);
        if (_pending.size() >= kPieceSize)
            handOver();
    }
    // Ends the stream and waits for the compressor. False with a message when bzip2 failed.
    [[nodiscard]] bool finish(std::string* error);
    // The compressed stream; valid after a successful finish.
    const std::vector<uint8_t>& compressed() const { return _compressed; }
    uint64_t inputBytes() const { return _inputBytes; }

private:
    static constexpr size_t kPieceSize = 256 * 1024;
    static constexpr size_t kMaxWaitingPieces = 2;

    void handOver();
    void run();

    std::vector<uint8_t> _pending;
    std::vector<uint8_t> _compressed;
    uint64_t _inputBytes = 0;

    std::mutex _mutex;
    std::condition_variable _changed;
    std::deque<std::vector<uint8_t>> _queue;
    bool _ending = false;
    bool _failed = false;
    std::string _failure;
    std::thread _thread;
};
