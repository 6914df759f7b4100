#include "xplat/OTFFontVersioner.h"

#include "ReadRecorder.h"
#include "VersionerSamples.h"
#include "VersionerTestSupport.h"

#include <gtest/gtest.h>

namespace ofv_testing {
namespace {

class OTFFontVersionerTest : public VersionerTest {};

TEST_F(OTFFontVersionerTest, ReadsTheVersionMarkOfAnUpperCaseName) {
    const std::string path = Write("X.OTF", MakeOpenTypeFont("Version 2.004;ORVL;"));

    const VersionOutcome outcome = GetVersion(path);

    EXPECT_EQ(outcome.result, OFV_Success);
    EXPECT_EQ(outcome.type, OFV_FileTypeOTFFont);
    EXPECT_EQ(PartsOf(outcome.version), (Parts{2, 4, 0, 0}));
}

TEST_F(OTFFontVersionerTest, TheNameMustEndInOtf) {
    const std::string font = MakeOpenTypeFont("Version 2.004;ORVL;");

    EXPECT_TRUE(RunVersioner<OTFFontVersioner>(Write("X.otf", font)).recognised);
    EXPECT_TRUE(RunVersioner<OTFFontVersioner>(Write("X.oTf", font)).recognised);
    EXPECT_FALSE(RunVersioner<OTFFontVersioner>(Write("X.otf.bak", font)).recognised);
    EXPECT_FALSE(RunVersioner<OTFFontVersioner>(Write("X.ttf", font)).recognised);
    EXPECT_FALSE(RunVersioner<OTFFontVersioner>(Write("Xotf", font)).recognised);
    EXPECT_EQ(GetVersion(Write("Y.otf.bak", font)).result, OFV_ErrorGeneral);
}

TEST_F(OTFFontVersionerTest, ReadsAllFourParts) {
    const std::string path = Write("X.otf", MakeOpenTypeFont("Version 7.1.22.333;ORVL;"));

    EXPECT_EQ(PartsOf(RunVersioner<OTFFontVersioner>(path).version), (Parts{7, 1, 22, 333}));
}

TEST_F(OTFFontVersionerTest, AFontWithoutTheMarkHasNoVersion) {
    const std::string path = Write("X.otf", MakeOpenTypeFont("Version 2.004;ADBE;"));

    EXPECT_FALSE(RunVersioner<OTFFontVersioner>(path).recognised);
}

TEST_F(OTFFontVersionerTest, AMarkEndingAtTheLastByteReadIsMissed) {
    EXPECT_FALSE(RunVersioner<OTFFontVersioner>(Write("end.otf", "OTTO 2.004;ORVL;")).recognised);
    EXPECT_TRUE(RunVersioner<OTFFontVersioner>(Write("ok.otf", "OTTO 2.004;ORVL;\n")).recognised);
}

TEST_F(OTFFontVersionerTest, AMarkBeyondTheFirst8192BytesIsNotSeen) {
    std::string font = std::string(8192, '\0') + "Version 1.0;ORVL;\n";
    const std::string path = Write("late.otf", font);
    ReadRecorder recorder;

    EXPECT_FALSE(RunVersioner<OTFFontVersioner>(path).recognised);

    ASSERT_EQ(recorder.reads().size(), 1u);
    EXPECT_EQ(recorder.reads()[0].requested, 8192u);
}

} // namespace
} // namespace ofv_testing
