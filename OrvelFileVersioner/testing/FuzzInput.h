// The byte layout of one fuzz input: which file name to use, and the file's content.
//
//   byte 0 < kFuzzFileNames.size():  the name kFuzzFileNames[byte 0]; the rest is the content.
//   otherwise:                       byte 1 is a length n; the next n bytes (as many as there
//                                    are) are the name, the rest is the content.
//
// Fuzzed names have '/' and NUL replaced by '_' so they stay one file in the scratch folder;
// the listed names cover the folder cases.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace ofv_testing {

inline constexpr std::array<std::string_view, 20> kFuzzFileNames = {
    "sample.txt",
    "Font.otf",
    "FONT.OTF",
    "font.otf.bak",
    "font.pfb",
    "FONT.PFB",
    "font.pfb.bak",
    "font.pfm",
    "profile.icc",
    "Profile.ICM",
    "profile.Csf",
    "profile.pf",
    "Profiles.icc/readme.txt",
    "Orvel-Test-H",
    "ORVELSYM.TXT",
    "orvelcnv.cnv",
    "orveldt.dat",
    "OrvelFontDB.lst",
    "OrvelTools.jsx",
    "noextension",
};

struct FuzzInput {
    std::string name;
    std::string content;
};

inline FuzzInput DecodeFuzzInput(const uint8_t* inData, std::size_t inSize) {
    FuzzInput input;
    if (inSize == 0) {
        input.name = kFuzzFileNames[0];
        return input;
    }
    std::size_t offset = 1;
    if (inData[0] < kFuzzFileNames.size()) {
        input.name = kFuzzFileNames[inData[0]];
    } else {
        std::size_t length = 0;
        if (offset < inSize) {
            length = inData[offset++];
        }
        length = std::min(length, inSize - offset);
        input.name.assign(reinterpret_cast<const char*>(inData + offset), length);
        offset += length;
        for (char& c : input.name) {
            if (c == '/' || c == '\0') {
                c = '_';
            }
        }
        if (input.name.empty() || input.name == "." || input.name == "..") {
            input.name = "_";
        }
    }
    input.content.assign(reinterpret_cast<const char*>(inData + offset), inSize - offset);
    return input;
}

// The input that DecodeFuzzInput turns into inName and inContent; inName must be one of
// kFuzzFileNames or at most 255 bytes without '/' or NUL.
inline std::string EncodeFuzzInput(std::string_view inName, std::string_view inContent) {
    std::string bytes;
    for (std::size_t i = 0; i < kFuzzFileNames.size(); ++i) {
        if (kFuzzFileNames[i] == inName) {
            bytes.push_back(static_cast<char>(i));
            bytes.append(inContent);
            return bytes;
        }
    }
    bytes.push_back(static_cast<char>(0xFF));
    bytes.push_back(static_cast<char>(inName.size()));
    bytes.append(inName);
    bytes.append(inContent);
    return bytes;
}

} // namespace ofv_testing
