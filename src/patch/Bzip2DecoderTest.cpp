#include "patch/Bzip2Decoder.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bzlib.h>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <vector>

// libbz2's table for randomised blocks (declared only in its private header).
extern "C" const int BZ2_rNums[512];

namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kAll = ~size_t{0};

Bytes Compress(const Bytes& data, int level) {
    unsigned size = static_cast<unsigned>(data.size() + data.size() / 100 + 600);
    Bytes out(size);
    Bytes input = data; // libbz2 takes a non-const pointer, and refuses a null one
    const int rc =
        BZ2_bzBuffToBuffCompress(reinterpret_cast<char*>(out.data()), &size,
                                 reinterpret_cast<char*>(input.empty() ? out.data() : input.data()),
                                 static_cast<unsigned>(input.size()), level, 0, 0);
    EXPECT_EQ(rc, BZ_OK);
    out.resize(size);
    return out;
}

struct Decoded {
    bool valid = false;  // the stream ended and its checksums matched
    bool capped = false; // stopped at the output cap, undecided
    Bytes output;
    size_t consumed = 0;
};

// libbz2's verdict on the stream, all of it given at once.
Decoded DecodeWithLibbz2(const Bytes& stream, size_t cap = size_t{128} << 20) {
    Decoded d;
    bz_stream s{};
    if (BZ2_bzDecompressInit(&s, 0, 0) != BZ_OK)
        return d;
    Bytes input = stream;
    s.next_in = reinterpret_cast<char*>(input.data());
    s.avail_in = static_cast<unsigned>(input.size());
    Bytes chunk(64 * 1024);
    for (;;) {
        s.next_out = reinterpret_cast<char*>(chunk.data());
        s.avail_out = static_cast<unsigned>(chunk.size());
        const unsigned inBefore = s.avail_in;
        const int rc = BZ2_bzDecompress(&s);
        const size_t produced = chunk.size() - s.avail_out;
        d.output.insert(d.output.end(), chunk.begin(), chunk.begin() + produced);
        if (rc == BZ_STREAM_END) {
            d.valid = true;
            d.consumed = s.total_in_lo32;
            break;
        }
        if (rc != BZ_OK || (produced == 0 && s.avail_in == inBefore))
            break; // damaged, or cut short
        if (d.output.size() >= cap) {
            d.capped = true;
            break;
        }
    }
    BZ2_bzDecompressEnd(&s);
    return d;
}

// Ours, read piece bytes at a time (kAll: in one read when the output is at most
// expectedSize); checks the promises of read() on the way.
Decoded DecodeWithDecoder(const Bytes& stream, size_t piece, size_t expectedSize = 1 << 20,
                          size_t cap = size_t{128} << 20) {
    Decoded d;
    Bzip2Decoder decoder(stream);
    Bytes buffer(std::min(piece == kAll ? expectedSize + 1 : piece, cap + 1));
    for (;;) {
        const auto got = decoder.read(buffer.data(), buffer.size());
        if (!got) {
            EXPECT_FALSE(decoder.read(buffer.data(), buffer.size())) << "nullopt is final";
            EXPECT_FALSE(decoder.ended());
            return d;
        }
        EXPECT_LE(*got, buffer.size());
        d.output.insert(d.output.end(), buffer.begin(), buffer.begin() + *got);
        if (*got < buffer.size()) {
            EXPECT_TRUE(decoder.ended()) << "a short read is the end";
            break;
        }
        if (d.output.size() >= cap) {
            d.capped = true;
            return d;
        }
    }
    const auto after = decoder.read(buffer.data(), buffer.size());
    EXPECT_EQ(after, std::optional<size_t>(0)) << "0 once the stream has ended";
    d.valid = decoder.ended();
    d.consumed = decoder.consumed();
    return d;
}

// Both decoders give the same verdict, and the same bytes when the stream is valid.
void ExpectSameAsLibbz2(const Bytes& stream, const std::vector<size_t>& pieces = {kAll}) {
    const Decoded expected = DecodeWithLibbz2(stream);
    ASSERT_FALSE(expected.capped);
    for (const size_t piece : pieces) {
        SCOPED_TRACE("piece " + std::to_string(piece));
        const Decoded ours = DecodeWithDecoder(stream, piece, expected.output.size());
        ASSERT_EQ(ours.valid, expected.valid);
        if (expected.valid) {
            ASSERT_EQ(ours.output.size(), expected.output.size());
            ASSERT_TRUE(ours.output == expected.output);
            ASSERT_EQ(ours.consumed, expected.consumed);
        }
    }
}

// Compressed at the level, then decoded back to data by both.
void ExpectRoundTrip(const Bytes& data, int level, const std::vector<size_t>& pieces = {kAll}) {
    SCOPED_TRACE("level " + std::to_string(level) + ", " + std::to_string(data.size()) + " bytes");
    const Bytes stream = Compress(data, level);
    const Decoded expected = DecodeWithLibbz2(stream);
    ASSERT_TRUE(expected.valid);
    ASSERT_TRUE(expected.output == data);
    ASSERT_EQ(expected.consumed, stream.size());
    for (const size_t piece : pieces) {
        SCOPED_TRACE("piece " + std::to_string(piece));
        const Decoded ours = DecodeWithDecoder(stream, piece, data.size());
        ASSERT_TRUE(ours.valid);
        ASSERT_EQ(ours.output.size(), data.size());
        ASSERT_TRUE(ours.output == data);
        ASSERT_EQ(ours.consumed, stream.size());
    }
}

Bytes RandomBytes(size_t size, uint32_t seed) {
    std::mt19937 random(seed);
    Bytes data(size);
    for (auto& byte : data)
        byte = static_cast<uint8_t>(random());
    return data;
}

// Words and spaces, like a text file.
Bytes Text(size_t size, uint32_t seed) {
    static const char* const kWords[] = {"the",    "patch", "file",  "of",  "a",       "bundle",
                                         "update", "is",    "old",   "new", "applied", "bytes",
                                         "and",    "to",    "block", "run", "\n",      "version"};
    std::mt19937 random(seed);
    Bytes text;
    while (text.size() < size) {
        const char* word = kWords[random() % std::size(kWords)];
        text.insert(text.end(), word, word + std::strlen(word));
        text.push_back(' ');
    }
    text.resize(size);
    return text;
}

// What a bsdiff diff block holds: zeros, with a small difference every hundred bytes or so.
Bytes SparseDiff(size_t size, uint32_t seed) {
    std::mt19937 random(seed);
    Bytes data(size, 0);
    for (size_t i = random() % 100; i < size; i += 50 + random() % 100)
        data[i] = static_cast<uint8_t>(static_cast<int>(random() % 17) - 8);
    return data;
}

// Bytes of this test program: machine code, tables, strings.
Bytes ProgramBytes(size_t size) {
    const std::string self = ReadTextFile("/proc/self/exe");
    Bytes data;
    while (data.size() < size)
        data.insert(data.end(), self.begin(), self.end());
    data.resize(size);
    return data;
}

// bzip2's CRC one bit at a time, to check the decoder's tables against.
uint32_t ReferenceCrc(const uint8_t* data, size_t size, uint32_t crc = 0xFFFFFFFFu) {
    for (size_t i = 0; i < size; ++i) {
        crc ^= uint32_t{data[i]} << 24;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 0x80000000u) ? (crc << 1) ^ 0x04C11DB7u : crc << 1;
    }
    return crc;
}

uint32_t BlockCrc(const uint8_t* data, size_t size) {
    return ~ReferenceCrc(data, size);
}

uint64_t GetBits(const Bytes& bytes, uint64_t at, int count) {
    uint64_t value = 0;
    for (int i = 0; i < count; ++i, ++at)
        value = value << 1 | ((bytes[at / 8] >> (7 - at % 8)) & 1);
    return value;
}

void SetBits(Bytes& bytes, uint64_t at, int count, uint64_t value) {
    for (int i = count - 1; i >= 0; --i, ++at) {
        const auto mask = static_cast<uint8_t>(0x80 >> (at % 8));
        if ((value >> i) & 1)
            bytes[at / 8] |= mask;
        else
            bytes[at / 8] &= static_cast<uint8_t>(~mask);
    }
}

constexpr uint64_t kBlockMagic = 0x314159265359;
constexpr uint64_t kEndMagic = 0x177245385090;

// Bit offsets of a 48-bit marker in a stream.
std::vector<uint64_t> FindMarker(const Bytes& stream, uint64_t marker) {
    std::vector<uint64_t> found;
    for (uint64_t at = 0; at + 48 <= stream.size() * 8; ++at)
        if (GetBits(stream, at, 48) == marker)
            found.push_back(at);
    return found;
}

// Stores the checksums of what libbz2 makes of each block (it writes a block's bytes before
// it compares their checksum), one block at a time, then the stream's. True when libbz2
// then accepts the stream.
bool StoreRightChecksums(Bytes& stream, const std::vector<uint64_t>& blocks, uint64_t end) {
    size_t before = 0;
    uint32_t combined = 0;
    for (const uint64_t block : blocks) {
        const Decoded d = DecodeWithLibbz2(stream);
        if (d.output.size() <= before)
            return false;
        const uint32_t crc = BlockCrc(d.output.data() + before, d.output.size() - before);
        SetBits(stream, block + 48, 32, crc);
        combined = ((combined << 1) | (combined >> 31)) ^ crc;
        before = d.output.size();
    }
    SetBits(stream, end + 48, 32, combined);
    return DecodeWithLibbz2(stream).valid;
}

// ---- streams written bit by bit, for what libbz2's compressor never writes ----

class BitWriter {
public:
    void put(uint64_t value, int count) {
        for (int i = count - 1; i >= 0; --i)
            _bits.push_back(((value >> i) & 1) != 0);
    }
    void put(const std::string& bits) {
        for (const char c : bits)
            _bits.push_back(c == '1');
    }
    uint64_t size() const { return _bits.size(); }
    Bytes bytes() const {
        Bytes out((_bits.size() + 7) / 8, 0);
        for (size_t i = 0; i < _bits.size(); ++i)
            if (_bits[i])
                out[i / 8] |= static_cast<uint8_t>(0x80 >> (i % 8));
        return out;
    }

private:
    std::vector<bool> _bits;
};

// A block as written, field by field; nothing is checked. The defaults make a valid block
// (its checksum aside): "abc", whose transform is "cab" with the original in row 0.
struct Block {
    uint32_t crc = 0;
    bool randomised = false;
    uint32_t origPtr = 0;
    std::vector<uint8_t> used = {'a', 'b', 'c'};
    uint32_t groups = 2;
    std::vector<uint32_t> selectors = {0}; // as written: before their move to front
    // Code lengths per group, one per symbol (RUNA, RUNB, the moves to front, end of block).
    std::vector<std::vector<int>> lengths = {{3, 3, 3, 3, 3}, {3, 3, 3, 3, 3}};
    std::vector<int> symbols = {3, 2, 3, 4};
    std::string rawSymbols; // bits written instead of the coded symbols
};

void WriteBlock(BitWriter& out, const Block& block) {
    out.put(kBlockMagic, 48);
    out.put(block.crc, 32);
    out.put(block.randomised ? 1 : 0, 1);
    out.put(block.origPtr, 24);
    uint32_t used16 = 0;
    for (const uint8_t byte : block.used)
        used16 |= 0x8000u >> (byte / 16);
    out.put(used16, 16);
    for (int high = 0; high < 16; ++high) {
        if (!(used16 & (0x8000u >> high)))
            continue;
        uint32_t used = 0;
        for (const uint8_t byte : block.used)
            if (byte / 16 == high)
                used |= 0x8000u >> (byte % 16);
        out.put(used, 16);
    }
    out.put(block.groups, 3);
    out.put(block.selectors.size(), 15);
    for (const uint32_t selector : block.selectors) {
        out.put(std::string(selector, '1'));
        out.put(0, 1);
    }
    for (const auto& lengths : block.lengths) {
        int current = lengths.empty() ? 1 : lengths[0];
        out.put(static_cast<uint64_t>(current), 5);
        for (const int length : lengths) {
            for (; current < length; ++current)
                out.put("10");
            for (; current > length; --current)
                out.put("11");
            out.put(0, 1);
        }
    }
    if (!block.rawSymbols.empty()) {
        out.put(block.rawSymbols);
        return;
    }
    // Canonical codes, numbered as the decoders number them; the selectors after their move
    // to front.
    std::vector<uint32_t> order = {0, 1, 2, 3, 4, 5, 6, 7};
    std::vector<uint32_t> tables;
    for (const uint32_t selector : block.selectors) {
        const uint32_t table = order[selector % 8];
        order.erase(order.begin() + selector % 8);
        order.insert(order.begin(), table);
        tables.push_back(table);
    }
    for (size_t i = 0; i < block.symbols.size(); ++i) {
        // Past the tables or the selectors given, the first table codes the symbol.
        const uint32_t table = tables.empty() ? 0 : tables[std::min(i / 50, tables.size() - 1)];
        const auto& lengths = block.lengths[table < block.lengths.size() ? table : 0];
        const int symbol = block.symbols[i];
        uint64_t code = 0;
        for (int length = 1; length <= lengths[symbol]; ++length) {
            code <<= 1;
            for (size_t s = 0; s < lengths.size(); ++s)
                if (lengths[s] == length &&
                    (length < lengths[symbol] || static_cast<int>(s) < symbol))
                    ++code;
        }
        out.put(code, lengths[symbol]);
    }
}

struct Crafted {
    Bytes stream;
    std::vector<uint64_t> blocks; // bit offset of each block
    uint64_t end = 0;             // bit offset of the end marker
};

Crafted Craft(const std::vector<Block>& blocks, int level = 9) {
    BitWriter out;
    for (const char c : std::string("BZh"))
        out.put(static_cast<uint8_t>(c), 8);
    out.put(static_cast<uint64_t>('0' + level), 8);
    Crafted crafted;
    for (const Block& block : blocks) {
        crafted.blocks.push_back(out.size());
        WriteBlock(out, block);
    }
    crafted.end = out.size();
    out.put(kEndMagic, 48);
    out.put(0, 32); // the combined checksum, stored later
    crafted.stream = out.bytes();
    return crafted;
}

// A crafted stream with the checksums of what libbz2 makes of it; empty when libbz2 rejects
// it for another reason.
Bytes CraftValid(const std::vector<Block>& blocks, int level = 9) {
    Crafted crafted = Craft(blocks, level);
    if (!StoreRightChecksums(crafted.stream, crafted.blocks, crafted.end))
        return {};
    return crafted.stream;
}

// Symbols of a run of count copies of the front byte: its bijective base-2 digits.
std::vector<int> RunSymbols(uint32_t count) {
    std::vector<int> symbols;
    while (count > 0) {
        const int digit = (count & 1) ? 0 : 1; // RUNA counts 1, RUNB 2
        symbols.push_back(digit);
        count = (count - (digit + 1)) / 2;
    }
    return symbols;
}

std::vector<int> Concat(std::vector<int> a, const std::vector<int>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Enough selectors, all table 0, for the block's symbols.
Block WithSelectors(Block block) {
    block.selectors.assign((block.symbols.size() + 49) / 50, 0);
    return block;
}

// ---- streams made by libbz2 ----

TEST(Bzip2DecoderTest, DecodesWhatLibbz2CompressedAtEveryLevel) {
    struct Case {
        const char* name;
        Bytes data;
    };
    const std::vector<Case> cases = {
        {"empty", {}},
        {"one byte", {'x'}},
        {"two equal bytes", {0, 0}},
        {"every byte value",
         [] {
             Bytes all(256);
             for (int i = 0; i < 256; ++i)
                 all[i] = static_cast<uint8_t>(i);
             return all;
         }()},
        {"random", RandomBytes(150000, 1)},
        {"text", Text(150000, 2)},
        {"program", ProgramBytes(300000)},
        {"bsdiff-like", SparseDiff(500000, 3)},
        {"zeros", Bytes(300000, 0)},
        // A block that is one stretch twice: its transform is two cycles, not one.
        {"repeated",
         [] {
             Bytes twice = RandomBytes(40000, 21);
             twice.insert(twice.end(), twice.begin(), twice.end());
             return twice;
         }()},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        for (int level = 1; level <= 9; ++level)
            ExpectRoundTrip(c.data, level, {kAll, 7, 65536});
    }
}

TEST(Bzip2DecoderTest, RunsOfEveryLength) {
    // Run lengths are stored after four equal bytes, as a count byte of up to 255.
    for (size_t length = 1; length <= 300; ++length) {
        SCOPED_TRACE("run of " + std::to_string(length));
        Bytes alone(length, 'r');
        ExpectRoundTrip(alone, 9);
        Bytes between = {'a', 'b'};
        between.insert(between.end(), length, 'r');
        between.push_back('z');
        ExpectRoundTrip(between, 1);
    }
    // Around the edges, next to other runs and at both ends of a block.
    Bytes runs;
    for (const size_t length :
         {3, 4, 5, 6, 8, 9, 254, 255, 256, 257, 258, 259, 260, 261, 263, 264, 518, 519, 1000})
        for (const uint8_t byte : {uint8_t{0}, uint8_t{0xff}, uint8_t{'q'}})
            runs.insert(runs.end(), length, byte);
    for (int level : {1, 5, 9})
        ExpectRoundTrip(runs, level, {kAll, 1, 7, 259});
}

TEST(Bzip2DecoderTest, LongRunsAndMultiBlockStreams) {
    // 10 MB of zeros: every block is 4 zeros and a count, many times over.
    ExpectRoundTrip(Bytes(10 << 20, 0), 9, {kAll, 65536, 1000003});
    ExpectRoundTrip(Bytes(10 << 20, 0), 1, {kAll});
    // More than one block at the largest and at the smallest block size.
    const Bytes program = ProgramBytes(2000000);
    ExpectRoundTrip(program, 9, {kAll, 7, 65536});
    const Bytes text = Text(350000, 4);
    ExpectRoundTrip(text, 1, {kAll, 7, 4096});
    ExpectRoundTrip(RandomBytes(1000000, 5), 9, {kAll, 65536});
    ExpectRoundTrip(SparseDiff(8 << 20, 6), 9, {kAll, 256 * 1024});
}

TEST(Bzip2DecoderTest, ReadsInPiecesOfEverySize) {
    // Every split of the output, for the checksum continued from piece to piece.
    const Bytes stream = Compress(Text(3000, 22), 9);
    for (size_t piece = 1; piece <= 200; ++piece)
        ExpectSameAsLibbz2(stream, {piece});
}

TEST(Bzip2DecoderTest, ReadsOneByteAtATime) {
    ExpectRoundTrip(Text(120000, 7), 1, {1});
    ExpectRoundTrip(SparseDiff(300000, 8), 9, {1});
}

TEST(Bzip2DecoderTest, ChecksumsAreBzip2s) {
    // The decoder's tables take sixteen bytes at a time: lengths around that, and odd offsets.
    const Bytes data = RandomBytes(100, 9);
    for (size_t size = 0; size <= data.size(); ++size) {
        SCOPED_TRACE(size);
        const Bytes part(data.begin(), data.begin() + static_cast<ptrdiff_t>(size));
        const Bytes stream = Compress(part, 9);
        if (size == 0)
            continue; // no block
        // The first block's checksum is stored at byte 10, right after the block marker.
        EXPECT_EQ(GetBits(stream, 80, 32), BlockCrc(part.data(), part.size()));
        const Decoded ours = DecodeWithDecoder(stream, kAll);
        EXPECT_TRUE(ours.valid);
        EXPECT_TRUE(ours.output == part);
    }
}

TEST(Bzip2DecoderTest, EndsWhereTheStreamEndsAndReportsItsLength) {
    const Bytes data = Text(5000, 10);
    const Bytes stream = Compress(data, 9);
    for (const Bytes& after :
         {Bytes{0}, Bytes{'B', 'Z', 'h', '9'}, Compress(Text(100, 11), 9), RandomBytes(1000, 12)}) {
        Bytes joined = stream;
        joined.insert(joined.end(), after.begin(), after.end());
        const Decoded ours = DecodeWithDecoder(joined, 7);
        ASSERT_TRUE(ours.valid);
        EXPECT_TRUE(ours.output == data);
        EXPECT_EQ(ours.consumed, stream.size());
        const Decoded expected = DecodeWithLibbz2(joined);
        ASSERT_TRUE(expected.valid);
        EXPECT_EQ(expected.consumed, stream.size());
    }
}

TEST(Bzip2DecoderTest, TheEndIsKnownWithTheLastByte) {
    const Bytes data = SparseDiff(2500000, 13); // three blocks at level 9
    const Bytes stream = Compress(data, 9);
    Bzip2Decoder decoder(stream);
    Bytes out(data.size());
    ASSERT_EQ(decoder.read(out.data(), 0), std::optional<size_t>(0));
    ASSERT_EQ(decoder.read(out.data(), out.size()), std::optional<size_t>(out.size()));
    EXPECT_TRUE(out == data);
    EXPECT_TRUE(decoder.ended());
    EXPECT_EQ(decoder.consumed(), stream.size());
    EXPECT_EQ(decoder.read(out.data(), 1), std::optional<size_t>(0));
}

TEST(Bzip2DecoderTest, EmptyStream) {
    const Bytes stream = Compress({}, 9);
    ASSERT_EQ(stream.size(), 14u); // header, end marker, checksum
    Bzip2Decoder decoder(stream);
    uint8_t byte = 0;
    EXPECT_EQ(decoder.read(&byte, 1), std::optional<size_t>(0));
    EXPECT_TRUE(decoder.ended());
    EXPECT_EQ(decoder.consumed(), 14u);
}

// ---- randomised blocks ----

// The obsolete randomisation, set on each block of a stream libbz2 wrote: libbz2 undoes it
// while decoding, so the stream decodes to other bytes, whose checksums are then stored.
Bytes Randomised(const Bytes& stream) {
    Bytes randomised = stream;
    const auto blocks = FindMarker(stream, kBlockMagic);
    const auto ends = FindMarker(stream, kEndMagic);
    if (blocks.empty() || ends.empty())
        return {};
    for (const uint64_t block : blocks)
        SetBits(randomised, block + 48 + 32, 1, 1);
    if (!StoreRightChecksums(randomised, blocks, ends.back()))
        return {};
    return randomised;
}

TEST(Bzip2DecoderTest, RandomisedBlocks) {
    size_t tableSpan = 0;
    for (const int stretch : BZ2_rNums)
        tableSpan += static_cast<size_t>(stretch);
    // One block longer than the table covers, so that it is used from its start again; and
    // several blocks, each starting with the table's start.
    for (const auto& [data, level] :
         {std::pair{Text(tableSpan + 200000, 14), 9}, std::pair{Text(250000, 15), 1}}) {
        SCOPED_TRACE("level " + std::to_string(level));
        const Bytes stream = Randomised(Compress(data, level));
        ASSERT_FALSE(stream.empty()) << "no valid randomised stream";
        const Decoded expected = DecodeWithLibbz2(stream);
        ASSERT_TRUE(expected.valid);
        ASSERT_EQ(expected.output.size(), data.size());
        ASSERT_FALSE(expected.output == data) << "randomisation changed nothing";
        for (const size_t piece : {kAll, size_t{7}}) {
            const Decoded ours = DecodeWithDecoder(stream, piece, expected.output.size());
            ASSERT_TRUE(ours.valid);
            EXPECT_TRUE(ours.output == expected.output);
            EXPECT_EQ(ours.consumed, stream.size());
        }
    }
}

// ---- crafted streams ----

TEST(Bzip2DecoderTest, CraftedBlocksAreDecodedAsLibbz2DecodesThem) {
    // The default block, and variations that are valid even if no compressor writes them.
    const Block plain;
    Block randomised;
    randomised.randomised = true;
    Block sixGroups;
    sixGroups.groups = 6;
    sixGroups.lengths.assign(6, {3, 3, 3, 3, 3});
    sixGroups.selectors = {5};
    // Codes up to 20 bits long, beyond the decoder's one-look-up table.
    Block longCodes;
    longCodes.lengths = {{1, 2, 3, 20, 20}, {1, 2, 3, 20, 20}};
    longCodes.symbols = {2, 3, 3, 0, 1, 3, 4};
    // Over-full code lengths: libbz2 numbers the codes all the same and uses those that fit.
    Block overfull;
    overfull.lengths = {{2, 2, 2, 2, 1}, {2, 2, 2, 2, 1}};
    overfull.rawSymbols = "10110"; // RUNA, RUNB, end of block: five times 'a'
    // Symbols spread over several groups of fifty, with tables changing between them.
    Block manyGroups;
    manyGroups.lengths = {{3, 3, 3, 3, 3}, {1, 2, 4, 4, 3}};
    for (int i = 0; i < 180; ++i)
        manyGroups.symbols.insert(manyGroups.symbols.begin(), i % 3 == 0 ? 3 : 2);
    manyGroups.selectors = {1, 0, 1, 1};
    // More selectors than libbz2 keeps (it reads and ignores those after 18002).
    Block extraSelectors;
    extraSelectors.selectors.assign(18010, 1);
    // Exactly as many bytes as the level allows, from one run of a single byte.
    Block full;
    full.used = {'a'};
    full.lengths = {{2, 2, 2}, {2, 2, 2}};
    full.symbols = Concat(RunSymbols(100000), {2});
    // Every byte value in use, and a move to front from every position of the list.
    Block allPositions;
    allPositions.used.clear();
    std::vector<int> lengths(258, 8);
    std::fill(lengths.begin() + 254, lengths.end(), 9); // a complete code
    for (int byte = 0; byte < 256; ++byte)
        allPositions.used.push_back(static_cast<uint8_t>(byte));
    allPositions.lengths = {lengths, lengths};
    allPositions.symbols.clear();
    for (int symbol = 256; symbol >= 2; --symbol)
        allPositions.symbols.push_back(symbol);
    allPositions.symbols.push_back(257);
    allPositions.origPtr = 100;

    struct Case {
        const char* name;
        std::vector<Block> blocks;
        int level;
    };
    const std::vector<Case> cases = {
        {"plain", {plain}, 9},
        {"two blocks", {plain, plain}, 9},
        {"randomised", {randomised}, 9},
        {"six groups", {sixGroups}, 9},
        {"long codes", {longCodes}, 9},
        {"over-full code", {overfull}, 9},
        {"many groups", {manyGroups}, 9},
        {"extra selectors", {extraSelectors}, 9},
        {"full block", {full}, 1},
        {"every position", {WithSelectors(allPositions)}, 9},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Bytes stream = CraftValid(c.blocks, c.level);
        ASSERT_FALSE(stream.empty()) << "libbz2 rejects the crafted stream";
        ExpectSameAsLibbz2(stream, {kAll, 1, 7});
        EXPECT_FALSE(DecodeWithDecoder(stream, kAll).output.empty());
    }
}

TEST(Bzip2DecoderTest, MalformedBlocksAreRejected) {
    struct Case {
        const char* name;
        std::function<void(Block&)> change;
        int level = 9;
    };
    const std::vector<Case> cases = {
        {"no bytes in use", [](Block& b) { b.used.clear(); }},
        {"one group", [](Block& b) { b.groups = 1; }},
        {"seven groups",
         [](Block& b) {
             b.groups = 7;
             b.lengths.assign(7, {3, 3, 3, 3, 3});
         }},
        {"no selectors",
         [](Block& b) {
             b.selectors.clear();
             b.rawSymbols = "000001011100";
         }},
        {"selector beyond the groups", [](Block& b) { b.selectors = {2}; }},
        {"fewer selectors than groups of symbols",
         [](Block& b) {
             b.symbols.assign(60, 2);
             b.symbols.push_back(4);
         }},
        {"code length 0",
         [](Block& b) {
             b.lengths[0] = {3, 3, 0, 3, 3};
         }},
        {"code length 21",
         [](Block& b) {
             b.lengths[1] = {3, 3, 21, 3, 3};
         }},
        {"first code length 0",
         [](Block& b) {
             b.lengths[0] = {0, 3, 3, 3, 3};
         }},
        {"code that matches no symbol",
         [](Block& b) {
             b.rawSymbols = "010" + std::string(43, '1'); // 111 is no code of three bits
         }},
        {"only runs (no end of block)",
         [](Block& b) {
             b.lengths = {{1, 1, 3, 3, 3}, {1, 1, 3, 3, 3}};
             b.rawSymbols = std::string(200, '0');
         }},
        {"empty block", [](Block& b) { b.symbols = {4}; }},
        {"origPtr at the block's length", [](Block& b) { b.origPtr = 3; }},
        {"origPtr far beyond", [](Block& b) { b.origPtr = 0xFFFFFF; }},
        {"block longer than the level allows",
         [](Block& b) {
             b.used = {'a'};
             b.lengths = {{2, 2, 2}, {2, 2, 2}};
             b.symbols = Concat(RunSymbols(100001), {2});
         },
         1},
        {"too many symbols for the level",
         [](Block& b) {
             b.used = {'a', 'b'};
             b.lengths = {{2, 2, 2, 2}, {2, 2, 2, 2}};
             b.symbols.assign(100001, 2);
             b.symbols.push_back(3);
             b = WithSelectors(b);
         },
         1},
        {"twenty-two run symbols in a row",
         [](Block& b) {
             b.symbols = Concat(std::vector<int>(22, 0), {2, 4});
         }},
        {"four equal bytes and no count",
         [](Block& b) {
             b.used = {'a'};
             b.lengths = {{2, 2, 2}, {2, 2, 2}};
             b.symbols = Concat(RunSymbols(4), {2});
         }},
        {"cut short in the symbols", [](Block& b) { b.rawSymbols = "010"; }},
    };
    // The unchanged block is valid, so that each case fails for its own change.
    ASSERT_FALSE(CraftValid({Block{}}).empty());
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Block block;
        c.change(block);
        Crafted crafted = Craft({block}, c.level);
        // The checksums would be right for the bytes libbz2 writes before it fails.
        StoreRightChecksums(crafted.stream, crafted.blocks, crafted.end);
        const Decoded expected = DecodeWithLibbz2(crafted.stream);
        EXPECT_FALSE(expected.valid);
        for (const size_t piece : {kAll, size_t{1}, size_t{4096}}) {
            const Decoded ours = DecodeWithDecoder(crafted.stream, piece);
            EXPECT_FALSE(ours.valid);
        }
    }
}

TEST(Bzip2DecoderTest, WrongChecksumsAreRejected) {
    const Bytes data = Text(300000, 16);
    const Bytes stream = Compress(data, 1); // several blocks
    const auto blocks = FindMarker(stream, kBlockMagic);
    const auto ends = FindMarker(stream, kEndMagic);
    ASSERT_GE(blocks.size(), 3u);
    ASSERT_EQ(ends.size(), 1u);
    std::vector<uint64_t> checksums;
    for (const uint64_t block : blocks)
        checksums.push_back(block + 48);
    checksums.push_back(ends[0] + 48);
    for (const uint64_t at : checksums)
        for (const int bit : {0, 13, 31}) {
            Bytes damaged = stream;
            SetBits(damaged, at + bit, 1, 1 - GetBits(stream, at + bit, 1));
            EXPECT_FALSE(DecodeWithLibbz2(damaged).valid);
            EXPECT_FALSE(DecodeWithDecoder(damaged, kAll).valid);
            EXPECT_FALSE(DecodeWithDecoder(damaged, 65536).valid);
        }
}

TEST(Bzip2DecoderTest, BadHeadersAreRejected) {
    const Bytes good = Compress(Text(1000, 17), 9);
    for (const Bytes& header :
         {Bytes{}, Bytes{'B'}, Bytes{'B', 'Z'}, Bytes{'B', 'Z', 'h'}, Bytes{'B', 'Z', 'h', '0'},
          Bytes{'B', 'Z', 'h', ':'}, Bytes{'B', 'Z', 'h', '/'}, Bytes{'B', 'Z', '0', '9'},
          Bytes{'b', 'Z', 'h', '9'}, Bytes{'B', 'z', 'h', '9'}}) {
        Bytes stream = header;
        if (header.size() == 4)
            stream.insert(stream.end(), good.begin() + 4, good.end());
        EXPECT_FALSE(DecodeWithLibbz2(stream).valid);
        Bzip2Decoder decoder(stream);
        uint8_t out[16];
        EXPECT_FALSE(decoder.read(out, sizeof out));
        EXPECT_FALSE(decoder.read(out, sizeof out));
        EXPECT_FALSE(decoder.ended());
    }
    // A block marker that is neither a block nor the end.
    Bytes stream = good;
    stream[4] ^= 0x01;
    EXPECT_FALSE(DecodeWithLibbz2(stream).valid);
    EXPECT_FALSE(DecodeWithDecoder(stream, kAll).valid);
}

// ---- damaged streams ----

// A stream of one block and one of two, both small.
std::vector<Bytes> SmallStreams() {
    Bytes runs = Text(3000, 18);
    runs.insert(runs.begin() + 1000, 700, 'z');
    return {Compress(runs, 9), Compress(SparseDiff(120000, 19), 1)};
}

TEST(Bzip2DecoderTest, EveryTruncationFails) {
    for (const Bytes& stream : SmallStreams()) {
        SCOPED_TRACE(stream.size());
        for (size_t size = 0; size < stream.size(); ++size) {
            const Bytes cut(stream.begin(), stream.begin() + static_cast<ptrdiff_t>(size));
            ASSERT_FALSE(DecodeWithLibbz2(cut).valid) << size;
            const Decoded ours = DecodeWithDecoder(cut, size % 2 ? kAll : 4096);
            ASSERT_FALSE(ours.valid) << size;
        }
    }
}

TEST(Bzip2DecoderTest, FlippedBitsAgreeWithLibbz2) {
    size_t stillValid = 0;
    for (const Bytes& stream : SmallStreams()) {
        SCOPED_TRACE(stream.size());
        // Every bit of the first 512 bytes (headers, tables and the first symbols), then
        // every eleventh.
        for (uint64_t bit = 0; bit < stream.size() * 8; bit += bit < 4096 ? 1 : 11) {
            Bytes damaged = stream;
            damaged[bit / 8] ^= static_cast<uint8_t>(0x80 >> (bit % 8));
            const Decoded expected = DecodeWithLibbz2(damaged);
            const Decoded ours =
                DecodeWithDecoder(damaged, bit % 3 ? kAll : 1000, expected.output.size());
            ASSERT_EQ(ours.valid, expected.valid) << "bit " << bit;
            if (expected.valid) {
                ++stillValid; // the padding after the checksum, for one
                ASSERT_TRUE(ours.output == expected.output) << "bit " << bit;
                ASSERT_EQ(ours.consumed, expected.consumed) << "bit " << bit;
            }
        }
    }
    EXPECT_GT(stillValid, 0u);
}

TEST(Bzip2DecoderTest, RandomDamageAgreesWithLibbz2) {
    std::mt19937 random(20);
    const std::vector<Bytes> streams = SmallStreams();
    for (int round = 0; round < 3000; ++round) {
        Bytes damaged = streams[round % streams.size()];
        const int changes = 1 + static_cast<int>(random() % 4);
        for (int i = 0; i < changes; ++i)
            damaged[random() % damaged.size()] = static_cast<uint8_t>(random());
        const Decoded expected = DecodeWithLibbz2(damaged);
        const Decoded ours = DecodeWithDecoder(damaged, kAll, expected.output.size());
        ASSERT_EQ(ours.valid, expected.valid) << "round " << round;
        if (expected.valid) {
            ASSERT_TRUE(ours.output == expected.output) << "round " << round;
        }
    }
}

TEST(Bzip2DecoderTest, FuzzSeedsAreWholeStreams) {
    size_t seeds = 0;
    for (const auto& entry : std::filesystem::directory_iterator(BZIP2_FUZZ_CORPUS)) {
        SCOPED_TRACE(entry.path().string());
        const std::string text = ReadTextFile(entry.path().string());
        const Bytes stream(text.begin(), text.end());
        ASSERT_TRUE(DecodeWithLibbz2(stream).valid);
        ExpectSameAsLibbz2(stream, {kAll, 7});
        ++seeds;
    }
    EXPECT_GE(seeds, 5u);
}

} // namespace
