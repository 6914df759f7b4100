#include "app/Elevation.h"

#include <gtest/gtest.h>

#include <map>

namespace {

TEST(ElevationTest, OnlyARunWithAUserThatIsNotRootIsElevated) {
    for (const FrontEndKind kind :
         {FrontEndKind::Qt, FrontEndKind::Terminal, FrontEndKind::Headless})
        EXPECT_EQ(DecideElevation(true, kind, true), Elevation::NotNeeded);
    EXPECT_EQ(DecideElevation(false, FrontEndKind::Qt, true), Elevation::ThroughPkexec);
    EXPECT_EQ(DecideElevation(false, FrontEndKind::Qt, false), Elevation::Unavailable);
    EXPECT_EQ(DecideElevation(false, FrontEndKind::Terminal, true), Elevation::UseSudo);
    EXPECT_EQ(DecideElevation(false, FrontEndKind::Headless, true), Elevation::NotNeeded);
}

TEST(ElevationTest, ThePkexecCommandLineCarriesWhatTheWindowsNeedAndTheArguments) {
    const std::map<std::string, std::string> environment = {
        {"DISPLAY", ":0"},       {"XAUTHORITY", "/home/ann/.Xauthority"}, {"HOME", "/home/ann"},
        {"LANG", "de_DE.UTF-8"}, {"LD_PRELOAD", "/tmp/evil.so"},          {"WAYLAND_DISPLAY", ""}};
    const auto line = PkexecCommandLine("/usr/bin/pkexec", "/usr/bin/env", "/tmp/U p.app/Contents/MacOS/PatcherApp",
                                        {"-logLevel=info", "x y"},
                                        [&](const std::string& name) -> std::optional<std::string> {
                                            const auto found = environment.find(name);
                                            if (found == environment.end())
                                                return std::nullopt;
                                            return found->second;
                                        });
    EXPECT_EQ(line, (std::vector<std::string>{
                        "/usr/bin/pkexec", "/usr/bin/env", "DISPLAY=:0",
                        "XAUTHORITY=/home/ann/.Xauthority", "HOME=/home/ann", "LANG=de_DE.UTF-8",
                        "/tmp/U p.app/Contents/MacOS/PatcherApp", "-logLevel=info", "x y"}));
}

TEST(ElevationTest, RefusalIsTheDismissedDialogOrAWrongPassword) {
    EXPECT_TRUE(ElevationWasRefused(126));
    EXPECT_TRUE(ElevationWasRefused(127));
    EXPECT_FALSE(ElevationWasRefused(0));
    EXPECT_FALSE(ElevationWasRefused(9));
}

TEST(ElevationTest, RunAndWaitGivesTheExitStatus) {
    EXPECT_EQ(RunAndWait({"/bin/sh", "-c", "exit 3"}), 3);
    EXPECT_EQ(RunAndWait({"/bin/sh", "-c", "kill -TERM $$"}), 128 + 15);
    EXPECT_EQ(RunAndWait({"/nonexistent/program"}), 127);
}

} // namespace
