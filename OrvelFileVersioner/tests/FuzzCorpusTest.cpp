// The committed seed corpus of the fuzz target must be exactly what the seed generator makes
// from the test inputs, so the two cannot drift apart.
#include "FuzzInput.h"
#include "FuzzSeeds.h"
#include "VersionerSamples.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>

namespace ofv_testing {
namespace {

std::string ReadWholeFile(const std::filesystem::path& inPath) {
    std::ifstream in(inPath, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(VersionerFuzzCorpusTest, CommittedCorpusIsTheGeneratorsOutput) {
    std::map<std::string, std::string> committed;
    for (const auto& entry : std::filesystem::directory_iterator(ORVEL_FUZZ_CORPUS_DIR)) {
        committed[entry.path().filename().string()] = ReadWholeFile(entry.path());
    }
    std::map<std::string, std::string> generated;
    for (const FuzzSeed& seed : MakeFuzzSeeds()) {
        EXPECT_TRUE(generated.emplace(seed.fileName, seed.bytes).second) << seed.fileName;
    }

    EXPECT_EQ(committed.size(), generated.size())
        << "regenerate with: FileVersionerFuzzCorpus " ORVEL_FUZZ_CORPUS_DIR;
    for (const auto& [name, bytes] : generated) {
        const auto found = committed.find(name);
        ASSERT_NE(found, committed.end()) << name << " is missing from the committed corpus";
        EXPECT_EQ(found->second, bytes) << name << " differs from the generator's output";
    }
}

TEST(VersionerFuzzCorpusTest, EverySampleRoundTripsThroughTheInputLayout) {
    for (const SampleFile& sample : StandardSamples()) {
        const std::string bytes = EncodeFuzzInput(sample.name, sample.content);
        const FuzzInput input =
            DecodeFuzzInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
        EXPECT_EQ(input.name, sample.name);
        EXPECT_EQ(input.content, sample.content);
    }
}

TEST(VersionerFuzzCorpusTest, FuzzedNamesStayOneFileInTheScratchFolder) {
    const uint8_t slashes[] = {0xF0, 5, 'a', '/', '.', '\0', 'b', 'x'};
    EXPECT_EQ(DecodeFuzzInput(slashes, sizeof slashes).name, std::string("a_._b"));
    EXPECT_EQ(DecodeFuzzInput(slashes, sizeof slashes).content, "x");

    const uint8_t dots[] = {0xF0, 2, '.', '.'};
    EXPECT_EQ(DecodeFuzzInput(dots, sizeof dots).name, "_");
    const uint8_t truncated[] = {0xF0, 200, 'n'};
    EXPECT_EQ(DecodeFuzzInput(truncated, sizeof truncated).name, "n");
    EXPECT_EQ(DecodeFuzzInput(nullptr, 0).name, kFuzzFileNames[0]);
}

} // namespace
} // namespace ofv_testing
