#include "xplat/ColorProfileVersioner.h"

#include "ReadRecorder.h"
#include "VersionerSamples.h"
#include "VersionerTestSupport.h"

#include <gtest/gtest.h>

#include <cctype>
#include <string>

namespace ofv_testing {
namespace {

class ColorProfileVersionerTest : public VersionerTest {};

TEST_F(ColorProfileVersionerTest, VersionIsTheCreationDateWithMinutesOfTheDay) {
    const std::string path = Write("Display.icc", MakeICCProfile(2006, 3, 15, 10, 20, 59));

    const VersionOutcome outcome = GetVersion(path);

    EXPECT_EQ(outcome.result, OFV_Success);
    EXPECT_EQ(outcome.type, OFV_FileTypeColorProfile);
    EXPECT_EQ(PartsOf(outcome.version), (Parts{2006, 3, 15, 621}));
}

TEST_F(ColorProfileVersionerTest, SecondsBelow59AddNothing) {
    const std::string path = Write("Display.icc", MakeICCProfile(2006, 3, 15, 10, 20, 30));

    const VersionOutcome outcome = GetVersion(path);

    EXPECT_EQ(outcome.type, OFV_FileTypeColorProfile);
    EXPECT_EQ(PartsOf(outcome.version), (Parts{2006, 3, 15, 620}));
}

TEST_F(ColorProfileVersionerTest, HeaderFieldsAreUnsigned) {
    const std::string path =
        Write("max.icc", MakeICCProfile(65535, 65535, 65535, 65535, 65535, 65535));

    EXPECT_EQ(PartsOf(RunVersioner<ColorProfileVersioner>(path).version),
              (Parts{65535, 65535, 65535, 65535 * 60 + 65535 + 65536 / 60}));
}

struct NameCase {
    const char* name;
    bool recognised;
};

// Test listings (and CTest's test names) show the path tried.
void PrintTo(const NameCase& inCase, std::ostream* outStream) {
    *outStream << inCase.name;
}

class ColorProfileNameTest : public VersionerTest,
                             public ::testing::WithParamInterface<NameCase> {};

TEST_P(ColorProfileNameTest, NameDecidesAlone) {
    const std::string path = Write(GetParam().name, MakeICCProfile(2001, 2, 3, 4, 5, 6));

    const VersionOutcome outcome = RunVersioner<ColorProfileVersioner>(path);

    EXPECT_EQ(outcome.recognised, GetParam().recognised);
    if (GetParam().recognised) {
        EXPECT_EQ(outcome.type, OFV_FileTypeColorProfile);
        EXPECT_EQ(PartsOf(outcome.version), (Parts{2001, 2, 3, 245}));
    }
}

INSTANTIATE_TEST_SUITE_P(
    ProfileNames, ColorProfileNameTest,
    ::testing::Values(NameCase{"p.icc", true}, NameCase{"p.ICC", true}, NameCase{"p.iCc", true},
                      NameCase{"p.icm", true}, NameCase{"p.ICM", true}, NameCase{"p.csf", true},
                      NameCase{"p.CsF", true}, NameCase{"p.pf", true}, NameCase{"p.PF", true},
                      NameCase{"font.pfb", true}, NameCase{"font.pfm", true},
                      NameCase{"p.icc.old", true}, NameCase{"Profiles.icc/readme.txt", true},
                      NameCase{"p.ic", false}, NameCase{"p.txt", false}, NameCase{"icc", false},
                      NameCase{"p_icc", false}, NameCase{"p.i.cc", false}));

TEST_F(ColorProfileVersionerTest, NothingIsReadWhenTheNameDoesNotMatch) {
    const std::string path = Write("profile.txt", MakeICCProfile(2006, 3, 15, 10, 20, 59));
    ReadRecorder recorder;

    EXPECT_FALSE(RunVersioner<ColorProfileVersioner>(path).recognised);
    EXPECT_TRUE(recorder.reads().empty());
}

TEST_F(ColorProfileVersionerTest, Needs36Bytes) {
    const std::string profile = MakeICCProfile(2006, 3, 15, 10, 20, 59);
    const std::string shortPath = Write("short.icc", profile.substr(0, 35));
    const std::string exactPath = Write("exact.icc", profile.substr(0, 36));

    EXPECT_FALSE(RunVersioner<ColorProfileVersioner>(shortPath).recognised);
    const VersionOutcome exact = RunVersioner<ColorProfileVersioner>(exactPath);
    EXPECT_TRUE(exact.recognised);
    EXPECT_EQ(PartsOf(exact.version), (Parts{2006, 3, 15, 621}));
}

TEST_F(ColorProfileVersionerTest, ContentIsNotExamined) {
    const std::string path = Write("zeros.icc", std::string(36, '\0'));

    const VersionOutcome outcome = RunVersioner<ColorProfileVersioner>(path);

    EXPECT_TRUE(outcome.recognised);
    EXPECT_EQ(PartsOf(outcome.version), (Parts{0, 0, 0, 0}));
}

TEST_F(ColorProfileVersionerTest, ReadsUpTo1024BytesOnce) {
    std::string profile = MakeICCProfile(2006, 3, 15, 10, 20, 59);
    profile.resize(5000, '\x7f');
    const std::string path = Write("big.icc", profile);
    ReadRecorder recorder;

    EXPECT_TRUE(RunVersioner<ColorProfileVersioner>(path).recognised);

    ASSERT_EQ(recorder.reads().size(), 1u);
    EXPECT_EQ(recorder.reads()[0].requested, 1024u);
    EXPECT_EQ(recorder.reads()[0].read, 1024u);
}

TEST_F(ColorProfileVersionerTest, MissingFileIsNotAProfile) {
    EXPECT_FALSE(
        RunVersioner<ColorProfileVersioner>((_folder.path() / "missing.icc").string()).recognised);
}

} // namespace
} // namespace ofv_testing
