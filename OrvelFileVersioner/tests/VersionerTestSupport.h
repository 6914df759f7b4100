// Helpers shared by the versioner tests.
#pragma once

#include "TempDirectory.h"
#include "xplat/OrvelFileVersioner.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>

namespace ofv_testing {

using Parts = std::array<int32_t, 4>;

inline Parts PartsOf(const OFV_FileVersion& inVersion) {
    return {inVersion.majorVersion, inVersion.minorVersion, inVersion.fixVersion,
            inVersion.buildVersion};
}

inline OFV_FileVersion MakeVersion(int32_t inMajor, int32_t inMinor, int32_t inFix,
                                   int32_t inBuild) {
    return {inMajor, inMinor, inFix, inBuild};
}

inline OFV_FileVersion UnsetVersion() {
    OFV_FileVersion version;
    std::memset(&version, 0xFF, sizeof version);
    return version;
}

// What one versioner or one OFV_GetFileVersion call produced.
struct VersionOutcome {
    bool recognised = false;
    OFV_Result result = OFV_ErrorGeneral;
    OFV_FileVersion version = UnsetVersion();
    OFV_FileType type = OFV_FileTypeUnknown;
};

// Runs a fresh TVersioner on inPath.
template <class TVersioner> VersionOutcome RunVersioner(const std::string& inPath) {
    VersionOutcome outcome;
    TVersioner versioner;
    outcome.recognised = versioner.VersionFile(inPath, outcome.version, outcome.type);
    return outcome;
}

// Runs the interface function on inPath.
inline VersionOutcome GetVersion(const std::string& inPath) {
    VersionOutcome outcome;
    outcome.result = OFV_GetFileVersion(inPath.c_str(), &outcome.version, &outcome.type);
    outcome.recognised = outcome.result == OFV_Success;
    return outcome;
}

// A test with its own temporary folder.
class VersionerTest : public ::testing::Test {
protected:
    std::string Write(const std::string& inName, const std::string& inContent) {
        return _folder.WriteFile(inName, inContent);
    }

    TempDirectory _folder;
};

} // namespace ofv_testing
