#include "FontDatabaseVersioner.h"

#include "VersionRegex.h"

namespace {
constexpr std::size_t kBytesToRead = 2048;
constexpr const char* kDatabaseMark = "Orvel.+Font.+Database";
constexpr const char* kVersionExpression = R"re(version=(\d+)\.(\d+)\.?(\d*)\.?(\d*))re";
} // namespace

bool FontDatabaseVersioner::VersionFile(const PlatformFilePath& inPath, OFV_FileVersion& outVersion,
                                        OFV_FileType& outType) {
    return ofv::VersionFromLeadingBytes<FontDatabaseVersioner>(
        inPath, kBytesToRead,
        [](const std::vector<char>& bytes) {
            return ofv::SearchExpression(bytes.data(), ofv::VersionSearchEnd(bytes), kDatabaseMark);
        },
        kVersionExpression, OFV_FileTypeFontDatabase, outVersion, outType);
}
