#include "base/Md5Lanes.h"

#include "TestSupport.h"
#include "base/FileUtil.h"
#include "base/Md5.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <thread>
#include <unistd.h>

namespace {

using Kind = Md5Lanes::Kind;

std::vector<Kind> SupportedKinds() {
    std::vector<Kind> kinds;
    for (const Kind kind : {Kind::Scalar, Kind::Avx2, Kind::Avx512})
        if (Md5Lanes::supports(kind))
            kinds.push_back(kind);
    return kinds;
}

// What the processor itself reports, so that a kind built as a stub by mistake shows.
#if defined(__x86_64__)
bool ProcessorHasAvx2() {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2");
}
bool ProcessorHasAvx512() {
    return ProcessorHasAvx2() && __builtin_cpu_supports("avx512f");
}
#else
bool ProcessorHasAvx2() {
    return false;
}
bool ProcessorHasAvx512() {
    return false;
}
#endif

std::string KindName(Kind kind) {
    switch (kind) {
    case Kind::Avx2:
        return "Avx2";
    case Kind::Avx512:
        return "Avx512";
    case Kind::Scalar:
        break;
    }
    return "Scalar";
}

// What done was given, and how often it was called.
struct Outcome {
    int calls = 0;
    std::optional<std::string> digest;
};

// Reads bytes piece bytes at a time at most (all that is asked for with 0), and fails with
// -1 at read number failAt (counted from 1; never with 0).
Md5Lanes::Read ReaderOf(std::string_view bytes, size_t piece = 0, int failAt = 0) {
    return [bytes, piece, failAt, reads = 0](uint8_t* buffer, size_t size) mutable -> ssize_t {
        if (++reads == failAt)
            return -1;
        const size_t taken = std::min({size, bytes.size(), piece > 0 ? piece : size});
        if (taken > 0)
            std::memcpy(buffer, bytes.data(), taken);
        bytes.remove_prefix(taken);
        return static_cast<ssize_t>(taken);
    };
}

Md5Lanes::Done RecorderOf(Outcome& outcome) {
    return [&outcome](std::optional<std::string> digest) {
        ++outcome.calls;
        outcome.digest = std::move(digest);
    };
}

// Hashes inputs together, each read piece bytes at a time; checks that every done came
// once.
std::vector<std::string> HashTogether(Kind kind, const std::vector<std::string>& inputs,
                                      const std::vector<size_t>& pieces = {}) {
    Md5Lanes md5(kind);
    std::vector<Outcome> outcomes(inputs.size());
    for (size_t i = 0; i < inputs.size(); ++i)
        md5.add(ReaderOf(inputs[i], pieces.empty() ? 0 : pieces[i % pieces.size()]),
                RecorderOf(outcomes[i]));
    md5.run();
    std::vector<std::string> digests;
    for (const Outcome& outcome : outcomes) {
        EXPECT_EQ(outcome.calls, 1);
        digests.push_back(outcome.digest.value_or("(none)"));
    }
    return digests;
}

std::vector<std::string> OpenSslDigests(const std::vector<std::string>& inputs) {
    std::vector<std::string> digests;
    for (const std::string& input : inputs)
        digests.push_back(Md5OfBytes(input));
    return digests;
}

class Md5LanesTest : public testing::TestWithParam<Kind> {};

TEST_P(Md5LanesTest, GivesTheDigestsOfRfc1321) {
    const std::vector<std::pair<std::string, std::string>> vectors = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"1234567890123456789012345678901234567890"
         "1234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    std::vector<std::string_view> inputs;
    for (const auto& [text, digest] : vectors)
        inputs.push_back(text);
    const std::vector<std::string> digests = Md5OfAll(inputs, GetParam());
    ASSERT_EQ(digests.size(), vectors.size());
    for (size_t i = 0; i < vectors.size(); ++i)
        EXPECT_EQ(digests[i], vectors[i].second) << '"' << vectors[i].first << '"';
}

TEST_P(Md5LanesTest, HashesEveryLengthUpTo300) {
    std::vector<std::string> inputs;
    for (size_t size = 0; size <= 300; ++size)
        inputs.push_back(RandomText(size, static_cast<unsigned>(size)));
    EXPECT_EQ(HashTogether(GetParam(), inputs), OpenSslDigests(inputs));
    // Each alone too: then no other lane shares the calls.
    for (const size_t size : {size_t{0}, size_t{55}, size_t{56}, size_t{64}, size_t{300}})
        EXPECT_EQ(HashTogether(GetParam(), {inputs[size]}), OpenSslDigests({inputs[size]})) << size;
}

// Around the padding's edges (55 bytes still leave room for the length in the block, 56 do
// not) and around the 64 KiB read into a lane at a time, delivered whole, 1 and 7 bytes at
// a time.
TEST_P(Md5LanesTest, HashesLengthsAroundBlockAndBufferEdgesInAnyPieces) {
    std::vector<std::string> inputs;
    for (const size_t base : {size_t{0}, size_t{64}, size_t{65536 - 64}, size_t{65536}}) {
        for (const size_t size : {0, 1, 55, 56, 57, 63, 64, 65, 119, 120, 121, 127, 128, 129})
            inputs.push_back(RandomText(base + size, static_cast<unsigned>(inputs.size())));
    }
    const std::vector<std::string> expected = OpenSslDigests(inputs);
    for (const size_t piece : {size_t{0}, size_t{1}, size_t{7}}) {
        SCOPED_TRACE(piece);
        EXPECT_EQ(HashTogether(GetParam(), inputs, {piece}), expected);
    }
    // Pieces of different sizes in different lanes at once.
    EXPECT_EQ(HashTogether(GetParam(), inputs, {1, 7, 0, 4096, 63, 65}), expected);
}

TEST_P(Md5LanesTest, HashesLargeInputs) {
    const std::vector<std::string> inputs = {RandomText(5 * 1024 * 1024 + 3, 1),
                                             RandomText(8 * 1024 * 1024, 2), RandomText(1, 3),
                                             RandomText(3 * 1024 * 1024 + 56, 4)};
    EXPECT_EQ(HashTogether(GetParam(), inputs, {0, 0, 0, 4099}), OpenSslDigests(inputs));
}

// 1 to 40 inputs of lengths that end in different reads, so that lanes refill at different
// times and the last ones run with idle lanes or alone.
TEST_P(Md5LanesTest, RefillsLanesAsInputsEnd) {
    std::mt19937 random(7);
    for (size_t count = 1; count <= 40; ++count) {
        SCOPED_TRACE(count);
        std::vector<std::string> inputs;
        for (size_t i = 0; i < count; ++i) {
            const size_t size = random() % 8 == 0 ? 200000 + random() % 100000 : random() % 70000;
            inputs.push_back(RandomText(size, static_cast<unsigned>(random())));
        }
        EXPECT_EQ(HashTogether(GetParam(), inputs, {0, 4096, 1000, 65521}), OpenSslDigests(inputs));
    }
}

// One long input among short ones carries on alone once they are done.
TEST_P(Md5LanesTest, KeepsTheStateOfAnInputLeftAlone) {
    std::vector<std::string> inputs = {RandomText(1000000, 1)};
    for (unsigned i = 0; i < 20; ++i)
        inputs.push_back(RandomText(1000 + 3000 * i, 10 + i));
    inputs.push_back(RandomText(300000, 2));
    EXPECT_EQ(HashTogether(GetParam(), inputs), OpenSslDigests(inputs));
}

// The read error comes at every read of one input in turn, and once after its last one.
TEST_P(Md5LanesTest, ReadErrorLeavesThatInputWithoutDigestAndTheOthersRight) {
    std::vector<std::string> inputs;
    for (size_t i = 0; i < 20; ++i)
        inputs.push_back(RandomText(150 + 20 * i, static_cast<unsigned>(i)));
    const std::vector<std::string> expected = OpenSslDigests(inputs);
    const size_t failing = 5;
    const int reads = static_cast<int>((inputs[failing].size() + 6) / 7) + 1; // with the final 0
    for (int failAt = 1; failAt <= reads + 1; ++failAt) {
        SCOPED_TRACE(failAt);
        Md5Lanes md5(GetParam());
        std::vector<Outcome> outcomes(inputs.size());
        for (size_t i = 0; i < inputs.size(); ++i)
            md5.add(ReaderOf(inputs[i], 7, i == failing ? failAt : 0), RecorderOf(outcomes[i]));
        md5.run();
        for (size_t i = 0; i < inputs.size(); ++i) {
            EXPECT_EQ(outcomes[i].calls, 1) << i;
            const std::optional<std::string> want =
                i == failing && failAt <= reads ? std::nullopt : std::optional(expected[i]);
            EXPECT_EQ(outcomes[i].digest, want) << i;
        }
    }
}

TEST_P(Md5LanesTest, StopsMidwayWithoutCallingTheUnfinished) {
    std::vector<std::string> inputs;
    for (size_t i = 0; i < 40; ++i)
        inputs.push_back(RandomText(10000 + 5000 * i, static_cast<unsigned>(i)));
    const std::vector<std::string> expected = OpenSslDigests(inputs);
    std::atomic<bool> stop = false;
    size_t bytesRead = 0;
    Md5Lanes md5(GetParam());
    std::vector<Outcome> outcomes(inputs.size());
    for (size_t i = 0; i < inputs.size(); ++i) {
        md5.add(
            [&, read = ReaderOf(inputs[i])](uint8_t* buffer, size_t size) {
                const ssize_t got = read(buffer, size);
                bytesRead += static_cast<size_t>(std::max<ssize_t>(got, 0));
                if (bytesRead > 2000000)
                    stop = true;
                return got;
            },
            RecorderOf(outcomes[i]));
    }
    md5.run(&stop);
    size_t finished = 0;
    for (size_t i = 0; i < inputs.size(); ++i) {
        EXPECT_LE(outcomes[i].calls, 1) << i;
        if (outcomes[i].calls == 1) {
            ++finished;
            EXPECT_EQ(outcomes[i].digest, expected[i]) << i;
        }
    }
    EXPECT_GT(finished, 0u);
    EXPECT_LT(finished, inputs.size());

    // The dropped inputs stay dropped; new ones are hashed.
    Outcome later;
    md5.add(ReaderOf(inputs[0]), RecorderOf(later));
    stop = false;
    md5.run(&stop);
    EXPECT_EQ(later.calls, 1);
    EXPECT_EQ(later.digest, expected[0]);
    for (size_t i = 0; i < inputs.size(); ++i)
        EXPECT_LE(outcomes[i].calls, 1) << i;

    // Set before the run: nothing is read and nothing is called.
    Outcome never;
    md5.add(
        [](uint8_t*, size_t) -> ssize_t {
            ADD_FAILURE() << "read after stop";
            return 0;
        },
        RecorderOf(never));
    stop = true;
    md5.run(&stop);
    EXPECT_EQ(never.calls, 0);
}

TEST_P(Md5LanesTest, DoneRunsOnTheRunningThreadAndMayAddInputs) {
    const std::string first = RandomText(100, 1);
    const std::string added = RandomText(200000, 2);
    Md5Lanes md5(GetParam());
    Outcome addedOutcome;
    std::vector<std::thread::id> threads;
    md5.add(ReaderOf(first), [&](std::optional<std::string> digest) {
        threads.push_back(std::this_thread::get_id());
        EXPECT_EQ(digest, Md5OfBytes(first));
        md5.add(ReaderOf(added), [&](std::optional<std::string> digest) {
            threads.push_back(std::this_thread::get_id());
            addedOutcome.digest = std::move(digest);
            ++addedOutcome.calls;
        });
    });
    md5.run();
    EXPECT_EQ(addedOutcome.calls, 1);
    EXPECT_EQ(addedOutcome.digest, Md5OfBytes(added));
    EXPECT_EQ(threads, std::vector<std::thread::id>(2, std::this_thread::get_id()));
}

// Each input is done as soon as it ends, not when the run ends.
TEST_P(Md5LanesTest, ReportsShortInputsBeforeLongOnes) {
    const std::vector<std::string> inputs = {RandomText(3000000, 1), RandomText(10, 2),
                                             RandomText(70000, 3)};
    Md5Lanes md5(GetParam());
    std::vector<size_t> order;
    for (size_t i = 0; i < inputs.size(); ++i)
        md5.add(ReaderOf(inputs[i]),
                [&order, i](std::optional<std::string>) { order.push_back(i); });
    md5.run();
    const std::vector<size_t> expected = Md5Lanes::lanes(GetParam()) == 1
                                             ? std::vector<size_t>{0, 1, 2}
                                             : std::vector<size_t>{1, 2, 0};
    EXPECT_EQ(order, expected);
}

TEST_P(Md5LanesTest, HashesFilesReadThroughDescriptors) {
    TempDir dir;
    std::vector<std::string> paths;
    for (const size_t size : {0, 1, 4096, 65536, 65600, 1000000}) {
        paths.push_back(dir.file("f" + std::to_string(size)));
        WriteTextFile(paths.back(), RandomText(size, static_cast<unsigned>(size)));
    }
    Md5Lanes md5(GetParam());
    std::vector<UniqueFd> files;
    std::vector<Outcome> outcomes(paths.size());
    for (size_t i = 0; i < paths.size(); ++i) {
        files.emplace_back(::open(paths[i].c_str(), O_RDONLY | O_CLOEXEC));
        ASSERT_TRUE(files.back().valid());
        md5.add([fd = files.back().get()](uint8_t* buffer,
                                          size_t size) { return ::read(fd, buffer, size); },
                RecorderOf(outcomes[i]));
    }
    md5.run();
    for (size_t i = 0; i < paths.size(); ++i) {
        EXPECT_EQ(outcomes[i].calls, 1);
        EXPECT_EQ(outcomes[i].digest, Md5OfFile(paths[i])) << paths[i];
    }
}

INSTANTIATE_TEST_SUITE_P(EachKindThisProcessorRuns, Md5LanesTest,
                         testing::ValuesIn(SupportedKinds()),
                         [](const testing::TestParamInfo<Kind>& info) {
                             return KindName(info.param);
                         });

TEST(Md5LanesKindsTest, WidestSupportedKindIsTheDefault) {
    EXPECT_TRUE(Md5Lanes::supports(Kind::Scalar));
    EXPECT_EQ(Md5Lanes::lanes(Kind::Scalar), 1u);
    EXPECT_EQ(Md5Lanes::lanes(Kind::Avx2), 8u);
    EXPECT_EQ(Md5Lanes::lanes(Kind::Avx512), 16u);
    EXPECT_EQ(Md5Lanes::bestKind(), SupportedKinds().back());
    EXPECT_EQ(Md5Lanes::lanes(), Md5Lanes::lanes(Md5Lanes::bestKind()));
    EXPECT_EQ(Md5Lanes::supports(Kind::Avx2), ProcessorHasAvx2());
    EXPECT_EQ(Md5Lanes::supports(Kind::Avx512), ProcessorHasAvx512());
}

TEST(Md5LanesKindsTest, EveryKindGivesTheSameDigests) {
    std::mt19937 random(11);
    std::vector<std::string> inputs;
    std::vector<std::string_view> views;
    for (size_t i = 0; i < 50; ++i)
        inputs.push_back(RandomText(random() % 150000, static_cast<unsigned>(i)));
    views.assign(inputs.begin(), inputs.end());
    const std::vector<std::string> expected = OpenSslDigests(inputs);
    for (const Kind kind : SupportedKinds())
        EXPECT_EQ(Md5OfAll(views, kind), expected) << KindName(kind);
    EXPECT_EQ(Md5OfAll(views), expected);
    EXPECT_TRUE(Md5OfAll({}).empty());
}

} // namespace
