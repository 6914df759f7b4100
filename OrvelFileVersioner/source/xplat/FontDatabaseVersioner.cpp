#include "FontDatabaseVersioner.h"

#include "FileUtils.h"
#include "VersionRegex.h"

namespace {
constexpr std::size_t kBytesToRead = 2048;
constexpr std::size_t kMinimumRead = 1;
constexpr const char* kDatabaseMark = "Orvel.+Font.+Database";
constexpr const char* kVersionExpression = R"re(version=(\d+)\.(\d+)\.?(\d*)\.?(\d*))re";
} // namespace

bool FontDatabaseVersioner::VersionFile(const PlatformFilePath& inPath, OFV_FileVersion& outVersion,
                                        OFV_FileType& outType) {
    std::vector<char> bytes;
    if (!ofv::ReadFileBytes(inPath, kBytesToRead, bytes) || bytes.size() < kMinimumRead) {
        return false;
    }
    const char* searchEnd = ofv::VersionSearchEnd(bytes);
    if (!ofv::SearchExpression(bytes.data(), searchEnd, kDatabaseMark)) {
        return false;
    }
    boost::cmatch match;
    if (!ofv::SearchExpression(bytes.data(), searchEnd, kVersionExpression, match)) {
        return false;
    }
    ofv::SetVersionFromGroups<FontDatabaseVersioner>(match, outVersion);
    outType = OFV_FileTypeFontDatabase;
    return true;
}
