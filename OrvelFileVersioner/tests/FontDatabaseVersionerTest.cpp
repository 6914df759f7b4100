#include "xplat/FontDatabaseVersioner.h"

#include "ReadRecorder.h"
#include "VersionerSamples.h"
#include "VersionerTestSupport.h"

#include <gtest/gtest.h>

namespace ofv_testing {
namespace {

class FontDatabaseVersionerTest : public VersionerTest {};

TEST_F(FontDatabaseVersionerTest, ReadsTheVersionEntry) {
    const std::string path = Write("OrvelFontDB.lst", MakeFontDatabase("1.2.3"));

    const VersionOutcome outcome = GetVersion(path);

    EXPECT_EQ(outcome.result, OFV_Success);
    EXPECT_EQ(outcome.type, OFV_FileTypeFontDatabase);
    EXPECT_EQ(PartsOf(outcome.version), (Parts{1, 2, 3, 0}));
}

TEST_F(FontDatabaseVersionerTest, TheDatabaseMarkIsRequired) {
    EXPECT_FALSE(
        RunVersioner<FontDatabaseVersioner>(Write("a.lst", "# Fonts\nversion=1.2.3\n")).recognised);
    EXPECT_FALSE(
        RunVersioner<FontDatabaseVersioner>(Write("b.lst", "OrvelFontDatabase version=1.2\n"))
            .recognised);
}

TEST_F(FontDatabaseVersionerTest, TheMarkMaySpanLinesAndFollowTheVersion) {
    const std::string path = Write("a.lst", "version=4.5\nOrvel\nFont\nDatabase\n");

    const VersionOutcome outcome = RunVersioner<FontDatabaseVersioner>(path);

    EXPECT_TRUE(outcome.recognised);
    EXPECT_EQ(PartsOf(outcome.version), (Parts{4, 5, 0, 0}));
}

TEST_F(FontDatabaseVersionerTest, TheFirstVersionEntryCounts) {
    const std::string path =
        Write("a.lst", "Orvel Font Database\nversion=1\nversion=2.3\nversion=9.9\n");

    EXPECT_EQ(PartsOf(RunVersioner<FontDatabaseVersioner>(path).version), (Parts{2, 3, 0, 0}));
}

TEST_F(FontDatabaseVersionerTest, AMarkBeyondTheFirst2048BytesIsNotSeen) {
    const std::string path =
        Write("late.lst", "version=1.2\n" + std::string(2048, ' ') + "Orvel Font Database\n");
    ReadRecorder recorder;

    EXPECT_FALSE(RunVersioner<FontDatabaseVersioner>(path).recognised);

    ASSERT_EQ(recorder.reads().size(), 1u);
    EXPECT_EQ(recorder.reads()[0].requested, 2048u);
    EXPECT_EQ(recorder.reads()[0].read, 2048u);
}

} // namespace
} // namespace ofv_testing
