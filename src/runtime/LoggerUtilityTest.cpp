#include "runtime/LoggerUtility.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <regex>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

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

// Standard error, put back where it was at the end of a test that redirects it.
class SavedStandardError {
public:
    SavedStandardError() : _saved(::dup(STDERR_FILENO)) {}
    ~SavedStandardError() {
        ::dup2(_saved, STDERR_FILENO);
        ::close(_saved);
    }
    SavedStandardError(const SavedStandardError&) = delete;
    SavedStandardError& operator=(const SavedStandardError&) = delete;

private:
    int _saved;
};

std::vector<std::string> LogMessages(const std::string& path) {
    std::vector<std::string> lines;
    std::istringstream in(ReadTextFile(path));
    for (std::string line; std::getline(in, line);)
        lines.push_back(StripLogPrefix(line));
    return lines;
}

const std::string kLogInHome = ".local/state/Orvel/SoftwareUpdates/OrvelSoftwareUpdate.log";

TEST_F(LoggerUtilityTest, StartLoggingCreatesFoldersAndAppends) {
    TempDir dir;
    {
        SavedStandardError saved;
        ASSERT_TRUE(StartLogging(dir.path(), kLogInHome));
        NSLevelledLog(0, "first run");
        ASSERT_TRUE(StartLogging(dir.path(), kLogInHome));
        NSLevelledLog(0, "second run");
    }
    EXPECT_EQ(LogMessages(dir.file(kLogInHome)),
              (std::vector<std::string>{"first run", "second run"}));
}

TEST_F(LoggerUtilityTest, StartLoggingFailsWhereNoFolderCanBeMade) {
    TempDir dir;
    WriteTextFile(dir.file("plainfile"), "x");
    LogCapture log; // keeps standard error where it is should the call succeed by mistake
    std::string problem;
    EXPECT_FALSE(StartLogging(dir.path(), "plainfile/sub/log.txt", &problem));
    EXPECT_NE(problem.find("plainfile"), std::string::npos) << problem;
    EXPECT_FALSE(StartLogging("", kLogInHome));
    EXPECT_FALSE(StartLogging(dir.path(), ""));
    EXPECT_FALSE(StartLogging(dir.path(), "../escape.log"));
}

// A root run logs into a user's home as that user: the folders and the file are the
// user's, a link the user planted is never followed (to a folder or to a file), a FIFO
// never blocks the run, and a log an older root run made is handed over.
TEST_F(LoggerUtilityTest, InAUsersHomeTheLogIsOpenedAsThatUserWithoutFollowingLinks) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root";
    const uid_t user = 65534;
    const gid_t group = 65534;
    auto home = [&](TempDir& dir) {
        EXPECT_EQ(::chown(dir.path().c_str(), user, group), 0);
        EXPECT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    };
    {
        SCOPED_TRACE("made as the user");
        TempDir dir;
        home(dir);
        {
            SavedStandardError saved;
            ASSERT_TRUE(StartLogging(dir.path(), kLogInHome));
            NSLevelledLog(0, "as the user");
        }
        struct stat info {};
        for (const std::string& part :
             {std::string(".local"), std::string(".local/state/Orvel"), kLogInHome}) {
            ASSERT_EQ(::lstat(dir.file(part).c_str(), &info), 0) << part;
            EXPECT_EQ(info.st_uid, user) << part;
            EXPECT_EQ(info.st_gid, group) << part;
        }
        EXPECT_EQ(LogMessages(dir.file(kLogInHome)), std::vector<std::string>{"as the user"});
    }
    {
        SCOPED_TRACE("a folder on the way is a link to a root-only folder");
        TempDir dir;
        TempDir target;
        ASSERT_EQ(::chmod(target.path().c_str(), 0700), 0);
        home(dir);
        ASSERT_EQ(::mkdir(dir.file(".local").c_str(), 0755), 0);
        ASSERT_EQ(::symlink(target.path().c_str(), dir.file(".local/state").c_str()), 0);
        LogCapture log;
        std::string problem;
        EXPECT_FALSE(StartLogging(dir.path(), kLogInHome, &problem));
        EXPECT_NE(problem.find("state"), std::string::npos) << problem;
        EXPECT_FALSE(FileExists(target.file("Orvel")));
    }
    {
        SCOPED_TRACE("the log is a link to a root file");
        TempDir dir;
        TempDir target;
        WriteTextFile(target.file("secret"), "root's");
        home(dir);
        ASSERT_EQ(::mkdir(dir.file(".local").c_str(), 0755), 0);
        ASSERT_EQ(::mkdir(dir.file(".local/state").c_str(), 0755), 0);
        ASSERT_EQ(::mkdir(dir.file(".local/state/Orvel").c_str(), 0755), 0);
        ASSERT_EQ(::mkdir(dir.file(".local/state/Orvel/SoftwareUpdates").c_str(), 0755), 0);
        ASSERT_EQ(::symlink(target.file("secret").c_str(), dir.file(kLogInHome).c_str()), 0);
        LogCapture log;
        EXPECT_FALSE(StartLogging(dir.path(), kLogInHome));
        EXPECT_EQ(ReadTextFile(target.file("secret")), "root's");
    }
    {
        SCOPED_TRACE("the log is a FIFO");
        TempDir dir;
        home(dir);
        ASSERT_EQ(::mkdir(dir.file("logs").c_str(), 0755), 0);
        ASSERT_EQ(::mkfifo(dir.file("logs/log").c_str(), 0666), 0);
        LogCapture log;
        EXPECT_FALSE(StartLogging(dir.path(), "logs/log"));
    }
    {
        SCOPED_TRACE("an older root run made the folders and the log");
        TempDir dir;
        home(dir);
        ASSERT_EQ(::mkdir(dir.file("logs").c_str(), 0755), 0);
        WriteTextFile(dir.file("logs/log"), "");
        {
            SavedStandardError saved;
            ASSERT_TRUE(StartLogging(dir.path(), "logs/log"));
            NSLevelledLog(0, "handed over");
        }
        struct stat info {};
        ASSERT_EQ(::stat(dir.file("logs/log").c_str(), &info), 0);
        EXPECT_EQ(info.st_uid, user);
        ASSERT_EQ(::stat(dir.file("logs").c_str(), &info), 0);
        EXPECT_EQ(info.st_uid, user);
        EXPECT_EQ(LogMessages(dir.file("logs/log")), std::vector<std::string>{"handed over"});
    }
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
