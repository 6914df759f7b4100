#include "base/FileUtil.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

TEST(FileUtilTest, WriteAndReadBack) {
    TempDir dir;
    ASSERT_TRUE(WriteFile(dir.file("a"), "hello"));
    EXPECT_EQ(ReadFileText(dir.file("a")), "hello");
    ASSERT_TRUE(WriteFileAtomically(dir.file("a"), "bye"));
    EXPECT_EQ(ReadFileText(dir.file("a")), "bye");
    EXPECT_FALSE(ReadFileText(dir.file("missing")));
    EXPECT_FALSE(ReadFileText(dir.file("a"), 2));
    std::string error;
    EXPECT_FALSE(WriteFile(dir.file("no/such/folder"), "x", &error));
    EXPECT_NE(error.find("cannot open"), std::string::npos);
}

TEST(FileUtilTest, AtomicWriteOfANewFileIs0644) {
    TempDir dir;
    ASSERT_TRUE(WriteFileAtomically(dir.file("new"), "x"));
    struct stat info {};
    ASSERT_EQ(::stat(dir.file("new").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u);
}

TEST(FileUtilTest, UniqueFdClosesItsDescriptor) {
    TempDir dir;
    WriteTextFile(dir.file("f"), "x");
    int raw = -1;
    {
        UniqueFd fd(::open(dir.file("f").c_str(), O_RDONLY));
        ASSERT_TRUE(fd.valid());
        raw = fd.get();
        UniqueFd moved(std::move(fd));
        EXPECT_FALSE(fd.valid());
        EXPECT_EQ(moved.get(), raw);
    }
    EXPECT_EQ(::fcntl(raw, F_GETFD), -1);
}

} // namespace
