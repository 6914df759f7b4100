// A versioner that throws must not let the exception out of the interface functions, and the
// factory must destroy it on the way out. The throwing versioners are appended to the registry,
// so this runs in a process of its own.
#include "TempDirectory.h"
#include "VersionerSamples.h"
#include "xplat/FileVersionCompare.h"
#include "xplat/OrvelFileVersioner.h"
#include "xplat/VersionFactory.h"
#include "xplat/Versioner.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using namespace ofv_testing;

int gLiving = 0;
int gCalls = 0;
bool gThrowStandard = true;

class ThrowingVersioner : public Versioner<ThrowingVersioner> {
public:
    ThrowingVersioner() { ++gLiving; }
    ~ThrowingVersioner() override { --gLiving; }

    bool VersionFile(const PlatformFilePath&, OFV_FileVersion&, OFV_FileType&) override {
        ++gCalls;
        if (gThrowStandard) {
            throw std::runtime_error("versioner failure");
        }
        throw 42;
    }
};

class ThrowingVersionerTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(VersionFactory::RegisterVersionMethod(&ThrowingVersioner::CreateVersioner));
    }
    void SetUp() override {
        gCalls = 0;
        gThrowStandard = true;
    }

    TempDirectory _folder;
};

TEST_F(ThrowingVersionerTest, RegisterVersionMethodAppendsAfterTheBuiltInVersioners) {
    ASSERT_EQ(VersionFactory::GetVersionerFuncs().size(), 9u);
    EXPECT_EQ(VersionFactory::GetVersionerFuncs().back(), &ThrowingVersioner::CreateVersioner);
}

TEST_F(ThrowingVersionerTest, AnExceptionBecomesAGeneralErrorAndTheVersionerIsDestroyed) {
    const std::string path = _folder.WriteFile("ReadMe.txt", MakePlainText());
    OFV_FileVersion version;
    OFV_FileType type = OFV_FileTypeUnknown;

    EXPECT_EQ(OFV_GetFileVersion(path.c_str(), &version, &type), OFV_ErrorGeneral);
    EXPECT_EQ(gCalls, 1);
    EXPECT_EQ(gLiving, 0);

    gThrowStandard = false;
    EXPECT_EQ(OFV_GetFileVersion(path.c_str(), &version, &type), OFV_ErrorGeneral);
    EXPECT_EQ(gCalls, 2);
    EXPECT_EQ(gLiving, 0);
}

TEST_F(ThrowingVersionerTest, RecognisedFilesNeverReachTheThrowingVersioner) {
    const std::string path = _folder.WriteFile("OrvelTools.jsx", MakeScript("Tools 1.2.3.4"));
    OFV_FileVersion version;
    OFV_FileType type = OFV_FileTypeUnknown;

    EXPECT_EQ(OFV_GetFileVersion(path.c_str(), &version, &type), OFV_Success);
    EXPECT_EQ(type, OFV_FileTypeJSX);
    EXPECT_EQ(gCalls, 0);
}

TEST_F(ThrowingVersionerTest, CompareFilesAndTheReplaceRuleSurviveTheException) {
    const std::string plain = _folder.WriteFile("ReadMe.txt", MakePlainText());
    const std::string script = _folder.WriteFile("OrvelTools.jsx", MakeScript("Tools 1.2.3.4"));
    int32_t result = 42;

    EXPECT_EQ(OFV_CompareFiles(script.c_str(), plain.c_str(), false, &result), OFV_ErrorGeneral);
    EXPECT_EQ(result, 42);
    EXPECT_TRUE(FileVersionCompareAllowsReplace(plain, script));
    EXPECT_EQ(gLiving, 0);
}

} // namespace
