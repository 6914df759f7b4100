// How the update engine answers every result of the locator, including those the real
// locator never gives: LocateInstalledApplication returns only 0, 1, -1, 3, 5 and 6 (its
// isProperProduct gives 0, 1, -1 or 3, and the space check's "enough" 4 is turned into 0),
// so no installed application can make a run meet 2, 4 or an unknown value. The engine runs
// here in this process with a locator that gives those values; everything else is real.

#include "TestSupport.h"
#include "report/KORInstallerResultsWrapper.h"
#include "report/UserInterface.h"
#include "run/UpdateEngine.h"
#include "runtime/Environment.h"
#include "runtime/MainLoop.h"
#include "target/LocateInstalledApplication.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

namespace {

class CountingUserInterface : public UserInterface {
public:
    std::vector<std::string> alerts;
    int runAlertPanel(AlertStyle, const std::string& title, const std::string& message,
                      const std::string&, const std::string&, const std::string&) override {
        alerts.push_back(title + "|" + message);
        return kAlertDefaultReturn;
    }
};

struct Outcome {
    std::vector<std::string> log;
    std::optional<std::string> returnCode;
    std::vector<std::string> alerts;
    bool located = false;
};

Outcome RunEngine(int locatorResult, bool silent) {
    TempDir home;
    const std::string savedHome = EnvironmentValue("HOME");
    ::setenv("HOME", home.path().c_str(), 1);
    SetENVsilentFlag(silent);
    CountingUserInterface ui;
    ReportingContext context;
    context.userInterface = &ui;
    KORInstallerResultsWrapper reporter(context);

    Outcome outcome;
    {
        HeadlessMainLoop loop;
        EngineEnvironment environment;
        environment.loop = &loop;
        environment.reporter = &reporter;
        environment.userInterface = &ui;
        environment.paths.returnCodeFile = home.file("OrvelQX3/retVal");
        environment.paths.workingFolderFormat = home.path() + "/OrvelQX3/PatcherApp_%d";
        // No bundle, so no signature: this machine is a developer's.
        environment.paths.trustedKeysFolder = home.file("trusted-keys.d");
        environment.paths.patcherPolicyFile = home.file("patcher.conf");
        WriteTextFile(environment.paths.patcherPolicyFile, "allow-unsigned-patchers = yes\n");
        environment.locate = [&](LoadConfigData&, bool, std::string& appPath) {
            outcome.located = true;
            appPath = home.file("opt/Suite");
            return static_cast<LocatorResult>(locatorResult);
        };
        UpdateEngine engine(std::move(environment));
        loop.post([&engine] { engine.appLaunched(); });
        EXPECT_EQ(loop.run(), 0);
    }
    std::istringstream log(
        ReadTextFile(home.path() + "/.local/state/Orvel/SoftwareUpdates/OrvelSoftwareUpdate.log"));
    for (std::string line; std::getline(log, line);)
        outcome.log.push_back(StripLogPrefix(line));
    if (FileExists(home.file("OrvelQX3/retVal")))
        outcome.returnCode = ReadTextFile(home.file("OrvelQX3/retVal"));
    outcome.alerts = ui.alerts;

    SetENVsilentFlag(false);
    ::setenv("HOME", savedHome.c_str(), 1);
    return outcome;
}

// The lines of the run after the mode, without the records' release at the end.
std::vector<std::string> AfterMode(const std::vector<std::string>& log) {
    const auto mode = std::find_if(log.begin(), log.end(), [](const std::string& line) {
        return line.rfind("Mode of Execution: ", 0) == 0;
    });
    EXPECT_NE(mode, log.end());
    std::vector<std::string> lines;
    for (auto it = mode == log.end() ? log.end() : mode + 1; it != log.end(); ++it) {
        if (it->rfind("dealloc ", 0) != 0)
            lines.push_back(*it);
    }
    return lines;
}

TEST(EngineLocatorResult, FourLogsInvalidReturnCodeAndReportsNothing) {
    for (const bool silent : {true, false}) {
        SCOPED_TRACE(silent ? "silent" : "full user interface");
        const Outcome outcome = RunEngine(4, silent);
        EXPECT_TRUE(outcome.located);
        EXPECT_EQ(AfterMode(outcome.log), std::vector<std::string>{"Invalid return code"});
        EXPECT_EQ(outcome.returnCode, std::nullopt);
        EXPECT_TRUE(outcome.alerts.empty());
    }
}

TEST(EngineLocatorResult, UnknownValuesAreInvalidToo) {
    for (const int value : {7, 42, -2}) {
        SCOPED_TRACE(value);
        const Outcome outcome = RunEngine(value, true);
        EXPECT_EQ(AfterMode(outcome.log), std::vector<std::string>{"Invalid return code"});
        EXPECT_EQ(outcome.returnCode, std::nullopt);
    }
}

TEST(EngineLocatorResult, TwoIsNotValidForThisUpdate) {
    const Outcome silent = RunEngine(2, true);
    // Without a bundle the keys are the texts.
    EXPECT_EQ(AfterMode(silent.log), std::vector<std::string>{"Failed to validate message"});
    EXPECT_EQ(silent.returnCode, "6");

    const Outcome shown = RunEngine(2, false);
    EXPECT_EQ(shown.returnCode, std::nullopt);
    ASSERT_EQ(shown.alerts.size(), 1u);
    EXPECT_EQ(shown.alerts[0], "Installing the patch title|Update failed message");
}

} // namespace
