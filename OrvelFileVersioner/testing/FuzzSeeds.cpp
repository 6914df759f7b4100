#include "FuzzSeeds.h"

#include "FuzzInput.h"
#include "VersionerSamples.h"

#include <cstdio>

namespace ofv_testing {

namespace {
void AddSeed(std::vector<FuzzSeed>& ioSeeds, const std::string& inName,
             const std::string& inContent) {
    char prefix[16];
    std::snprintf(prefix, sizeof prefix, "seed-%03zu-", ioSeeds.size());
    std::string fileName = prefix;
    for (char c : inName) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                           (c >= '0' && c <= '9') || c == '.' || c == '-';
        fileName.push_back(plain ? c : '_');
    }
    ioSeeds.push_back({fileName, EncodeFuzzInput(inName, inContent)});
}
} // namespace

std::vector<FuzzSeed> MakeFuzzSeeds() {
    std::vector<FuzzSeed> seeds;
    for (const SampleFile& sample : StandardSamples()) {
        AddSeed(seeds, sample.name, sample.content);
    }

    // Around the colour-profile minimum of 36 bytes and the ICU minimum of 25.
    const std::string profile = MakeICCProfile(2006, 3, 15, 10, 20, 30);
    AddSeed(seeds, "profile.icc", profile.substr(0, 35));
    AddSeed(seeds, "profile.icc", profile.substr(0, 36));
    AddSeed(seeds, "Profiles.icc/readme.txt", profile);
    AddSeed(seeds, "font.pfm", profile);
    const std::string converter = MakeICUData("cnvt", {6, 1, 0, 0}, {3, 0, 0, 0});
    AddSeed(seeds, "orvelcnv.cnv", converter.substr(0, 24));
    AddSeed(seeds, "orvelcnv.cnv", converter.substr(0, 25));
    AddSeed(seeds, "orveldt.dat", MakeICUData("CmnD", {1, 0, 0, 0}, {4, 2, 0, 0}));

    // Names that only nearly match, and a fuzzed-name input.
    AddSeed(seeds, "font.otf.bak", MakeOpenTypeFont("Version 2.004;ORVL;"));
    AddSeed(seeds, "FONT.OTF", MakeOpenTypeFont("Version 2.004;ORVL;"));
    AddSeed(seeds, "font.pfb.bak", "/version (1.2) readonly def\n");
    AddSeed(seeds, "FONT.PFB", "/version (1.2) readonly def\n");
    AddSeed(seeds, "x.ICC.old", MakeICCProfile(2010, 1, 1, 0, 0, 0));

    // Version text cut short by the last byte read, and beyond the read limit.
    AddSeed(seeds, "ORVELSYM.TXT", "##Orvel File Version: 3.12");
    std::string longCMap = MakeCMapText("1.2.3.4");
    longCMap.insert(longCMap.find("/CMapVersion"), std::string(8192, ' '));
    AddSeed(seeds, "Orvel-Test-H", longCMap);
    std::string markAtEnd = "/CMapVersion 1.2 def\n";
    markAtEnd.resize(8192 - 9, ' ');
    markAtEnd += "begincmap";
    AddSeed(seeds, "Orvel-Test-H", markAtEnd);

    // Several version lines, and the greedy build-info line.
    AddSeed(seeds, "OrvelTools.jsx",
            MakeScript("OrvelTools 12.3.4.5 built from 1.2.3.4 on host 10.0.0.1"));
    AddSeed(seeds, "OrvelFontDB.lst", "Orvel Font Database\nversion=1\nversion=2.3\n");
    AddSeed(seeds, "sample.txt", "");
    AddSeed(seeds, "fuzzed name.OTF", "0.0;ORVL;x");
    return seeds;
}

} // namespace ofv_testing
