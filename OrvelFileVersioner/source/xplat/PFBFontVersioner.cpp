#include "PFBFontVersioner.h"

#include "FileUtils.h"
#include "VersionRegex.h"

namespace {
constexpr std::size_t kBytesToRead = 4096;
constexpr std::size_t kMinimumRead = 1;
constexpr const char* kNameExpression = R"re(\.[pP]{1}[fF]{1}[bB]{1}\z)re";
constexpr const char* kVersionExpression =
    R"re(/version[\s\t]+\((\d+)\.(\d+)\.?(\d*)\.?(\d*)\)[\s\t]+readonly[\s\t]+def)re";
} // namespace

bool PFBFontVersioner::VersionFile(const PlatformFilePath& inPath, OFV_FileVersion& outVersion,
                                   OFV_FileType& outType) {
    std::vector<char> bytes;
    if (!ofv::ReadFileBytes(inPath, kBytesToRead, bytes) || bytes.size() < kMinimumRead) {
        return false;
    }
    if (!ofv::SearchExpression(inPath, kNameExpression)) {
        return false;
    }
    boost::cmatch match;
    if (!ofv::SearchExpression(bytes.data(), ofv::VersionSearchEnd(bytes), kVersionExpression,
                               match)) {
        return false;
    }
    ofv::SetVersionFromGroups<PFBFontVersioner>(match, outVersion);
    outType = OFV_FileTypePFBFont;
    return true;
}
