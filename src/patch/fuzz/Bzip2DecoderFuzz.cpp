// libFuzzer target for the bzip2 decoder: each input is decoded with it and with libbz2, and
// the two must agree on whether the stream is valid and, when it is, on its bytes and on where
// it ends. Inputs are cut at 64 KB and outputs at 16 MB (a few bytes can stand for megabytes).
#include "patch/Bzip2Decoder.h"

#include <algorithm>
#include <bzlib.h>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr size_t kMaxInput = 64 * 1024;
constexpr size_t kMaxOutput = 16 << 20;

enum class Verdict { Valid, Invalid, Capped };

struct Result {
    Verdict verdict = Verdict::Invalid;
    size_t size = 0;
    size_t consumed = 0;
};

Result DecodeWithLibbz2(const uint8_t* data, size_t size, uint8_t* out) {
    Result result;
    bz_stream s{};
    if (BZ2_bzDecompressInit(&s, 0, 0) != BZ_OK)
        std::abort();
    s.next_in = const_cast<char*>(reinterpret_cast<const char*>(data));
    s.avail_in = static_cast<unsigned>(size);
    s.next_out = reinterpret_cast<char*>(out);
    s.avail_out = kMaxOutput;
    for (;;) {
        const unsigned inBefore = s.avail_in;
        const unsigned outBefore = s.avail_out;
        const int rc = BZ2_bzDecompress(&s);
        if (rc == BZ_STREAM_END) {
            result.verdict = Verdict::Valid;
            result.consumed = s.total_in_lo32;
            break;
        }
        if (rc != BZ_OK)
            break;
        if (s.avail_out == 0) {
            result.verdict = Verdict::Capped;
            break;
        }
        if (s.avail_in == inBefore && s.avail_out == outBefore)
            break; // cut short
    }
    result.size = kMaxOutput - s.avail_out;
    BZ2_bzDecompressEnd(&s);
    return result;
}

// Read in pieces of a few sizes, so that stopping and going on anywhere is exercised too.
Result DecodeWithDecoder(const uint8_t* data, size_t size, uint8_t* out) {
    static constexpr size_t kPieces[] = {1, 7, 4093, 65536, 1 << 20};
    Result result;
    Bzip2Decoder decoder({data, size});
    for (size_t i = size % 3;; ++i) {
        const size_t piece = std::min(kPieces[i % std::size(kPieces)], kMaxOutput - result.size);
        if (piece == 0) {
            result.verdict = decoder.ended() ? Verdict::Valid : Verdict::Capped;
            break;
        }
        const auto got = decoder.read(out + result.size, piece);
        if (!got)
            return result;
        result.size += *got;
        if (*got < piece) {
            if (!decoder.ended())
                std::abort(); // a short read is the end
            result.verdict = Verdict::Valid;
            break;
        }
    }
    if (result.verdict == Verdict::Valid) {
        if (decoder.read(out, 1) != std::optional<size_t>(0))
            std::abort();
        result.consumed = decoder.consumed();
    }
    return result;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const auto expected = std::make_unique_for_overwrite<uint8_t[]>(kMaxOutput);
    static const auto ours = std::make_unique_for_overwrite<uint8_t[]>(kMaxOutput);
    size = std::min(size, kMaxInput);
    const Result a = DecodeWithLibbz2(data, size, expected.get());
    const Result b = DecodeWithDecoder(data, size, ours.get());
    const bool aDecided = a.verdict != Verdict::Capped;
    const bool bDecided = b.verdict != Verdict::Capped;
    if (aDecided && bDecided) {
        if (a.verdict != b.verdict)
            std::abort();
        if (a.verdict == Verdict::Valid && (a.size != b.size || a.consumed != b.consumed ||
                                            std::memcmp(expected.get(), ours.get(), a.size) != 0))
            std::abort();
        return 0;
    }
    // One stopped at the cap: the other may have failed in a block the first had not finished
    // (a checksum, or a run past the block's end) or not reached; if it ended, it ended right
    // at the cap with the same bytes.
    const Result& decided = aDecided ? a : b;
    if (decided.verdict == Verdict::Invalid)
        return 0;
    if (decided.size != kMaxOutput || std::memcmp(expected.get(), ours.get(), kMaxOutput) != 0)
        std::abort();
    return 0;
}
