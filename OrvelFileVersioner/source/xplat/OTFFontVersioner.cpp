#include "OTFFontVersioner.h"

#include "VersionRegex.h"

namespace {
constexpr std::size_t kBytesToRead = 8192;
constexpr const char* kNameExpression = R"re(\.[oO]{1}[tT]{1}[fF]{1}\z)re";
constexpr const char* kVersionExpression = R"re((\d+)\.(\d+)\.?(\d*)\.?(\d*);ORVL;)re";
} // namespace

bool OTFFontVersioner::VersionFile(const PlatformFilePath& inPath, OFV_FileVersion& outVersion,
                                   OFV_FileType& outType) {
    return ofv::VersionFromLeadingBytes<OTFFontVersioner>(
        inPath, kBytesToRead,
        // Anchored at the end of the path: X.otf.bak is not a font.
        [&](const std::vector<char>&) { return ofv::SearchExpression(inPath, kNameExpression); },
        kVersionExpression, OFV_FileTypeOTFFont, outVersion, outType);
}
