#include "CMapVersioner.h"

#include "VersionRegex.h"

namespace {
constexpr std::size_t kBytesToRead = 8192;
constexpr const char* kCMapMark = "begincmap";
constexpr const char* kVersionExpression =
    R"re(/CMapVersion[\s\t]+(\d+)\.(\d+)\.?(\d*)\.?(\d*)[\s\t]+def)re";
} // namespace

bool CMapVersioner::VersionFile(const PlatformFilePath& inPath, OFV_FileVersion& outVersion,
                                OFV_FileType& outType) {
    return ofv::VersionFromLeadingBytes<CMapVersioner>(
        inPath, kBytesToRead,
        // The mark counts anywhere in the bytes read, the last one included; whatever the
        // file's name, a file with the mark is a CMap.
        [](const std::vector<char>& bytes) {
            return ofv::SearchExpression(bytes.data(), bytes.data() + bytes.size(), kCMapMark);
        },
        kVersionExpression, OFV_FileTypeCMap, outVersion, outType);
}
