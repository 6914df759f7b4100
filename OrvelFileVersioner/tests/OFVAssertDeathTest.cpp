// Programming errors print "<file>:<line>: failed assertion `<expression>'" and abort.
#include "xplat/OFVAssert.h"

#include "xplat/CMapVersioner.h"
#include "xplat/OrvelFileVersioner.h"
#include "xplat/VersionOps.h"

#include "VersionerTestSupport.h"

#include <gtest/gtest.h>

#include <csignal>
#include <functional>

namespace ofv_testing {
namespace {

// A pattern for exactly one assertion line from a source file ending in inFileSuffix, with any
// line number, and nothing else on standard error.
std::string AssertionOutput(const std::string& inFileSuffix, const std::string& inExpression) {
    const auto escape = [](const std::string& inText) {
        std::string escaped;
        for (char c : inText) {
            if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) {
                escaped += '\\';
            }
            escaped += c;
        }
        return escaped;
    };
    return "^[^\n]*" + escape(inFileSuffix) + ":[0-9]+: failed assertion `" + escape(inExpression) +
           "'\n$";
}

#define EXPECT_ASSERTION(statement, fileSuffix, expression)                                        \
    EXPECT_EXIT(statement, ::testing::KilledBySignal(SIGABRT),                                     \
                AssertionOutput(fileSuffix, expression))

TEST(OFVAssertDeathTest, PrintsFileLineAndExpressionThenAborts) {
    EXPECT_EXIT(OFV_AssertionFailed("Thing.cpp", 42, "x == y"), ::testing::KilledBySignal(SIGABRT),
                "^Thing\\.cpp:42: failed assertion `x == y'\n$");
}

TEST(OFVAssertDeathTest, PassingAssertionsDoNothing) {
    int evaluated = 0;
    OFV_ASSERT(++evaluated == 1);
    EXPECT_EQ(evaluated, 1);
}

TEST(OFVAssertDeathTest, SetVersionPartRejectsPartsOutsideZeroToThree) {
    OFV_FileVersion version = UnsetVersion();
    const std::string expression =
        "!\"Invalid part specified for SetVersionPart.  Valid range (0,3)\"";

    EXPECT_ASSERTION(CMapVersioner::SetVersionPart(4, 1, version), "xplat/Versioner.h", expression);
    EXPECT_ASSERTION(CMapVersioner::SetVersionPart(-1, 1, version), "xplat/Versioner.h",
                     expression);
}

TEST(OFVAssertDeathTest, CompareVersionsRejectsInvalidVersions) {
    const OFV_FileVersion valid = MakeVersion(1, 0, 0, 0);
    const OFV_FileVersion invalid = MakeVersion(1, 0, -1, 0);

    EXPECT_ASSERTION(VersionOps::CompareVersions(invalid, valid, std::less<int32_t>()),
                     "xplat/VersionOps.h", "inLhs.IsValid()");
    EXPECT_ASSERTION(VersionOps::CompareVersions(valid, invalid, std::less<int32_t>()),
                     "xplat/VersionOps.h", "inRhs.IsValid()");
    EXPECT_ASSERTION(VersionOps::CompareVersions(invalid, invalid, std::less<int32_t>()),
                     "xplat/VersionOps.h", "inLhs.IsValid()");
}

TEST(OFVAssertDeathTest, GetFileVersionRejectsNullArguments) {
    OFV_FileVersion version = UnsetVersion();
    OFV_FileType type = OFV_FileTypeUnknown;

    EXPECT_ASSERTION((void)OFV_GetFileVersion(nullptr, &version, &type),
                     "xplat/OrvelFileVersioner.cpp", "inUTF8Path");
    EXPECT_ASSERTION((void)OFV_GetFileVersion("a.icc", nullptr, &type),
                     "xplat/OrvelFileVersioner.cpp", "outVersion");
    EXPECT_ASSERTION((void)OFV_GetFileVersion("a.icc", &version, nullptr),
                     "xplat/OrvelFileVersioner.cpp", "outType");
}

TEST(OFVAssertDeathTest, CompareVersionsInterfaceRejectsNullArguments) {
    const OFV_FileVersion version = MakeVersion(1, 2, 3, 4);
    int32_t result = 0;

    EXPECT_ASSERTION((void)OFV_CompareVersions(nullptr, &version, &result),
                     "xplat/OrvelFileVersioner.cpp", "inVersion1");
    EXPECT_ASSERTION((void)OFV_CompareVersions(&version, nullptr, &result),
                     "xplat/OrvelFileVersioner.cpp", "inVersion2");
    EXPECT_ASSERTION((void)OFV_CompareVersions(&version, &version, nullptr),
                     "xplat/OrvelFileVersioner.cpp", "outResult");
}

TEST(OFVAssertDeathTest, CompareFilesPassesNullPathsOnToTheLookUp) {
    int32_t result = 0;

    EXPECT_ASSERTION((void)OFV_CompareFiles(nullptr, "b", true, &result),
                     "xplat/OrvelFileVersioner.cpp", "inUTF8Path");
}

} // namespace
} // namespace ofv_testing
