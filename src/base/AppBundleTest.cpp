#include "base/AppBundle.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

namespace {

TEST(AppBundleTest, FindsTheBundleFromTheExecutablePath) {
    auto bundle = AppBundle::fromExecutablePath("/opt/X/Patch.app/Contents/MacOS/PatcherApp");
    ASSERT_TRUE(bundle);
    EXPECT_EQ(bundle->bundlePath(), "/opt/X/Patch.app");
    EXPECT_EQ(bundle->resourcePath(), "/opt/X/Patch.app/Contents/Resources");
    EXPECT_EQ(bundle->frameworksPath(), "/opt/X/Patch.app/Contents/Frameworks");
    EXPECT_EQ(bundle->localePath(), "/opt/X/Patch.app/Contents/Resources/locale");
    EXPECT_FALSE(AppBundle::fromExecutablePath("/usr/bin/PatcherApp"));
    EXPECT_FALSE(AppBundle::fromExecutablePath("/x/Contents/MacOS/sub/PatcherApp"));
}

TEST(AppBundleTest, ResourcesAreFoundOnlyWhenTheyExist) {
    TempDir dir;
    AppBundle bundle(dir.file("P.app/"));
    EXPECT_EQ(bundle.bundlePath(), dir.file("P.app"));
    EXPECT_FALSE(bundle.pathForResource("config", "xml"));
    WriteTextFile(dir.file("P.app/Contents/Resources/config.xml"), "<PatcherConfig/>");
    EXPECT_EQ(bundle.pathForResource("config", "xml"),
              dir.file("P.app/Contents/Resources/config.xml"));
    EXPECT_FALSE(bundle.pathForResource("manifest", "xml"));
}

TEST(AppBundleTest, TheTestProgramIsNotInABundle) {
    EXPECT_FALSE(AppBundle::mainBundle());
}

} // namespace
