#include "run/SilentReturnHandler.h"

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
    SilentReturnHandler::setReturnCode(10, paths);
    EXPECT_EQ(ReadTextFile(paths.returnCodeFile), "10");
}

TEST(SilentReturnHandlerTest, SecondCodeReplacesTheFirst) {
    TempDir dir;
    const auto paths = PathsIn(dir);
    SilentReturnHandler::setReturnCode(10, paths);
    SilentReturnHandler::setReturnCode(3, paths);
    EXPECT_EQ(ReadTextFile(paths.returnCodeFile), "3");
}

TEST(SilentReturnHandlerTest, UnwritableFileIsSkipped) {
    TempDir dir;
    WriteTextFile(dir.file("OrvelQX3"), "a file, not a folder");
    const auto paths = PathsIn(dir);
    LogCapture log;
    SilentReturnHandler::setReturnCode(9, paths);
    EXPECT_FALSE(FileExists(paths.returnCodeFile));
}

} // namespace
