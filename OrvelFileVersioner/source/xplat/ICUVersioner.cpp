#include "ICUVersioner.h"

#include "FileUtils.h"
#include "VersionRegex.h"

#include <cstring>
#include <vector>

namespace {
constexpr std::size_t kBytesToRead = 1024;
constexpr std::size_t kMinimumRead = 25;
// Offsets in the ICU data header: data format tag, format version, data version.
constexpr std::size_t kDataFormatOffset = 12;
constexpr std::size_t kFormatVersionOffset = 16;
constexpr std::size_t kDataVersionOffset = 20;
constexpr const char kConverterFormat[] = "cnvt";
constexpr const char kCommonDataFormat[] = "CmnD";

unsigned ByteAt(const std::vector<char>& inBytes, std::size_t inOffset) {
    return static_cast<unsigned char>(inBytes[inOffset]);
}

// The four version bytes at inOffset as one decimal-weighted number (6.1.0.0 gives 6100).
int32_t VersionNumberAt(const std::vector<char>& inBytes, std::size_t inOffset) {
    return static_cast<int32_t>(ByteAt(inBytes, inOffset) * 1000 +
                                ByteAt(inBytes, inOffset + 1) * 100 +
                                ByteAt(inBytes, inOffset + 2) * 10 + ByteAt(inBytes, inOffset + 3));
}

bool IsConverter(const std::vector<char>& inBytes) {
    return std::memcmp(inBytes.data() + kDataFormatOffset, kConverterFormat, 4) == 0;
}

// Compares every second byte from the tag onwards with "CmnD". A package whose tag is written
// contiguously is deliberately not taken for common data: the installed packages were
// versioned with this test, and mending it would change which files count as ICU data.
bool IsCommonData(const std::vector<char>& inBytes) {
    for (std::size_t i = 0; i < 4; ++i) {
        if (inBytes[kDataFormatOffset + 2 * i] != kCommonDataFormat[i]) {
            return false;
        }
    }
    return true;
}
} // namespace

bool ICUVersioner::VersionFile(const PlatformFilePath& inPath, OFV_FileVersion& outVersion,
                               OFV_FileType& outType) {
    std::vector<char> bytes;
    if (!ofv::ReadFileBytes(inPath, kBytesToRead, bytes) || bytes.size() < kMinimumRead) {
        return false;
    }
    // Header size and magic bytes are not examined; the tag alone decides.
    if (!IsConverter(bytes) && !IsCommonData(bytes)) {
        return false;
    }
    ofv::ResetVersion(outVersion);
    SetVersionPart(0, VersionNumberAt(bytes, kFormatVersionOffset), outVersion);
    SetVersionPart(1, VersionNumberAt(bytes, kDataVersionOffset), outVersion);
    SetVersionPart(2, 0, outVersion);
    SetVersionPart(3, 0, outVersion);
    outType = OFV_FileTypeICU;
    return true;
}
