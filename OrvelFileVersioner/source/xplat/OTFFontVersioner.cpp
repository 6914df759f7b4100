#include "OTFFontVersioner.h"

#include "FileUtils.h"
#include "VersionRegex.h"

namespace {
constexpr std::size_t kBytesToRead = 8192;
constexpr std::size_t kMinimumRead = 1;
constexpr const char* kNameExpression = R"re(\.[oO]{1}[tT]{1}[fF]{1}\z)re";
constexpr const char* kVersionExpression = R"re((\d+)\.(\d+)\.?(\d*)\.?(\d*);ORVL;)re";
} // namespace

bool OTFFontVersioner::VersionFile(const PlatformFilePath& inPath, OFV_FileVersion& outVersion,
                                   OFV_FileType& outType) {
    std::vector<char> bytes;
    if (!ofv::ReadFileBytes(inPath, kBytesToRead, bytes) || bytes.size() < kMinimumRead) {
        return false;
    }
    // Anchored at the end of the path: X.otf.bak is not a font.
    if (!ofv::SearchExpression(inPath, kNameExpression)) {
        return false;
    }
    boost::cmatch match;
    if (!ofv::SearchExpression(bytes.data(), ofv::VersionSearchEnd(bytes), kVersionExpression,
                               match)) {
        return false;
    }
    ofv::SetVersionFromGroups<OTFFontVersioner>(match, outVersion);
    outType = OFV_FileTypeOTFFont;
    return true;
}
