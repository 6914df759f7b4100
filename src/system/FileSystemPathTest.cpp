#include "system/FileSystemPath.h"

#include "system/FileSystemUtils.h"

#include "TestSupport.h"

#include <gtest/gtest.h>
#include <stdexcept>
#include <unistd.h>

namespace {

std::string ThrownMessage(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "(nothing thrown)";
}

} // namespace

TEST(FileSystemPathTest, TrailingSlashesAreRemovedButTheRootStays) {
    EXPECT_EQ(FileSystemPath("/a/b///").AsUTF8String(), "/a/b");
    EXPECT_EQ(FileSystemPath("/a/b").AsUTF8String(), "/a/b");
    EXPECT_EQ(FileSystemPath("/").AsUTF8String(), "/");
    EXPECT_EQ(FileSystemPath("///").AsUTF8String(), "/");
    EXPECT_EQ(FileSystemPath("/a/b/").AsNative(), "/a/b");
}

TEST(FileSystemPathTest, RelativeAndEmptyTextsAreRejected) {
    const std::string expected = "Invalid path passed to FileSystemPath constructor.";
    EXPECT_EQ(ThrownMessage([] { FileSystemPath("a/b"); }), expected);
    EXPECT_EQ(ThrownMessage([] { FileSystemPath(""); }), expected);
    EXPECT_EQ(ThrownMessage([] { FileSystemPath("/" + std::string(1024, 'x')); }), expected);
}

TEST(FileSystemPathTest, ValidationCodes) {
    using FileSystemUtils::ValidateUTF8FullPathString;
    EXPECT_EQ(ValidateUTF8FullPathString(""), 3);
    EXPECT_EQ(ValidateUTF8FullPathString("a/b"), 3);
    EXPECT_EQ(ValidateUTF8FullPathString("/"), 0);
    EXPECT_EQ(ValidateUTF8FullPathString("/a/b"), 0);

    // 1024 bytes pass, 1025 do not (components of 200 bytes).
    std::string path;
    while (path.size() + 201 <= 1024)
        path += "/" + std::string(200, 'c');
    path += "/" + std::string(1024 - path.size() - 1, 'd');
    ASSERT_EQ(path.size(), 1024u);
    EXPECT_EQ(ValidateUTF8FullPathString(path), 0);
    EXPECT_EQ(ValidateUTF8FullPathString(path + "e"), 2);

    // A component of 255 bytes passes, 256 do not, wherever it stands.
    EXPECT_EQ(ValidateUTF8FullPathString("/" + std::string(255, 'a')), 0);
    EXPECT_EQ(ValidateUTF8FullPathString("/" + std::string(256, 'a')), 2);
    EXPECT_EQ(ValidateUTF8FullPathString("/" + std::string(256, 'a') + "/b"), 2);
    EXPECT_EQ(ValidateUTF8FullPathString("/b/" + std::string(256, 'a') + "/"), 2);
    EXPECT_EQ(FileSystemUtils::ValidateNativeFullPathString("/" + std::string(256, 'a')), 2);
}

TEST(FileSystemPathTest, DefaultIsTheWorkingDirectory) {
    WorkingDirectoryGuard guard;
    TempDir dir;
    ASSERT_EQ(::chdir(dir.path().c_str()), 0);
    char buffer[4096];
    ASSERT_NE(::getcwd(buffer, sizeof buffer), nullptr);
    EXPECT_EQ(FileSystemPath().AsUTF8String(), buffer);
}

TEST(FileSystemPathTest, DefaultThrowsWhenTheWorkingDirectoryIsGone) {
    WorkingDirectoryGuard guard;
    TempDir dir;
    const std::string gone = dir.file("gone");
    ASSERT_EQ(::mkdir(gone.c_str(), 0700), 0);
    ASSERT_EQ(::chdir(gone.c_str()), 0);
    ASSERT_EQ(::rmdir(gone.c_str()), 0);
    EXPECT_EQ(ThrownMessage([] { FileSystemPath(); }), "Unable to get current working directory.");
}

TEST(FileSystemPathTest, NameAndParent) {
    EXPECT_EQ(FileSystemPath("/a/b").NameAsUTF8String(), "b");
    EXPECT_EQ(FileSystemPath("/a/b.txt").NameAsNative(), "b.txt");
    EXPECT_EQ(FileSystemPath("/").NameAsUTF8String(), "/");
    EXPECT_EQ(FileSystemPath("/a/b").Parent().AsUTF8String(), "/a");
    EXPECT_EQ(FileSystemPath("/a").Parent().AsUTF8String(), "/");
    EXPECT_EQ(FileSystemPath("/").Parent().AsUTF8String(), "/");
}

TEST(FileSystemPathTest, AppendSegment) {
    FileSystemPath path("/a");
    path.AppendUTF8Segment("//b");
    EXPECT_EQ(path.AsUTF8String(), "/a/b");
    path.AppendNativeSegment("c/d");
    EXPECT_EQ(path.AsUTF8String(), "/a/b/c/d");
    FileSystemPath root("/");
    root.AppendUTF8Segment("x");
    EXPECT_EQ(root.AsUTF8String(), "/x");
}

TEST(FileSystemPathTest, PathFromText) {
    WorkingDirectoryGuard guard;
    TempDir dir;
    ASSERT_EQ(::chdir(dir.path().c_str()), 0);
    const std::string cwd = FileSystemPath().AsUTF8String();
    EXPECT_EQ(FileSystemPath::PathFromUTF8("/x/y/").AsUTF8String(), "/x/y");
    EXPECT_EQ(FileSystemPath::PathFromUTF8("rel/y").AsUTF8String(), cwd + "/rel/y");
    EXPECT_EQ(FileSystemPath::PathFromNative("z").AsUTF8String(), cwd + "/z");
}

TEST(FileSystemPathTest, CopiesAreIndependent) {
    FileSystemPath a("/a");
    FileSystemPath b = a;
    b.AppendUTF8Segment("b");
    EXPECT_EQ(a.AsUTF8String(), "/a");
    EXPECT_EQ(b.AsUTF8String(), "/a/b");
    a = b;
    EXPECT_EQ(a, b);
}
