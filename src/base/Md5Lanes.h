#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

// Many byte streams hashed together, one per SIMD lane: the MD5 of one stream is a chain
// of dependent steps that no vector unit can shorten, but the same step of 8 or 16
// independent streams costs one vector instruction. Digests are what Md5Stream::finish()
// gives (lower-case hexadecimal, as md5sum prints). One thread uses an object: add() is not
// to be called from another thread while run() goes on.
class Md5Lanes {
public:
    // The block functions, narrowest first; all give the same digests.
    enum class Kind { Scalar, Avx2, Avx512 };

    // One input: read fills up to size bytes of buffer and returns how many (0 at the end of
    // the input, -1 on a read error); done receives the digest, or nothing after a read error.
    // done is called on the thread that calls run(), as soon as that input is finished, and
    // may add more inputs.
    using Read = std::function<ssize_t(uint8_t* buffer, size_t size)>;
    using Done = std::function<void(std::optional<std::string> digest)>;

    // The widest kind by default; tests force each kind the processor runs.
    explicit Md5Lanes(Kind kind = bestKind());

    void add(Read read, Done done);
    // Hashes every input added, several at a time (as many as the kind has lanes),
    // refilling a lane with the next input as soon as its input ends; returns when all are
    // done, or early when stop (if given) is set: the inputs not finished then are dropped
    // without a done call.
    void run(const std::atomic<bool>* stop = nullptr);

    // The lanes this processor hashes at once: 16 (AVX-512), 8 (AVX2) or 1.
    static size_t lanes();
    static size_t lanes(Kind kind);
    // The widest kind this processor (and its operating system) runs.
    static Kind bestKind();
    // Whether kind runs here; Scalar always does.
    static bool supports(Kind kind);

private:
    struct Input {
        Read read;
        Done done;
    };
    Kind _kind;
    std::deque<Input> _waiting;
};

// The digests of byte strings in memory, hashed together, in the order of inputs.
[[nodiscard]] std::vector<std::string> Md5OfAll(const std::vector<std::string_view>& inputs,
                                                Md5Lanes::Kind kind = Md5Lanes::bestKind());
