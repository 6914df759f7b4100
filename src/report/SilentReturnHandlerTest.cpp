#include "report/SilentReturnHandler.h"

#include "TestSupport.h"
#include "base/Path.h"

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

PlatformPaths PathsIn(const TempDir& dir) {
    PlatformPaths paths;
    paths.returnCodeFile = dir.file("OrvelQX3/retVal");
    return paths;
}

TEST(SilentReturnHandlerTest, WritesTheCodeWithoutLineEndCreatingTheFolder) {
    TempDir dir;
    const auto paths = PathsIn(dir);
    SilentReturnHandler::setReturnCode(SilentReturnCode::RollbackFailed, paths);
    EXPECT_EQ(ReadTextFile(paths.returnCodeFile), "10");
}

TEST(SilentReturnHandlerTest, SecondCodeReplacesTheFirst) {
    TempDir dir;
    const auto paths = PathsIn(dir);
    SilentReturnHandler::setReturnCode(SilentReturnCode::RollbackFailed, paths);
    SilentReturnHandler::setReturnCode(SilentReturnCode::AlreadyUpToDate, paths);
    EXPECT_EQ(ReadTextFile(paths.returnCodeFile), "3");
}

TEST(SilentReturnHandlerTest, EveryCodeIsWrittenAsItsNumber) {
    struct Row {
        SilentReturnCode code;
        const char* text;
    };
    constexpr Row kRows[] = {
        {SilentReturnCode::Updated, "0"},
        {SilentReturnCode::AlreadyUpToDate, "3"},
        {SilentReturnCode::ApplicationNotFound, "5"},
        {SilentReturnCode::NotValidForUpdate, "6"},
        {SilentReturnCode::NotEnoughDiskSpace, "7"},
        {SilentReturnCode::ApplicationsStillRunning, "8"},
        {SilentReturnCode::CancelledOrRolledBack, "9"},
        {SilentReturnCode::RollbackFailed, "10"},
    };
    TempDir dir;
    const auto paths = PathsIn(dir);
    for (const Row& row : kRows) {
        SilentReturnHandler::setReturnCode(row.code, paths);
        EXPECT_EQ(ReadTextFile(paths.returnCodeFile), row.text);
    }
}

TEST(SilentReturnHandlerTest, UnwritableFileIsSkipped) {
    TempDir dir;
    WriteTextFile(dir.file("OrvelQX3"), "a file, not a folder");
    const auto paths = PathsIn(dir);
    LogCapture log;
    SilentReturnHandler::setReturnCode(SilentReturnCode::CancelledOrRolledBack, paths);
    EXPECT_FALSE(FileExists(paths.returnCodeFile));
}

} // namespace

namespace {

// What a local user plants in the folder, and what the code must not reach.
struct Planted {
    TempDir dir;
    std::string canary = dir.file("canary");
    PlatformPaths paths = PathsIn(dir);
    std::string folder = dir.file("OrvelQX3");

    Planted() { WriteTextFile(canary, "root's file\n"); }
};

TEST(SilentReturnHandlerTest, ALinkPlantedAsTheFileIsReplacedNotWrittenThrough) {
    Planted p;
    ASSERT_EQ(::mkdir(p.folder.c_str(), 0755), 0);
    ASSERT_EQ(::symlink(p.canary.c_str(), p.paths.returnCodeFile.c_str()), 0);
    SilentReturnHandler::setReturnCode(SilentReturnCode::Updated, p.paths);
    EXPECT_EQ(ReadTextFile(p.canary), "root's file\n");
    struct stat info {};
    ASSERT_EQ(::lstat(p.paths.returnCodeFile.c_str(), &info), 0);
    EXPECT_TRUE(S_ISREG(info.st_mode));
    EXPECT_EQ(ReadTextFile(p.paths.returnCodeFile), "0");

    // A hard link to the canary is replaced as well.
    ASSERT_EQ(::unlink(p.paths.returnCodeFile.c_str()), 0);
    ASSERT_EQ(::link(p.canary.c_str(), p.paths.returnCodeFile.c_str()), 0);
    SilentReturnHandler::setReturnCode(SilentReturnCode::CancelledOrRolledBack, p.paths);
    EXPECT_EQ(ReadTextFile(p.canary), "root's file\n");
    EXPECT_EQ(ReadTextFile(p.paths.returnCodeFile), "9");
    // Nothing but the code is left in the folder.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(p.folder),
                            std::filesystem::directory_iterator()),
              1);
}

TEST(SilentReturnHandlerTest, AFolderThatIsALinkOrNotPrivateIsRefused) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs the super-user";
    struct Case {
        const char* name;
        std::function<void(const Planted&)> plant;
    };
    const std::vector<Case> cases = {
        {"a link to another folder",
         [](const Planted& p) {
             ASSERT_EQ(::mkdir(p.dir.file("elsewhere").c_str(), 0755), 0);
             ASSERT_EQ(::symlink(p.dir.file("elsewhere").c_str(), p.folder.c_str()), 0);
         }},
        {"another user's folder",
         [](const Planted& p) {
             ASSERT_EQ(::mkdir(p.folder.c_str(), 0755), 0);
             ASSERT_EQ(::chown(p.folder.c_str(), 65534, 65534), 0);
         }},
        {"a folder anyone may write",
         [](const Planted& p) {
             ASSERT_EQ(::mkdir(p.folder.c_str(), 0755), 0);
             ASSERT_EQ(::chmod(p.folder.c_str(), 01777), 0);
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Planted p;
        c.plant(p);
        LogCapture log;
        SilentReturnHandler::setReturnCode(SilentReturnCode::Updated, p.paths);
        EXPECT_NE(log.text().find("The return code is not written: " + p.folder), std::string::npos)
            << log.text();
        EXPECT_FALSE(PathExistsNoFollow(p.paths.returnCodeFile));
        EXPECT_FALSE(PathExistsNoFollow(p.dir.file("elsewhere/retVal")));
        EXPECT_EQ(ReadTextFile(p.canary), "root's file\n");
    }
}

} // namespace
