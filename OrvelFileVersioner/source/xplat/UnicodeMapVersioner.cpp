#include "UnicodeMapVersioner.h"

#include "VersionRegex.h"

namespace {
constexpr std::size_t kBytesToRead = 4096;
constexpr const char* kVersionExpression =
    R"re(##Orvel File Version: (\d+)\.(\d+)\.?(\d*)\.?(\d*))re";
} // namespace

bool UnicodeMapVersioner::VersionFile(const PlatformFilePath& inPath, OFV_FileVersion& outVersion,
                                      OFV_FileType& outType) {
    return ofv::VersionFromLeadingBytes<UnicodeMapVersioner>(
        inPath, kBytesToRead,
        // The version line is both the mark and the version source.
        [](const std::vector<char>&) { return true; }, kVersionExpression, OFV_FileTypeUnicodeMap,
        outVersion, outType);
}
