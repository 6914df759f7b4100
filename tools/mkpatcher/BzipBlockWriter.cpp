#include "BzipBlockWriter.h"

#include <bzlib.h>

#include <cstring>

namespace {

// Owns one bzip2 compression stream.
class Compressor {
public:
    Compressor() { _ok = BZ2_bzCompressInit(&_stream, 9, 0, 0) == BZ_OK; }
    ~Compressor() {
        if (_ok)
            BZ2_bzCompressEnd(&_stream);
    }
    Compressor(const Compressor&) = delete;
    Compressor& operator=(const Compressor&) = delete;

    bool ok() const { return _ok; }

    // Feeds data (action BZ_RUN) or ends the stream (BZ_FINISH), appending output to out.
    bool feed(const uint8_t* data, size_t size, int action, std::vector<uint8_t>* out,
              std::string* error) {
        _stream.next_in = const_cast<char*>(reinterpret_cast<const char*>(data));
        _stream.avail_in = static_cast<unsigned>(size);
        for (;;) {
            uint8_t buffer[64 * 1024];
            _stream.next_out = reinterpret_cast<char*>(buffer);
            _stream.avail_out = sizeof buffer;
            const int rc = BZ2_bzCompress(&_stream, action);
            out->insert(out->end(), buffer, buffer + (sizeof buffer - _stream.avail_out));
            if (action == BZ_RUN) {
                if (rc != BZ_RUN_OK) {
                    *error = "bzip2 compression failed (" + std::to_string(rc) + ")";
                    return false;
                }
                if (_stream.avail_in == 0)
                    return true;
            } else {
                if (rc == BZ_STREAM_END)
                    return true;
                if (rc != BZ_FINISH_OK) {
                    *error = "bzip2 compression failed (" + std::to_string(rc) + ")";
                    return false;
                }
            }
        }
    }

private:
    bz_stream _stream{};
    bool _ok = false;
};

} // namespace

BzipBlockWriter::BzipBlockWriter() : _thread([this] { run(); }) {
    _pending.reserve(kPieceSize);
}

BzipBlockWriter::~BzipBlockWriter() {
    {
        std::lock_guard lock(_mutex);
        _ending = true;
    }
    _changed.notify_all();
    if (_thread.joinable())
        _thread.join();
}

void BzipBlockWriter::write(const uint8_t* data, size_t size) {
    while (size > 0) {
        const size_t room = kPieceSize - _pending.size();
        const size_t n = size < room ? size : room;
        _pending.insert(_pending.end(), data, data + n);
        data += n;
        size -= n;
        if (_pending.size() >= kPieceSize)
            handOver();
    }
}

void BzipBlockWriter::handOver() {
    _inputBytes += _pending.size();
    std::vector<uint8_t> piece;
    piece.reserve(kPieceSize);
    piece.swap(_pending);
    {
        std::unique_lock lock(_mutex);
        _changed.wait(lock, [this] { return _queue.size() < kMaxWaitingPieces || _failed; });
        if (!_failed)
            _queue.push_back(std::move(piece));
    }
    _changed.notify_all();
}

bool BzipBlockWriter::finish(std::string* error) {
    if (!_pending.empty())
        handOver();
    {
        std::lock_guard lock(_mutex);
        _ending = true;
    }
    _changed.notify_all();
    _thread.join();
    if (_failed) {
        if (error)
            *error = _failure;
        return false;
    }
    return true;
}

void BzipBlockWriter::run() {
    Compressor compressor;
    std::string failure;
    bool ok = compressor.ok();
    if (!ok)
        failure = "cannot start bzip2 compression";
    for (;;) {
        std::vector<uint8_t> piece;
        {
            std::unique_lock lock(_mutex);
            _changed.wait(lock, [this] { return !_queue.empty() || _ending; });
            if (_queue.empty())
                break;
            piece = std::move(_queue.front());
            _queue.pop_front();
        }
        _changed.notify_all();
        if (ok)
            ok = compressor.feed(piece.data(), piece.size(), BZ_RUN, &_compressed, &failure);
        if (!ok) {
            std::lock_guard lock(_mutex);
            _failed = true;
            _failure = failure;
            _queue.clear();
        }
    }
    if (ok)
        ok = compressor.feed(nullptr, 0, BZ_FINISH, &_compressed, &failure);
    std::lock_guard lock(_mutex);
    if (!ok) {
        _failed = true;
        _failure = failure;
    }
}
