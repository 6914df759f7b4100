// The sixteen-lane block function, built with -mavx512f (see CMakeLists.txt). Only
// intrinsics and constants live here: an inline function of a library header compiled in
// this file could be the copy the linker keeps for the whole program, and then run on a
// processor without AVX-512.

#include "base/Md5Steps.h"

#include <cstddef>
#include <cstdint>

bool Md5LanesAvx512Runs();
void Md5BlocksAvx512(uint32_t* state, const uint8_t* const* data, size_t count);

#if defined(__AVX512F__)

// GCC 12's AVX-512 intrinsics start their results from a self-initialised "undefined"
// register, which its own uninitialised-use warning then reports (clang has no such warning).
#pragma GCC diagnostic push
#if !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>
#pragma GCC diagnostic pop
#include <utility>

namespace {

using md5_steps::kShifts;
using md5_steps::kSines;
using md5_steps::WordOf;

// x[k] becomes word k of the sixteen blocks (lane i = block i): pairs of words, then
// quadruples inside each 128-bit part, then the parts across registers.
[[gnu::always_inline]] inline void LoadWords(const uint8_t* const* data, size_t offset,
                                             __m512i (&x)[16]) {
    __m512i r[16];
#pragma GCC unroll 16
    for (int i = 0; i < 16; ++i)
        r[i] = _mm512_loadu_si512(data[i] + offset);
    __m512i t[16];
#pragma GCC unroll 16
    for (int i = 0; i < 16; i += 2) {
        t[i] = _mm512_unpacklo_epi32(r[i], r[i + 1]);
        t[i + 1] = _mm512_unpackhi_epi32(r[i], r[i + 1]);
    }
    // u[4g + m]: blocks 4g..4g+3, word 4j+m in part j.
    __m512i u[16];
#pragma GCC unroll 4
    for (int g = 0; g < 4; ++g) {
        u[4 * g + 0] = _mm512_unpacklo_epi64(t[4 * g], t[4 * g + 2]);
        u[4 * g + 1] = _mm512_unpackhi_epi64(t[4 * g], t[4 * g + 2]);
        u[4 * g + 2] = _mm512_unpacklo_epi64(t[4 * g + 1], t[4 * g + 3]);
        u[4 * g + 3] = _mm512_unpackhi_epi64(t[4 * g + 1], t[4 * g + 3]);
    }
#pragma GCC unroll 4
    for (int m = 0; m < 4; ++m) {
        const __m512i p0 = _mm512_shuffle_i32x4(u[m], u[4 + m], 0x44);
        const __m512i p1 = _mm512_shuffle_i32x4(u[m], u[4 + m], 0xEE);
        const __m512i p2 = _mm512_shuffle_i32x4(u[8 + m], u[12 + m], 0x44);
        const __m512i p3 = _mm512_shuffle_i32x4(u[8 + m], u[12 + m], 0xEE);
        x[m] = _mm512_shuffle_i32x4(p0, p2, 0x88);
        x[4 + m] = _mm512_shuffle_i32x4(p0, p2, 0xDD);
        x[8 + m] = _mm512_shuffle_i32x4(p1, p3, 0x88);
        x[12 + m] = _mm512_shuffle_i32x4(p1, p3, 0xDD);
    }
}

// As the scalar step in Md5Lanes.cpp, lane by lane, arranged for the chain of dependent
// instructions that sets the speed: ternary logic, addition, rotation, addition.
// early holds a + word + constant, summed steps ahead; the step leaves in it the next step's
// sum, whose a is this d. d is then free to take f: the ternary-logic instruction writes
// over its first operand, and any other would need a copy first. The immediate is the
// round function's truth table over (d, b, c). The empty asm keeps the compiler from
// regrouping the additions and putting the word after f, on the chain.
template <int kStep>
[[gnu::always_inline]] inline void Step(__m512i& a, __m512i b, __m512i c, __m512i d, __m512i& early,
                                        const __m512i (&x)[16], const uint32_t* sines) {
    __m512i next = early;
    if constexpr (kStep < 63) {
        next = _mm512_add_epi32(
            d, _mm512_add_epi32(x[WordOf(kStep + 1)],
                                _mm512_set1_epi32(static_cast<int>(sines[kStep + 1]))));
        __asm__("" : "+v"(next));
    }
    constexpr int kTable = kStep < 16 ? 0xB8 : kStep < 32 ? 0xCA : kStep < 48 ? 0x96 : 0x65;
    constexpr int kShift = kShifts[kStep / 16][kStep % 4];
    const __m512i f = _mm512_ternarylogic_epi32(d, b, c, kTable);
    a = _mm512_add_epi32(b, _mm512_rol_epi32(_mm512_add_epi32(early, f), kShift));
    early = next;
}

// The words change roles at every step instead of being moved.
template <int kFirst>
[[gnu::always_inline]] inline void FourSteps(__m512i& a, __m512i& b, __m512i& c, __m512i& d,
                                             __m512i& early, const __m512i (&x)[16],
                                             const uint32_t* sines) {
    Step<kFirst>(a, b, c, d, early, x, sines);
    Step<kFirst + 1>(d, a, b, c, early, x, sines);
    Step<kFirst + 2>(c, d, a, b, early, x, sines);
    Step<kFirst + 3>(b, c, d, a, early, x, sines);
}

template <int... kFours>
[[gnu::always_inline]] inline void Steps(__m512i& a, __m512i& b, __m512i& c, __m512i& d,
                                         const __m512i (&x)[16], const uint32_t* sines,
                                         std::integer_sequence<int, kFours...>) {
    __m512i early =
        _mm512_add_epi32(a, _mm512_add_epi32(x[0], _mm512_set1_epi32(static_cast<int>(sines[0]))));
    (FourSteps<4 * kFours>(a, b, c, d, early, x, sines), ...);
}

} // namespace

bool Md5LanesAvx512Runs() {
    // Also checks that the operating system saves the registers.
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx512f");
}

void Md5BlocksAvx512(uint32_t* state, const uint8_t* const* data, size_t count) {
    __m512i a = _mm512_loadu_si512(state);
    __m512i b = _mm512_loadu_si512(state + 16);
    __m512i c = _mm512_loadu_si512(state + 32);
    __m512i d = _mm512_loadu_si512(state + 48);
    // Read from memory, each constant is spread over the lanes by the addition that takes it;
    // seen as constants, they would each cost an instruction more.
    const uint32_t* sines = kSines;
    __asm__("" : "+r"(sines));
    for (size_t offset = 0; offset < count * 64; offset += 64) {
        __m512i x[16];
        LoadWords(data, offset, x);
        const __m512i a0 = a, b0 = b, c0 = c, d0 = d;
        Steps(a, b, c, d, x, sines, std::make_integer_sequence<int, 16>{});
        a = _mm512_add_epi32(a, a0);
        b = _mm512_add_epi32(b, b0);
        c = _mm512_add_epi32(c, c0);
        d = _mm512_add_epi32(d, d0);
    }
    _mm512_storeu_si512(state, a);
    _mm512_storeu_si512(state + 16, b);
    _mm512_storeu_si512(state + 32, c);
    _mm512_storeu_si512(state + 48, d);
}

#else

bool Md5LanesAvx512Runs() {
    return false;
}

void Md5BlocksAvx512(uint32_t*, const uint8_t* const*, size_t) {
    __builtin_trap();
}

#endif
