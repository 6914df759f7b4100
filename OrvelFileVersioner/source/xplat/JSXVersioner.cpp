#include "JSXVersioner.h"

#include "VersionRegex.h"

namespace {
constexpr std::size_t kBytesToRead = 1024;
// The greedy ".+" leaves group 1 only the last digit of the first number
// ("@@@BUILDINFO@@@ 12.3.4.5" gives 2.3.4.5). Installed scripts were versioned with this
// expression, so it has to stay as it is for old and new files to compare alike.
constexpr const char* kVersionExpression = R"re(@@@BUILDINFO@@@.+(\d+)\.(\d+)\.(\d+)\.(\d+))re";
} // namespace

bool JSXVersioner::VersionFile(const PlatformFilePath& inPath, OFV_FileVersion& outVersion,
                               OFV_FileType& outType) {
    return ofv::VersionFromLeadingBytes<JSXVersioner>(
        inPath, kBytesToRead, [](const std::vector<char>&) { return true; }, kVersionExpression,
        OFV_FileTypeJSX, outVersion, outType);
}
