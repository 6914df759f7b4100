#include "report/SilentReturnHandler.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

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
