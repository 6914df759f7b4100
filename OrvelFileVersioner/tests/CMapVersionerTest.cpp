#include "xplat/CMapVersioner.h"

#include "ReadRecorder.h"
#include "VersionerSamples.h"
#include "VersionerTestSupport.h"

#include <gtest/gtest.h>

namespace ofv_testing {
namespace {

class CMapVersionerTest : public VersionerTest {};

TEST_F(CMapVersionerTest, ReadsVersionOfACMapWithBeginCMap) {
    const std::string path = Write("Orvel-Test-H", MakeCMapText("11.001"));

    const VersionOutcome outcome = RunVersioner<CMapVersioner>(path);

    EXPECT_TRUE(outcome.recognised);
    EXPECT_EQ(outcome.type, OFV_FileTypeCMap);
    EXPECT_EQ(PartsOf(outcome.version), (Parts{11, 1, 0, 0}));
}

TEST_F(CMapVersionerTest, WithoutBeginCMapTheFileIsNoCMapAndHasNoVersion) {
    const std::string path = Write("Orvel-Test-H", MakeCMapText("11.001", false));

    EXPECT_FALSE(RunVersioner<CMapVersioner>(path).recognised);
    EXPECT_EQ(GetVersion(path).result, OFV_ErrorGeneral);
}

TEST_F(CMapVersionerTest, ReadsAllFourParts) {
    const std::string path = Write("Orvel-Test-H", MakeCMapText("1.2.3.4"));

    EXPECT_EQ(PartsOf(RunVersioner<CMapVersioner>(path).version), (Parts{1, 2, 3, 4}));
}

TEST_F(CMapVersionerTest, AcceptsTabsAndBlanksAroundTheVersion) {
    const std::string path = Write("cmap", "begincmap\n/CMapVersion\t \t2.5 \tdef\n");

    const VersionOutcome outcome = RunVersioner<CMapVersioner>(path);

    EXPECT_TRUE(outcome.recognised);
    EXPECT_EQ(PartsOf(outcome.version), (Parts{2, 5, 0, 0}));
}

TEST_F(CMapVersionerTest, TheFirstVersionLineCounts) {
    const std::string path =
        Write("cmap", "begincmap\n/CMapVersion 3.1 def\n/CMapVersion 9.9.9.9 def\n");

    EXPECT_EQ(PartsOf(RunVersioner<CMapVersioner>(path).version), (Parts{3, 1, 0, 0}));
}

TEST_F(CMapVersionerTest, AVersionLineBeyondTheFirst8192BytesIsNotSeen) {
    std::string text = MakeCMapText("1.2.3.4");
    text.insert(text.find("/CMapVersion"), std::string(8192, ' '));
    const std::string path = Write("Orvel-Test-H", text);

    EXPECT_FALSE(RunVersioner<CMapVersioner>(path).recognised);
    EXPECT_EQ(GetVersion(path).result, OFV_ErrorGeneral);
}

TEST_F(CMapVersionerTest, BeginCMapEndingAtTheLastByteReadCounts) {
    std::string text = "/CMapVersion 1.2 def\n";
    text.resize(8192 - 9, ' ');
    text += "begincmap";
    text += "trailing bytes that are not read";
    const std::string path = Write("cmap", text);

    const VersionOutcome outcome = RunVersioner<CMapVersioner>(path);

    EXPECT_TRUE(outcome.recognised);
    EXPECT_EQ(PartsOf(outcome.version), (Parts{1, 2, 0, 0}));
}

TEST_F(CMapVersionerTest, BeginCMapCrossingTheReadLimitIsNotSeen) {
    std::string text = "/CMapVersion 1.2 def\n";
    text.resize(8192 - 8, ' ');
    text += "begincmap";
    const std::string path = Write("cmap", text);

    EXPECT_FALSE(RunVersioner<CMapVersioner>(path).recognised);
}

TEST_F(CMapVersionerTest, AVersionLineEndingAtTheLastByteReadIsMissed) {
    // The version expression is searched in the bytes read without the last one.
    const std::string line = "/CMapVersion 1.2 def";
    const auto fileWithLineEndingAt = [&](std::size_t inLastIndex) {
        std::string text = "begincmap\n";
        text.resize(inLastIndex + 1 - line.size(), ' ');
        return text + line + "\nmore";
    };
    const std::string atLastByteRead = Write("at-8191", fileWithLineEndingAt(8191));
    const std::string beyondRead = Write("at-8192", fileWithLineEndingAt(8192));
    const std::string inRange = Write("at-8190", fileWithLineEndingAt(8190));

    EXPECT_FALSE(RunVersioner<CMapVersioner>(atLastByteRead).recognised);
    EXPECT_FALSE(RunVersioner<CMapVersioner>(beyondRead).recognised);
    EXPECT_TRUE(RunVersioner<CMapVersioner>(inRange).recognised);
}

TEST_F(CMapVersionerTest, EmptyAndMissingFilesAreNotCMaps) {
    EXPECT_FALSE(RunVersioner<CMapVersioner>(Write("empty", "")).recognised);
    EXPECT_FALSE(RunVersioner<CMapVersioner>((_folder.path() / "missing").string()).recognised);
}

TEST_F(CMapVersionerTest, ReadsUpTo8192BytesOnce) {
    std::string text = MakeCMapText("1.0");
    text.resize(20000, '%');
    const std::string path = Write("cmap", text);
    ReadRecorder recorder;

    EXPECT_TRUE(RunVersioner<CMapVersioner>(path).recognised);

    ASSERT_EQ(recorder.reads().size(), 1u);
    EXPECT_EQ(recorder.reads()[0].requested, 8192u);
    EXPECT_EQ(recorder.reads()[0].read, 8192u);
}

} // namespace
} // namespace ofv_testing
