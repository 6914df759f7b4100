// The eight-lane block function, built with -mavx2 (see CMakeLists.txt). Only intrinsics
// and constants live here: an inline function of a library header compiled in this file
// could be the copy the linker keeps for the whole program, and then run on a processor
// without AVX2.

#include "base/Md5Steps.h"

#include <cstddef>
#include <cstdint>

bool Md5LanesAvx2Runs();
void Md5BlocksAvx2(uint32_t* state, const uint8_t* const* data, size_t count);

#if defined(__AVX2__)

#include <immintrin.h>
#include <utility>

namespace {

using md5_steps::kShifts;
using md5_steps::kSines;
using md5_steps::WordOf;

// As the scalar step in Md5Lanes.cpp, lane by lane, arranged for the chain of dependent
// instructions that sets the speed: early holds a + word + constant, summed steps ahead (the
// step leaves in it the next step's sum), and the round functions let b, the newest word,
// through two instructions at most. The empty asm statements keep the compiler from
// regrouping the additions and putting the early terms after f, on the chain.
template <int kStep>
[[gnu::always_inline]] inline void Step(__m256i& a, __m256i b, __m256i c, __m256i d, __m256i& early,
                                        const __m256i (&x)[16], const uint32_t* sines) {
    __m256i next = early;
    if constexpr (kStep < 63) {
        next = _mm256_add_epi32(
            d, _mm256_add_epi32(x[WordOf(kStep + 1)],
                                _mm256_set1_epi32(static_cast<int>(sines[kStep + 1]))));
        __asm__("" : "+x"(next));
    }
    __m256i sum;
    if constexpr (kStep < 16) {
        sum = _mm256_add_epi32(early,
                               _mm256_xor_si256(d, _mm256_and_si256(b, _mm256_xor_si256(c, d))));
    } else if constexpr (kStep < 32) {
        // (b & d) and (c & ~d) have no bit in common, so adding them is or-ing them, and
        // the part without b joins the early sum first.
        __m256i partial = _mm256_add_epi32(early, _mm256_andnot_si256(d, c));
        __asm__("" : "+x"(partial));
        sum = _mm256_add_epi32(partial, _mm256_and_si256(b, d));
    } else if constexpr (kStep < 48) {
        sum = _mm256_add_epi32(early, _mm256_xor_si256(b, _mm256_xor_si256(c, d)));
    } else {
        const __m256i notD = _mm256_xor_si256(d, _mm256_set1_epi32(-1));
        sum = _mm256_add_epi32(early, _mm256_xor_si256(c, _mm256_or_si256(b, notD)));
    }
    constexpr int kShift = kShifts[kStep / 16][kStep % 4];
    a = _mm256_add_epi32(
        b, _mm256_or_si256(_mm256_slli_epi32(sum, kShift), _mm256_srli_epi32(sum, 32 - kShift)));
    early = next;
}

// The words change roles at every step instead of being moved.
template <int kFirst>
[[gnu::always_inline]] inline void FourSteps(__m256i& a, __m256i& b, __m256i& c, __m256i& d,
                                             __m256i& early, const __m256i (&x)[16],
                                             const uint32_t* sines) {
    Step<kFirst>(a, b, c, d, early, x, sines);
    Step<kFirst + 1>(d, a, b, c, early, x, sines);
    Step<kFirst + 2>(c, d, a, b, early, x, sines);
    Step<kFirst + 3>(b, c, d, a, early, x, sines);
}

template <int... kFours>
[[gnu::always_inline]] inline void Steps(__m256i& a, __m256i& b, __m256i& c, __m256i& d,
                                         const __m256i (&x)[16], const uint32_t* sines,
                                         std::integer_sequence<int, kFours...>) {
    __m256i early =
        _mm256_add_epi32(a, _mm256_add_epi32(x[0], _mm256_set1_epi32(static_cast<int>(sines[0]))));
    (FourSteps<4 * kFours>(a, b, c, d, early, x, sines), ...);
}

// x[k] becomes word k of the eight rows r (lane i = row i): pairs of words, then
// quadruples inside each 128-bit half, then the halves across registers.
[[gnu::always_inline]] inline void Transpose(const __m256i (&r)[8], __m256i* x) {
    __m256i t[8];
#pragma GCC unroll 8
    for (int i = 0; i < 8; i += 2) {
        t[i] = _mm256_unpacklo_epi32(r[i], r[i + 1]);
        t[i + 1] = _mm256_unpackhi_epi32(r[i], r[i + 1]);
    }
    // s[4g + m]: rows 4g..4g+3, word m in the low half and word 4+m in the high one.
    __m256i s[8];
#pragma GCC unroll 2
    for (int g = 0; g < 2; ++g) {
        s[4 * g + 0] = _mm256_unpacklo_epi64(t[4 * g], t[4 * g + 2]);
        s[4 * g + 1] = _mm256_unpackhi_epi64(t[4 * g], t[4 * g + 2]);
        s[4 * g + 2] = _mm256_unpacklo_epi64(t[4 * g + 1], t[4 * g + 3]);
        s[4 * g + 3] = _mm256_unpackhi_epi64(t[4 * g + 1], t[4 * g + 3]);
    }
#pragma GCC unroll 4
    for (int m = 0; m < 4; ++m) {
        x[m] = _mm256_permute2x128_si256(s[m], s[4 + m], 0x20);
        x[4 + m] = _mm256_permute2x128_si256(s[m], s[4 + m], 0x31);
    }
}

} // namespace

bool Md5LanesAvx2Runs() {
    // Also checks that the operating system saves the registers.
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2");
}

void Md5BlocksAvx2(uint32_t* state, const uint8_t* const* data, size_t count) {
    const auto load = [state](int word) {
        return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(state + 8 * word));
    };
    __m256i a = load(0);
    __m256i b = load(1);
    __m256i c = load(2);
    __m256i d = load(3);
    // Read from memory, the constants are spread over the lanes where they are added; seen as
    // constants, each would cost an instruction more.
    const uint32_t* sines = kSines;
    __asm__("" : "+r"(sines));
    for (size_t offset = 0; offset < count * 64; offset += 64) {
        __m256i x[16];
#pragma GCC unroll 2
        for (int half = 0; half < 2; ++half) {
            __m256i r[8];
#pragma GCC unroll 8
            for (int i = 0; i < 8; ++i)
                r[i] = _mm256_loadu_si256(
                    reinterpret_cast<const __m256i*>(data[i] + offset + 32 * half));
            Transpose(r, x + 8 * half);
        }
        const __m256i a0 = a, b0 = b, c0 = c, d0 = d;
        Steps(a, b, c, d, x, sines, std::make_integer_sequence<int, 16>{});
        a = _mm256_add_epi32(a, a0);
        b = _mm256_add_epi32(b, b0);
        c = _mm256_add_epi32(c, c0);
        d = _mm256_add_epi32(d, d0);
    }
    const auto store = [state](int word, __m256i value) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(state + 8 * word), value);
    };
    store(0, a);
    store(1, b);
    store(2, c);
    store(3, d);
}

#else

bool Md5LanesAvx2Runs() {
    return false;
}

void Md5BlocksAvx2(uint32_t*, const uint8_t* const*, size_t) {
    __builtin_trap();
}

#endif
