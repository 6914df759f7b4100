#include "CMapVersioner.h"

#include "FileUtils.h"
#include "VersionRegex.h"

namespace {
constexpr std::size_t kBytesToRead = 8192;
constexpr std::size_t kMinimumRead = 1;
constexpr const char* kCMapMark = "begincmap";
constexpr const char* kVersionExpression =
    R"re(/CMapVersion[\s\t]+(\d+)\.(\d+)\.?(\d*)\.?(\d*)[\s\t]+def)re";
} // namespace

bool CMapVersioner::VersionFile(const PlatformFilePath& inPath, OFV_FileVersion& outVersion,
                                OFV_FileType& outType) {
    std::vector<char> bytes;
    if (!ofv::ReadFileBytes(inPath, kBytesToRead, bytes) || bytes.size() < kMinimumRead) {
        return false;
    }
    // The mark counts anywhere in the bytes read, the last one included; whatever the file's
    // name, a file with the mark is a CMap.
    if (!ofv::SearchExpression(bytes.data(), bytes.data() + bytes.size(), kCMapMark)) {
        return false;
    }
    boost::cmatch match;
    if (!ofv::SearchExpression(bytes.data(), ofv::VersionSearchEnd(bytes), kVersionExpression,
                               match)) {
        return false;
    }
    outType = OFV_FileTypeCMap;
    ofv::SetVersionFromGroups<CMapVersioner>(match, outVersion);
    return true;
}
