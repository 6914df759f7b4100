#include "xplat/ICUVersioner.h"

#include "ReadRecorder.h"
#include "VersionerSamples.h"
#include "VersionerTestSupport.h"

#include <gtest/gtest.h>

namespace ofv_testing {
namespace {

class ICUVersionerTest : public VersionerTest {};

TEST_F(ICUVersionerTest, ConverterVersionComesFromFormatAndDataVersions) {
    const std::string path = Write("orvelcnv.cnv", MakeICUData("cnvt", {6, 1, 0, 0}, {3, 0, 0, 0}));

    const VersionOutcome outcome = GetVersion(path);

    EXPECT_EQ(outcome.result, OFV_Success);
    EXPECT_EQ(outcome.type, OFV_FileTypeICU);
    EXPECT_EQ(PartsOf(outcome.version), (Parts{6100, 3000, 0, 0}));
}

TEST_F(ICUVersionerTest, EachVersionByteHasItsDecimalWeight) {
    const std::string path = Write("a.cnv", MakeICUData("cnvt", {1, 2, 3, 4}, {9, 8, 7, 6}));

    EXPECT_EQ(PartsOf(RunVersioner<ICUVersioner>(path).version), (Parts{1234, 9876, 0, 0}));
}

TEST_F(ICUVersionerTest, VersionBytesAreUnsigned) {
    const std::string path =
        Write("a.cnv", MakeICUData("cnvt", {255, 255, 255, 255}, {128, 0, 0, 0}));

    EXPECT_EQ(PartsOf(RunVersioner<ICUVersioner>(path).version), (Parts{283305, 128000, 0, 0}));
}

TEST_F(ICUVersionerTest, CommonDataIsRecognisedByEverySecondByte) {
    // "CmnD" compared with bytes 12, 14, 16 and 18; 16 and 18 belong to the format version.
    const std::string path =
        Write("orveldt.dat", MakeICUData(std::string("C\0m\0", 4), {'n', 1, 'D', 0}, {4, 2, 0, 0}));

    const VersionOutcome outcome = RunVersioner<ICUVersioner>(path);

    EXPECT_TRUE(outcome.recognised);
    EXPECT_EQ(outcome.type, OFV_FileTypeICU);
    EXPECT_EQ(PartsOf(outcome.version), (Parts{'n' * 1000 + 100 + 'D' * 10, 4200, 0, 0}));
}

TEST_F(ICUVersionerTest, ACommonDataTagWrittenContiguouslyIsNotRecognised) {
    const std::string path = Write("icudt.dat", MakeICUData("CmnD", {1, 0, 0, 0}, {4, 2, 0, 0}));

    EXPECT_FALSE(RunVersioner<ICUVersioner>(path).recognised);
    EXPECT_EQ(GetVersion(path).result, OFV_ErrorGeneral);
}

TEST_F(ICUVersionerTest, OtherDataFormatsAreNotRecognised) {
    EXPECT_FALSE(
        RunVersioner<ICUVersioner>(Write("a.res", MakeICUData("ResB", {2, 0, 0, 0}, {1, 0, 0, 0})))
            .recognised);
    EXPECT_FALSE(
        RunVersioner<ICUVersioner>(Write("b.cnv", MakeICUData("CNVT", {6, 1, 0, 0}, {3, 0, 0, 0})))
            .recognised);
}

TEST_F(ICUVersionerTest, Needs25Bytes) {
    const std::string data = MakeICUData("cnvt", {6, 1, 0, 0}, {3, 0, 0, 0});

    EXPECT_FALSE(RunVersioner<ICUVersioner>(Write("short.cnv", data.substr(0, 24))).recognised);
    const VersionOutcome exact = RunVersioner<ICUVersioner>(Write("exact.cnv", data.substr(0, 25)));
    EXPECT_TRUE(exact.recognised);
    EXPECT_EQ(PartsOf(exact.version), (Parts{6100, 3000, 0, 0}));
}

TEST_F(ICUVersionerTest, HeaderSizeAndMagicAreNotExamined) {
    std::string data = MakeICUData("cnvt", {6, 1, 0, 0}, {3, 0, 0, 0});
    data.replace(0, 4, "\xff\xff\xff\xff");

    EXPECT_TRUE(RunVersioner<ICUVersioner>(Write("a.cnv", data)).recognised);
}

TEST_F(ICUVersionerTest, ReadsUpTo1024BytesOnce) {
    std::string data = MakeICUData("cnvt", {6, 1, 0, 0}, {3, 0, 0, 0});
    data.resize(3000, '\x01');
    const std::string path = Write("big.cnv", data);
    ReadRecorder recorder;

    EXPECT_TRUE(RunVersioner<ICUVersioner>(path).recognised);

    ASSERT_EQ(recorder.reads().size(), 1u);
    EXPECT_EQ(recorder.reads()[0].requested, 1024u);
    EXPECT_EQ(recorder.reads()[0].read, 1024u);
}

} // namespace
} // namespace ofv_testing
