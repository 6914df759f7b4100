#include "runtime/LoggerUtility.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <fcntl.h>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
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

TEST_F(LoggerUtilityTest, EachLineHasTheTimeItWasWritten) {
    // The local time of each line, to the second, as strftime gives it then.
    auto now = [] {
        const std::time_t seconds = std::time(nullptr);
        std::tm local{};
        ::localtime_r(&seconds, &local);
        char text[32];
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
        return std::string(text);
    };
    std::vector<std::string> before, after;
    LogCapture log;
    for (int line = 0; line < 3; ++line) {
        before.push_back(now());
        NSLevelledLog(0, "timed");
        after.push_back(now());
        std::this_thread::sleep_for(std::chrono::milliseconds(600));
    }
    const auto raw = log.rawLines();
    ASSERT_EQ(raw.size(), 3u);
    for (size_t line = 0; line < raw.size(); ++line) {
        const std::string stamp = raw[line].substr(0, 19);
        EXPECT_TRUE(stamp == before[line] || stamp == after[line]) << raw[line];
    }
    EXPECT_NE(raw.front().substr(0, 19), raw.back().substr(0, 19));
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

// The rotation tests use a log below a "logs" folder of the temporary home.
const std::string kLog = "logs/app.log";
const auto kLimit = static_cast<off_t>(kLogRotationBytes);

std::string Rotated(const TempDir& dir, int number) {
    return dir.file(kLog + "." + std::to_string(number));
}

// A log of size bytes whose first line is firstLine; the rest is a hole of zero bytes, so
// a large log costs no disk.
void WriteLargeLog(const std::string& path, const std::string& firstLine, off_t size) {
    WriteTextFile(path, firstLine + "\n");
    ASSERT_EQ(::truncate(path.c_str(), size), 0) << path;
}

off_t SizeOf(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0 ? info.st_size : -1;
}

bool IsRegularFile(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

// The first line of the file without a log prefix.
std::string FirstMessage(const std::string& path) {
    std::string head(512, '\0');
    const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return "(cannot open)";
    const ssize_t n = ::read(fd, head.data(), head.size());
    ::close(fd);
    head.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return StripLogPrefix(head.substr(0, head.find('\n')));
}

// The messages of the lines written to the file after its first from bytes.
std::vector<std::string> MessagesAfter(const std::string& path, off_t from) {
    std::vector<std::string> lines;
    const std::string text = ReadTextFile(path);
    std::istringstream in(text.substr(std::min(text.size(), static_cast<size_t>(from))));
    for (std::string line; std::getline(in, line);)
        lines.push_back(StripLogPrefix(line));
    return lines;
}

TEST_F(LoggerUtilityTest, ALogOfTheLimitOrMoreRotatesWhenARunStarts) {
    TempDir dir;
    WriteLargeLog(dir.file(kLog), "current", kLimit);
    WriteTextFile(Rotated(dir, 1), "one\n");
    WriteTextFile(Rotated(dir, 2), "two\n");
    WriteTextFile(Rotated(dir, 3), "three\n");
    {
        SavedStandardError saved;
        ASSERT_TRUE(StartLogging(dir.path(), kLog));
        NSLevelledLog(0, "fresh run");
    }
    EXPECT_EQ(LogMessages(dir.file(kLog)), std::vector<std::string>{"fresh run"});
    EXPECT_EQ(FirstMessage(Rotated(dir, 1)), "current");
    EXPECT_EQ(SizeOf(Rotated(dir, 1)), kLimit);
    EXPECT_EQ(ReadTextFile(Rotated(dir, 2)), "one\n");
    EXPECT_EQ(ReadTextFile(Rotated(dir, 3)), "two\n"); // "three", the oldest, is dropped
    EXPECT_FALSE(FileExists(Rotated(dir, 4)));
}

TEST_F(LoggerUtilityTest, OnlyTheThreeNewestOldLogsAreKept) {
    TempDir dir;
    for (int run = 0; run < 6; ++run) {
        {
            SavedStandardError saved;
            ASSERT_TRUE(StartLogging(dir.path(), kLog));
            NSLevelledLog(0, "run %d", run);
        }
        ASSERT_EQ(::truncate(dir.file(kLog).c_str(), kLimit + run), 0);
    }
    {
        SavedStandardError saved;
        ASSERT_TRUE(StartLogging(dir.path(), kLog));
        NSLevelledLog(0, "last run");
    }
    EXPECT_EQ(LogMessages(dir.file(kLog)), std::vector<std::string>{"last run"});
    EXPECT_EQ(FirstMessage(Rotated(dir, 1)), "run 5");
    EXPECT_EQ(FirstMessage(Rotated(dir, 2)), "run 4");
    EXPECT_EQ(FirstMessage(Rotated(dir, 3)), "run 3");
    EXPECT_EQ(SizeOf(Rotated(dir, 1)), kLimit + 5);
    EXPECT_EQ(SizeOf(Rotated(dir, 3)), kLimit + 3);
    EXPECT_FALSE(FileExists(Rotated(dir, 4)));
    EXPECT_FALSE(FileExists(Rotated(dir, 0)));
}

TEST_F(LoggerUtilityTest, ALogUnderTheLimitIsAppendedTo) {
    TempDir dir;
    const off_t size = kLimit - 4096;
    WriteLargeLog(dir.file(kLog), "earlier", size);
    {
        SavedStandardError saved;
        ASSERT_TRUE(StartLogging(dir.path(), kLog));
        NSLevelledLog(0, "appended");
    }
    EXPECT_FALSE(FileExists(Rotated(dir, 1)));
    EXPECT_EQ(FirstMessage(dir.file(kLog)), "earlier");
    EXPECT_EQ(MessagesAfter(dir.file(kLog), size), std::vector<std::string>{"appended"});
}

// A run that writes a lot moves the log aside before a line would take it past the limit,
// and goes on in a new log that says where the run's earlier lines are.
TEST_F(LoggerUtilityTest, TheLogRotatesDuringARunBeforeALineWouldPassTheLimit) {
    TempDir dir;
    const off_t size = kLimit - 3000;
    WriteLargeLog(dir.file(kLog), "earlier", size);
    std::vector<std::string> written;
    {
        SavedStandardError saved;
        ASSERT_TRUE(StartLogging(dir.path(), kLog));
        EXPECT_FALSE(FileExists(Rotated(dir, 1)));
        for (int i = 0; i < 30; ++i) {
            written.push_back("line " + std::to_string(i) + " " + std::string(200, 'x'));
            NSLevelledLog(0, "%@", written.back());
        }
    }
    ASSERT_TRUE(IsRegularFile(Rotated(dir, 1)));
    EXPECT_EQ(FirstMessage(Rotated(dir, 1)), "earlier");
    EXPECT_LE(SizeOf(Rotated(dir, 1)), kLimit);
    EXPECT_FALSE(FileExists(Rotated(dir, 2)));
    const std::vector<std::string> before = MessagesAfter(Rotated(dir, 1), size);
    std::vector<std::string> after = LogMessages(dir.file(kLog));
    ASSERT_FALSE(before.empty());
    ASSERT_FALSE(after.empty());
    EXPECT_EQ(after.front(), "The log was rotated; the earlier lines of this run are in app.log.1");
    after.erase(after.begin());
    std::vector<std::string> all = before;
    all.insert(all.end(), after.begin(), after.end());
    EXPECT_EQ(all, written);
    EXPECT_LT(before.size(), written.size());
}

// The exact limit: a log one byte short of it is not rotated when the run starts, and the
// run's first line, which would take it past the limit, goes to a new log.
TEST_F(LoggerUtilityTest, ALogOneByteShortOfTheLimitRotatesWithTheFirstLine) {
    TempDir dir;
    WriteLargeLog(dir.file(kLog), "earlier", kLimit - 1);
    {
        SavedStandardError saved;
        ASSERT_TRUE(StartLogging(dir.path(), kLog));
        EXPECT_FALSE(FileExists(Rotated(dir, 1)));
        NSLevelledLog(0, "first");
    }
    EXPECT_EQ(SizeOf(Rotated(dir, 1)), kLimit - 1);
    EXPECT_EQ(LogMessages(dir.file(kLog)),
              (std::vector<std::string>{
                  "The log was rotated; the earlier lines of this run are in app.log.1", "first"}));
}

TEST_F(LoggerUtilityTest, LinesOfTwoThreadsLandWholeAcrossARotation) {
    TempDir dir;
    const off_t size = kLimit - 50000;
    WriteLargeLog(dir.file(kLog), "earlier", size);
    {
        SavedStandardError saved;
        ASSERT_TRUE(StartLogging(dir.path(), kLog));
        auto writer = [](char c) {
            for (int i = 0; i < 200; ++i)
                NSLevelledLog(0, "%@", std::string(300, c));
        };
        std::thread a(writer, 'a');
        std::thread b(writer, 'b');
        a.join();
        b.join();
    }
    std::vector<std::string> lines = MessagesAfter(Rotated(dir, 1), size);
    const std::vector<std::string> after = LogMessages(dir.file(kLog));
    ASSERT_FALSE(after.empty());
    EXPECT_EQ(after.front(), "The log was rotated; the earlier lines of this run are in app.log.1");
    lines.insert(lines.end(), after.begin() + 1, after.end());
    ASSERT_EQ(lines.size(), 400u);
    for (const auto& line : lines)
        EXPECT_TRUE(line == std::string(300, 'a') || line == std::string(300, 'b'));
    EXPECT_LE(SizeOf(Rotated(dir, 1)), kLimit);
    EXPECT_FALSE(FileExists(Rotated(dir, 2)));
}

// Once standard error is pointed elsewhere, the log is no longer rotated from it, nor is
// standard error taken back to a new log.
TEST_F(LoggerUtilityTest, NoRotationOnceStandardErrorIsNoLongerTheLog) {
    TempDir dir;
    const off_t size = kLimit - 100;
    WriteLargeLog(dir.file(kLog), "earlier", size);
    {
        SavedStandardError saved;
        ASSERT_TRUE(StartLogging(dir.path(), kLog));
    }
    LogCapture log;
    NSLevelledLog(0, "%@", std::string(200, 'w'));
    EXPECT_EQ(log.lines(), std::vector<std::string>{std::string(200, 'w')});
    EXPECT_FALSE(FileExists(Rotated(dir, 1)));
    EXPECT_EQ(SizeOf(dir.file(kLog)), size);
}

// The old logs are only renamed. Something planted at an old log's name is never opened,
// followed or carried along: a link is replaced as a name (its target stays untouched) or
// left where it is, and so is a FIFO.
TEST_F(LoggerUtilityTest, RotationNeverFollowsWhatIsPlantedAtAnOldLogsName) {
    TempDir target;
    WriteTextFile(target.file("one"), "not the log's");
    WriteTextFile(target.file("three"), "not the log's either");
    {
        SCOPED_TRACE("links at .1 and .3");
        TempDir dir;
        WriteLargeLog(dir.file(kLog), "current", kLimit);
        ASSERT_EQ(::symlink(target.file("one").c_str(), Rotated(dir, 1).c_str()), 0);
        WriteTextFile(Rotated(dir, 2), "two\n");
        ASSERT_EQ(::symlink(target.file("three").c_str(), Rotated(dir, 3).c_str()), 0);
        {
            SavedStandardError saved;
            ASSERT_TRUE(StartLogging(dir.path(), kLog));
            NSLevelledLog(0, "fresh run");
        }
        EXPECT_EQ(ReadTextFile(target.file("one")), "not the log's");
        EXPECT_EQ(ReadTextFile(target.file("three")), "not the log's either");
        ASSERT_TRUE(IsRegularFile(Rotated(dir, 1)));
        EXPECT_EQ(FirstMessage(Rotated(dir, 1)), "current");
        EXPECT_FALSE(FileExists(Rotated(dir, 2))); // the link was not carried along
        ASSERT_TRUE(IsRegularFile(Rotated(dir, 3)));
        EXPECT_EQ(ReadTextFile(Rotated(dir, 3)), "two\n");
        EXPECT_EQ(LogMessages(dir.file(kLog)), std::vector<std::string>{"fresh run"});
    }
    {
        SCOPED_TRACE("a FIFO at .1 and a link at .2, during a run");
        TempDir dir;
        const off_t size = kLimit - 100;
        WriteLargeLog(dir.file(kLog), "current", size);
        ASSERT_EQ(::mkfifo(Rotated(dir, 1).c_str(), 0666), 0);
        ASSERT_EQ(::symlink(target.file("one").c_str(), Rotated(dir, 2).c_str()), 0);
        {
            SavedStandardError saved;
            ASSERT_TRUE(StartLogging(dir.path(), kLog));
            NSLevelledLog(0, "%@", std::string(200, 'y'));
        }
        EXPECT_EQ(ReadTextFile(target.file("one")), "not the log's");
        ASSERT_TRUE(IsRegularFile(Rotated(dir, 1)));
        EXPECT_EQ(SizeOf(Rotated(dir, 1)), size);
        struct stat info {};
        ASSERT_EQ(::lstat(Rotated(dir, 2).c_str(), &info), 0);
        EXPECT_TRUE(S_ISLNK(info.st_mode)); // nothing moved onto it: left as it was
        EXPECT_FALSE(FileExists(Rotated(dir, 3)));
        EXPECT_EQ(LogMessages(dir.file(kLog)).back(), std::string(200, 'y'));
    }
}

// A log that cannot be rotated (here a folder holds the first old name) is still used: the
// failure is logged, and the run neither stops logging nor tries again at every line.
TEST_F(LoggerUtilityTest, AFailedRotationIsLoggedAndTheRunGoesOnInTheSameFile) {
    TempDir dir;
    WriteLargeLog(dir.file(kLog), "current", kLimit);
    ASSERT_EQ(::mkdir(Rotated(dir, 1).c_str(), 0755), 0);
    {
        SavedStandardError saved;
        ASSERT_TRUE(StartLogging(dir.path(), kLog));
        NSLevelledLog(0, "still logged");
        NSLevelledLog(0, "and this");
    }
    EXPECT_EQ(FirstMessage(dir.file(kLog)), "current");
    const std::vector<std::string> lines = MessagesAfter(dir.file(kLog), kLimit);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(
        lines[0].rfind("The log could not be rotated (cannot rename app.log to app.log.1: ", 0), 0u)
        << lines[0];
    EXPECT_NE(lines[0].find("goes on writing to the file it has open"), std::string::npos);
    EXPECT_EQ(lines[1], "still logged");
    EXPECT_EQ(lines[2], "and this");
}

// A root run rotates a user's log as that user: every file stays the user's, the log an
// older root run left is handed over before it is moved aside, and the thread's own ids
// are back to root's afterwards.
TEST_F(LoggerUtilityTest, InAUsersHomeTheLogRotatesAsThatUser) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root";
    const uid_t user = 65534;
    const gid_t group = 65534;
    auto home = [&](TempDir& dir) {
        EXPECT_EQ(::chown(dir.path().c_str(), user, group), 0);
        EXPECT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    };
    auto expectTheUsers = [&](const std::string& path) {
        struct stat info {};
        ASSERT_EQ(::lstat(path.c_str(), &info), 0) << path;
        EXPECT_EQ(info.st_uid, user) << path;
        EXPECT_EQ(info.st_gid, group) << path;
    };
    {
        SCOPED_TRACE("the user's logs, at the start and during a run");
        TempDir dir;
        home(dir);
        {
            SavedStandardError saved;
            ASSERT_TRUE(StartLogging(dir.path(), kLog));
            NSLevelledLog(0, "first run");
        }
        ASSERT_EQ(::truncate(dir.file(kLog).c_str(), kLimit), 0);
        {
            SavedStandardError saved;
            ASSERT_TRUE(StartLogging(dir.path(), kLog));
            NSLevelledLog(0, "second run");
        }
        ASSERT_EQ(::truncate(dir.file(kLog).c_str(), kLimit - 100), 0);
        {
            SavedStandardError saved;
            ASSERT_TRUE(StartLogging(dir.path(), kLog));
            NSLevelledLog(0, "%@", std::string(200, 'z'));
        }
        EXPECT_EQ(FirstMessage(Rotated(dir, 2)), "first run");
        EXPECT_EQ(FirstMessage(Rotated(dir, 1)), "second run");
        EXPECT_EQ(LogMessages(dir.file(kLog)).back(), std::string(200, 'z'));
        for (const std::string& path :
             {dir.file("logs"), dir.file(kLog), Rotated(dir, 1), Rotated(dir, 2)})
            expectTheUsers(path);
    }
    {
        SCOPED_TRACE("a large log and its folder an older root run made");
        TempDir dir;
        home(dir);
        ASSERT_EQ(::mkdir(dir.file("logs").c_str(), 0755), 0);
        WriteLargeLog(dir.file(kLog), "root's run", kLimit);
        {
            SavedStandardError saved;
            ASSERT_TRUE(StartLogging(dir.path(), kLog));
            NSLevelledLog(0, "handed over");
        }
        EXPECT_EQ(FirstMessage(Rotated(dir, 1)), "root's run");
        EXPECT_EQ(LogMessages(dir.file(kLog)), std::vector<std::string>{"handed over"});
        for (const std::string& path : {dir.file("logs"), dir.file(kLog), Rotated(dir, 1)})
            expectTheUsers(path);
    }
    {
        SCOPED_TRACE("a link at .1 to a root file");
        TempDir dir;
        TempDir target;
        WriteTextFile(target.file("secret"), "root's");
        home(dir);
        {
            SavedStandardError saved;
            ASSERT_TRUE(StartLogging(dir.path(), kLog));
        }
        ASSERT_EQ(::truncate(dir.file(kLog).c_str(), kLimit), 0);
        ASSERT_EQ(::symlink(target.file("secret").c_str(), Rotated(dir, 1).c_str()), 0);
        ASSERT_EQ(::lchown(Rotated(dir, 1).c_str(), user, group), 0);
        {
            SavedStandardError saved;
            ASSERT_TRUE(StartLogging(dir.path(), kLog));
            NSLevelledLog(0, "after the link");
        }
        EXPECT_EQ(ReadTextFile(target.file("secret")), "root's");
        struct stat info {};
        ASSERT_EQ(::stat(target.file("secret").c_str(), &info), 0);
        EXPECT_EQ(info.st_uid, 0u);
        EXPECT_TRUE(IsRegularFile(Rotated(dir, 1)));
        EXPECT_EQ(SizeOf(Rotated(dir, 1)), kLimit);
        expectTheUsers(Rotated(dir, 1));
        expectTheUsers(dir.file(kLog));
    }
    EXPECT_EQ(::setfsuid(static_cast<uid_t>(-1)), 0);
    EXPECT_EQ(::setfsgid(static_cast<gid_t>(-1)), 0);
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

// Batching is for the whole process and stays on, so each test runs it in a child of its
// own: code runs there with the log at path and ends the child with std::exit (so the
// exit-time writing runs too); the child's exit status, or -1.
int InChildLoggingTo(const std::string& path, const std::function<int()>& code) {
    const pid_t child = ::fork();
    if (child == 0) {
        const std::string folder = path.substr(0, path.rfind('/'));
        if (!StartLogging(folder, path.substr(folder.size() + 1)))
            std::_Exit(90);
        BatchLogLines();
        std::exit(code());
    }
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

// The write system calls this process has made so far.
long WriteCalls() {
    std::istringstream in(ReadTextFile("/proc/self/io"));
    for (std::string name, value; in >> name >> value;) {
        if (name == "syscw:")
            return std::stol(value);
    }
    return -1;
}

TEST_F(LoggerUtilityTest, BatchedLinesLandWholeAndInOrderWithFewWrites) {
    TempDir dir;
    const std::string log = dir.file("log.txt");
    ASSERT_EQ(InChildLoggingTo(log,
                               [] {
                                   const long before = WriteCalls();
                                   auto writer = [](char c) {
                                       for (int i = 0; i < 3000; ++i)
                                           NSLevelledLog(0, "%@ %d", std::string(100, c), i);
                                   };
                                   std::thread a(writer, 'a');
                                   std::thread b(writer, 'b');
                                   a.join();
                                   b.join();
                                   FlushLog();
                                   // 6,000 lines, 630 KB: a write per 64 KB or per 10 ms.
                                   return WriteCalls() - before < 200 ? 0 : 1;
                               }),
              0);
    const auto lines = LogMessages(log);
    ASSERT_EQ(lines.size(), 6000u);
    int nextA = 0, nextB = 0;
    for (const std::string& line : lines) {
        int& next = line[0] == 'a' ? nextA : nextB;
        EXPECT_EQ(line, std::string(100, line[0]) + " " + std::to_string(next)) << line;
        ++next;
    }
    EXPECT_EQ(nextA, 3000);
    EXPECT_EQ(nextB, 3000);
}

TEST_F(LoggerUtilityTest, ABatchedLineReachesTheFileWithinMilliseconds) {
    TempDir dir;
    const std::string log = dir.file("log.txt");
    EXPECT_EQ(InChildLoggingTo(log,
                               [&log] {
                                   NSLog("waiting for no flush");
                                   // Nobody flushes: the batching thread writes it.
                                   for (int i = 0; i < 1000; ++i) {
                                       if (ReadTextFile(log).find("waiting for no flush") !=
                                           std::string::npos)
                                           return 0;
                                       ::usleep(1000);
                                   }
                                   return 1;
                               }),
              0);
}

TEST_F(LoggerUtilityTest, BatchedLinesComeBeforeWhatAForkedChildWritesAndAreWrittenAtExit) {
    TempDir dir;
    const std::string log = dir.file("log.txt");
    EXPECT_EQ(InChildLoggingTo(log,
                               [] {
                                   NSLog("before the fork");
                                   const pid_t grandchild = ::fork();
                                   if (grandchild == 0) {
                                       const char line[] = "the child's own line\n";
                                       (void)!::write(STDERR_FILENO, line, sizeof line - 1);
                                       NSLog("the child logs too");
                                       std::_Exit(0);
                                   }
                                   int status = 0;
                                   ::waitpid(grandchild, &status, 0);
                                   // Left to the exit.
                                   NSLog("after the fork");
                                   return 0;
                               }),
              0);
    EXPECT_EQ(LogMessages(log), (std::vector<std::string>{"before the fork", "the child's own line",
                                                          "the child logs too", "after the fork"}));
}

} // namespace
