#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

// A bzip2 stream decompressed from memory, with the output and the verdicts of libbz2's
// BZ2_bzDecompress (both checksums are verified). Decompression of a block ends with runs
// of equal bytes being expanded, where libbz2 writes and checksums one byte at a time; here
// a run is one memset and the checksum is taken over whole pieces of output, which makes the
// diff block of a bsdiff patch (mostly runs of zeros) several times faster to decompress.
//
// Memory: 5 bytes per byte of the stream's block size (4.5 MB for "BZh9"), taken on the
// first read and kept for every block of the stream.
class Bzip2Decoder {
public:
    // The whole compressed stream; the caller keeps the bytes alive while decoding.
    explicit Bzip2Decoder(std::span<const uint8_t> compressed);
    ~Bzip2Decoder();
    Bzip2Decoder(const Bzip2Decoder&) = delete;
    Bzip2Decoder& operator=(const Bzip2Decoder&) = delete;

    // Up to size bytes of output into out: how many (fewer than size only where the stream
    // ends; 0 once it has ended), or std::nullopt when the data is damaged or cut short (bad
    // magic, bad Huffman tables or codes, an origPtr or run out of range, a block CRC or the
    // stream CRC that does not match, ...) or the decoder's memory cannot be had. After
    // nullopt every later call returns nullopt. Bytes written into out by a call that returns
    // nullopt are not to be used.
    [[nodiscard]] std::optional<size_t> read(uint8_t* out, size_t size);
    // The end-of-stream marker was read and the combined stream CRC matched.
    bool ended() const { return _state == State::Ended; }
    // Compressed bytes the stream took up to and including its end marker (rounded up to a
    // whole byte), valid once ended(): the caller checks that nothing follows it.
    size_t consumed() const { return _consumed; }

private:
    struct HuffmanTable;

    // The compressed bits, most significant first. Past the end of the data it reads zeros,
    // so that every loop over bits ends; overrun() tells whether it got that far.
    struct BitReader {
        const uint8_t* data = nullptr;
        size_t size = 0;
        size_t next = 0;    // the next byte to load
        uint64_t bits = 0;  // loaded bits, the next one in the top bit
        unsigned count = 0; // how many of them are valid: at most 63

        void refill(); // at least 56 valid bits afterwards
        uint32_t take(unsigned n) {
            const auto value = static_cast<uint32_t>(bits >> (64 - n));
            bits <<= n;
            count -= n;
            return value;
        }
        uint64_t position() const { return uint64_t{next} * 8 - count; }
        bool overrun() const { return position() > uint64_t{size} * 8; }
    };

    enum class State { Start, Output, BetweenBlocks, Ended, Failed };

    // The stream header, and the memory for its block size.
    bool start();
    // The next block's header and symbols, up to where its output can start; or the end.
    bool nextBlock();
    bool decodeBlock();
    bool readEnd();
    // Expands runs of the current block's bytes into out: how many bytes, fewer than size
    // only where the block's bytes are used up.
    size_t expand(uint8_t* out, size_t size);
    bool finishBlock();

    BitReader _in;
    State _state = State::Start;
    size_t _consumed = 0;
    uint32_t _blockLimit = 0; // the most bytes a block may hold before its runs are expanded

    std::unique_ptr<uint32_t[]> _tt;   // per byte of the block: the byte, and the next index
    std::unique_ptr<uint8_t[]> _block; // the block's bytes in order, runs not yet expanded
    std::unique_ptr<HuffmanTable[]> _tables;
    std::unique_ptr<uint8_t[]> _selectors;

    // The block being expanded.
    uint32_t _blockSize = 0;
    uint32_t _position = 0;
    int _last = -1;        // the previous byte, -1 after a run
    int _same = 0;         // how many times in a row it came; at 4 a run length follows
    uint32_t _runLeft = 0; // bytes of a run still to write
    uint8_t _runByte = 0;
    uint32_t _storedBlockCrc = 0;
    uint32_t _blockCrc = 0;
    uint32_t _combinedCrc = 0;
};
