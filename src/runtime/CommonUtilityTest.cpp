#include "runtime/CommonUtility.h"

#include "runtime/PlatformPaths.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

DotSeparatedVersion Parse(const std::string& text) {
    DotSeparatedVersion v;
    GetDotSeparatedVersion(text, v);
    return v;
}

void ExpectVersion(const std::string& text, int a, int b, int c, int d) {
    auto v = Parse(text);
    EXPECT_EQ(v.major, a) << text;
    EXPECT_EQ(v.minor, b) << text;
    EXPECT_EQ(v.third, c) << text;
    EXPECT_EQ(v.fourth, d) << text;
}

TEST(CommonUtilityTest, DottedVersionParsing) {
    ExpectVersion("10.4.11", 10, 4, 11, 0);
    ExpectVersion("1.2.3.4.5", 1, 2, 3, 4);
    ExpectVersion("1..2", 1, 0, 2, 0);
    ExpectVersion("5.", 5, 0, 0, 0);
    ExpectVersion(".5", 0, 0, 0, 0);
    ExpectVersion("9.0.1 build 17", 9, 0, 1, 0);
    ExpectVersion("5b1.2", 5, 2, 0, 0);
    ExpectVersion(" 7.-3", 7, -3, 0, 0);
    ExpectVersion("99999999999.1", 2147483647, 1, 0, 0);
    DotSeparatedVersion v{1, 2, 3, 4};
    EXPECT_FALSE(GetDotSeparatedVersion("", v));
    EXPECT_EQ(v.major, 0);
    EXPECT_EQ(v.fourth, 0);
    EXPECT_TRUE(GetDotSeparatedVersion("x", v));
}

TEST(CommonUtilityTest, DottedVersionComparison) {
    using S = std::optional<std::string>;
    EXPECT_EQ(DotSeparatedVersionCompare(S("1.0"), S("1.0.0")), 0);
    EXPECT_EQ(DotSeparatedVersionCompare(S("1.0"), S("1.0.0.0")), 0);
    EXPECT_EQ(DotSeparatedVersionCompare(S("1.0.1"), S("1.0")), 1);
    EXPECT_EQ(DotSeparatedVersionCompare(S(""), S("1.0")), 1);
    EXPECT_EQ(DotSeparatedVersionCompare(S("2.0"), S("")), 1);
    EXPECT_EQ(DotSeparatedVersionCompare(S("A.1"), S("a.1")), 0);
    EXPECT_EQ(DotSeparatedVersionCompare(S("10.1"), S("9.12")), 1);
    EXPECT_EQ(DotSeparatedVersionCompare(S("9.12"), S("10.1")), -1);
    EXPECT_EQ(DotSeparatedVersionCompare(std::nullopt, S("3.0")), 0);
    EXPECT_EQ(DotSeparatedVersionCompare(S("3.0"), std::nullopt), 1);
}

TEST(CommonUtilityTest, CompareAllowsReplace) {
    using S = std::optional<std::string>;
    EXPECT_FALSE(DotSeparatedVersionCompareAllowsReplace(S("9.0"), S("10.0")));
    EXPECT_TRUE(DotSeparatedVersionCompareAllowsReplace(S("10.0"), S("9.0")));
    EXPECT_TRUE(DotSeparatedVersionCompareAllowsReplace(S("10.0"), S("10.0")));
}

TEST(CommonUtilityTest, RegularExpressionSearch) {
    EXPECT_TRUE(IsStrEqualToRegEx("Photo Editor", "Photo"));
    EXPECT_TRUE(IsStrEqualToRegEx("Editor 9.0", R"(\d+\.\d)"));
    EXPECT_TRUE(IsStrEqualToRegEx("abc", "^a.c$"));
    EXPECT_FALSE(IsStrEqualToRegEx("Editor", "^Photo"));
    EXPECT_FALSE(IsStrEqualToRegEx("text", "(unclosed"));
    EXPECT_FALSE(IsStrEqualToRegEx("text", "[z-a]"));
    EXPECT_FALSE(IsStrEqualToRegEx(nullptr, nullptr));
    EXPECT_FALSE(IsStrEqualToRegEx(nullptr, "x"));
    EXPECT_FALSE(IsStrEqualToRegEx("x", nullptr));
    // Perl syntax: look-ahead and lazy quantifiers.
    EXPECT_TRUE(IsStrEqualToRegEx("foobar", "foo(?=bar)"));
    EXPECT_FALSE(IsStrEqualToRegEx("foobaz", "foo(?=bar)"));
}

TEST(CommonUtilityTest, CreateDirectoryAtPathMakesEveryLevel) {
    TempDir dir;
    const std::string deep = dir.file("a/b/c");
    EXPECT_TRUE(CreateDirectoryAtPath(deep));
    struct stat info {};
    ASSERT_EQ(::stat(deep.c_str(), &info), 0);
    EXPECT_TRUE(S_ISDIR(info.st_mode));
    EXPECT_EQ(info.st_mode & 0777, 0755u);
    if (::geteuid() == 0) {
        EXPECT_EQ(info.st_gid, 0u);
    }
}

TEST(CommonUtilityTest, CreateDirectoryAtPathOfAnExistingPathCreatesNothing) {
    TempDir dir;
    struct stat before {};
    ASSERT_EQ(::stat(dir.path().c_str(), &before), 0);
    LogCapture log;
    EXPECT_TRUE(CreateDirectoryAtPath(dir.path()));
    EXPECT_TRUE(CreateDirectoryAtPath(dir.path() + "/"));
    struct stat after {};
    ASSERT_EQ(::stat(dir.path().c_str(), &after), 0);
    EXPECT_EQ(before.st_mtim.tv_nsec, after.st_mtim.tv_nsec);
    EXPECT_TRUE(log.lines().empty());
}

TEST(CommonUtilityTest, CreateDirectoryAtPathLogsTheLevelThatFailed) {
    TempDir dir;
    WriteTextFile(dir.file("file"), "x");
    LogCapture log;
    EXPECT_FALSE(CreateDirectoryAtPath(dir.file("file/sub/deeper")));
    EXPECT_TRUE(log.contains("Failed to create directory: " + dir.file("file/sub")));
}

TEST(CommonUtilityTest, FreeDiskSpace) {
    TempDir dir;
    EXPECT_GT(GetFreeDiskSpaceInBytes(dir.path()), 0u);
    EXPECT_EQ(GetFreeDiskSpaceInBytes(dir.file("missing/path")), 0u);
    EXPECT_EQ(GetFreeDiskSpaceInBytes(""), 0u);
}

TEST(CommonUtilityTest, ConsoleUserPrefersThePkexecAndSudoCaller) {
    ASSERT_TRUE(GetUserName());
    ::setenv("SUDO_USER", "root", 1);
    ::setenv("PKEXEC_UID", "0", 1);
    EXPECT_EQ(GetUserName(), "root");
    ::setenv("PKEXEC_UID", "not-a-number", 1);
    EXPECT_EQ(GetUserName(), "root");
    ::unsetenv("PKEXEC_UID");
    ::setenv("SUDO_USER", "no-such-user-here", 1);
    EXPECT_TRUE(GetUserName()); // falls through to the session's or the real user
    ::unsetenv("SUDO_USER");
}

TEST(CommonUtilityTest, TildeExpansion) {
    const char* home = std::getenv("HOME");
    ASSERT_NE(home, nullptr);
    EXPECT_EQ(ExpandTildeInPath("~"), home);
    EXPECT_EQ(ExpandTildeInPath("~/x/y"), std::string(home) + "/x/y");
    EXPECT_EQ(ExpandTildeInPath("/abs/~"), "/abs/~");
}

TEST(CommonUtilityTest, EnclosingApplication) {
    const auto& protectedFolders = PlatformPaths::defaults().protectedFolders;
    std::string app = "unchanged";
    EXPECT_TRUE(GetPathToAppGivenSubDirPath("/opt/Suite/Editor.app/Contents/MacOS/Editor", app,
                                            protectedFolders));
    EXPECT_EQ(app, "/opt/Suite/Editor.app");
    EXPECT_TRUE(GetPathToAppGivenSubDirPath("/opt/Suite/Editor.APP", app, protectedFolders));
    EXPECT_EQ(app, "/opt/Suite/Editor.APP");
    EXPECT_TRUE(GetPathToAppGivenSubDirPath("/opt/Suite/Editor.app/", app, protectedFolders));
    EXPECT_EQ(app, "/opt/Suite/Editor.app");

    // Name.plugin.app reads as the extension plugin.app.
    EXPECT_FALSE(GetPathToAppGivenSubDirPath("/x/Name.plugin.app/Contents", app, protectedFolders));
    EXPECT_EQ(app, "");
    // Nothing within five levels.
    EXPECT_FALSE(GetPathToAppGivenSubDirPath("/srv/a/b/c/d/e/f/g", app, protectedFolders));
    // Four parents are examined: the application five levels up is found, six is not.
    EXPECT_TRUE(GetPathToAppGivenSubDirPath("/srv/X.app/1/2/3/4", app, protectedFolders));
    EXPECT_FALSE(GetPathToAppGivenSubDirPath("/srv/X.app/1/2/3/4/5", app, protectedFolders));
    // A protected folder ends the walk.
    EXPECT_FALSE(GetPathToAppGivenSubDirPath("/opt/Suite", app, protectedFolders));
    EXPECT_FALSE(GetPathToAppGivenSubDirPath("/", app, protectedFolders));
    EXPECT_FALSE(GetPathToAppGivenSubDirPath("/USR/x", app, protectedFolders));
    // Two dotted components are tolerated, the third ends the walk.
    EXPECT_TRUE(GetPathToAppGivenSubDirPath("/srv/E.app/a.b/c.d", app, protectedFolders));
    EXPECT_FALSE(GetPathToAppGivenSubDirPath("/srv/E.app/a.b/c.d/e.f", app, protectedFolders));
}

TEST(CommonUtilityTest, EnclosingApplicationUsesTheGivenProtectedFolders) {
    std::string app;
    EXPECT_FALSE(GetPathToAppGivenSubDirPath("/srv/X.app/in", app, {"/srv/X.app/in"}));
    EXPECT_TRUE(GetPathToAppGivenSubDirPath("/srv/X.app/in", app, {"/srv"}));
}

TEST(CommonUtilityTest, KernelIsSupported) {
    EXPECT_TRUE(IsOSVersionSupported());
}

TEST(CommonUtilityAccounts, LooksUpUsersAndGroupsBothWays) {
    EXPECT_EQ(UserNameOfUid(0), "root");
    EXPECT_EQ(UidOfUserName("root"), 0u);
    EXPECT_EQ(GroupNameOfGid(0), "root");
    EXPECT_EQ(GidOfGroupName("root"), 0u);
    EXPECT_EQ(UidOfUserName("no-such-account-here"), std::nullopt);
    EXPECT_EQ(GidOfGroupName("no-such-group-here"), std::nullopt);
    // An id that no account has.
    EXPECT_EQ(UserNameOfUid(4000000000u), std::nullopt);
    EXPECT_EQ(GroupNameOfGid(4000000000u), std::nullopt);
}

// The read system calls this process has made so far.
long ReadCalls() {
    std::istringstream in(ReadTextFile("/proc/self/io"));
    for (std::string name, value; in >> name >> value;) {
        if (name == "syscr:")
            return std::stol(value);
    }
    return -1;
}

TEST(CommonUtilityTest, AnAccountFoundIsRememberedNotLookedUpAgain) {
    const auto root = UserNameOfUid(0);
    const auto rootGroup = GroupNameOfGid(0);
    ASSERT_EQ(root, "root");
    ASSERT_EQ(rootGroup, "root");
    ASSERT_EQ(UidOfUserName("root"), 0u);
    ASSERT_EQ(GidOfGroupName("root"), 0u);
    // Reading the count costs reads of its own: as many as between these two.
    const long first = ReadCalls();
    const long before = ReadCalls();
    const long ownReads = before - first;
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(UserNameOfUid(0), root);
        EXPECT_EQ(GroupNameOfGid(0), rootGroup);
        EXPECT_EQ(UidOfUserName("root"), 0u);
        EXPECT_EQ(GidOfGroupName("root"), 0u);
    }
    // Not one read of /etc/passwd or /etc/group more.
    EXPECT_EQ(ReadCalls() - before, ownReads);
}

} // namespace
