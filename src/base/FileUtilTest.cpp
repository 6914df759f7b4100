#include "base/FileUtil.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

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

// What only root could have put in place: root's file, writable by root alone, in folders
// that are root's and writable by root alone (a sticky folder others may write aside).
TEST(FileUtil, AFileOnlyRootControlsIsRootsAloneUpToTheTop) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root";
    TempDir dir; // root's, 0700, in /tmp (root's, sticky)
    const std::string folder = dir.file("lib");
    const std::string file = folder + "/library.so";
    auto reset = [&] {
        ASSERT_EQ(::mkdir(folder.c_str(), 0755) == 0 || errno == EEXIST, true);
        ASSERT_EQ(::chown(folder.c_str(), 0, 0), 0);
        ASSERT_EQ(::chmod(folder.c_str(), 0755), 0);
        WriteTextFile(file, "code");
        ASSERT_EQ(::chown(file.c_str(), 0, 0), 0);
        ASSERT_EQ(::chmod(file.c_str(), 0644), 0);
    };
    struct Case {
        std::string name;
        std::function<void()> change;
        std::string refusal; // empty: trusted
    };
    const std::vector<Case> cases = {
        {"root's alone", [] {}, ""},
        {"group may write the file", [&] { ::chmod(file.c_str(), 0664); },
         file + " belongs to user 0 with mode 664"},
        {"others may write the file", [&] { ::chmod(file.c_str(), 0646); },
         file + " belongs to user 0 with mode 646"},
        {"another user's file", [&] { (void)::chown(file.c_str(), 65534, 0); },
         file + " belongs to user 65534 with mode 644"},
        {"another user's folder", [&] { (void)::chown(folder.c_str(), 65534, 0); },
         "its folder " + folder + " belongs to user 65534 with mode 755"},
        {"a folder anyone may write", [&] { ::chmod(folder.c_str(), 0777); },
         "its folder " + folder + " belongs to user 0 with mode 777"},
        {"a sticky folder anyone may write", [&] { ::chmod(folder.c_str(), 01777); }, ""},
        {"a folder",
         [&] {
             fs::remove(file);
             fs::create_directory(file);
         },
         file + " is not a regular file"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        if (fs::is_directory(file))
            fs::remove(file);
        reset();
        c.change();
        std::string problem;
        const UniqueFd opened = OpenFileOnlyRootControls(file, &problem);
        EXPECT_EQ(opened.valid(), c.refusal.empty());
        EXPECT_EQ(problem, c.refusal);
    }
    // A link is followed, and what it leads to is what counts.
    fs::remove_all(folder);
    reset();
    const std::string link = dir.file("link.so");
    ASSERT_EQ(::symlink(file.c_str(), link.c_str()), 0);
    EXPECT_TRUE(OpenFileOnlyRootControls(link).valid());
    ASSERT_EQ(::chmod(file.c_str(), 0666), 0);
    std::string problem;
    EXPECT_FALSE(OpenFileOnlyRootControls(link, &problem).valid());
    EXPECT_EQ(problem, link + " belongs to user 0 with mode 666");
    EXPECT_FALSE(OpenFileOnlyRootControls(dir.file("missing"), &problem).valid());
}

// What it answers is whether realpath would give the path back, told with one call.
TEST(FileUtilTest, APathIsItsOwnRealPathWithoutLinksOnTheWay) {
    TempDir dir;
    const std::string top = fs::canonical(dir.path()).string();
    fs::create_directories(top + "/a/b");
    WriteTextFile(top + "/a/b/file", "x");
    fs::create_directory_symlink(top + "/a", top + "/linked");
    fs::create_symlink(top + "/a/b/file", top + "/a/b/link");
    EXPECT_TRUE(IsItsOwnRealPath(top + "/a/b"));
    EXPECT_TRUE(IsItsOwnRealPath(top + "/a/b/file"));
    EXPECT_TRUE(IsItsOwnRealPath("/"));
    EXPECT_FALSE(IsItsOwnRealPath(top + "/linked/b"));  // a link on the way
    EXPECT_FALSE(IsItsOwnRealPath(top + "/a/b/link"));  // the last name a link
    EXPECT_FALSE(IsItsOwnRealPath(top + "/a/missing")); // nothing there
    EXPECT_FALSE(IsItsOwnRealPath(top + "/a/./b"));     // not written as its real path
    EXPECT_FALSE(IsItsOwnRealPath(top + "/a/b/../b"));
    EXPECT_FALSE(IsItsOwnRealPath(top + "//a/b"));
    EXPECT_FALSE(IsItsOwnRealPath(top + "/a/b/"));
    EXPECT_FALSE(IsItsOwnRealPath("a/b"));
    EXPECT_FALSE(IsItsOwnRealPath(""));
}

} // namespace
