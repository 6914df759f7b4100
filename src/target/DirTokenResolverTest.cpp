#include "target/DirTokenResolver.h"

#include "TestSupport.h"
#include "runtime/CommonUtility.h"
#include "runtime/Environment.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

class DirTokenResolverTest : public ::testing::Test {
protected:
    void SetUp() override { SetENVverbosityLevel("debug"); }

    // A table of folders of this test's own, so nothing depends on the machine.
    static PlatformPaths TestPaths(const std::string& root) {
        PlatformPaths paths;
        paths.programFiles = root + "/opt";
        paths.orvelProgramFiles = root + "/opt";
        paths.utilities = root + "/opt/Utilities";
        paths.library = root + "/share";
        paths.common = root + "/share";
        paths.sharedApplicationData = root + "/share";
        paths.orvelCommon = root + "/share/Orvel";
        paths.fontsFolder = root + "/share/fonts";
        paths.scriptingAdditions = root + "/share/ScriptingAdditions";
        paths.sharedDocuments = root + "/home/Shared";
        paths.usersRoot = root + "/home";
        paths.userPreferencesFolder = ".config";
        return paths;
    }
};

TEST_F(DirTokenResolverTest, EveryTokenOfTheLinuxTable) {
    DirTokenResolver resolver(PlatformPaths::defaults(), std::string("alice"));
    struct Case {
        const char* path;
        const char* expected;
    };
    const Case cases[] = {
        {"[ProgramFiles]/Orvel/Paint.app", "/opt/Orvel/Paint.app"},
        {"[OrvelProgramFiles]/Orvel", "/opt/Orvel"},
        {"[Utilities]/Tool.app", "/opt/Utilities/Tool.app"},
        {"[Common]/Orvel", "/usr/local/share/Orvel"},
        {"[SharedApplicationData]/x", "/usr/local/share/x"},
        {"[OrvelCommon]/Fonts", "/usr/local/share/Orvel/Fonts"},
        {"[SharedDocuments]/Readme", "/home/Shared/Readme"},
        {"[Library]/x", "/usr/local/share/x"},
        {"[FontsFolder]/x", "/usr/local/share/fonts/x"},
        {"[ScriptingAdditions]/A.osax", "/usr/local/share/ScriptingAdditions/A.osax"},
        {"[UserPreferences]/orvel.plist", "/home/alice/.config/orvel.plist"},
    };
    for (const Case& c : cases) {
        LogCapture log;
        EXPECT_EQ(resolver.expandDirectoryTokenForPath(c.path, std::nullopt), c.expected) << c.path;
        EXPECT_EQ(log.lines(), (std::vector<std::string>{std::string("Expanded ") + c.path +
                                                         " to " + c.expected + " "}));
    }
    EXPECT_EQ(resolver.tokenTable().size(), 11u);
}

TEST_F(DirTokenResolverTest, FoldersComeFromTheGivenTable) {
    TempDir dir;
    DirTokenResolver resolver(TestPaths(dir.path()), std::string("bob"));
    EXPECT_EQ(resolver.expandDirectoryTokenForPath("[FontsFolder]/a.ttf", std::nullopt),
              dir.path() + "/share/fonts/a.ttf");
    EXPECT_EQ(resolver.expandDirectoryTokenForPath("[UserPreferences]/p", std::nullopt),
              dir.path() + "/home/bob/.config/p");
}

TEST_F(DirTokenResolverTest, InstallDirIsTheGivenApplicationPath) {
    DirTokenResolver resolver(PlatformPaths::defaults(), std::string("alice"));
    LogCapture log;
    EXPECT_EQ(resolver.expandDirectoryTokenForPath("[INSTALLDIR]/Contents/Info.plist",
                                                   std::string("/Applications/Sample.app")),
              "/Applications/Sample.app/Contents/Info.plist");
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"Expanded [INSTALLDIR]/Contents/Info.plist to "
                                        "/Applications/Sample.app/Contents/Info.plist "}));
}

TEST_F(DirTokenResolverTest, InstallDirWithoutApplicationPathIsKept) {
    DirTokenResolver resolver(PlatformPaths::defaults(), std::string("alice"));
    LogCapture log;
    EXPECT_EQ(resolver.expandDirectoryTokenForPath("[INSTALLDIR]/x", std::nullopt),
              "[INSTALLDIR]/x");
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"No expansion is performed"}));
}

TEST_F(DirTokenResolverTest, ApplicationPathDoesNotStopOtherTokens) {
    DirTokenResolver resolver(PlatformPaths::defaults(), std::string("alice"));
    EXPECT_EQ(resolver.expandDirectoryTokenForPath("[Library]/x", std::string("/opt/A.app")),
              "/usr/local/share/x");
}

TEST_F(DirTokenResolverTest, UnmatchedPathsAreUnchangedCopies) {
    DirTokenResolver resolver(PlatformPaths::defaults(), std::string("alice"));
    for (const char* path : {"[programfiles]/x", "/tmp/[Library]", "[Unknown]/x", "", "relative",
                             " [Library]/x", "[Library"}) {
        LogCapture log;
        EXPECT_EQ(resolver.expandDirectoryTokenForPath(path, std::string("/opt/A.app")), path);
        EXPECT_EQ(log.lines(), (std::vector<std::string>{"No expansion is performed"})) << path;
    }
}

TEST_F(DirTokenResolverTest, FontsThroughEitherToken) {
    DirTokenResolver resolver(PlatformPaths::defaults(), std::string("alice"));
    EXPECT_EQ(resolver.expandDirectoryTokenForPath("[FontsFolder]/x", std::nullopt),
              "/usr/local/share/fonts/x");
    EXPECT_EQ(resolver.expandDirectoryTokenForPath("[Library]/fonts/x", std::nullopt),
              "/usr/local/share/fonts/x");
}

TEST_F(DirTokenResolverTest, TokenAloneGivesTheFolder) {
    DirTokenResolver resolver(PlatformPaths::defaults(), std::string("alice"));
    EXPECT_EQ(resolver.expandDirectoryTokenForPath("[Common]", std::nullopt), "/usr/local/share");
    EXPECT_EQ(resolver.expandDirectoryTokenForPath("[INSTALLDIR]", std::string("/opt/A.app")),
              "/opt/A.app");
}

TEST_F(DirTokenResolverTest, OnlyTheLeadingTokenIsReplacedAndTheRestIsKept) {
    DirTokenResolver resolver(PlatformPaths::defaults(), std::string("alice"));
    EXPECT_EQ(resolver.expandDirectoryTokenForPath("[Library]/[Library]/x", std::nullopt),
              "/usr/local/share/[Library]/x");
    EXPECT_EQ(resolver.expandDirectoryTokenForPath("[Library]Fonts", std::nullopt),
              "/usr/local/shareFonts");
    EXPECT_EQ(resolver.expandDirectoryTokenForPath("[INSTALLDIR]/[INSTALLDIR]",
                                                   std::string("/opt/A.app")),
              "/opt/A.app/[INSTALLDIR]");
}

TEST_F(DirTokenResolverTest, FolderMissingFromTheTableLeavesThePath) {
    PlatformPaths paths;
    paths.fontsFolder.clear();
    DirTokenResolver resolver(paths, std::string("alice"));
    EXPECT_EQ(resolver.tokenTable().count("[FontsFolder]"), 0u);
    LogCapture log;
    EXPECT_EQ(resolver.expandDirectoryTokenForPath("[FontsFolder]/x", std::nullopt),
              "[FontsFolder]/x");
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"No expansion is performed"}));
}

TEST_F(DirTokenResolverTest, ReplacementThatChangesNothingCountsAsNoExpansion) {
    DirTokenResolver resolver(PlatformPaths::defaults(), std::string("alice"));
    LogCapture log;
    EXPECT_EQ(resolver.expandDirectoryTokenForPath("[INSTALLDIR]/x", std::string("[INSTALLDIR]")),
              "[INSTALLDIR]/x");
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"Expanded [INSTALLDIR]/x to [INSTALLDIR]/x ",
                                                     "No expansion is performed"}));
}

TEST_F(DirTokenResolverTest, UserPreferencesFollowTheConsoleUser) {
    DirTokenResolver resolver(PlatformPaths::defaults());
    const auto user = GetUserName();
    ASSERT_TRUE(user);
    EXPECT_EQ(resolver.expandDirectoryTokenForPath("[UserPreferences]/a", std::nullopt),
              "/home/" + *user + "/.config/a");

    DirTokenResolver noUser(PlatformPaths::defaults(), std::nullopt);
    EXPECT_EQ(noUser.tokenTable().count("[UserPreferences]"), 0u);
    EXPECT_EQ(noUser.expandDirectoryTokenForPath("[UserPreferences]/a", std::nullopt),
              "[UserPreferences]/a");
}

TEST_F(DirTokenResolverTest, LeadingTildeOfATableFolderIsExpanded) {
    PlatformPaths paths;
    paths.programFiles = "~/apps";
    DirTokenResolver resolver(paths, std::string("alice"));
    EXPECT_EQ(resolver.expandDirectoryTokenForPath("[ProgramFiles]/A.app", std::nullopt),
              HomeDirectory() + "/apps/A.app");
}

} // namespace
