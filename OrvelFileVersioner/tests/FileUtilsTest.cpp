#include "xplat/FileUtils.h"

#include "ReadRecorder.h"
#include "VersionerTestSupport.h"

#include <gtest/gtest.h>

#include <unistd.h>

namespace ofv_testing {
namespace {

class OFVFileUtilsTest : public VersionerTest {};

TEST_F(OFVFileUtilsTest, UTF8ToPlatformFilePathCopiesTheTextUnchanged) {
    PlatformFilePath path = "stale";

    EXPECT_TRUE(ofv::UTF8ToPlatformFilePath("/tmp/Sch\xc3\xb6n/caf\xc3\xa9.icc", path));
    EXPECT_EQ(path, "/tmp/Sch\xc3\xb6n/caf\xc3\xa9.icc");
    EXPECT_TRUE(ofv::UTF8ToPlatformFilePath("relative//./x", path));
    EXPECT_EQ(path, "relative//./x");
}

TEST_F(OFVFileUtilsTest, UTF8ToPlatformFilePathRefusesAnEmptyPath) {
    PlatformFilePath path = "stale";

    EXPECT_FALSE(ofv::UTF8ToPlatformFilePath("", path));
    EXPECT_EQ(path, "");
}

TEST_F(OFVFileUtilsTest, DoesFilePathExistOpensForReading) {
    EXPECT_TRUE(ofv::DoesFilePathExist(Write("a.txt", "x")));
    EXPECT_TRUE(ofv::DoesFilePathExist(Write("empty", "")));
    EXPECT_FALSE(ofv::DoesFilePathExist((_folder.path() / "missing").string()));
    EXPECT_FALSE(ofv::DoesFilePathExist(""));
    EXPECT_FALSE(ofv::DoesFilePathExist(Write("plain", "x") + "/below-a-file"));
}

TEST_F(OFVFileUtilsTest, DoesFilePathExistIsFalseForAnUnreadableFile) {
    if (::geteuid() == 0) {
        GTEST_SKIP() << "the super-user can read any file";
    }
    const std::string path = Write("secret", "x");
    std::filesystem::permissions(path, std::filesystem::perms::none);

    EXPECT_FALSE(ofv::DoesFilePathExist(path));
}

TEST_F(OFVFileUtilsTest, ReadFileBytesReadsThePrefix) {
    const std::string path = Write("a.bin", std::string("0123456789"));
    std::vector<char> bytes;

    ASSERT_TRUE(ofv::ReadFileBytes(path, 4, bytes));
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "0123");
}

TEST_F(OFVFileUtilsTest, ReadFileBytesHoldsTheWholeShorterFile) {
    const std::string path = Write("a.bin", std::string("ab\0cd", 5));
    std::vector<char> bytes(100, 'x');

    ASSERT_TRUE(ofv::ReadFileBytes(path, 8192, bytes));
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), std::string("ab\0cd", 5));
}

TEST_F(OFVFileUtilsTest, ReadFileBytesOfAnEmptyFileIsAnEmptyBuffer) {
    std::vector<char> bytes(3, 'x');

    ASSERT_TRUE(ofv::ReadFileBytes(Write("empty", ""), 1024, bytes));
    EXPECT_TRUE(bytes.empty());
}

TEST_F(OFVFileUtilsTest, ReadFileBytesFailsForMissingFilesAndFolders) {
    std::vector<char> bytes;

    EXPECT_FALSE(ofv::ReadFileBytes((_folder.path() / "missing").string(), 16, bytes));
    EXPECT_FALSE(ofv::ReadFileBytes(_folder.path().string(), 16, bytes));
}

TEST_F(OFVFileUtilsTest, ReadObserverSeesEveryRead) {
    const std::string path = Write("a.bin", "hello");
    std::vector<char> bytes;
    ReadRecorder recorder;

    ASSERT_TRUE(ofv::ReadFileBytes(path, 2, bytes));
    ASSERT_TRUE(ofv::ReadFileBytes(path, 64, bytes));
    ASSERT_FALSE(ofv::ReadFileBytes(path + ".missing", 8, bytes));

    ASSERT_EQ(recorder.reads().size(), 3u);
    EXPECT_EQ(recorder.reads()[0].path, path);
    EXPECT_EQ(recorder.requestedCounts(), (std::vector<std::size_t>{2, 64, 8}));
    EXPECT_EQ(recorder.reads()[0].read, 2u);
    EXPECT_EQ(recorder.reads()[1].read, 5u);
    EXPECT_EQ(recorder.reads()[2].read, 0u);
}

} // namespace
} // namespace ofv_testing
