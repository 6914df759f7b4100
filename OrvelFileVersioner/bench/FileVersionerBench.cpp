// Measures how many files per second OFV_GetFileVersion handles over a generated set of mixed
// files (every kind of versioned file plus plain text, with varying versions and sizes).
//
// Usage: FileVersionerBench [file count] [passes]   (defaults: 10000 files, 3 passes)
// Prints figures only; it is not a test and never fails on slowness.
#include "TempDirectory.h"
#include "VersionerSamples.h"
#include "xplat/OrvelFileVersioner.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

namespace {

using ofv_testing::SampleFile;

std::string Dotted(int a, int b, int c = -1, int d = -1) {
    std::string text = std::to_string(a) + "." + std::to_string(b);
    if (c >= 0) {
        text += "." + std::to_string(c);
    }
    if (d >= 0) {
        text += "." + std::to_string(d);
    }
    return text;
}

// The i-th file of the set: the kinds take turns, and versions and padding vary with i.
SampleFile MakeBenchFile(int i) {
    const int n = i / 10;
    const std::string index = std::to_string(i);
    switch (i % 10) {
    case 0:
        return {"cmap-" + index, ofv_testing::MakeCMapText(Dotted(n % 20, n % 1000))};
    case 1:
        return {"profile-" + index + ".icc",
                ofv_testing::MakeICCProfile(
                    static_cast<uint16_t>(1990 + n % 30), static_cast<uint16_t>(1 + n % 12),
                    static_cast<uint16_t>(1 + n % 28), static_cast<uint16_t>(n % 24),
                    static_cast<uint16_t>(n % 60), static_cast<uint16_t>(n % 60))};
    case 2:
        return {"font-" + index + ".otf",
                ofv_testing::MakeOpenTypeFont("Version " + Dotted(1 + n % 9, n % 1000) + ";ORVL;")};
    case 3:
        // Short enough that the colour-profile versioner passes it on to the PFB versioner.
        return {"font-" + index + ".pfb",
                "/version (" + Dotted(n % 10, n % 10) + ") readonly def\n"};
    case 4:
        return {"map-" + index + ".txt", ofv_testing::MakeUnicodeMap(Dotted(n % 5, n % 10))};
    case 5:
        return {"icu-" + index + ".cnv",
                ofv_testing::MakeICUData("cnvt", {static_cast<uint8_t>(n % 10), 1, 0, 0},
                                         {3, static_cast<uint8_t>(n % 10), 0, 0})};
    case 6:
        return {"fontdb-" + index + ".lst",
                ofv_testing::MakeFontDatabase(Dotted(n % 4, n % 10, n % 100))};
    case 7:
        return {"script-" + index + ".jsx",
                ofv_testing::MakeScript("Tools " + Dotted(n % 30, n % 10, n % 10, n))};
    case 8: {
        // A large text that no versioner recognises: every versioner reads its full prefix.
        std::string text = ofv_testing::MakePlainText();
        text.resize(16384 + static_cast<std::size_t>(n % 512), 'x');
        return {"notes-" + index + ".txt", text};
    }
    default:
        return {"readme-" + index + ".txt", ofv_testing::MakePlainText()};
    }
}

} // namespace

int main(int argc, char** argv) {
    const int fileCount = argc > 1 ? std::max(1, std::atoi(argv[1])) : 10000;
    const int passes = argc > 2 ? std::max(1, std::atoi(argv[2])) : 3;
    try {
        const ofv_testing::TempDirectory folder;
        std::vector<std::string> paths;
        paths.reserve(static_cast<std::size_t>(fileCount));
        for (int i = 0; i < fileCount; ++i) {
            const SampleFile file = MakeBenchFile(i);
            paths.push_back(folder.WriteFile(file.name, file.content));
        }

        std::array<int, 10> typeCounts{};
        double bestSeconds = 0;
        for (int pass = 0; pass < passes; ++pass) {
            typeCounts.fill(0);
            const auto start = std::chrono::steady_clock::now();
            for (const std::string& path : paths) {
                OFV_FileVersion version;
                OFV_FileType type = OFV_FileTypeUnknown;
                if (OFV_GetFileVersion(path.c_str(), &version, &type) == OFV_Success && type >= 0 &&
                    type < static_cast<int>(typeCounts.size())) {
                    ++typeCounts[static_cast<std::size_t>(type)];
                }
            }
            const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
            std::printf("pass %d: %d files in %.3f s, %.0f files/s\n", pass + 1, fileCount,
                        elapsed.count(), fileCount / elapsed.count());
            if (pass == 0 || elapsed.count() < bestSeconds) {
                bestSeconds = elapsed.count();
            }
        }
        std::printf("best: %.0f files/s over %d files\n", fileCount / bestSeconds, fileCount);
        std::printf("recognised by type:");
        for (std::size_t type = 0; type < typeCounts.size(); ++type) {
            std::printf(" %zu=%d", type, typeCounts[type]);
        }
        std::printf("\n");
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "FileVersionerBench: %s\n", e.what());
        return 1;
    }
}
