#pragma once

#include <string>
#include <vector>

namespace ofv_testing {

struct FuzzSeed {
    std::string fileName; // name of the seed file in the corpus folder
    std::string bytes;    // the encoded fuzz input
};

// The seed corpus of the versioner fuzz target: every standard sample, plus the edge-case
// inputs of the unit tests (boundary lengths, names that only nearly match, the 8192-byte
// read limit).
std::vector<FuzzSeed> MakeFuzzSeeds();

} // namespace ofv_testing
