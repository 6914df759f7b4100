#include "base/Md5Lanes.h"

#include "base/Md5Steps.h"

#include <algorithm>
#include <bit>
#include <cassert>
#include <cstring>
#include <memory>
#include <span>
#include <utility>

// The wide block functions, each in a file built for its instruction set. Where the
// compiler targets another processor those files hold stubs that say they cannot run.
// state: the four chaining words of every lane, word by word (a of each lane, then b, ...);
// data: for each lane, count consecutive 64-byte blocks.
bool Md5LanesAvx2Runs();
bool Md5LanesAvx512Runs();
void Md5BlocksAvx2(uint32_t* state, const uint8_t* const* data, size_t count);
void Md5BlocksAvx512(uint32_t* state, const uint8_t* const* data, size_t count);

namespace {

constexpr size_t kBlockSize = 64;
// Read into a lane at a time: enough for the block function to run many blocks per call,
// small enough for sixteen lanes to stay in the second-level cache.
constexpr size_t kReadSize = 64 * 1024;
// The padding goes after the last bytes read: at most 72 bytes more.
constexpr size_t kBufferSize = kReadSize + 2 * kBlockSize;
constexpr size_t kMaxLanes = 16;
constexpr uint32_t kInitialState[4] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};

using md5_steps::kShifts;
using md5_steps::kSines;
using md5_steps::WordOf;

// One of the 64 steps: a becomes b + ((a + f(b, c, d) + word + constant) <<< shift). The
// round functions let b, the newest word, through two instructions at most, since the
// chain of dependent instructions through b sets the speed.
template <int kStep>
[[gnu::always_inline]] inline void Step(uint32_t& a, uint32_t b, uint32_t c, uint32_t d,
                                        const uint32_t (&x)[16]) {
    const uint32_t early = a + x[WordOf(kStep)] + kSines[kStep];
    uint32_t sum;
    if constexpr (kStep < 16)
        sum = early + (d ^ (b & (c ^ d)));
    else if constexpr (kStep < 32)
        sum = early + (c & ~d) + (b & d); // no bit in common: adding them is or-ing them
    else if constexpr (kStep < 48)
        sum = early + (b ^ c ^ d);
    else
        sum = early + (c ^ (b | ~d));
    a = b + std::rotl(sum, kShifts[kStep / 16][kStep % 4]);
}

// The words change roles at every step instead of being moved.
template <int kFirst>
[[gnu::always_inline]] inline void FourSteps(uint32_t& a, uint32_t& b, uint32_t& c, uint32_t& d,
                                             const uint32_t (&x)[16]) {
    Step<kFirst>(a, b, c, d, x);
    Step<kFirst + 1>(d, a, b, c, x);
    Step<kFirst + 2>(c, d, a, b, x);
    Step<kFirst + 3>(b, c, d, a, x);
}

template <int... kFours>
[[gnu::always_inline]] inline void Steps(uint32_t& a, uint32_t& b, uint32_t& c, uint32_t& d,
                                         const uint32_t (&x)[16],
                                         std::integer_sequence<int, kFours...>) {
    (FourSteps<4 * kFours>(a, b, c, d, x), ...);
}

void Md5BlocksScalar(uint32_t* state, const uint8_t* const* data, size_t count) {
    const uint8_t* block = data[0];
    uint32_t a0 = state[0], b0 = state[1], c0 = state[2], d0 = state[3];
    for (; count > 0; --count, block += kBlockSize) {
        uint32_t x[16];
        for (int i = 0; i < 16; ++i) {
            const uint8_t* p = block + 4 * i;
            x[i] =
                uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
        }
        uint32_t a = a0, b = b0, c = c0, d = d0;
        Steps(a, b, c, d, x, std::make_integer_sequence<int, 16>{});
        a0 += a;
        b0 += b;
        c0 += c;
        d0 += d;
    }
    state[0] = a0;
    state[1] = b0;
    state[2] = c0;
    state[3] = d0;
}

struct BlockFunction {
    size_t lanes;
    void (*hash)(uint32_t* state, const uint8_t* const* data, size_t count);
};

// What a kind runs, narrowest first; a call takes the narrowest that has a lane for every
// input still running. With eight inputs or fewer, the AVX2 function beats the sixteen-lane
// one even where AVX-512 runs: no idle lanes to carry, and (measured on AMD Zen 4) a
// shorter step in 256-bit registers. One input alone goes fastest without vectors.
constexpr BlockFunction kScalarFunctions[] = {{1, Md5BlocksScalar}};
constexpr BlockFunction kAvx2Functions[] = {{1, Md5BlocksScalar}, {8, Md5BlocksAvx2}};
constexpr BlockFunction kAvx512Functions[] = {
    {1, Md5BlocksScalar}, {8, Md5BlocksAvx2}, {16, Md5BlocksAvx512}};

std::span<const BlockFunction> BlockFunctionsOf(Md5Lanes::Kind kind) {
    switch (kind) {
    case Md5Lanes::Kind::Avx2:
        return kAvx2Functions;
    case Md5Lanes::Kind::Avx512:
        return kAvx512Functions;
    case Md5Lanes::Kind::Scalar:
        break;
    }
    return kScalarFunctions;
}

struct Buffer {
    alignas(64) uint8_t bytes[kBufferSize];
};

// The bytes of one input not hashed yet are bytes[begin, end); begin stays a multiple of
// the block size, so the block function always loads whole aligned blocks.
struct Lane {
    std::unique_ptr<Buffer> buffer;
    Md5Lanes::Read read;
    Md5Lanes::Done done;
    bool busy = false;
    bool padded = false;
    size_t begin = 0;
    size_t end = 0;
    uint64_t length = 0;
};

// Called with the unhashed bytes moved to the front of the buffer, so that end is the
// input's length modulo the block size.
void Pad(Lane& lane) {
    uint8_t* bytes = lane.buffer->bytes;
    const uint64_t bits = lane.length * 8;
    bytes[lane.end++] = 0x80;
    const size_t zeros = (kBlockSize + 56 - lane.end % kBlockSize) % kBlockSize;
    std::memset(bytes + lane.end, 0, zeros);
    lane.end += zeros;
    for (int i = 0; i < 8; ++i)
        bytes[lane.end++] = static_cast<uint8_t>(bits >> (8 * i));
    lane.padded = true;
}

// Makes at least one whole block ready: with less left, reads until the buffer is full or
// the input ends, and pads at the end. False on a read error.
[[nodiscard]] bool Fill(Lane& lane) {
    if (lane.padded || lane.end - lane.begin >= kBlockSize)
        return true;
    uint8_t* bytes = lane.buffer->bytes;
    std::memmove(bytes, bytes + lane.begin, lane.end - lane.begin);
    lane.end -= lane.begin;
    lane.begin = 0;
    while (lane.end < kReadSize) {
        const ssize_t got = lane.read(bytes + lane.end, kReadSize - lane.end);
        if (got < 0 || static_cast<size_t>(got) > kReadSize - lane.end) {
            assert(got < 0 && "read gave more than asked");
            return false;
        }
        if (got == 0) {
            Pad(lane);
            return true;
        }
        lane.end += static_cast<size_t>(got);
        lane.length += static_cast<uint64_t>(got);
    }
    return true;
}

std::string DigestText(const uint32_t (&abcd)[4]) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string text;
    text.reserve(32);
    for (const uint32_t word : abcd) {
        for (int i = 0; i < 4; ++i) {
            const uint32_t byte = (word >> (8 * i)) & 0xFF;
            text += kHex[byte >> 4];
            text += kHex[byte & 0x0F];
        }
    }
    return text;
}

// Frees the lane before the call, since done may add inputs and run() continues after it.
void Finish(Lane& lane, std::optional<std::string> digest) {
    Md5Lanes::Done done = std::move(lane.done);
    lane.read = nullptr;
    lane.done = nullptr;
    lane.busy = false;
    done(std::move(digest));
}

} // namespace

Md5Lanes::Md5Lanes(Kind kind) : _kind(supports(kind) ? kind : Kind::Scalar) {
    assert(supports(kind) && "this processor cannot run that kind");
}

void Md5Lanes::add(Read read, Done done) {
    _waiting.push_back({std::move(read), std::move(done)});
}

void Md5Lanes::run(const std::atomic<bool>* stop) {
    const size_t width = lanes(_kind);
    const std::span<const BlockFunction> functions = BlockFunctionsOf(_kind);
    std::vector<Lane> slots(width);
    alignas(64) uint32_t state[4 * kMaxLanes] = {};
    // What lanes without an input hash, for nothing, while the others go on.
    std::unique_ptr<Buffer> idle;
    const auto stopped = [stop] { return stop && stop->load(std::memory_order_relaxed); };

    for (;;) {
        size_t active = 0;
        size_t count = kBufferSize / kBlockSize;
        for (size_t i = 0; i < width; ++i) {
            Lane& lane = slots[i];
            for (;;) {
                if (stopped()) {
                    _waiting.clear();
                    return;
                }
                if (!lane.busy) {
                    if (_waiting.empty())
                        break;
                    Input input = std::move(_waiting.front());
                    _waiting.pop_front();
                    if (!lane.buffer)
                        lane.buffer = std::make_unique_for_overwrite<Buffer>();
                    lane.read = std::move(input.read);
                    lane.done = std::move(input.done);
                    lane.busy = true;
                    lane.padded = false;
                    lane.begin = lane.end = 0;
                    lane.length = 0;
                    for (size_t word = 0; word < 4; ++word)
                        state[word * width + i] = kInitialState[word];
                }
                if (Fill(lane))
                    break;
                Finish(lane, std::nullopt);
            }
            if (!lane.busy)
                continue;
            ++active;
            count = std::min(count, (lane.end - lane.begin) / kBlockSize);
        }
        if (active == 0)
            return;

        // The narrowest function that takes every running input. Narrower than the slots, it
        // gets their words packed into its lanes, and gives them back.
        const BlockFunction& function =
            *std::find_if(functions.begin(), functions.end(),
                          [active](const BlockFunction& f) { return f.lanes >= active; });
        const size_t n = function.lanes;
        // The slot each of the function's lanes hashes, or width for none.
        size_t slotOf[kMaxLanes];
        size_t used = 0;
        for (size_t i = 0; i < width; ++i)
            if (n == width || slots[i].busy)
                slotOf[used++] = slots[i].busy ? i : width;
        std::fill(slotOf + used, slotOf + n, width);
        if (active < n && !idle)
            idle = std::make_unique<Buffer>();
        const uint8_t* data[kMaxLanes];
        for (size_t j = 0; j < n; ++j) {
            const Lane* lane = slotOf[j] < width ? &slots[slotOf[j]] : nullptr;
            data[j] = lane ? lane->buffer->bytes + lane->begin : idle->bytes;
        }
        if (n == width) {
            function.hash(state, data, count);
        } else {
            alignas(64) uint32_t packed[4 * kMaxLanes] = {};
            for (size_t j = 0; j < active; ++j)
                for (size_t word = 0; word < 4; ++word)
                    packed[word * n + j] = state[word * width + slotOf[j]];
            function.hash(packed, data, count);
            for (size_t j = 0; j < active; ++j)
                for (size_t word = 0; word < 4; ++word)
                    state[word * width + slotOf[j]] = packed[word * n + j];
        }

        for (size_t i = 0; i < width; ++i) {
            Lane& lane = slots[i];
            if (!lane.busy)
                continue;
            lane.begin += count * kBlockSize;
            if (lane.padded && lane.begin == lane.end) {
                uint32_t abcd[4];
                for (size_t word = 0; word < 4; ++word)
                    abcd[word] = state[word * width + i];
                Finish(lane, DigestText(abcd));
            }
        }
    }
}

size_t Md5Lanes::lanes() {
    return lanes(bestKind());
}

size_t Md5Lanes::lanes(Kind kind) {
    switch (kind) {
    case Kind::Avx2:
        return 8;
    case Kind::Avx512:
        return 16;
    case Kind::Scalar:
        break;
    }
    return 1;
}

Md5Lanes::Kind Md5Lanes::bestKind() {
    static const Kind best = supports(Kind::Avx512) ? Kind::Avx512
                             : supports(Kind::Avx2) ? Kind::Avx2
                                                    : Kind::Scalar;
    return best;
}

bool Md5Lanes::supports(Kind kind) {
    switch (kind) {
    case Kind::Avx2:
        return Md5LanesAvx2Runs();
    case Kind::Avx512:
        // Its functions include the AVX2 one, for the last few inputs.
        return Md5LanesAvx512Runs() && Md5LanesAvx2Runs();
    case Kind::Scalar:
        break;
    }
    return true;
}

std::vector<std::string> Md5OfAll(const std::vector<std::string_view>& inputs,
                                  Md5Lanes::Kind kind) {
    std::vector<std::string> digests(inputs.size());
    Md5Lanes lanes(kind);
    for (size_t i = 0; i < inputs.size(); ++i) {
        lanes.add(
            [rest = inputs[i]](uint8_t* buffer, size_t size) mutable {
                const size_t taken = std::min(size, rest.size());
                if (taken > 0)
                    std::memcpy(buffer, rest.data(), taken);
                rest.remove_prefix(taken);
                return static_cast<ssize_t>(taken);
            },
            [&digests, i](std::optional<std::string> digest) {
                digests[i] = std::move(digest).value_or("");
            });
    }
    lanes.run();
    return digests;
}
