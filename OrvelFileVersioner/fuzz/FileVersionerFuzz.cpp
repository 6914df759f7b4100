// libFuzzer target: arbitrary content under an arbitrary or listed file name must never crash
// or hang the versioners, and no versioner may read a file more than once or read more than
// 8192 bytes of it. Every registered versioner is run on its own so that reads can be
// attributed, then the whole interface is run on the same file.
#include "FuzzInput.h"
#include "TempDirectory.h"
#include "xplat/FileUtils.h"
#include "xplat/OrvelFileVersioner.h"
#include "xplat/VersionFactory.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace {

constexpr std::size_t kMaxBytesPerVersioner = 8192;

// Registration order and the type each versioner reports.
constexpr std::array<OFV_FileType, 8> kRegisteredTypes = {
    OFV_FileTypeCMap,       OFV_FileTypeColorProfile, OFV_FileTypeOTFFont,      OFV_FileTypePFBFont,
    OFV_FileTypeUnicodeMap, OFV_FileTypeICU,          OFV_FileTypeFontDatabase, OFV_FileTypeJSX};

std::size_t gReads = 0;
std::size_t gLargestRequest = 0;
std::size_t gLargestRead = 0;

void CountRead(const PlatformFilePath&, std::size_t inRequested, std::size_t inRead) {
    ++gReads;
    gLargestRequest = std::max(gLargestRequest, inRequested);
    gLargestRead = std::max(gLargestRead, inRead);
}

void ResetReads() {
    gReads = 0;
    gLargestRequest = 0;
    gLargestRead = 0;
}

[[noreturn]] void Fail(const char* inWhat, std::size_t inDetail) {
    std::fprintf(stderr, "FileVersionerFuzz: %s (%zu)\n", inWhat, inDetail);
    std::abort();
}

const ofv_testing::TempDirectory& ScratchFolder() {
    static const ofv_testing::TempDirectory folder;
    return folder;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const ofv_testing::FuzzInput input = ofv_testing::DecodeFuzzInput(data, size);
    const std::string path = ScratchFolder().WriteFile(input.name, input.content);
    ofv::SetReadObserver(&CountRead);

    const auto& funcs = VersionFactory::GetVersionerFuncs();
    if (funcs.size() != kRegisteredTypes.size()) {
        Fail("wrong number of registered versioners", funcs.size());
    }
    for (std::size_t i = 0; i < funcs.size(); ++i) {
        ResetReads();
        OFV_FileVersion version;
        OFV_FileType type = OFV_FileTypeUnknown;
        const bool recognised = funcs[i]()->VersionFile(path, version, type);
        if (gReads > 1) {
            Fail("versioner read the file more than once", i);
        }
        if (gLargestRequest > kMaxBytesPerVersioner || gLargestRead > kMaxBytesPerVersioner) {
            Fail("versioner read more than 8192 bytes", i);
        }
        if (recognised && type != kRegisteredTypes[i]) {
            Fail("versioner reported a foreign type", i);
        }
    }

    OFV_FileVersion version;
    OFV_FileType type = OFV_FileTypeUnknown;
    const OFV_Result result = OFV_GetFileVersion(path.c_str(), &version, &type);
    if (result != OFV_Success && result != OFV_ErrorGeneral) {
        Fail("unexpected result for an existing file", static_cast<std::size_t>(result));
    }
    if (result == OFV_Success) {
        int32_t comparison = 7;
        const OFV_Result compared = OFV_CompareVersions(&version, &version, &comparison);
        if (compared == OFV_Success && comparison != 0) {
            Fail("a version differs from itself", static_cast<std::size_t>(comparison));
        }
        if (compared != OFV_Success && compared != OFV_ErrorInvalidVersion) {
            Fail("unexpected comparison result", static_cast<std::size_t>(compared));
        }
    }

    ofv::SetReadObserver(nullptr);
    std::error_code ignored;
    const std::filesystem::path written(path);
    std::filesystem::remove(written, ignored);
    if (written.parent_path() != ScratchFolder().path()) {
        std::filesystem::remove(written.parent_path(), ignored);
    }
    return 0;
}
