#include "ColorProfileVersioner.h"

#include "FileUtils.h"
#include "VersionRegex.h"

#include <cstdint>
#include <vector>

namespace {
constexpr std::size_t kBytesToRead = 1024;
// The creation date and time fill header bytes 24 to 35.
constexpr std::size_t kMinimumRead = 36;
constexpr std::size_t kDateOffset = 24;
// Unanchored: .icm, .csf, .icc or .pf anywhere in the path, so .pfb and .pfm names and folders
// with such a suffix pass too. Files are claimed by name alone; the header is not checked.
constexpr const char* kNameExpression =
    R"re(\.(([iI]{1}[cC]{1}[mM]{1})|([cC]{1}[sS]{1}[fF]{1})|([iI]{1}[cC]{2})|([pP]{1}[fF]{1})))re";

uint16_t ReadBigEndian16(const std::vector<char>& inBytes, std::size_t inOffset) {
    return static_cast<uint16_t>((static_cast<unsigned char>(inBytes[inOffset]) << 8) |
                                 static_cast<unsigned char>(inBytes[inOffset + 1]));
}
} // namespace

bool ColorProfileVersioner::VersionFile(const PlatformFilePath& inPath, OFV_FileVersion& outVersion,
                                        OFV_FileType& outType) {
    if (!ofv::SearchExpression(inPath, kNameExpression)) {
        return false;
    }
    std::vector<char> bytes;
    if (!ofv::ReadFileBytes(inPath, kBytesToRead, bytes) || bytes.size() < kMinimumRead) {
        return false;
    }
    // Year, month, day, hours, minutes, seconds.
    std::vector<uint16_t> colorProfVers;
    for (std::size_t offset = kDateOffset; offset < kMinimumRead; offset += 2) {
        colorProfVers.push_back(ReadBigEndian16(bytes, offset));
    }
    OFV_ASSERT(6 == colorProfVers.size());

    ofv::ResetVersion(outVersion);
    SetVersionPart(0, colorProfVers[0], outVersion);
    SetVersionPart(1, colorProfVers[1], outVersion);
    SetVersionPart(2, colorProfVers[2], outVersion);
    // Minutes of the day; (seconds + 1) / 60 adds one only at 59 seconds. Profiles already
    // installed were versioned this way, so the rounding stays.
    SetVersionPart(3, colorProfVers[3] * 60 + colorProfVers[4] + (colorProfVers[5] + 1) / 60,
                   outVersion);
    outType = OFV_FileTypeColorProfile;
    return true;
}
