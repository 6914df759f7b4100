// Runs the built PatcherApp from its bundle as a user would and reads the log it wrote.

#include "TestSupport.h"
#include "base/AppBundle.h"
#include "base/PropertyList.h"
#include "base/StringTable.h"

#include <gtest/gtest.h>

#include <clocale>
#include <regex>
#include <sstream>

namespace {

const std::string kLogInHome = "/.local/state/Orvel/SoftwareUpdates/OrvelSoftwareUpdate.log";

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// Runs the patcher as a user would, with the system folders it may write to on tmpfs. The
// built bundle is not signed: the private /etc/orvel is a developer's, which allows that.
int RunPatcher(const TempDir& home, std::vector<std::string> args) {
    args.insert(args.begin(), ORVEL_PATCHER_APP);
    args.insert(args.begin(), {"/bin/sh", "-c",
                               "printf 'allow-unsigned-patchers = yes\\n' >/etc/orvel/patcher.conf "
                               "&& exec \"$0\" \"$@\""});
    const int status = RunProgramIsolated(
        args, {"HOME=" + home.path(), "LANG=C.UTF-8", "DISPLAY=", "WAYLAND_DISPLAY="},
        {"/tmp/OrvelQX3", "/var/opt", "/opt", "/etc/orvel"}, home.file("stdout"),
        home.file("stderr"));
    if (status == -1)
        ADD_FAILURE() << "a private mount namespace needs the super-user";
    return status;
}

TEST(PatcherAppRunTest, SilentRunAtWarningWritesFilteredLogWithPrefix) {
    TempDir home;
    ASSERT_EQ(RunPatcher(home, {"-logLevel=warning", "-Silent"}), 6);

    const std::string logPath = home.path() + kLogInHome;
    ASSERT_TRUE(FileExists(logPath));
    auto raw = Lines(ReadTextFile(logPath));
    ASSERT_GE(raw.size(), 4u);

    const std::regex prefix(
        R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} PatcherApp\[\d+:\d+\] .*$)");
    std::vector<std::string> messages;
    for (const auto& line : raw) {
        EXPECT_TRUE(std::regex_match(line, prefix)) << line;
        messages.push_back(StripLogPrefix(line));
    }
    const std::string banner = "*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*";
    EXPECT_EQ(messages[0], banner);
    EXPECT_EQ(messages[1], "*=*=*=*=*=*=*=*=*=*=* Orvel Software Update *=*=*=*=*=*=*=*=*=*=*");
    EXPECT_EQ(messages[2], banner);
    EXPECT_NE(std::find(messages.begin(), messages.end(), "Mode of Execution: SILENT MODE"),
              messages.end());
    // Level-3 lines are filtered out at "warning".
    for (const auto& message : messages)
        EXPECT_EQ(message.find("File Path is NULL"), std::string::npos) << message;
}

TEST(PatcherAppRunTest, SecondRunAppendsAndDebugShowsEverything) {
    TempDir home;
    ASSERT_EQ(RunPatcher(home, {"-Silent"}), 6);
    const std::string logPath = home.path() + kLogInHome;
    const size_t firstRunLines = Lines(ReadTextFile(logPath)).size();
    ASSERT_EQ(RunPatcher(home, {}), 0);
    auto messages = Lines(ReadTextFile(logPath));
    ASSERT_GT(messages.size(), firstRunLines);
    for (auto& line : messages)
        line = StripLogPrefix(line);
    EXPECT_EQ(messages[firstRunLines - 1].find("Mode of Execution"), std::string::npos);
    EXPECT_NE(std::find(messages.begin(), messages.end(), "Mode of Execution: SILENT MODE"),
              messages.end());
    EXPECT_NE(std::find(messages.begin(), messages.end(), "Mode of Execution: FULL UI MODE"),
              messages.end());
    // The built bundle carries no configuration: the run ends as not valid for an update.
    EXPECT_NE(std::find(messages.begin(), messages.end(), "File Path is NULL"), messages.end());
}

TEST(PatcherAppRunTest, UnwritableLogFolderFallsBackToStandardError) {
    TempDir home;
    WriteTextFile(home.file(".local"), "a file where the log folder should be");
    ASSERT_EQ(RunPatcher(home, {"-Silent"}), 6);
    auto messages = Lines(ReadTextFile(home.file("stderr")));
    for (auto& line : messages)
        line = StripLogPrefix(line);
    EXPECT_NE(std::find(messages.begin(), messages.end(), "Logging Failed"), messages.end());
    EXPECT_NE(std::find(messages.begin(), messages.end(), "Mode of Execution: SILENT MODE"),
              messages.end());
}

TEST(PatcherAppRunTest, BundleCarriesInfoPlistAndStringTables) {
    AppBundle bundle(ORVEL_APP_BUNDLE);
    auto info = PropertyList::readDictionaryFromFile(bundle.infoPlistPath());
    ASSERT_TRUE(info);
    EXPECT_EQ(info->stringForKey("CFBundleExecutable"), "PatcherApp");

    for (const char* lang : {"en", "de"})
        EXPECT_TRUE(FileExists(bundle.localePath() + "/" + lang + "/LC_MESSAGES/PatcherApp.mo"));

    ::setenv("LANGUAGE", "de", 1);
    std::setlocale(LC_ALL, "C.UTF-8");
    StringTable table(bundle.localePath());
    EXPECT_EQ(table.localizedString("Continue"), "Fortfahren");
    EXPECT_EQ(table.localizedString("Not a key"), "Not a key");
    ::unsetenv("LANGUAGE");
    std::setlocale(LC_ALL, "C");
}

} // namespace
