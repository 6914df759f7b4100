#include "system/FileSystemUtils.h"
#include "system/FileSystemUtilsMac.h"

#include "TestSupport.h"

#include <climits>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

FileSystemPath P(const std::string& text) {
    return FileSystemPath(text);
}

} // namespace

TEST(FileSystemUtilsTest, ExistsLooksAtTheLinkItself) {
    TempDir dir;
    WriteTextFile(dir.file("file"), "x");
    ASSERT_EQ(::symlink("missing-target", dir.file("dangling").c_str()), 0);
    EXPECT_TRUE(FileSystemUtils::Exists(P(dir.file("file"))));
    EXPECT_TRUE(FileSystemUtils::Exists(P(dir.file("dangling"))));
    EXPECT_FALSE(FileSystemUtils::Exists(P(dir.file("missing"))));
}

TEST(FileSystemUtilsTest, IsDirectoryDoesNotFollowLinks) {
    TempDir dir;
    ASSERT_EQ(::mkdir(dir.file("sub").c_str(), 0755), 0);
    WriteTextFile(dir.file("file"), "x");
    ASSERT_EQ(::symlink(dir.file("sub").c_str(), dir.file("link").c_str()), 0);
    bool isDirectory = false;
    ASSERT_TRUE(FileSystemUtils::IsDirectory(P(dir.file("sub")), isDirectory));
    EXPECT_TRUE(isDirectory);
    ASSERT_TRUE(FileSystemUtils::IsDirectory(P(dir.file("link")), isDirectory));
    EXPECT_FALSE(isDirectory);
    isDirectory = true;
    ASSERT_TRUE(FileSystemUtils::IsDirectory(P(dir.file("file")), isDirectory));
    EXPECT_FALSE(isDirectory);
    isDirectory = true;
    EXPECT_FALSE(FileSystemUtils::IsDirectory(P(dir.file("missing")), isDirectory));
    EXPECT_TRUE(isDirectory) << "output untouched on failure";
}

TEST(FileSystemUtilsTest, DeleteFile) {
    TempDir dir;
    WriteTextFile(dir.file("file"), "x");
    EXPECT_TRUE(FileSystemUtils::DeleteFile(P(dir.file("file")), true));
    EXPECT_FALSE(FileExists(dir.file("file")));
    EXPECT_FALSE(FileSystemUtils::DeleteFile(P(dir.file("file"))));
}

TEST(FileSystemUtilsTest, LoadFileContents) {
    TempDir dir;
    WriteTextFile(dir.file("empty"), "");
    std::vector<char> contents = {'o', 'l', 'd'};
    ASSERT_TRUE(FileSystemUtils::LoadFileContents(P(dir.file("empty")), contents));
    EXPECT_TRUE(contents.empty());

    std::string big(300000, '\0');
    for (size_t i = 0; i < big.size(); ++i)
        big[i] = static_cast<char>(i * 7);
    WriteTextFile(dir.file("big"), big);
    ASSERT_EQ(::symlink(dir.file("big").c_str(), dir.file("link").c_str()), 0);
    ASSERT_TRUE(FileSystemUtils::LoadFileContents(P(dir.file("link")), contents));
    EXPECT_EQ(std::string(contents.begin(), contents.end()), big);

    std::vector<char> untouched = {'k'};
    EXPECT_FALSE(FileSystemUtils::LoadFileContents(P(dir.file("missing")), untouched));
    EXPECT_EQ(untouched, std::vector<char>{'k'});
    EXPECT_FALSE(FileSystemUtils::LoadFileContents(P(dir.path()), untouched));
    EXPECT_EQ(untouched, std::vector<char>{'k'});
}

TEST(FileSystemUtilsTest, TempFilenameInDirectory) {
    TempDir dir;
    FileSystemPath first("/"), second("/");
    ASSERT_TRUE(FileSystemUtils::TempFilenameInDirectory(P(dir.path()), first));
    ASSERT_TRUE(FileSystemUtils::TempFilenameInDirectory(P(dir.path()), second));
    const std::string prefix = dir.path() + "/.temp";
    EXPECT_EQ(first.AsUTF8String().substr(0, prefix.size()), prefix);
    EXPECT_EQ(first.AsUTF8String().size(), prefix.size() + 6);
    EXPECT_NE(first, second);
    EXPECT_FALSE(FileExists(first.AsUTF8String())) << "no file is made";
}

TEST(FileSystemUtilsTest, SetWorkingDirectory) {
    WorkingDirectoryGuard guard;
    TempDir dir;
    ASSERT_TRUE(FileSystemUtils::SetWorkingDirectory(P(dir.path())));
    char buffer[4096];
    ASSERT_NE(::getcwd(buffer, sizeof buffer), nullptr);
    char resolved[4096];
    ASSERT_NE(::realpath(dir.path().c_str(), resolved), nullptr);
    EXPECT_STREQ(buffer, resolved);
    EXPECT_FALSE(FileSystemUtils::SetWorkingDirectory(P(dir.file("missing"))));
}

TEST(FileSystemUtilsTest, RemovableDrivesAreNotListed) {
    std::vector<FileSystemPath> drives = {FileSystemPath("/keep")};
    EXPECT_FALSE(FileSystemUtils::GetRemovableDrives(drives));
    ASSERT_EQ(drives.size(), 1u);
    EXPECT_EQ(drives[0].AsUTF8String(), "/keep");
}

struct VersionCase {
    const char* a;
    const char* b;
    const char* separator;
    int expected;
};

class CompareVersionStringsTest : public testing::TestWithParam<VersionCase> {};

TEST_P(CompareVersionStringsTest, Compares) {
    const VersionCase& c = GetParam();
    EXPECT_EQ(FileSystemUtils::CompareVersionStrings(c.a, c.b, c.separator), c.expected)
        << c.a << " vs " << c.b;
}

INSTANTIATE_TEST_SUITE_P(
    Rules, CompareVersionStringsTest,
    testing::Values(
        // The text after the last separator is no part: 1.2.3 is 1, 2, unset, unset.
        VersionCase{"1.2.3", "1.2.3.0", ".", -1}, VersionCase{"1.2.3.0", "1.2.3", ".", 1},
        VersionCase{"1.2.3", "1.2.4", ".", 0}, VersionCase{"1.2.", "1.2.", ".", 0},
        VersionCase{"2.", "10.", ".", -1}, VersionCase{"10.", "9.", ".", 1},
        // No separator at all: no parts.
        VersionCase{"1", "2", ".", 0}, VersionCase{"", "1.", ".", -1},
        // At most four parts.
        VersionCase{"1.2.3.4.5.", "1.2.3.4.9.", ".", 0},
        // The next separator is looked for from the second character after the last.
        VersionCase{"1..2.", "1.0.", ".", 0},
        // Parts are signed.
        VersionCase{"-1.", "0.", ".", -1}, VersionCase{"1-2-3", "1-2-4", "-", 0},
        VersionCase{"1-2-3-", "1-2-4-", "-", -1}, VersionCase{"1.2.", "1.2.", "", 0}));

// Modes, owners, links, aliases, directories.

TEST(FileSystemUtilsMacTest, ModeOfFilesButNotOfLinks) {
    TempDir dir;
    const std::string file = dir.file("file");
    WriteTextFile(file, "x");
    ASSERT_EQ(::symlink(file.c_str(), dir.file("link").c_str()), 0);
    ASSERT_TRUE(FileSystemUtilsMac::SetMode(P(file), 04754));
    uint16_t mode = 0;
    ASSERT_TRUE(FileSystemUtilsMac::GetMode(P(file), mode));
    EXPECT_EQ(mode, 04754);
    uint16_t untouched = 1;
    EXPECT_FALSE(FileSystemUtilsMac::GetMode(P(dir.file("link")), untouched));
    EXPECT_EQ(untouched, 1);
    EXPECT_FALSE(FileSystemUtilsMac::GetMode(P(dir.file("missing")), untouched));
    EXPECT_FALSE(FileSystemUtilsMac::SetMode(P(dir.file("missing")), 0644));
}

TEST(FileSystemUtilsMacTest, OwnerAndGroup) {
    TempDir dir;
    const std::string file = dir.file("file");
    WriteTextFile(file, "x");
    ASSERT_EQ(::symlink(file.c_str(), dir.file("link").c_str()), 0);
    uid_t user = 12345;
    gid_t group = 12345;
    ASSERT_TRUE(FileSystemUtilsMac::GetOwnerGroup(P(file), user, group));
    EXPECT_EQ(user, ::geteuid());
    EXPECT_EQ(group, ::getegid());
    uid_t untouchedUser = 7;
    gid_t untouchedGroup = 7;
    EXPECT_FALSE(
        FileSystemUtilsMac::GetOwnerGroup(P(dir.file("link")), untouchedUser, untouchedGroup));
    EXPECT_EQ(untouchedUser, 7u);
    EXPECT_EQ(untouchedGroup, 7u);
    if (::geteuid() != 0)
        GTEST_SKIP() << "changing owners needs the super-user";
    // chown follows the link to the file.
    ASSERT_TRUE(FileSystemUtilsMac::SetOwnerGroup(P(dir.file("link")), 65534, 65534));
    ASSERT_TRUE(FileSystemUtilsMac::GetOwnerGroup(P(file), user, group));
    EXPECT_EQ(user, 65534u);
    EXPECT_EQ(group, 65534u);
}

TEST(FileSystemUtilsMacTest, FileTypes) {
    TempDir dir;
    WriteTextFile(dir.file("file"), "x");
    ASSERT_EQ(::symlink("file", dir.file("link").c_str()), 0);
    bool regular = false, link = false;
    ASSERT_TRUE(FileSystemUtilsMac::IsRegularFile(P(dir.file("file")), regular));
    ASSERT_TRUE(FileSystemUtilsMac::IsSymlink(P(dir.file("file")), link));
    EXPECT_TRUE(regular);
    EXPECT_FALSE(link);
    ASSERT_TRUE(FileSystemUtilsMac::IsRegularFile(P(dir.file("link")), regular));
    ASSERT_TRUE(FileSystemUtilsMac::IsSymlink(P(dir.file("link")), link));
    EXPECT_FALSE(regular);
    EXPECT_TRUE(link);
    ASSERT_TRUE(FileSystemUtilsMac::IsRegularFile(P(dir.path()), regular));
    EXPECT_FALSE(regular);
    EXPECT_FALSE(FileSystemUtilsMac::IsSymlink(P(dir.file("missing")), link));
    EXPECT_TRUE(FileSystemUtilsMac::UnlockPathObject(P(dir.file("file"))));
}

TEST(FileSystemUtilsMacTest, AliasesAreNeverFound) {
    TempDir dir;
    WriteTextFile(dir.file("file"), "x");
    ASSERT_EQ(::symlink("file", dir.file("link").c_str()), 0);
    bool alias = true;
    ASSERT_TRUE(FileSystemUtilsMac::IsMacAlias(P(dir.file("file")), alias));
    EXPECT_FALSE(alias);
    alias = true;
    ASSERT_TRUE(FileSystemUtilsMac::IsMacAlias(P(dir.file("link")), alias));
    EXPECT_FALSE(alias);
    EXPECT_FALSE(FileSystemUtilsMac::IsMacAlias(P(dir.file("missing")), alias));
    FileSystemPath target("/untouched");
    EXPECT_FALSE(FileSystemUtilsMac::GetMacAliasTarget(P(dir.file("link")), target));
    EXPECT_EQ(target.AsUTF8String(), "/untouched");
}

TEST(FileSystemUtilsMacTest, SymbolicLinks) {
    TempDir dir;
    ASSERT_TRUE(FileSystemUtilsMac::CreateSymlink(P(dir.file("link")), "some/target"));
    std::string destination;
    ASSERT_TRUE(FileSystemUtilsMac::GetSymlinkDestination(P(dir.file("link")), destination));
    EXPECT_EQ(destination, "some/target");
    EXPECT_FALSE(FileSystemUtilsMac::CreateSymlink(P(dir.file("link")), "other"));

    const std::string longest(1023, 'a');
    ASSERT_TRUE(FileSystemUtilsMac::CreateSymlink(P(dir.file("long")), longest));
    ASSERT_TRUE(FileSystemUtilsMac::GetSymlinkDestination(P(dir.file("long")), destination));
    EXPECT_EQ(destination, longest);
    ASSERT_TRUE(FileSystemUtilsMac::CreateSymlink(P(dir.file("toolong")), longest + "a"));
    std::string untouched = "keep";
    EXPECT_FALSE(FileSystemUtilsMac::GetSymlinkDestination(P(dir.file("toolong")), untouched));
    WriteTextFile(dir.file("file"), "x");
    EXPECT_FALSE(FileSystemUtilsMac::GetSymlinkDestination(P(dir.file("file")), untouched));
    EXPECT_EQ(untouched, "keep");
}

TEST(FileSystemUtilsMacTest, CreateDirectoryWithAndWithoutForcedMode) {
    TempDir dir;
    const mode_t saved = ::umask(022);
    ASSERT_TRUE(FileSystemUtilsMac::CreateDirectory(P(dir.file("forced")), 0777, true));
    ASSERT_TRUE(FileSystemUtilsMac::CreateDirectory(P(dir.file("masked")), 0777, false));
    ::umask(saved);
    uint16_t mode = 0;
    ASSERT_TRUE(FileSystemUtilsMac::GetMode(P(dir.file("forced")), mode));
    EXPECT_EQ(mode, 0777);
    ASSERT_TRUE(FileSystemUtilsMac::GetMode(P(dir.file("masked")), mode));
    EXPECT_EQ(mode, 0755);
    EXPECT_FALSE(FileSystemUtilsMac::CreateDirectory(P(dir.file("forced")), 0777, true));
    EXPECT_FALSE(FileSystemUtilsMac::CreateDirectory(P(dir.file("no/parent")), 0777, true));
}

TEST(FileSystemUtilsMacTest, CreateDirectoryPathMakesTheWholeChain) {
    TempDir dir;
    const std::string deepest = dir.file("x/y/z");
    ASSERT_TRUE(FileSystemUtilsMac::CreateDirectoryPath(P(deepest), 0750, true));
    for (const char* part : {"x", "x/y", "x/y/z"}) {
        uint16_t mode = 0;
        ASSERT_TRUE(FileSystemUtilsMac::GetMode(P(dir.file(part)), mode)) << part;
        EXPECT_EQ(mode, 0750) << part;
    }
    EXPECT_TRUE(FileSystemUtilsMac::CreateDirectoryPath(P(deepest), 0700, true));
    WriteTextFile(dir.file("file"), "x");
    EXPECT_FALSE(FileSystemUtilsMac::CreateDirectoryPath(P(dir.file("file/sub")), 0755, true));
}

TEST(FileSystemUtilsMacTest, DeleteDirectoryOnlyWhenEmpty) {
    TempDir dir;
    ASSERT_EQ(::mkdir(dir.file("full").c_str(), 0755), 0);
    WriteTextFile(dir.file("full/file"), "x");
    ASSERT_EQ(::mkdir(dir.file("empty").c_str(), 0755), 0);
    EXPECT_FALSE(FileSystemUtilsMac::DeleteDirectory(P(dir.file("full")), true));
    EXPECT_TRUE(FileExists(dir.file("full/file")));
    EXPECT_TRUE(FileSystemUtilsMac::DeleteDirectory(P(dir.file("empty"))));
    EXPECT_FALSE(FileExists(dir.file("empty")));
}

TEST(FileSystemUtilsMacTest, CreateTemporaryDirectory) {
    FileSystemPath first("/"), second("/");
    ASSERT_TRUE(FileSystemUtilsMac::CreateTemporaryDirectory(first));
    ASSERT_TRUE(FileSystemUtilsMac::CreateTemporaryDirectory(second));
    EXPECT_NE(first, second);
    EXPECT_EQ(first.AsUTF8String().rfind("/tmp/.tempdir", 0), 0u);
    EXPECT_EQ(first.AsUTF8String().size(), std::string("/tmp/.tempdirXXXXXXXX").size());
    uint16_t mode = 0;
    ASSERT_TRUE(FileSystemUtilsMac::GetMode(first, mode));
    EXPECT_EQ(mode, 0700);
    bool isDirectory = false;
    ASSERT_TRUE(FileSystemUtils::IsDirectory(first, isDirectory));
    EXPECT_TRUE(isDirectory);
    EXPECT_TRUE(FileSystemUtilsMac::DeleteDirectory(first));
    EXPECT_TRUE(FileSystemUtilsMac::DeleteDirectory(second));
}
