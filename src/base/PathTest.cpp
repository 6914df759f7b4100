#include "base/Path.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <unistd.h>

namespace {

struct PathCase {
    const char* path;
    const char* parent;
    const char* last;
    const char* extension;
};

// One row per edge case: the root, empty, ".", trailing and doubled slashes, hidden files.
constexpr PathCase kCases[] = {
    {"/a/b/c.txt", "/a/b", "c.txt", "txt"},
    {"/a/b/", "/a", "b", ""},
    {"/a//b", "/a", "b", ""},
    {"/a", "/", "a", ""},
    {"/", "/", "/", ""},
    {"//", "/", "/", ""},
    {"", "", "", ""},
    {".", "", ".", ""},
    {"./x", ".", "x", ""},
    {"name", "", "name", ""},
    {"name.", "", "name.", ""},
    {".hidden", "", ".hidden", ""},
    {"/x/.hidden.conf", "/x", ".hidden.conf", "conf"},
    {"/x/App.app/", "/x", "App.app", "app"},
    {"/x/a.tar.gz", "/x", "a.tar.gz", "gz"},
    {"relative/dir/file", "relative/dir", "file", ""},
};

TEST(PathTest, SplitsEveryEdgeCaseOneWay) {
    for (const auto& row : kCases) {
        SCOPED_TRACE(row.path);
        EXPECT_EQ(ParentPath(row.path), row.parent);
        EXPECT_EQ(LastPathComponent(row.path), row.last);
        EXPECT_EQ(PathExtension(row.path), row.extension);
    }
}

TEST(PathTest, JoinsWithOneSlash) {
    EXPECT_EQ(JoinPath("/a", "b"), "/a/b");
    EXPECT_EQ(JoinPath("/a/", "b"), "/a/b");
    EXPECT_EQ(JoinPath("/a//", "//b"), "/a/b");
    EXPECT_EQ(JoinPath("/", "b"), "/b");
    EXPECT_EQ(JoinPath("/", "/b"), "/b");
    EXPECT_EQ(JoinPath("", "b"), "b");
    EXPECT_EQ(JoinPath("/a", ""), "/a");
    EXPECT_EQ(JoinPath("a", "b/c"), "a/b/c");
    EXPECT_EQ(JoinPath(".", "x"), "./x");
}

TEST(PathTest, JoinAndSplitAreInverse) {
    for (const char* folder : {"/", "/a", "/a/b", "rel"}) {
        const std::string joined = JoinPath(folder, "leaf");
        EXPECT_EQ(ParentPath(joined), folder);
        EXPECT_EQ(LastPathComponent(joined), "leaf");
    }
}

TEST(PathTest, TrimsTrailingSlashesButKeepsTheRoot) {
    EXPECT_EQ(WithoutTrailingSlashes("/a/b///"), "/a/b");
    EXPECT_EQ(WithoutTrailingSlashes("///"), "/");
    EXPECT_EQ(WithoutTrailingSlashes(""), "");
}

TEST(PathTest, InsideComparesWholeComponents) {
    EXPECT_TRUE(IsPathInside("/opt/a", "/opt"));
    EXPECT_TRUE(IsPathInside("/opt/a/b", "/opt/"));
    EXPECT_TRUE(IsPathInside("/opt", "/opt"));
    EXPECT_TRUE(IsPathInside("/anything", "/"));
    EXPECT_FALSE(IsPathInside("/optx", "/opt"));
    EXPECT_FALSE(IsPathInside("/op", "/opt"));
    EXPECT_FALSE(IsPathInside("/opt", ""));
}

TEST(PathTest, ExistenceQuestionsTellLinksApart) {
    TempDir temp;
    const std::string file = temp.file("f");
    const std::string dangling = temp.file("dangling");
    const std::string folderLink = temp.file("folder-link");
    WriteTextFile(file, "x");
    ASSERT_EQ(::symlink("missing", dangling.c_str()), 0);
    ASSERT_EQ(::symlink(temp.path().c_str(), folderLink.c_str()), 0);

    EXPECT_TRUE(PathExists(file));
    EXPECT_FALSE(FolderExists(file));
    EXPECT_FALSE(PathExists(dangling));
    EXPECT_TRUE(PathExistsNoFollow(dangling));
    EXPECT_TRUE(FolderExists(folderLink));
    EXPECT_TRUE(FolderExists(temp.path()));
    EXPECT_FALSE(PathExists(""));
    EXPECT_FALSE(PathExistsNoFollow(temp.file("none")));
}

} // namespace
