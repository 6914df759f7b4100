// Writes the versioner fuzz target's seed corpus into the folder given as the only argument.
// The committed corpus in fuzz/corpus is this program's output; a unit test keeps the two equal.
#include "FuzzSeeds.h"
#include "TempDirectory.h"

#include <cstdio>
#include <exception>
#include <filesystem>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <corpus folder>\n", argv[0]);
        return 2;
    }
    try {
        const std::filesystem::path folder = argv[1];
        std::filesystem::create_directories(folder);
        const auto seeds = ofv_testing::MakeFuzzSeeds();
        for (const ofv_testing::FuzzSeed& seed : seeds) {
            ofv_testing::WriteWholeFile(folder / seed.fileName, seed.bytes);
        }
        std::printf("wrote %zu seeds to %s\n", seeds.size(), folder.c_str());
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
}
