#include "xplat/OrvelFileVersioner.h"

#include "VersionerSamples.h"
#include "VersionerTestSupport.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace ofv_testing {
namespace {

class OrvelFileVersionerTest : public VersionerTest {};

TEST(OrvelFileVersionerLayoutTest, RecordsAndCodesHaveTheirFixedWidthsAndValues) {
    static_assert(sizeof(OFV_FileVersion) == 16);
    static_assert(std::is_standard_layout_v<OFV_FileVersion>);
    static_assert(sizeof(OFV_FileType) == 4 &&
                  std::is_signed_v<std::underlying_type_t<OFV_FileType>>);
    static_assert(sizeof(OFV_Result) == 4);
    EXPECT_EQ(OFV_FileTypeUnknown, 0);
    EXPECT_EQ(OFV_FileTypeColorProfile, 2);
    EXPECT_EQ(OFV_FileTypeOTFFont, 3);
    EXPECT_EQ(OFV_FileTypePFBFont, 4);
    EXPECT_EQ(OFV_FileTypeUnicodeMap, 5);
    EXPECT_EQ(OFV_FileTypeICU, 6);
    EXPECT_EQ(OFV_FileTypeFontDatabase, 7);
    EXPECT_EQ(OFV_FileTypeCMap, 8);
    EXPECT_EQ(OFV_FileTypeJSX, 9);
    EXPECT_EQ(OFV_Success, 0);
    EXPECT_EQ(OFV_ErrorGeneral, 1);
    EXPECT_EQ(OFV_ErrorFileNotFound, 2);
    EXPECT_EQ(OFV_ErrorInvalidVersion, 4);
    EXPECT_EQ(OFV_ErrorTypeMismatch, 5);
}

TEST(OrvelFileVersionerLayoutTest, AVersionIsValidOnlyWithoutUnsetParts) {
    EXPECT_TRUE(MakeVersion(0, 0, 0, 0).IsValid());
    EXPECT_TRUE(MakeVersion(-2, 0, 0, 0).IsValid());
    EXPECT_FALSE(UnsetVersion().IsValid());
    EXPECT_FALSE(MakeVersion(1, 2, 3, -1).IsValid());
}

TEST_F(OrvelFileVersionerTest, EmptyAndMissingPathsAreNotFound) {
    EXPECT_EQ(GetVersion("").result, OFV_ErrorFileNotFound);
    EXPECT_EQ(GetVersion((_folder.path() / "missing.icc").string()).result, OFV_ErrorFileNotFound);
}

TEST_F(OrvelFileVersionerTest, AFileNoVersionerRecognisesIsAGeneralError) {
    EXPECT_EQ(GetVersion(Write("ReadMe.txt", MakePlainText())).result, OFV_ErrorGeneral);
    EXPECT_EQ(GetVersion(Write("empty.txt", "")).result, OFV_ErrorGeneral);
}

TEST_F(OrvelFileVersionerTest, AFolderExistsButHasNoVersion) {
    EXPECT_EQ(GetVersion(_folder.path().string()).result, OFV_ErrorGeneral);
}

struct SampleExpectation {
    const char* name;
    OFV_FileType type;
    Parts parts;
};

TEST_F(OrvelFileVersionerTest, EveryStandardSampleGetsItsVersion) {
    const std::vector<SampleExpectation> expectations = {
        {"Orvel-Test-H", OFV_FileTypeCMap, {11, 1, 0, 0}},
        {"Display.icc", OFV_FileTypeColorProfile, {2006, 3, 15, 621}},
        {"Print.ICM", OFV_FileTypeColorProfile, {2007, 11, 2, 23 * 60 + 59}},
        {"OrvelSans-Regular.otf", OFV_FileTypeOTFFont, {2, 4, 0, 0}},
        {"OrvelSerif-Short.pfb", OFV_FileTypePFBFont, {1, 2, 0, 0}},
        {"ORVELSYM.TXT", OFV_FileTypeUnicodeMap, {3, 1, 0, 0}},
        {"ORVELSYM-end.TXT", OFV_FileTypeUnicodeMap, {3, 1, 0, 0}},
        {"orvelcnv.cnv", OFV_FileTypeICU, {6100, 3000, 0, 0}},
        {"orveldt.dat", OFV_FileTypeICU, {110780, 4200, 0, 0}},
        {"OrvelFontDB.lst", OFV_FileTypeFontDatabase, {1, 2, 3, 0}},
        {"OrvelTools.jsx", OFV_FileTypeJSX, {2, 3, 4, 5}},
    };
    const std::vector<std::string> unrecognised = {"Orvel-Test-V", "OrvelSans-Bold.OTF.bak",
                                                   "ReadMe.txt"};

    std::size_t checked = 0;
    for (const SampleFile& sample : StandardSamples()) {
        SCOPED_TRACE(sample.name);
        const VersionOutcome outcome = GetVersion(Write(sample.name, sample.content));
        for (const SampleExpectation& expected : expectations) {
            if (sample.name == expected.name) {
                EXPECT_EQ(outcome.result, OFV_Success);
                EXPECT_EQ(outcome.type, expected.type);
                EXPECT_EQ(PartsOf(outcome.version), expected.parts);
                ++checked;
            }
        }
        for (const std::string& name : unrecognised) {
            if (sample.name == name) {
                EXPECT_EQ(outcome.result, OFV_ErrorGeneral);
                ++checked;
            }
        }
    }
    // The large PFB font is the one sample left: it is claimed as a colour profile.
    EXPECT_EQ(checked + 1, StandardSamples().size());
}

TEST_F(OrvelFileVersionerTest, ProfileNamesClaimAnyFileOf36BytesUnlessItIsACMap) {
    std::string content = "Any content at all, as long as it has 36 bytes or more.";
    const auto be16 = [&](std::size_t inOffset) {
        return static_cast<unsigned char>(content[inOffset]) * 256 +
               static_cast<unsigned char>(content[inOffset + 1]);
    };
    const Parts fromBytes = {be16(24), be16(26), be16(28),
                             be16(30) * 60 + be16(32) + (be16(34) + 1) / 60};

    for (const char* name : {"a.icm", "a.ICM", "a.csf", "a.CSF", "a.icc", "a.Icc", "a.pf", "a.PF",
                             "a.pfb", "a.pfm", "folder.icc/data.bin"}) {
        SCOPED_TRACE(name);
        const VersionOutcome outcome = GetVersion(Write(name, content));
        EXPECT_EQ(outcome.result, OFV_Success);
        EXPECT_EQ(outcome.type, OFV_FileTypeColorProfile);
        EXPECT_EQ(PartsOf(outcome.version), fromBytes);
    }

    const VersionOutcome cmap = GetVersion(Write("b.icc", MakeCMapText("7.0")));
    EXPECT_EQ(cmap.type, OFV_FileTypeCMap);
    EXPECT_EQ(PartsOf(cmap.version), (Parts{7, 0, 0, 0}));

    const VersionOutcome cmapWithoutVersion = GetVersion(Write("c.icc", content + "begincmap"));
    EXPECT_EQ(cmapWithoutVersion.result, OFV_Success);
    EXPECT_EQ(cmapWithoutVersion.type, OFV_FileTypeColorProfile)
        << "a CMap mark without a version line leaves the file to the later versioners";
}

TEST(OrvelFileVersionerCompareTest, AnUnsetPartIsAnInvalidVersionAndLeavesTheResult) {
    const OFV_FileVersion valid = MakeVersion(1, 2, 3, 4);
    for (int part = 0; part < 8; ++part) {
        SCOPED_TRACE(part);
        OFV_FileVersion first = valid;
        OFV_FileVersion second = valid;
        OFV_FileVersion& changed = part < 4 ? first : second;
        int32_t* const fields[] = {&changed.majorVersion, &changed.minorVersion,
                                   &changed.fixVersion, &changed.buildVersion};
        *fields[part % 4] = -1;
        int32_t result = 42;

        EXPECT_EQ(OFV_CompareVersions(&first, &second, &result), OFV_ErrorInvalidVersion);
        EXPECT_EQ(result, 42);
    }
}

TEST(OrvelFileVersionerCompareTest, ComparesPartsAsNumbers) {
    struct Case {
        OFV_FileVersion first;
        OFV_FileVersion second;
        int32_t expected;
    };
    const std::vector<Case> cases = {
        {MakeVersion(1, 2, 0, 0), MakeVersion(1, 10, 0, 0), -1},
        {MakeVersion(1, 10, 0, 0), MakeVersion(1, 2, 0, 0), 1},
        {MakeVersion(2, 0, 0, 0), MakeVersion(1, 99, 99, 99), 1},
        {MakeVersion(1, 99, 99, 99), MakeVersion(2, 0, 0, 0), -1},
        {MakeVersion(3, 4, 5, 6), MakeVersion(3, 4, 5, 6), 0},
        {MakeVersion(0, 0, 0, 0), MakeVersion(0, 0, 0, 1), -1},
        {MakeVersion(-2, 0, 0, 0), MakeVersion(0, 0, 0, 0), -1},
    };
    for (const Case& c : cases) {
        int32_t result = 42;
        EXPECT_EQ(OFV_CompareVersions(&c.first, &c.second, &result), OFV_Success);
        EXPECT_EQ(result, c.expected) << ::testing::PrintToString(PartsOf(c.first)) << " vs "
                                      << ::testing::PrintToString(PartsOf(c.second));
    }
}

TEST_F(OrvelFileVersionerTest, CompareFilesWithSameTypeRequiredRefusesDifferentTypes) {
    const std::string font = Write("X.otf", MakeOpenTypeFont("Version 2.004;ORVL;"));
    const std::string icu = Write("a.cnv", MakeICUData("cnvt", {6, 1, 0, 0}, {3, 0, 0, 0}));
    int32_t result = 42;

    EXPECT_EQ(OFV_CompareFiles(font.c_str(), icu.c_str(), true, &result), OFV_ErrorTypeMismatch);
    EXPECT_EQ(result, 42);

    EXPECT_EQ(OFV_CompareFiles(font.c_str(), icu.c_str(), false, &result), OFV_Success);
    EXPECT_EQ(result, -1); // 2.4.0.0 against 6100.3000.0.0
    EXPECT_EQ(OFV_CompareFiles(icu.c_str(), font.c_str(), false, &result), OFV_Success);
    EXPECT_EQ(result, 1);
}

TEST_F(OrvelFileVersionerTest, CompareFilesOfTheSameType) {
    const std::string older = Write("old.icc", MakeICCProfile(2006, 3, 15, 10, 20, 30));
    const std::string newer = Write("new.icc", MakeICCProfile(2006, 3, 15, 10, 20, 59));
    int32_t result = 42;

    EXPECT_EQ(OFV_CompareFiles(older.c_str(), newer.c_str(), true, &result), OFV_Success);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(OFV_CompareFiles(newer.c_str(), older.c_str(), true, &result), OFV_Success);
    EXPECT_EQ(result, 1);
    EXPECT_EQ(OFV_CompareFiles(newer.c_str(), newer.c_str(), true, &result), OFV_Success);
    EXPECT_EQ(result, 0);
}

TEST_F(OrvelFileVersionerTest, CompareFilesReturnsTheFirstLookUpError) {
    const std::string font = Write("X.otf", MakeOpenTypeFont("Version 2.004;ORVL;"));
    const std::string plain = Write("ReadMe.txt", MakePlainText());
    const std::string missing = (_folder.path() / "missing.otf").string();
    int32_t result = 42;

    EXPECT_EQ(OFV_CompareFiles(missing.c_str(), plain.c_str(), false, &result),
              OFV_ErrorFileNotFound);
    EXPECT_EQ(OFV_CompareFiles(plain.c_str(), missing.c_str(), false, &result), OFV_ErrorGeneral);
    EXPECT_EQ(OFV_CompareFiles(font.c_str(), missing.c_str(), true, &result),
              OFV_ErrorFileNotFound);
    EXPECT_EQ(OFV_CompareFiles(font.c_str(), "", true, &result), OFV_ErrorFileNotFound);
    EXPECT_EQ(result, 42);
}

TEST_F(OrvelFileVersionerTest, CompareFilesReportsAVersionWithAnOverflowingPartAsInvalid) {
    // Digits beyond 32 bits read as -1, the unset value, like the C library's atoi.
    const std::string huge = Write("huge", "begincmap /CMapVersion 99999999999999999999.1 def\n");
    const std::string normal = Write("normal", MakeCMapText("1.0"));
    int32_t result = 42;

    const VersionOutcome outcome = GetVersion(huge);
    EXPECT_EQ(outcome.result, OFV_Success);
    EXPECT_EQ(PartsOf(outcome.version), (Parts{-1, 1, 0, 0}));
    EXPECT_EQ(OFV_CompareFiles(huge.c_str(), normal.c_str(), true, &result),
              OFV_ErrorInvalidVersion);
    EXPECT_EQ(result, 42);
}

} // namespace
} // namespace ofv_testing
