#include "runtime/LoggerUtility.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <regex>
#include <unistd.h>

namespace {

class LoggerUtilityTest : public ::testing::Test {
protected:
    void TearDown() override { SetENVverbosityLevel("debug"); }
};

TEST_F(LoggerUtilityTest, LevelNames) {
    EXPECT_EQ(ResolveLogLevelString("error"), 0u);
    EXPECT_EQ(ResolveLogLevelString("0"), 0u);
    EXPECT_EQ(ResolveLogLevelString("Warning"), 1u);
    EXPECT_EQ(ResolveLogLevelString("1"), 1u);
    EXPECT_EQ(ResolveLogLevelString("INFO"), 2u);
    EXPECT_EQ(ResolveLogLevelString("2"), 2u);
    EXPECT_EQ(ResolveLogLevelString("debug"), 3u);
    EXPECT_EQ(ResolveLogLevelString("3"), 3u);
    EXPECT_EQ(ResolveLogLevelString(""), 0u);
    EXPECT_EQ(ResolveLogLevelString("verbose"), 0u);
    EXPECT_EQ(ResolveLogLevelString("4"), 0u);
}

TEST_F(LoggerUtilityTest, SeparatorsAre65Characters) {
    for (int type = 0; type <= 3; ++type)
        EXPECT_EQ(GetSeparatorStringGivenType(type).size(), 65u) << type;
    EXPECT_EQ(GetSeparatorStringGivenType(0),
              "*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*");
    EXPECT_EQ(GetSeparatorStringGivenType(1), std::string(65, '='));
    EXPECT_EQ(GetSeparatorStringGivenType(2), std::string(65, '-'));
    EXPECT_EQ(GetSeparatorStringGivenType(3), std::string(65, '.'));
    EXPECT_EQ(GetSeparatorStringGivenType(7), "7");
}

TEST_F(LoggerUtilityTest, LevelFilteringAtWarning) {
    SetENVverbosityLevel("warning");
    LogCapture log;
    NSLevelledLog(3, "debug line");
    NSLevelledLog(2, "info line");
    NSLevelledLog(1, "warning line");
    NSLevelledLog(0, "error line");
    NSFormatLogWithHeading(1, "PERFORMING FILE SET OPERATION");
    NSFormatLog(2);
    const std::vector<std::string> expected = {
        "warning line", "error line",
        std::string(17, '=') + " PERFORMING FILE SET OPERATION " + std::string(17, '='),
        std::string(65, '-')};
    EXPECT_EQ(log.lines(), expected);
}

TEST_F(LoggerUtilityTest, MessagesAreWrittenAsTheyAre) {
    LogCapture log;
    NSLevelledLog(0, "%@", std::string("100% %d %@ done"));
    NSLevelledLog(0, "File %d information", 4);
    NSLevelledLog(0, "%@", std::string()); // formats to nothing: dropped
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"100% %d %@ done", "File 4 information"}));
}

TEST_F(LoggerUtilityTest, BannerHeading) {
    LogCapture log;
    NSFormatLog(0);
    NSFormatLogWithHeading(0, "Orvel Software Update");
    NSFormatLog(0);
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 3u);
    const std::string pad = "*=*=*=*=*=*=*=*=*=*=*"; // 21 characters, odd: starts and ends with *
    EXPECT_EQ(lines[1], pad + " Orvel Software Update " + pad);
    EXPECT_EQ(lines[1].size(), 65u);
}

TEST_F(LoggerUtilityTest, HeadingPadding) {
    EXPECT_EQ(ComposeHeadingLine(2, std::string(60, 'h')), "- " + std::string(60, 'h') + " -");
    EXPECT_EQ(ComposeHeadingLine(2, std::string(61, 'h')), std::string(61, 'h'));
    EXPECT_EQ(ComposeHeadingLine(2, std::string(70, 'h')), std::string(70, 'h'));
    // (65 - 4 - 2) / 2 = 29 characters of pad for a four-character heading.
    EXPECT_EQ(ComposeHeadingLine(3, "ABCD"),
              std::string(29, '.') + " ABCD " + std::string(29, '.'));
    EXPECT_EQ(ComposeHeadingLine(9, "x"), "x");
}

TEST_F(LoggerUtilityTest, HeadingsAreNeverFiltered) {
    SetENVverbosityLevel("error");
    LogCapture log;
    NSFormatLogWithHeading(3, "TEARDOWN for %@", std::string("Update"));
    NSLevelledLog(1, "dropped");
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(" TEARDOWN for Update "), std::string::npos);
}

TEST_F(LoggerUtilityTest, LinePrefixHasDateTimeProcessAndIds) {
    LogCapture log;
    NSLevelledLog(0, "prefixed");
    auto raw = log.rawLines();
    ASSERT_EQ(raw.size(), 1u);
    const std::regex prefix(
        R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} run_tests\[(\d+):(\d+)\] prefixed$)");
    std::smatch match;
    ASSERT_TRUE(std::regex_match(raw[0], match, prefix)) << raw[0];
    EXPECT_EQ(std::stoi(match[1]), ::getpid());
}

TEST_F(LoggerUtilityTest, StartLoggingCreatesFoldersAndAppends) {
    TempDir dir;
    const std::string path = dir.file("Logs/Orvel/SoftwareUpdates/OrvelSoftwareUpdate.log");
    const int saved = ::dup(STDERR_FILENO);
    ASSERT_TRUE(StartLogging(path));
    NSLevelledLog(0, "first run");
    ASSERT_TRUE(StartLogging(path));
    NSLevelledLog(0, "second run");
    ::dup2(saved, STDERR_FILENO);
    ::close(saved);

    std::vector<std::string> lines;
    std::istringstream in(ReadTextFile(path));
    for (std::string line; std::getline(in, line);)
        lines.push_back(StripLogPrefix(line));
    EXPECT_EQ(lines, (std::vector<std::string>{"first run", "second run"}));
}

TEST_F(LoggerUtilityTest, StartLoggingFailsWhereNoFolderCanBeMade) {
    TempDir dir;
    WriteTextFile(dir.file("plainfile"), "x");
    LogCapture log; // keeps standard error where it is should the call succeed by mistake
    EXPECT_FALSE(StartLogging(dir.file("plainfile/sub/log.txt")));
    EXPECT_FALSE(StartLogging(""));
}

TEST_F(LoggerUtilityTest, LinesFromTwoThreadsNeverMix) {
    LogCapture log;
    auto writer = [](char c) {
        for (int i = 0; i < 200; ++i)
            NSLevelledLog(0, "%@", std::string(300, c));
    };
    std::thread a(writer, 'a');
    std::thread b(writer, 'b');
    a.join();
    b.join();
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 400u);
    for (const auto& line : lines)
        EXPECT_TRUE(line == std::string(300, 'a') || line == std::string(300, 'b'));
}

} // namespace
