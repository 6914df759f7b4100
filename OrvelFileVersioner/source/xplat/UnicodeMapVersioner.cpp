#include "UnicodeMapVersioner.h"

#include "FileUtils.h"
#include "VersionRegex.h"

namespace {
constexpr std::size_t kBytesToRead = 4096;
constexpr std::size_t kMinimumRead = 1;
constexpr const char* kVersionExpression =
    R"re(##Orvel File Version: (\d+)\.(\d+)\.?(\d*)\.?(\d*))re";
} // namespace

bool UnicodeMapVersioner::VersionFile(const PlatformFilePath& inPath, OFV_FileVersion& outVersion,
                                      OFV_FileType& outType) {
    std::vector<char> bytes;
    if (!ofv::ReadFileBytes(inPath, kBytesToRead, bytes) || bytes.size() < kMinimumRead) {
        return false;
    }
    // The version line is both the mark and the version source.
    boost::cmatch match;
    if (!ofv::SearchExpression(bytes.data(), ofv::VersionSearchEnd(bytes), kVersionExpression,
                               match)) {
        return false;
    }
    ofv::SetVersionFromGroups<UnicodeMapVersioner>(match, outVersion);
    outType = OFV_FileTypeUnicodeMap;
    return true;
}
