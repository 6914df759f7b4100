#include "xplat/PFBFontVersioner.h"

#include "ReadRecorder.h"
#include "VersionerSamples.h"
#include "VersionerTestSupport.h"

#include <gtest/gtest.h>

namespace ofv_testing {
namespace {

class PFBFontVersionerTest : public VersionerTest {};

TEST_F(PFBFontVersionerTest, ReadsTheVersionEntry) {
    const std::string path = Write("OrvelSerif.pfb", MakePFBFont("001.002"));

    const VersionOutcome outcome = RunVersioner<PFBFontVersioner>(path);

    EXPECT_TRUE(outcome.recognised);
    EXPECT_EQ(outcome.type, OFV_FileTypePFBFont);
    EXPECT_EQ(PartsOf(outcome.version), (Parts{1, 2, 0, 0}));
}

TEST_F(PFBFontVersionerTest, ShortFontsReachThePFBVersionerThroughTheInterface) {
    // Under 36 bytes the colour-profile versioner, which also accepts .pfb names, gives up.
    const std::string content = "/version (1.2) readonly def\n";
    ASSERT_LT(content.size(), 36u);
    const std::string path = Write("tiny.pfb", content);

    const VersionOutcome outcome = GetVersion(path);

    EXPECT_EQ(outcome.result, OFV_Success);
    EXPECT_EQ(outcome.type, OFV_FileTypePFBFont);
    EXPECT_EQ(PartsOf(outcome.version), (Parts{1, 2, 0, 0}));
}

TEST_F(PFBFontVersionerTest, FontsOf36BytesOrMoreAreClaimedAsColourProfiles) {
    const std::string font = MakePFBFont("001.002");
    ASSERT_GE(font.size(), 36u);
    const std::string path = Write("OrvelSerif.pfb", font);
    const auto be16 = [&](std::size_t inOffset) {
        return static_cast<unsigned char>(font[inOffset]) * 256 +
               static_cast<unsigned char>(font[inOffset + 1]);
    };

    const VersionOutcome outcome = GetVersion(path);

    EXPECT_EQ(outcome.result, OFV_Success);
    EXPECT_EQ(outcome.type, OFV_FileTypeColorProfile);
    EXPECT_EQ(PartsOf(outcome.version), (Parts{be16(24), be16(26), be16(28),
                                               be16(30) * 60 + be16(32) + (be16(34) + 1) / 60}));
}

TEST_F(PFBFontVersionerTest, TheNameMustEndInPfb) {
    const std::string font = MakePFBFont("1.0");

    EXPECT_TRUE(RunVersioner<PFBFontVersioner>(Write("F.PFB", font)).recognised);
    EXPECT_TRUE(RunVersioner<PFBFontVersioner>(Write("F.pFb", font)).recognised);
    EXPECT_FALSE(RunVersioner<PFBFontVersioner>(Write("F.pfb.bak", font)).recognised);
    EXPECT_FALSE(RunVersioner<PFBFontVersioner>(Write("F.pfm", font)).recognised);
}

TEST_F(PFBFontVersionerTest, AcceptsTabsAndThreeOrFourParts) {
    EXPECT_EQ(PartsOf(RunVersioner<PFBFontVersioner>(
                          Write("a.pfb", "/version\t(3.2.1)\treadonly \tdef\n"))
                          .version),
              (Parts{3, 2, 1, 0}));
    EXPECT_EQ(
        PartsOf(RunVersioner<PFBFontVersioner>(Write("b.pfb", "/version (3.2.1.9) readonly def\n"))
                    .version),
        (Parts{3, 2, 1, 9}));
}

TEST_F(PFBFontVersionerTest, WithoutReadonlyDefThereIsNoVersion) {
    EXPECT_FALSE(RunVersioner<PFBFontVersioner>(Write("a.pfb", "/version (3.2) def\n")).recognised);
}

TEST_F(PFBFontVersionerTest, AVersionBeyondTheFirst4096BytesIsNotSeen) {
    const std::string path =
        Write("late.pfb", std::string(4096, ' ') + "/version (1.0) readonly def\n");
    ReadRecorder recorder;

    EXPECT_FALSE(RunVersioner<PFBFontVersioner>(path).recognised);

    ASSERT_EQ(recorder.reads().size(), 1u);
    EXPECT_EQ(recorder.reads()[0].requested, 4096u);
    EXPECT_EQ(recorder.reads()[0].read, 4096u);
}

} // namespace
} // namespace ofv_testing
