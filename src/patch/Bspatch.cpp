#include "patch/Bspatch.h"

#include "base/Path.h"
#include "patch/BsdiffFormat.h"
#include "patch/Bzip2Decoder.h"

#include <algorithm>
#include <bzlib.h>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <random>
#include <stdexcept>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t kInputBufferSize = 64 * 1024;
constexpr size_t kChunkSize = 64 * 1024;
constexpr size_t kOutputBufferSize = 256 * 1024;
// A new file at least this large has its diff block decompressed on a second thread (a
// thread costs tens of microseconds; the block's decompression, a millisecond and more).
constexpr int64_t kDecompressAheadSize = 128 << 10;
constexpr size_t kAheadSlotSize = 256 * 1024;
constexpr size_t kAheadSlots = 4;
// A compressed block up to this size is read whole and decompressed from memory by our own
// decoder, which expands the runs that make up most of a diff block a memset at a time; a
// larger one goes through libbz2 a piece at a time, so that memory stays bounded.
constexpr uint64_t kInMemoryBlockLimit = 64 << 20;

class Fd {
public:
    explicit Fd(int fd = -1) : _fd(fd) {}
    ~Fd() { reset(); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;

    int get() const { return _fd; }
    bool valid() const { return _fd >= 0; }
    void reset(int fd = -1) {
        if (_fd >= 0)
            ::close(_fd);
        _fd = fd;
    }
    // Closes the descriptor, reporting whether the close (and so the last writes) succeeded.
    bool close() {
        const int fd = _fd;
        _fd = -1;
        return fd < 0 || ::close(fd) == 0;
    }

private:
    int _fd;
};

BspatchResult Fail(std::string* detail, BspatchResult result, const std::string& text) {
    if (detail)
        *detail = text;
    return result;
}

std::string ErrnoText(const std::string& what, const std::string& path) {
    return what + " \"" + path + "\": " + std::strerror(errno);
}

ssize_t PreadRetrying(int fd, void* buffer, size_t size, uint64_t offset) {
    for (;;) {
        const ssize_t got = ::pread(fd, buffer, size, static_cast<off_t>(offset));
        if (got >= 0 || errno != EINTR)
            return got;
    }
}

bool WriteAllRetrying(int fd, const uint8_t* data, size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        data += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

// One bzip2-compressed block of the patch, the byte range [begin, end) of the patch file,
// decompressed on demand: from memory (Bzip2Decoder) or through a small input buffer (libbz2).
class BlockReader {
public:
    BlockReader(int fd, uint64_t begin, uint64_t end) : _fd(fd), _next(begin), _end(end) {}
    ~BlockReader() {
        if (_initialized)
            BZ2_bzDecompressEnd(&_stream);
    }
    BlockReader(const BlockReader&) = delete;
    BlockReader& operator=(const BlockReader&) = delete;

    [[nodiscard]] bool init() {
        const uint64_t size = _end - _next;
        if (size <= kInMemoryBlockLimit) {
            _compressed = std::make_unique_for_overwrite<uint8_t[]>(std::max<uint64_t>(size, 1));
            for (uint64_t got = 0; got < size;) {
                const ssize_t read = PreadRetrying(_fd, _compressed.get() + got,
                                                   static_cast<size_t>(size - got), _next + got);
                if (read <= 0)
                    return false;
                got += static_cast<uint64_t>(read);
            }
            _compressedSize = static_cast<size_t>(size);
            _decoder.emplace(std::span<const uint8_t>(_compressed.get(), _compressedSize));
            return true;
        }
        _input = std::make_unique_for_overwrite<char[]>(kInputBufferSize);
        _stream = bz_stream{};
        _initialized = BZ2_bzDecompressInit(&_stream, 0, 0) == BZ_OK;
        return _initialized;
    }

    // Exactly size bytes into out; false when the block ends early, is damaged or cannot be
    // read.
    [[nodiscard]] bool read(uint8_t* out, size_t size) {
        if (_decoder) {
            const auto got = readSome(out, size);
            return got && *got == size;
        }
        while (size > 0) {
            if (_ended)
                return false;
            const auto piece = static_cast<unsigned>(std::min<size_t>(size, 1u << 30));
            _stream.next_out = reinterpret_cast<char*>(out);
            _stream.avail_out = piece;
            if (!step())
                return false;
            const size_t produced = piece - _stream.avail_out;
            out += produced;
            size -= produced;
        }
        return true;
    }

    // Up to size bytes into out: how many (fewer only where the stream ends), or nothing when
    // the block is damaged or cannot be read.
    [[nodiscard]] std::optional<size_t> readSome(uint8_t* out, size_t size) {
        size_t total = 0;
        if (_decoder) {
            while (total < size && !_decoder->ended()) {
                const auto got = _decoder->read(out + total, size - total);
                if (!got)
                    return std::nullopt;
                if (*got == 0)
                    break;
                total += *got;
            }
            return total;
        }
        while (total < size && !_ended) {
            const auto piece = static_cast<unsigned>(std::min<size_t>(size - total, 1u << 30));
            _stream.next_out = reinterpret_cast<char*>(out + total);
            _stream.avail_out = piece;
            if (!step())
                return std::nullopt;
            total += piece - _stream.avail_out;
        }
        return total;
    }
    bool ended() const { return _decoder ? _decoder->ended() : _ended; }

    // True when the compressed stream ends here (its checksums verified) and nothing follows
    // it inside the block.
    [[nodiscard]] bool atEnd() {
        uint8_t probe = 0;
        if (_decoder) {
            const auto got = readSome(&probe, 1);
            return got && *got == 0 && _decoder->ended() && _decoder->consumed() == _compressedSize;
        }
        while (!_ended) {
            _stream.next_out = reinterpret_cast<char*>(&probe);
            _stream.avail_out = 1;
            if (!step() || _stream.avail_out == 0)
                return false;
        }
        return _stream.avail_in == 0 && _next == _end;
    }

private:
    // One decompression call, with the input refilled first. False on damaged data, on a
    // read error, and when no progress is possible (the block was cut short).
    bool step() {
        if (_stream.avail_in == 0 && _next < _end) {
            const size_t want =
                static_cast<size_t>(std::min<uint64_t>(kInputBufferSize, _end - _next));
            const ssize_t got = PreadRetrying(_fd, _input.get(), want, _next);
            if (got <= 0)
                return false;
            _next += static_cast<uint64_t>(got);
            _stream.next_in = _input.get();
            _stream.avail_in = static_cast<unsigned>(got);
        }
        const unsigned outBefore = _stream.avail_out;
        const unsigned inBefore = _stream.avail_in;
        const int rc = BZ2_bzDecompress(&_stream);
        if (rc == BZ_STREAM_END) {
            _ended = true;
            return true;
        }
        if (rc != BZ_OK)
            return false;
        return _stream.avail_out != outBefore || _stream.avail_in != inBefore;
    }

    int _fd;
    uint64_t _next;
    uint64_t _end;
    std::unique_ptr<uint8_t[]> _compressed;
    size_t _compressedSize = 0;
    std::optional<Bzip2Decoder> _decoder;
    std::unique_ptr<char[]> _input;
    bz_stream _stream{};
    bool _initialized = false;
    bool _ended = false;
};

// A block read as BlockReader reads it, but, when asked to, decompressed on a thread of its
// own a few buffers ahead of the reader: the diff block is most of a patch's bzip2 work, and
// the reader meanwhile adds and writes on its own processor.
class AheadBlockReader {
public:
    AheadBlockReader(int fd, uint64_t begin, uint64_t end, bool ahead)
        : _reader(fd, begin, end), _ahead(ahead) {}
    ~AheadBlockReader() {
        if (_thread.joinable()) {
            {
                const std::lock_guard lock(_mutex);
                _stop = true;
            }
            _changed.notify_all();
            _thread.join();
        }
    }
    AheadBlockReader(const AheadBlockReader&) = delete;
    AheadBlockReader& operator=(const AheadBlockReader&) = delete;

    [[nodiscard]] bool init() {
        if (!_reader.init())
            return false;
        if (_ahead) {
            try {
                for (auto& slot : _slots)
                    slot.bytes = std::make_unique_for_overwrite<uint8_t[]>(kAheadSlotSize);
                _thread = std::thread([this] { run(); });
            } catch (const std::exception&) {
                _ahead = false; // no memory or no thread: decompress while reading
            }
        }
        return true;
    }

    [[nodiscard]] bool read(uint8_t* out, size_t size) {
        if (!_ahead)
            return _reader.read(out, size);
        while (size > 0) {
            Slot* slot = nullptr;
            {
                std::unique_lock lock(_mutex);
                _changed.wait(lock, [&] { return _filled > 0 || _finished; });
                if (_filled == 0)
                    return false; // the block ended early or is damaged
                slot = &_slots[_readSlot];
            }
            const size_t piece = std::min(size, slot->size - _readOffset);
            std::memcpy(out, slot->bytes.get() + _readOffset, piece);
            out += piece;
            size -= piece;
            _readOffset += piece;
            if (_readOffset == slot->size) {
                _readOffset = 0;
                _readSlot = (_readSlot + 1) % kAheadSlots;
                {
                    const std::lock_guard lock(_mutex);
                    --_filled;
                }
                _changed.notify_all();
            }
        }
        return true;
    }

    [[nodiscard]] bool atEnd() {
        if (!_ahead)
            return _reader.atEnd();
        std::unique_lock lock(_mutex);
        _changed.wait(lock, [&] { return _filled > 0 || _finished; });
        return _filled == 0 && _endsCleanly;
    }

private:
    struct Slot {
        std::unique_ptr<uint8_t[]> bytes;
        size_t size = 0;
    };

    void run() {
        size_t writeSlot = 0;
        for (;;) {
            {
                std::unique_lock lock(_mutex);
                _changed.wait(lock, [&] { return _filled < kAheadSlots || _stop; });
                if (_stop)
                    return;
            }
            // The slot is the writer's alone until it is counted as filled.
            Slot& slot = _slots[writeSlot];
            const auto produced = _reader.readSome(slot.bytes.get(), kAheadSlotSize);
            const bool ended = produced && _reader.ended();
            const bool clean = ended && _reader.atEnd();
            {
                const std::lock_guard lock(_mutex);
                if (produced && *produced > 0) {
                    slot.size = *produced;
                    ++_filled;
                    writeSlot = (writeSlot + 1) % kAheadSlots;
                }
                if (!produced || ended) {
                    _finished = true;
                    _endsCleanly = clean;
                }
            }
            _changed.notify_all();
            if (!produced || ended)
                return;
        }
    }

    BlockReader _reader;
    bool _ahead;
    std::thread _thread;
    std::mutex _mutex;
    std::condition_variable _changed;
    Slot _slots[kAheadSlots];
    size_t _filled = 0;     // slots written and not yet read
    size_t _readSlot = 0;   // the reader's slot
    size_t _readOffset = 0; // the reader's place in it
    bool _finished = false; // the writer is done: the stream ended, or failed
    bool _endsCleanly = false;
    bool _stop = false;
};

// target[i] += source[i], byte by byte modulo 256, sixteen bytes at a time: most of a patched
// file is old bytes plus a diff, and the plain loop (not vectorized at -O2) took a twentieth
// of an update's processor time.
void AddBytes(uint8_t* target, const uint8_t* source, size_t size) {
    using Bytes16 = uint8_t __attribute__((vector_size(16)));
    size_t i = 0;
    for (; i + 16 <= size; i += 16) {
        Bytes16 a;
        Bytes16 b;
        std::memcpy(&a, target + i, 16);
        std::memcpy(&b, source + i, 16);
        a += b;
        std::memcpy(target + i, &a, 16);
    }
    for (; i < size; ++i)
        target[i] = static_cast<uint8_t>(target[i] + source[i]);
}

// Collects small writes into large ones.
class OutputBuffer {
public:
    explicit OutputBuffer(int fd)
        : _fd(fd), _buffer(std::make_unique_for_overwrite<uint8_t[]>(kOutputBufferSize)) {}

    [[nodiscard]] bool write(const uint8_t* data, size_t size) {
        if (_used + size > kOutputBufferSize) {
            if (!flush())
                return false;
            if (size >= kOutputBufferSize)
                return WriteAllRetrying(_fd, data, size);
        }
        std::memcpy(_buffer.get() + _used, data, size);
        _used += size;
        return true;
    }

    [[nodiscard]] bool flush() {
        const bool ok = WriteAllRetrying(_fd, _buffer.get(), _used);
        _used = 0;
        return ok;
    }

private:
    int _fd;
    std::unique_ptr<uint8_t[]> _buffer;
    size_t _used = 0;
};

// A new file being written under a temporary name beside its final path; removed unless
// committed.
class TemporaryFile {
public:
    TemporaryFile() = default;
    ~TemporaryFile() {
        _fd.reset();
        if (!_path.empty())
            ::unlink(_path.c_str());
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    // Creates a fresh file in folder, mode 0666 less the umask.
    [[nodiscard]] bool create(const std::string& folder) {
        static constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
        std::random_device seed;
        std::mt19937_64 random(seed() ^ (static_cast<uint64_t>(::getpid()) << 32));
        for (int attempt = 0; attempt < 100; ++attempt) {
            std::string name = folder + "/.bspatch-";
            for (int i = 0; i < 12; ++i)
                name += kLetters[random() % (sizeof kLetters - 1)];
            const int fd =
                ::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666);
            if (fd >= 0) {
                _fd.reset(fd);
                _path = name;
                return true;
            }
            if (errno != EEXIST)
                return false;
        }
        errno = EEXIST;
        return false;
    }

    int fd() const { return _fd.get(); }
    const std::string& path() const { return _path; }
    // Syncs and closes the file; true when its contents are on disk.
    [[nodiscard]] bool syncAndClose() { return ::fsync(_fd.get()) == 0 && _fd.close(); }
    [[nodiscard]] bool commit(const std::string& finalPath) {
        if (::rename(_path.c_str(), finalPath.c_str()) != 0)
            return false;
        _path.clear();
        return true;
    }

private:
    Fd _fd;
    std::string _path;
};

// into, when it has a place, receives the new file in place; else it is made a chunk at a time.
BspatchResult Apply(std::span<const uint8_t> oldData, int patchFd, const BspatchSink& sink,
                    std::string* detail, std::span<uint8_t> into) {
    struct stat info {};
    if (::fstat(patchFd, &info) != 0 || !S_ISREG(info.st_mode))
        return Fail(detail, BspatchResult::PatchUnreadable, "the patch is not a readable file");
    const auto patchSize = static_cast<uint64_t>(info.st_size);

    uint8_t headerBytes[kBsdiffHeaderSize];
    if (patchSize < kBsdiffHeaderSize ||
        PreadRetrying(patchFd, headerBytes, sizeof headerBytes, 0) !=
            static_cast<ssize_t>(sizeof headerBytes))
        return Fail(detail, BspatchResult::NotBsdiffPatch, "the patch is shorter than its header");
    const auto header = ParseBsdiffHeader(std::span<const uint8_t, kBsdiffHeaderSize>(headerBytes));
    if (!header)
        return Fail(detail, BspatchResult::NotBsdiffPatch,
                    "the patch has no BSDIFF40 header or a negative length in it");

    const uint64_t available = patchSize - kBsdiffHeaderSize;
    const auto controlLength = static_cast<uint64_t>(header->controlLength);
    const auto diffLength = static_cast<uint64_t>(header->diffLength);
    if (controlLength > available || diffLength > available - controlLength)
        return Fail(detail, BspatchResult::CorruptPatch,
                    "the header's block lengths reach past the end of the patch");
    const uint64_t diffBegin = kBsdiffHeaderSize + controlLength;
    const uint64_t extraBegin = diffBegin + diffLength;

    BlockReader control(patchFd, kBsdiffHeaderSize, diffBegin);
    AheadBlockReader diff(patchFd, diffBegin, extraBegin, header->newSize >= kDecompressAheadSize);
    BlockReader extra(patchFd, extraBegin, patchSize);
    if (!control.init() || !diff.init() || !extra.init())
        return Fail(detail, BspatchResult::OutOfMemory, "no memory for the bzip2 decompressors");

    const auto oldSize = static_cast<int64_t>(oldData.size());
    const int64_t newSize = header->newSize;
    if (into.data() && static_cast<uint64_t>(newSize) > into.size())
        return Fail(detail, BspatchResult::OutputFailed,
                    "the new file is larger than the memory given for it");
    std::unique_ptr<uint8_t[]> chunk;
    if (!into.data())
        chunk = std::make_unique_for_overwrite<uint8_t[]>(kChunkSize);
    // Where the bytes from newPos on are made.
    const auto place = [&](int64_t at) { return into.data() ? into.data() + at : chunk.get(); };
    int64_t newPos = 0;
    int64_t oldPos = 0;
    uint64_t entry = 0;
    while (newPos < newSize) {
        ++entry;
        const auto where = [entry] { return "control entry " + std::to_string(entry); };
        uint8_t controlBytes[kBsdiffControlSize];
        if (!control.read(controlBytes, sizeof controlBytes))
            return Fail(detail, BspatchResult::CorruptPatch,
                        "the control block is damaged or ends before the new file is complete");
        const BsdiffControl step =
            DecodeBsdiffControl(std::span<const uint8_t, kBsdiffControlSize>(controlBytes));
        if (step.addLength < 0 || step.copyLength < 0)
            return Fail(detail, BspatchResult::CorruptPatch, where() + " has a negative length");
        if (step.addLength > newSize - newPos)
            return Fail(detail, BspatchResult::CorruptPatch,
                        where() + " adds past the end of the new file");
        int64_t unused = 0;
        if (__builtin_add_overflow(oldPos, step.addLength, &unused))
            return Fail(detail, BspatchResult::CorruptPatch,
                        where() + " moves the old file position out of range");

        for (int64_t remaining = step.addLength; remaining > 0;) {
            const auto size = static_cast<size_t>(std::min<int64_t>(remaining, kChunkSize));
            uint8_t* out = place(newPos);
            if (!diff.read(out, size))
                return Fail(detail, BspatchResult::CorruptPatch,
                            "the diff block is damaged or too short");
            // Old bytes outside the old file count as zero.
            const int64_t first = std::max<int64_t>(oldPos, 0);
            const int64_t last = std::min<int64_t>(oldPos + static_cast<int64_t>(size), oldSize);
            if (last > first)
                AddBytes(out + (first - oldPos), oldData.data() + first,
                         static_cast<size_t>(last - first));
            if (!sink(out, size))
                return Fail(detail, BspatchResult::OutputFailed, "the new file cannot be written");
            oldPos += static_cast<int64_t>(size);
            newPos += static_cast<int64_t>(size);
            remaining -= static_cast<int64_t>(size);
        }

        if (step.copyLength > newSize - newPos)
            return Fail(detail, BspatchResult::CorruptPatch,
                        where() + " copies past the end of the new file");
        for (int64_t remaining = step.copyLength; remaining > 0;) {
            const auto size = static_cast<size_t>(std::min<int64_t>(remaining, kChunkSize));
            uint8_t* out = place(newPos);
            if (!extra.read(out, size))
                return Fail(detail, BspatchResult::CorruptPatch,
                            "the extra block is damaged or too short");
            if (!sink(out, size))
                return Fail(detail, BspatchResult::OutputFailed, "the new file cannot be written");
            newPos += static_cast<int64_t>(size);
            remaining -= static_cast<int64_t>(size);
        }

        if (__builtin_add_overflow(oldPos, step.seekOffset, &oldPos))
            return Fail(detail, BspatchResult::CorruptPatch,
                        where() + " moves the old file position out of range");
    }

    if (!control.atEnd())
        return Fail(detail, BspatchResult::CorruptPatch,
                    "the control block does not end after the last entry");
    if (!diff.atEnd())
        return Fail(detail, BspatchResult::CorruptPatch, "the diff block does not end where used");
    if (!extra.atEnd())
        return Fail(detail, BspatchResult::CorruptPatch, "the extra block does not end where used");
    return BspatchResult::Success;
}

} // namespace

const char* DescribeBspatchResult(BspatchResult result) {
    switch (result) {
    case BspatchResult::Success:
        return "success";
    case BspatchResult::OldFileUnreadable:
        return "the old file cannot be read";
    case BspatchResult::PatchUnreadable:
        return "the patch cannot be read";
    case BspatchResult::NotBsdiffPatch:
        return "not a BSDIFF40 patch";
    case BspatchResult::CorruptPatch:
        return "corrupt patch";
    case BspatchResult::OutputFailed:
        return "the new file cannot be written";
    case BspatchResult::OutOfMemory:
        return "out of memory";
    }
    return "unknown result";
}

BspatchResult ApplyBsdiffPatchToSink(std::span<const uint8_t> oldData, int patchFd,
                                     const BspatchSink& sink, std::string* detail) {
    return ApplyBsdiffPatchInto(oldData, patchFd, {}, sink, detail);
}

BspatchResult ApplyBsdiffPatchInto(std::span<const uint8_t> oldData, int patchFd,
                                   std::span<uint8_t> into, const BspatchSink& sink,
                                   std::string* detail) {
    try {
        return Apply(oldData, patchFd, sink, detail, into);
    } catch (const std::bad_alloc&) {
        return Fail(detail, BspatchResult::OutOfMemory, "out of memory");
    }
}

bool BspatchOldFile::read(const std::string& path) {
    _size = 0;
    const Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return fd.valid() && read(fd.get());
}

bool BspatchOldFile::read(int fd) {
    _size = 0;
    struct stat info {};
    if (::fstat(fd, &info) != 0)
        return false;
    // A regular file is read into memory of its size (plus a little, to see that it ended);
    // whatever has no size (a device, a pipe) or grows meanwhile is read on to its end.
    size_t wanted = S_ISREG(info.st_mode) ? static_cast<size_t>(info.st_size) + 1 : 4096;
    for (;;) {
        if (_capacity < wanted) {
            auto larger = std::make_unique_for_overwrite<uint8_t[]>(wanted);
            if (_size > 0)
                std::memcpy(larger.get(), _buffer.get(), _size);
            _buffer = std::move(larger);
            _capacity = wanted;
        }
        const ssize_t got = ::read(fd, _buffer.get() + _size, _capacity - _size);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0) {
            _size = 0;
            return false;
        }
        if (got == 0)
            return true;
        _size += static_cast<size_t>(got);
        if (_size == _capacity)
            wanted = _capacity * 2;
    }
}

void BspatchOldFile::release() {
    _buffer.reset();
    _capacity = 0;
    _size = 0;
}

BspatchResult ApplyBsdiffPatch(const std::string& oldPath, const std::string& newPath,
                               const std::string& patchPath, std::string* detail) {
    try {
        BspatchOldFile oldData;
        if (!oldData.read(oldPath))
            return Fail(detail, BspatchResult::OldFileUnreadable,
                        ErrnoText("cannot read", oldPath));
        Fd patch(::open(patchPath.c_str(), O_RDONLY | O_CLOEXEC));
        if (!patch.valid())
            return Fail(detail, BspatchResult::PatchUnreadable,
                        ErrnoText("cannot open", patchPath));

        // A bare name lives in the working folder.
        const std::string parent = ParentPath(newPath);
        const std::string folder = parent.empty() ? "." : parent;
        TemporaryFile temporary;
        if (!temporary.create(folder))
            return Fail(detail, BspatchResult::OutputFailed,
                        ErrnoText("cannot create a temporary file in", folder));
        OutputBuffer output(temporary.fd());
        const BspatchResult result = ApplyBsdiffPatchToSink(
            oldData.bytes(), patch.get(),
            [&output](const uint8_t* data, size_t size) { return output.write(data, size); },
            detail);
        if (result != BspatchResult::Success)
            return result;
        if (!output.flush() || !temporary.syncAndClose())
            return Fail(detail, BspatchResult::OutputFailed,
                        ErrnoText("cannot write", temporary.path()));
        if (!temporary.commit(newPath))
            return Fail(detail, BspatchResult::OutputFailed,
                        ErrnoText("cannot rename to", newPath));
        // The rename is made durable when the folder is synced; a folder that cannot be synced
        // (some file systems refuse) still holds the complete new file.
        Fd folderFd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (folderFd.valid())
            (void)::fsync(folderFd.get());
        return BspatchResult::Success;
    } catch (const std::bad_alloc&) {
        return Fail(detail, BspatchResult::OutOfMemory, "out of memory");
    } catch (const std::length_error&) {
        return Fail(detail, BspatchResult::OutOfMemory, "the old file is too large");
    }
}
