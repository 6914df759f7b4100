#include "patch/Bzip2Decoder.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <new>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

// libbz2's table for blocks of the obsolete "randomised" kind; exported by the library,
// declared only in its private header.
extern "C" const int BZ2_rNums[512];

namespace {

constexpr uint64_t kBlockMagic = 0x314159265359;
constexpr uint64_t kEndMagic = 0x177245385090;
constexpr uint32_t kLevelSize = 100000;
constexpr int kMaxGroups = 6;
constexpr int kMaxAlphabet = 258;
constexpr int kMaxCodeLength = 20;
constexpr int kGroupSize = 50;
// libbz2 reads selectors beyond this many (no block needs them) and ignores them.
constexpr uint32_t kMaxSelectors = 18002;
// Twenty-one run symbols in a row are the most libbz2 accepts.
constexpr uint32_t kMaxRunWeight = 1u << 21;
// Codes up to this long are decoded with one table look-up.
constexpr int kFastBits = 10;
// An entry of tt: the byte in its low 8 bits, the next entry's index above; a block has
// fewer than 2^20 entries, which leaves the top bit for marking where a walk starts.
constexpr uint32_t kEntryIndex = (1u << 23) - 1;
constexpr uint32_t kEntryStart = 1u << 31;
// Blocks at least this long are walked from many places at once.
constexpr uint32_t kChainedSize = 16384;
constexpr uint32_t kChains = 64;
// Output is checksummed in pieces of this size while they are still in the cache.
constexpr size_t kCrcPiece = 64 * 1024;

using CrcTables = std::array<std::array<uint32_t, 256>, 16>;

// Table k holds the CRC of each byte followed by k zero bytes, for sixteen bytes per step.
constexpr CrcTables MakeCrcTables() {
    CrcTables tables{};
    for (uint32_t byte = 0; byte < 256; ++byte) {
        uint32_t crc = byte << 24;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 0x80000000u) ? (crc << 1) ^ 0x04C11DB7u : crc << 1;
        tables[0][byte] = crc;
    }
    for (size_t k = 1; k < tables.size(); ++k)
        for (uint32_t byte = 0; byte < 256; ++byte) {
            const uint32_t previous = tables[k - 1][byte];
            tables[k][byte] = (previous << 8) ^ tables[0][previous >> 24];
        }
    return tables;
}

constexpr CrcTables kCrcTables = MakeCrcTables();

uint32_t LoadBigEndian32(const uint8_t* bytes) {
    uint32_t value;
    std::memcpy(&value, bytes, sizeof value);
    return __builtin_bswap32(value);
}

uint64_t LoadBigEndian64(const uint8_t* bytes) {
    uint64_t value;
    std::memcpy(&value, bytes, sizeof value);
    return __builtin_bswap64(value);
}

// bzip2's CRC (CRC-32 with polynomial 0x04C11DB7, most significant bit first) of data,
// continued from crc.
uint32_t UpdateCrcWithTables(uint32_t crc, const uint8_t* data, size_t size) {
    const auto& t = kCrcTables;
    for (; size >= 16; data += 16, size -= 16) {
        const uint32_t a = crc ^ LoadBigEndian32(data);
        const uint32_t b = LoadBigEndian32(data + 4);
        const uint32_t c = LoadBigEndian32(data + 8);
        const uint32_t d = LoadBigEndian32(data + 12);
        crc = t[15][a >> 24] ^ t[14][(a >> 16) & 0xff] ^ t[13][(a >> 8) & 0xff] ^ t[12][a & 0xff] ^
              t[11][b >> 24] ^ t[10][(b >> 16) & 0xff] ^ t[9][(b >> 8) & 0xff] ^ t[8][b & 0xff] ^
              t[7][c >> 24] ^ t[6][(c >> 16) & 0xff] ^ t[5][(c >> 8) & 0xff] ^ t[4][c & 0xff] ^
              t[3][d >> 24] ^ t[2][(d >> 16) & 0xff] ^ t[1][(d >> 8) & 0xff] ^ t[0][d & 0xff];
    }
    for (; size > 0; ++data, --size)
        crc = (crc << 8) ^ t[0][(crc >> 24) ^ *data];
    return crc;
}

using CrcFunction = uint32_t (*)(uint32_t crc, const uint8_t* data, size_t size);

#if defined(__x86_64__)

// x^n mod the CRC polynomial.
constexpr uint64_t PowerOfXModPolynomial(int n) {
    uint64_t value = 1;
    for (int i = 0; i < n; ++i) {
        value <<= 1;
        if (value & (uint64_t{1} << 32))
            value ^= (uint64_t{1} << 32) | 0x04C11DB7u;
    }
    return value;
}

// Sixteen bytes as a 128-bit number, the first byte most significant.
[[gnu::target("pclmul,ssse3")]] inline __m128i LoadReversed(const uint8_t* bytes) {
    const __m128i reverse = _mm_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
    return _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes)), reverse);
}

// remainder * x^n + next, where constants holds x^n (low half) and x^(n+64) (high half), both
// reduced: congruent, and still 128 bits.
[[gnu::target("pclmul,ssse3")]] inline __m128i Fold(__m128i remainder, __m128i constants,
                                                    __m128i next) {
    return _mm_xor_si128(_mm_xor_si128(_mm_clmulepi64_si128(remainder, constants, 0x11),
                                       _mm_clmulepi64_si128(remainder, constants, 0x00)),
                         next);
}

// The same CRC with carry-less multiplication: the data is folded sixteen bytes at a time
// into four 128-bit remainders, which end as sixteen bytes with the same CRC. Several times
// faster than the tables, which took a third of the time of decompressing runs.
[[gnu::target("pclmul,ssse3")]] uint32_t UpdateCrcWithClmul(uint32_t crc, const uint8_t* data,
                                                            size_t size) {
    if (size < 64)
        return UpdateCrcWithTables(crc, data, size);
    const __m128i by512 = _mm_set_epi64x(static_cast<long long>(PowerOfXModPolynomial(576)),
                                         static_cast<long long>(PowerOfXModPolynomial(512)));
    const __m128i by128 = _mm_set_epi64x(static_cast<long long>(PowerOfXModPolynomial(192)),
                                         static_cast<long long>(PowerOfXModPolynomial(128)));
    __m128i a = _mm_xor_si128(LoadReversed(data), _mm_set_epi32(static_cast<int>(crc), 0, 0, 0));
    __m128i b = LoadReversed(data + 16);
    __m128i c = LoadReversed(data + 32);
    __m128i d = LoadReversed(data + 48);
    for (data += 64, size -= 64; size >= 64; data += 64, size -= 64) {
        a = Fold(a, by512, LoadReversed(data));
        b = Fold(b, by512, LoadReversed(data + 16));
        c = Fold(c, by512, LoadReversed(data + 32));
        d = Fold(d, by512, LoadReversed(data + 48));
    }
    a = Fold(Fold(Fold(a, by128, b), by128, c), by128, d);
    for (; size >= 16; data += 16, size -= 16)
        a = Fold(a, by128, LoadReversed(data));
    uint8_t remainder[16];
    const __m128i reverse = _mm_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(remainder), _mm_shuffle_epi8(a, reverse));
    return UpdateCrcWithTables(UpdateCrcWithTables(0, remainder, 16), data, size);
}

CrcFunction ChooseCrcFunction() {
    __builtin_cpu_init();
    return __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("ssse3")
               ? UpdateCrcWithClmul
               : UpdateCrcWithTables;
}

#else

CrcFunction ChooseCrcFunction() {
    return UpdateCrcWithTables;
}

#endif

uint32_t UpdateCrc(uint32_t crc, const uint8_t* data, size_t size) {
    static const CrcFunction update = ChooseCrcFunction();
    return update(crc, data, size);
}

// Undoes the randomisation of an old compressor's block: one byte in each stretch of
// BZ2_rNums[i] bytes (its last but one) had its low bit flipped.
void Derandomise(uint8_t* bytes, size_t size) {
    size_t start = 0;
    for (size_t i = 0; start < size; i = (i + 1) % 512) {
        const int stretch = BZ2_rNums[i];
        if (stretch <= 0)
            return; // not in libbz2's table; stops a loop that would never end
        if (stretch >= 2 && start + static_cast<size_t>(stretch) - 2 < size)
            bytes[start + static_cast<size_t>(stretch) - 2] ^= 1;
        start += static_cast<size_t>(stretch);
    }
}

// Moves the byte at position (1..255) of the 256-byte list to its front, the bytes before it
// one place on, and returns it. Sixteen bytes at a time: a call to memmove took a fifth of
// the time of random data.
inline uint8_t MoveToFront(uint8_t* list, int position) {
    static_assert(std::endian::native == std::endian::little);
    using Bytes16 = uint8_t __attribute__((vector_size(16)));
    const uint8_t byte = list[position];
    if (position < 16) {
        unsigned __int128 bytes;
        std::memcpy(&bytes, list, 16);
        const auto all = ~static_cast<unsigned __int128>(0);
        const auto moved =
            position == 15 ? all : (static_cast<unsigned __int128>(1) << (8 * (position + 1))) - 1;
        bytes = (bytes & ~moved) | ((bytes << 8) & moved) | byte;
        std::memcpy(list, &bytes, 16);
        return byte;
    }
    Bytes16 front;
    std::memcpy(&front, list, 16);
    for (int end = position; end > 16; end -= 16) {
        Bytes16 chunk;
        std::memcpy(&chunk, list + end - 16, 16);
        std::memcpy(list + end - 15, &chunk, 16);
    }
    std::memcpy(list + 1, &front, 16);
    list[0] = byte;
    return byte;
}

// The bytes of a block in order: from entry first of tt, each entry's byte, then the entry
// it names, size times (as libbz2 does, whether or not that visits every entry).
void FollowChain(const uint32_t* tt, uint32_t first, uint8_t* out, uint32_t size) {
    uint32_t index = first;
    for (uint32_t i = 0; i < size; ++i) {
        const uint32_t entry = tt[index];
        out[i] = static_cast<uint8_t>(entry);
        index = (entry >> 8) & kEntryIndex;
    }
}

// The same bytes, when the entries form one cycle, from kChains places of the cycle at once:
// one walk is a chain of cache misses, and many walks overlap theirs. A first pass finds how
// far each walk goes before it reaches the start of another, which places each walk's bytes
// in the block; the second writes them. False (tt marked, nothing written) when the walk from
// first comes back to it before size entries, for the single walk to repeat that cycle.
bool FollowChains(uint32_t* tt, uint32_t first, uint8_t* out, uint32_t size) {
    uint32_t starts[kChains];
    int chains = 0;
    starts[chains++] = first;
    for (uint32_t i = 1; i < kChains; ++i) {
        const auto start = static_cast<uint32_t>(uint64_t{i} * size / kChains);
        if (start != first)
            starts[chains++] = start;
    }
    for (int c = 0; c < chains; ++c)
        tt[starts[c]] |= kEntryStart;

    uint32_t position[kChains];
    uint32_t length[kChains];
    int live[kChains];
    for (int c = 0; c < chains; ++c) {
        position[c] = (tt[starts[c]] >> 8) & kEntryIndex;
        length[c] = 1;
        live[c] = c;
    }
    for (int alive = chains; alive > 0;) {
        for (int i = 0; i < alive;) {
            const int c = live[i];
            const uint32_t entry = tt[position[c]];
            if (entry & kEntryStart) {
                live[i] = live[--alive];
                continue;
            }
            ++length[c];
            position[c] = (entry >> 8) & kEntryIndex;
            ++i;
        }
    }

    // Each walk ended at the start of the walk that follows it.
    uint32_t offset[kChains];
    uint32_t done = 0;
    int c = 0;
    for (int steps = 0; steps < chains; ++steps) {
        offset[c] = done;
        done += length[c];
        c = static_cast<int>(std::find(starts, starts + chains, position[c]) - starts);
        if (c == 0 || c == chains)
            break;
    }
    if (c != 0 || done != size)
        return false;

    uint8_t* cursor[kChains];
    for (int w = 0; w < chains; ++w) {
        position[w] = starts[w];
        cursor[w] = out + offset[w];
        live[w] = w;
    }
    for (int alive = chains; alive > 0;) {
        for (int i = 0; i < alive;) {
            const int w = live[i];
            const uint32_t entry = tt[position[w]];
            *cursor[w]++ = static_cast<uint8_t>(entry);
            position[w] = (entry >> 8) & kEntryIndex;
            if (--length[w] == 0) {
                live[i] = live[--alive];
                continue;
            }
            ++i;
        }
    }
    return true;
}

} // namespace

// One Huffman code, decoded as libbz2 decodes it: the code lengths need not describe a
// complete code (libbz2 accepts over- and under-full sets), so a code is read one length at a
// time until it is at most the largest code of that length, the codes of each length being
// consecutive numbers that follow the shorter ones. Codes up to kFastBits long take one look-up.
struct Bzip2Decoder::HuffmanTable {
    // (symbol << 5) | length for each kFastBits-bit prefix; 0 where the code is longer.
    uint16_t fast[1 << kFastBits];
    int64_t limit[kMaxCodeLength + 1]; // the largest code of each length; -1: none
    int32_t base[kMaxCodeLength + 1];  // code - base[length] = index in symbols
    uint16_t symbols[kMaxAlphabet];    // by length, then by value
    int minLength = 0;

    void build(const uint8_t* lengths, int alphabet) {
        int count[kMaxCodeLength + 1] = {};
        for (int s = 0; s < alphabet; ++s)
            ++count[lengths[s]];
        minLength = kMaxCodeLength;
        int maxLength = 1;
        for (int length = 1; length <= kMaxCodeLength; ++length)
            if (count[length] > 0) {
                minLength = std::min(minLength, length);
                maxLength = length;
            }
        int next[kMaxCodeLength + 1];
        for (int length = 1, index = 0; length <= kMaxCodeLength; ++length) {
            next[length] = index;
            index += count[length];
        }
        for (int s = 0; s < alphabet; ++s)
            symbols[next[lengths[s]]++] = static_cast<uint16_t>(s);

        std::fill(std::begin(limit), std::end(limit), -1);
        std::fill(std::begin(fast), std::end(fast), uint16_t{0});
        int64_t first = 0;
        for (int length = minLength, index = 0; length <= maxLength; ++length) {
            limit[length] = first + count[length] - 1;
            base[length] = static_cast<int32_t>(first - index);
            if (length <= kFastBits) {
                const int64_t last = std::min<int64_t>(limit[length], (int64_t{1} << length) - 1);
                for (int64_t code = first; code <= last; ++code) {
                    const auto entry =
                        static_cast<uint16_t>((symbols[code - base[length]] << 5) | length);
                    const int shift = kFastBits - length;
                    std::fill(fast + (code << shift), fast + ((code + 1) << shift), entry);
                }
            }
            index += count[length];
            first = (limit[length] + 1) * 2;
        }
    }

    // The next symbol, its bits taken from in (which holds at least kMaxCodeLength bits);
    // -1 when no code of up to kMaxCodeLength bits matches.
    int decode(BitReader& in) const {
        const uint16_t entry = fast[in.bits >> (64 - kFastBits)];
        if (entry != 0) {
            in.bits <<= entry & 31;
            in.count -= entry & 31;
            return entry >> 5;
        }
        for (int length = minLength; length <= kMaxCodeLength; ++length) {
            const auto code = static_cast<int64_t>(in.bits >> (64 - length));
            if (code <= limit[length]) {
                in.bits <<= length;
                in.count -= length;
                return symbols[code - base[length]];
            }
        }
        return -1;
    }
};

void Bzip2Decoder::BitReader::refill() {
    if (next + 8 <= size) {
        // Whole bytes only count; the part of a byte loaded as well is loaded again next time.
        bits |= LoadBigEndian64(data + next) >> count;
        next += (63 - count) >> 3;
        count |= 56;
        return;
    }
    for (; count <= 55; count += 8, ++next)
        if (next < size)
            bits |= uint64_t{data[next]} << (56 - count);
}

Bzip2Decoder::Bzip2Decoder(std::span<const uint8_t> compressed) {
    _in.data = compressed.data();
    _in.size = compressed.size();
}

Bzip2Decoder::~Bzip2Decoder() = default;

std::optional<size_t> Bzip2Decoder::read(uint8_t* out, size_t size) {
    if (_state == State::Failed)
        return std::nullopt;
    size_t done = 0;
    bool ok = true;
    while (ok && done < size && _state != State::Ended) {
        if (_state != State::Output) {
            ok = _state == State::Start ? start() : nextBlock();
            continue;
        }
        const size_t produced = expand(out + done, std::min(size - done, kCrcPiece));
        _blockCrc = UpdateCrc(_blockCrc, out + done, produced);
        done += produced;
        if (_position == _blockSize && _runLeft == 0)
            ok = finishBlock();
    }
    // The caller learns of the end with the last bytes when nothing but the end marker
    // follows them.
    if (ok && _state == State::BetweenBlocks) {
        BitReader peek = _in;
        peek.refill();
        if ((uint64_t{peek.take(24)} << 24 | peek.take(24)) == kEndMagic)
            ok = nextBlock();
    }
    if (!ok) {
        _state = State::Failed;
        _tt.reset();
        _block.reset();
        return std::nullopt;
    }
    return done;
}

bool Bzip2Decoder::start() {
    _in.refill();
    if (_in.take(8) != 'B' || _in.take(8) != 'Z' || _in.take(8) != 'h')
        return false;
    const uint32_t level = _in.take(8) - '0';
    if (level < 1 || level > 9 || _in.overrun())
        return false;
    _blockLimit = level * kLevelSize;
    try {
        _tt = std::make_unique_for_overwrite<uint32_t[]>(_blockLimit);
        _block = std::make_unique_for_overwrite<uint8_t[]>(_blockLimit);
        _tables = std::make_unique_for_overwrite<HuffmanTable[]>(kMaxGroups);
        _selectors = std::make_unique_for_overwrite<uint8_t[]>(kMaxSelectors);
    } catch (const std::bad_alloc&) {
        return false;
    }
    _state = State::BetweenBlocks;
    return true;
}

bool Bzip2Decoder::nextBlock() {
    _in.refill();
    const uint64_t magic = uint64_t{_in.take(24)} << 24 | _in.take(24);
    if (magic == kEndMagic)
        return readEnd();
    return magic == kBlockMagic && decodeBlock();
}

bool Bzip2Decoder::readEnd() {
    _in.refill();
    if (_in.take(32) != _combinedCrc || _in.overrun())
        return false;
    _consumed = static_cast<size_t>((_in.position() + 7) / 8);
    _state = State::Ended;
    return true;
}

bool Bzip2Decoder::decodeBlock() {
    BitReader in = _in;
    in.refill();
    _storedBlockCrc = in.take(32);
    in.refill();
    const bool randomised = in.take(1) != 0;
    const uint32_t origPtr = in.take(24);

    // The bytes the block uses, in order: the symbols' meaning before any move to front.
    uint8_t mtf[256];
    int inUse = 0;
    const uint32_t used16 = in.take(16);
    for (int high = 0; high < 16; ++high) {
        if (!(used16 & (0x8000u >> high)))
            continue;
        in.refill();
        const uint32_t used = in.take(16);
        for (int low = 0; low < 16; ++low)
            if (used & (0x8000u >> low))
                mtf[inUse++] = static_cast<uint8_t>(high * 16 + low);
    }
    if (inUse == 0)
        return false;
    const int alphabet = inUse + 2;
    const int endOfBlock = inUse + 1;

    in.refill();
    const int groups = static_cast<int>(in.take(3));
    uint32_t selectorCount = in.take(15);
    if (groups < 2 || groups > kMaxGroups || selectorCount == 0)
        return false;
    uint8_t order[kMaxGroups] = {0, 1, 2, 3, 4, 5};
    for (uint32_t i = 0; i < selectorCount; ++i) {
        in.refill();
        int j = 0;
        while (in.take(1)) {
            if (++j >= groups)
                return false;
        }
        const uint8_t group = order[j];
        std::memmove(order + 1, order, static_cast<size_t>(j));
        order[0] = group;
        if (i < kMaxSelectors)
            _selectors[i] = group;
        if (i % 4096 == 0 && in.overrun())
            return false;
    }
    selectorCount = std::min(selectorCount, kMaxSelectors);

    for (int t = 0; t < groups; ++t) {
        uint8_t lengths[kMaxAlphabet];
        in.refill();
        int length = static_cast<int>(in.take(5));
        for (int s = 0; s < alphabet; ++s) {
            for (;;) {
                if (length < 1 || length > kMaxCodeLength)
                    return false;
                if (in.count < 2)
                    in.refill();
                if (!in.take(1))
                    break;
                length += in.take(1) ? -1 : 1;
            }
            lengths[s] = static_cast<uint8_t>(length);
        }
        if (in.overrun())
            return false;
        _tables[t].build(lengths, alphabet);
    }

    // The symbols: runs of the front byte (RUNA/RUNB digits of a bijective base-2 count),
    // moves to front, and the end of the block.
    uint32_t* const tt = _tt.get();
    const uint32_t limit = _blockLimit;
    uint32_t counts[256] = {};
    uint32_t size = 0;
    uint32_t run = 0;
    uint32_t runWeight = 1;
    uint32_t selector = 0;
    int groupLeft = 0;
    const HuffmanTable* table = nullptr;
    for (;;) {
        if (groupLeft == 0) {
            if (selector >= selectorCount || in.overrun())
                return false;
            table = &_tables[_selectors[selector++]];
            groupLeft = kGroupSize;
        }
        --groupLeft;
        if (in.count < kMaxCodeLength)
            in.refill();
        const int symbol = table->decode(in);
        if (symbol < 0)
            return false;
        if (symbol <= 1) {
            if (runWeight >= kMaxRunWeight)
                return false;
            run += static_cast<uint32_t>(symbol + 1) * runWeight;
            runWeight <<= 1;
            continue;
        }
        if (run > 0) {
            if (run > limit - size)
                return false;
            counts[mtf[0]] += run;
            std::fill(tt + size, tt + size + run, uint32_t{mtf[0]});
            size += run;
            run = 0;
            runWeight = 1;
        }
        if (symbol == endOfBlock)
            break;
        if (size >= limit)
            return false;
        const uint8_t byte = MoveToFront(mtf, symbol - 1);
        ++counts[byte];
        tt[size++] = byte;
    }
    if (in.overrun() || origPtr >= size)
        return false;
    _in = in;

    // Inverse Burrows-Wheeler transform: where each byte's successor is, then the chain.
    uint32_t next[256];
    for (uint32_t b = 0, sum = 0; b < 256; ++b) {
        next[b] = sum;
        sum += counts[b];
    }
    for (uint32_t i = 0; i < size; ++i)
        tt[next[tt[i] & 0xff]++] |= i << 8;
    uint8_t* const block = _block.get();
    const uint32_t first = tt[origPtr] >> 8;
    if (size < kChainedSize || !FollowChains(tt, first, block, size))
        FollowChain(tt, first, block, size);
    if (randomised)
        Derandomise(block, size);

    _blockSize = size;
    _position = 0;
    _last = -1;
    _same = 0;
    _runLeft = 0;
    _blockCrc = 0xFFFFFFFFu;
    _state = State::Output;
    return true;
}

size_t Bzip2Decoder::expand(uint8_t* out, size_t size) {
    const uint8_t* const block = _block.get();
    const uint32_t end = _blockSize;
    uint32_t position = _position;
    int last = _last;
    int same = _same;
    size_t done = 0;
    while (done < size) {
        if (_runLeft > 0) {
            const size_t n = std::min<size_t>(_runLeft, size - done);
            std::memset(out + done, _runByte, n);
            done += n;
            _runLeft -= static_cast<uint32_t>(n);
            continue;
        }
        if (position == end)
            break;
        // Single bytes, until four equal ones are followed by the length of their run.
        while (position < end && done < size) {
            const uint8_t byte = block[position++];
            if (same == 4) {
                _runByte = static_cast<uint8_t>(last);
                _runLeft = byte;
                last = -1;
                same = 0;
                break;
            }
            same = byte == last ? same + 1 : 1;
            last = byte;
            out[done++] = byte;
        }
    }
    _position = position;
    _last = last;
    _same = same;
    return done;
}

bool Bzip2Decoder::finishBlock() {
    // Four equal bytes at the very end lack the length of their run.
    if (_same == 4)
        return false;
    const uint32_t crc = ~_blockCrc;
    if (crc != _storedBlockCrc)
        return false;
    _combinedCrc = ((_combinedCrc << 1) | (_combinedCrc >> 31)) ^ crc;
    _state = State::BetweenBlocks;
    return true;
}
