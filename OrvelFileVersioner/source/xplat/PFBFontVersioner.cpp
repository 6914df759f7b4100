#include "PFBFontVersioner.h"

#include "VersionRegex.h"

namespace {
constexpr std::size_t kBytesToRead = 4096;
constexpr const char* kNameExpression = R"re(\.[pP]{1}[fF]{1}[bB]{1}\z)re";
constexpr const char* kVersionExpression =
    R"re(/version[\s\t]+\((\d+)\.(\d+)\.?(\d*)\.?(\d*)\)[\s\t]+readonly[\s\t]+def)re";
} // namespace

bool PFBFontVersioner::VersionFile(const PlatformFilePath& inPath, OFV_FileVersion& outVersion,
                                   OFV_FileType& outType) {
    return ofv::VersionFromLeadingBytes<PFBFontVersioner>(
        inPath, kBytesToRead,
        [&](const std::vector<char>&) { return ofv::SearchExpression(inPath, kNameExpression); },
        kVersionExpression, OFV_FileTypePFBFont, outVersion, outType);
}
