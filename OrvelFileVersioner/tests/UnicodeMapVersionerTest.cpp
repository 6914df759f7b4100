#include "xplat/UnicodeMapVersioner.h"

#include "ReadRecorder.h"
#include "VersionerSamples.h"
#include "VersionerTestSupport.h"

#include <gtest/gtest.h>

namespace ofv_testing {
namespace {

class UnicodeMapVersionerTest : public VersionerTest {};

TEST_F(UnicodeMapVersionerTest, ReadsTheVersionLine) {
    const std::string path = Write("ORVELSYM.TXT", MakeUnicodeMap("3.1"));

    const VersionOutcome outcome = GetVersion(path);

    EXPECT_EQ(outcome.result, OFV_Success);
    EXPECT_EQ(outcome.type, OFV_FileTypeUnicodeMap);
    EXPECT_EQ(PartsOf(outcome.version), (Parts{3, 1, 0, 0}));
}

TEST_F(UnicodeMapVersionerTest, TheLastByteOfTheFileIsOutsideTheSearch) {
    const std::string content = MakeUnicodeMap("3.12", true);
    ASSERT_EQ(content.substr(content.size() - 26), "##Orvel File Version: 3.12");
    const std::string path = Write("ORVELSYM.TXT", content);

    const VersionOutcome outcome = GetVersion(path);

    EXPECT_EQ(outcome.type, OFV_FileTypeUnicodeMap);
    EXPECT_EQ(PartsOf(outcome.version), (Parts{3, 1, 0, 0}));
}

TEST_F(UnicodeMapVersionerTest, ReadsAllFourParts) {
    const std::string path = Write("map.txt", MakeUnicodeMap("10.20.30.40"));

    EXPECT_EQ(PartsOf(RunVersioner<UnicodeMapVersioner>(path).version), (Parts{10, 20, 30, 40}));
}

TEST_F(UnicodeMapVersionerTest, TheLineIsCaseAndSpaceSensitive) {
    EXPECT_FALSE(
        RunVersioner<UnicodeMapVersioner>(Write("a", "##orvel file version: 3.1\n")).recognised);
    EXPECT_FALSE(
        RunVersioner<UnicodeMapVersioner>(Write("b", "##Orvel File Version:3.1\n")).recognised);
}

TEST_F(UnicodeMapVersionerTest, AVersionLineBeyondTheFirst4096BytesIsNotSeen) {
    const std::string path =
        Write("late.txt", std::string(4096, '#') + "\n##Orvel File Version: 3.1\n");
    ReadRecorder recorder;

    EXPECT_FALSE(RunVersioner<UnicodeMapVersioner>(path).recognised);

    ASSERT_EQ(recorder.reads().size(), 1u);
    EXPECT_EQ(recorder.reads()[0].requested, 4096u);
}

} // namespace
} // namespace ofv_testing
