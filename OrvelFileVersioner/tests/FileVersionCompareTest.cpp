#include "xplat/FileVersionCompare.h"

#include "VersionerSamples.h"
#include "VersionerTestSupport.h"

#include <gtest/gtest.h>

namespace ofv_testing {
namespace {

class FileVersionCompareTest : public VersionerTest {};

TEST_F(FileVersionCompareTest, FilesOfNoKnownTypeMayAlwaysBeReplaced) {
    const std::string installed = Write("installed/ReadMe.txt", "old text, longer than the new");
    const std::string replacement = Write("new/ReadMe.txt", "new text");

    EXPECT_TRUE(FileVersionCompareAllowsReplace(replacement, installed));
    EXPECT_TRUE(FileVersionCompareAllowsReplace(installed, replacement));
}

TEST_F(FileVersionCompareTest, AnOlderFileOfTheSameTypeMayNotReplaceANewerOne) {
    const std::string installed = Write("installed/OrvelSans.otf", MakeOpenTypeFont("2.004;ORVL;"));
    const std::string older = Write("new/OrvelSans.otf", MakeOpenTypeFont("1.900;ORVL;"));

    EXPECT_FALSE(FileVersionCompareAllowsReplace(older, installed));
    EXPECT_FALSE(FileVersionCompareAllowsReplace(older.c_str(), installed.c_str()));
}

TEST_F(FileVersionCompareTest, ANewerOrEqualFileOfTheSameTypeMayReplace) {
    const std::string installed = Write("installed/a.icc", MakeICCProfile(2006, 3, 15, 10, 20, 30));
    const std::string newer = Write("new/a.icc", MakeICCProfile(2006, 3, 15, 10, 20, 59));
    const std::string same = Write("same/a.icc", MakeICCProfile(2006, 3, 15, 10, 20, 30));

    EXPECT_TRUE(FileVersionCompareAllowsReplace(newer, installed));
    EXPECT_TRUE(FileVersionCompareAllowsReplace(same, installed));
    EXPECT_FALSE(FileVersionCompareAllowsReplace(installed, newer));
}

TEST_F(FileVersionCompareTest, FilesOfDifferentTypesMayReplaceEachOther) {
    const std::string script = Write("a/Tools.jsx", MakeScript("Tools 9.9.9.9"));
    const std::string map = Write("b/map.txt", MakeUnicodeMap("1.0"));

    EXPECT_TRUE(FileVersionCompareAllowsReplace(map, script));
    EXPECT_TRUE(FileVersionCompareAllowsReplace(script, map));
}

TEST_F(FileVersionCompareTest, AKnownTypeOnOneSideOnlyAllowsTheReplacement) {
    const std::string versioned = Write("a/Tools.jsx", MakeScript("Tools 9.9.9.9"));
    const std::string plain = Write("b/Tools.jsx", "// no build information\n");

    EXPECT_TRUE(FileVersionCompareAllowsReplace(plain, versioned));
    EXPECT_TRUE(FileVersionCompareAllowsReplace(versioned, plain));
}

TEST_F(FileVersionCompareTest, MissingFilesAndAbsentPathsAllowTheReplacement) {
    const std::string installed =
        Write("installed/a.cnv", MakeICUData("cnvt", {6, 1, 0, 0}, {3, 0, 0, 0}));
    const std::string missing = (_folder.path() / "missing.cnv").string();

    EXPECT_TRUE(FileVersionCompareAllowsReplace(missing, installed));
    EXPECT_TRUE(FileVersionCompareAllowsReplace(installed, missing));
    EXPECT_TRUE(FileVersionCompareAllowsReplace(std::string(), installed));
    EXPECT_TRUE(FileVersionCompareAllowsReplace(nullptr, installed.c_str()));
    EXPECT_TRUE(FileVersionCompareAllowsReplace(installed.c_str(), nullptr));
    EXPECT_TRUE(FileVersionCompareAllowsReplace(static_cast<const char*>(nullptr), nullptr));
}

TEST_F(FileVersionCompareTest, AVersionWithAnUnsetPartDoesNotBlockTheReplacement) {
    const std::string installed = Write("installed/cmap", MakeCMapText("2.0"));
    const std::string overflowing =
        Write("new/cmap", "begincmap /CMapVersion 99999999999999999999.0 def\n");

    EXPECT_TRUE(FileVersionCompareAllowsReplace(overflowing, installed));
}

} // namespace
} // namespace ofv_testing
