#include "JSXVersioner.h"

#include "FileUtils.h"
#include "VersionRegex.h"

namespace {
constexpr std::size_t kBytesToRead = 1024;
constexpr std::size_t kMinimumRead = 1;
// The greedy ".+" leaves group 1 only the last digit of the first number
// ("@@@BUILDINFO@@@ 12.3.4.5" gives 2.3.4.5). Installed scripts were versioned with this
// expression, so it has to stay as it is for old and new files to compare alike.
constexpr const char* kVersionExpression = R"re(@@@BUILDINFO@@@.+(\d+)\.(\d+)\.(\d+)\.(\d+))re";
} // namespace

bool JSXVersioner::VersionFile(const PlatformFilePath& inPath, OFV_FileVersion& outVersion,
                               OFV_FileType& outType) {
    std::vector<char> bytes;
    if (!ofv::ReadFileBytes(inPath, kBytesToRead, bytes) || bytes.size() < kMinimumRead) {
        return false;
    }
    boost::cmatch match;
    if (!ofv::SearchExpression(bytes.data(), ofv::VersionSearchEnd(bytes), kVersionExpression,
                               match)) {
        return false;
    }
    outType = OFV_FileTypeJSX;
    ofv::SetVersionFromGroups<JSXVersioner>(match, outVersion);
    return true;
}
