#include "xplat/JSXVersioner.h"

#include "ReadRecorder.h"
#include "VersionerSamples.h"
#include "VersionerTestSupport.h"

#include <gtest/gtest.h>

namespace ofv_testing {
namespace {

class JSXVersionerTest : public VersionerTest {};

TEST_F(JSXVersionerTest, TheGreedyPrefixLeavesTheFirstPartItsLastDigit) {
    const std::string path = Write("OrvelTools.jsx", MakeScript("12.3.4.5 release build"));

    const VersionOutcome outcome = GetVersion(path);

    EXPECT_EQ(outcome.result, OFV_Success);
    EXPECT_EQ(outcome.type, OFV_FileTypeJSX);
    EXPECT_EQ(PartsOf(outcome.version), (Parts{2, 3, 4, 5}));
}

TEST_F(JSXVersionerTest, ALaterDottedNumberInReachWins) {
    const std::string path = Write("a.jsx", MakeScript("12.3.4.5 built on 10.0.0.1"));

    EXPECT_EQ(PartsOf(RunVersioner<JSXVersioner>(path).version), (Parts{0, 0, 0, 1}));
}

TEST_F(JSXVersionerTest, NeedsFourParts) {
    EXPECT_FALSE(
        RunVersioner<JSXVersioner>(Write("a.jsx", "// @@@BUILDINFO@@@ 1.2.3\n")).recognised);
}

TEST_F(JSXVersionerTest, NeedsSomethingBetweenTheMarkAndTheVersion) {
    EXPECT_FALSE(RunVersioner<JSXVersioner>(Write("a.jsx", "@@@BUILDINFO@@@1.2.3.4\n")).recognised);
    EXPECT_EQ(
        PartsOf(RunVersioner<JSXVersioner>(Write("b.jsx", "@@@BUILDINFO@@@11.2.3.4\n")).version),
        (Parts{1, 2, 3, 4}));
}

TEST_F(JSXVersionerTest, AnyNameWillDo) {
    EXPECT_TRUE(
        RunVersioner<JSXVersioner>(Write("startup", MakeScript("Tools 1.2.3.4"))).recognised);
}

TEST_F(JSXVersionerTest, ABuildInfoLineBeyondTheFirst1024BytesIsNotSeen) {
    const std::string path = Write("late.jsx", std::string(1024, '\n') + MakeScript("1.2.3.4"));
    ReadRecorder recorder;

    EXPECT_FALSE(RunVersioner<JSXVersioner>(path).recognised);

    ASSERT_EQ(recorder.reads().size(), 1u);
    EXPECT_EQ(recorder.reads()[0].requested, 1024u);
}

} // namespace
} // namespace ofv_testing
