#include "xplat/Versioner.h"

#include "xplat/CMapVersioner.h"
#include "xplat/JSXVersioner.h"

#include "VersionerTestSupport.h"

#include <gtest/gtest.h>

namespace ofv_testing {
namespace {

TEST(VersionerTemplateTest, SetVersionPartStoresEachPartAndLeavesTheOthers) {
    OFV_FileVersion version = UnsetVersion();

    EXPECT_TRUE(Versioner<CMapVersioner>::SetVersionPart(2, 30, version));
    EXPECT_EQ(PartsOf(version), (Parts{-1, -1, 30, -1}));
    EXPECT_TRUE(Versioner<CMapVersioner>::SetVersionPart(0, 10, version));
    EXPECT_TRUE(Versioner<CMapVersioner>::SetVersionPart(3, 40, version));
    EXPECT_TRUE(Versioner<CMapVersioner>::SetVersionPart(1, 20, version));
    EXPECT_EQ(PartsOf(version), (Parts{10, 20, 30, 40}));
}

TEST(VersionerTemplateTest, SetVersionPartStoresAnyValue) {
    OFV_FileVersion version = MakeVersion(1, 2, 3, 4);

    EXPECT_TRUE(Versioner<JSXVersioner>::SetVersionPart(1, -1, version));
    EXPECT_TRUE(Versioner<JSXVersioner>::SetVersionPart(3, INT32_MIN, version));
    EXPECT_EQ(PartsOf(version), (Parts{1, -1, 3, INT32_MIN}));
}

TEST(VersionerTemplateTest, CreateVersionerMakesANewObjectOfTheConcreteClass) {
    const std::unique_ptr<VersionerABC> first = CMapVersioner::CreateVersioner();
    const std::unique_ptr<VersionerABC> second = CMapVersioner::CreateVersioner();

    ASSERT_NE(first, nullptr);
    EXPECT_NE(first.get(), second.get());
    EXPECT_NE(dynamic_cast<CMapVersioner*>(first.get()), nullptr);
    EXPECT_NE(dynamic_cast<JSXVersioner*>(JSXVersioner::CreateVersioner().get()), nullptr);
}

} // namespace
} // namespace ofv_testing
