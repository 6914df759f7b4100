#include "xplat/VersionOps.h"

#include "VersionerTestSupport.h"

#include <gtest/gtest.h>

#include <functional>

namespace ofv_testing {
namespace {

bool Older(const OFV_FileVersion& inLhs, const OFV_FileVersion& inRhs) {
    return VersionOps::CompareVersions(inLhs, inRhs, std::less<int32_t>());
}

TEST(VersionOpsTest, VersionToVectorListsPartsInOrderOfSignificance) {
    EXPECT_EQ(VersionOps::VersionToVector(MakeVersion(4, 3, 2, 1)),
              (std::vector<int32_t>{4, 3, 2, 1}));
}

TEST(VersionOpsTest, PartsCompareAsNumbersNotText) {
    EXPECT_TRUE(Older(MakeVersion(1, 2, 0, 0), MakeVersion(1, 10, 0, 0)));
    EXPECT_FALSE(Older(MakeVersion(1, 10, 0, 0), MakeVersion(1, 2, 0, 0)));
}

TEST(VersionOpsTest, TheMostSignificantDifferenceDecides) {
    EXPECT_TRUE(Older(MakeVersion(1, 99, 99, 99), MakeVersion(2, 0, 0, 0)));
    EXPECT_TRUE(Older(MakeVersion(2, 0, 0, 8), MakeVersion(2, 0, 0, 9)));
    EXPECT_FALSE(Older(MakeVersion(2, 0, 1, 0), MakeVersion(2, 0, 0, 9)));
}

TEST(VersionOpsTest, EqualVersionsAreNotOlder) {
    EXPECT_FALSE(Older(MakeVersion(5, 6, 7, 8), MakeVersion(5, 6, 7, 8)));
}

TEST(VersionOpsTest, PartsAreSignedAndOnlyMinusOneIsUnset) {
    EXPECT_TRUE(Older(MakeVersion(-2, 0, 0, 0), MakeVersion(0, 0, 0, 0)));
    EXPECT_TRUE(Older(MakeVersion(0, INT32_MIN, 0, 0), MakeVersion(0, -2, 0, 0)));
}

TEST(VersionOpsTest, UsesTheComparisonHandedIn) {
    EXPECT_TRUE(VersionOps::CompareVersions(MakeVersion(2, 0, 0, 0), MakeVersion(1, 0, 0, 0),
                                            std::greater<int32_t>()));
}

} // namespace
} // namespace ofv_testing
