// The terminal front end of the real PatcherApp as a user meets it: in a tmux pane (a real
// terminal) answering with Enter, Ctrl-C and Ctrl-D, and with no terminal at all.

#include "E2eSupport.h"
#include "TestSupport.h"

#include <chrono>
#include <thread>

namespace {

using namespace std::chrono_literals;

const std::string kExitFile = "/tmp/e2e/terminal-exit";

// The patcher in a tmux pane of its own, as a user at a terminal without a display starts it.
class TmuxPatcher {
public:
    explicit TmuxPatcher(const Scenario& s) {
        const std::string command =
            "env -i HOME=" + s.home + " LANG=C.UTF-8 PATH=/usr/bin:/bin TERM=xterm '" + s.bundle +
            "/Contents/MacOS/PatcherApp'; echo $? > " + kExitFile + "; sleep 600";
        EXPECT_EQ(Tmux({"new-session", "-d", "-s", "patcher", "-x", "150", "-y", "50", command}),
                  0);
    }
    ~TmuxPatcher() { (void)Tmux({"kill-server"}); }

    static int Tmux(const std::vector<std::string>& args, std::string* output = nullptr) {
        std::vector<std::string> argv = {"tmux", "-S", "/tmp/e2e/tmux.socket"};
        argv.insert(argv.end(), args.begin(), args.end());
        return RunTool(argv, output, {"HOME=/tmp/e2e"});
    }
    std::string screen() const {
        std::string output;
        (void)Tmux({"capture-pane", "-p", "-t", "patcher", "-S", "-200"}, &output);
        return output;
    }
    bool waitFor(const std::string& text, std::chrono::milliseconds timeout = 30s) const {
        return WaitUntil([&] { return screen().find(text) != std::string::npos; }, timeout);
    }
    void keys(const std::vector<std::string>& keys) const {
        std::vector<std::string> args = {"send-keys", "-t", "patcher"};
        args.insert(args.end(), keys.begin(), keys.end());
        EXPECT_EQ(Tmux(args), 0);
    }
    // The patcher's exit status once it has ended.
    std::optional<int> exitStatus(std::chrono::milliseconds timeout = 30s) const {
        if (!WaitUntil([] { return FileExists(kExitFile); }, timeout))
            return std::nullopt;
        std::this_thread::sleep_for(100ms);
        return std::stoi(ReadTextFile(kExitFile));
    }
};

void Prepare(Scenario& s) {
    s.config.appRunning = {s.appDisplayName};
    s.installApplication();
    s.registerInstallation();
    s.assemble(s.manifest(s.updateEntries()));
}

TEST(Terminal, EnterContinuesAndTheUpdateRunsWithAProgressLine) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    Prepare(s);
    TmuxPatcher pane(s);
    ASSERT_TRUE(pane.waitFor("[Enter or 1]")) << pane.screen();
    EXPECT_NE(pane.screen().find("Ctrl-C"), std::string::npos) << pane.screen();
    pane.keys({"Enter"});
    ASSERT_EQ(pane.exitStatus(), 0) << pane.screen();
    EXPECT_TRUE(s.logContains("Exit code: 0"));
    EXPECT_TRUE(FileExists(s.historyFile));
}

TEST(Terminal, CtrlCAtTheWelcomeQuestionCancelsAndChangesNothing) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    Prepare(s);
    const auto before = Snapshot(s.app);
    TmuxPatcher pane(s);
    ASSERT_TRUE(pane.waitFor("[Enter or 1]")) << pane.screen();
    pane.keys({"C-c"});
    ASSERT_EQ(pane.exitStatus(), 0) << pane.screen();
    EXPECT_NE(pane.screen().find("^C"), std::string::npos) << pane.screen();
    EXPECT_TRUE(s.logContains("User cancelled, nothing to report"));
    EXPECT_EQ(Snapshot(s.app), before);
}

TEST(Terminal, CtrlDAtTheRunningApplicationsQuestionEndsIt) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    Prepare(s);
    ChildProcess editor = s.startEditor();
    ASSERT_TRUE(WaitUntil([&] { return editor.running(); }, 10s));
    const auto before = Snapshot(s.app);
    TmuxPatcher pane(s);
    ASSERT_TRUE(pane.waitFor("[Enter or 1]")) << pane.screen();
    pane.keys({"Enter"}); // Continue
    ASSERT_TRUE(pane.waitFor("press Enter to check again")) << pane.screen();
    EXPECT_EQ(pane.screen().find("press Retry"), std::string::npos) << pane.screen();
    pane.keys({"C-d"});
    ASSERT_EQ(pane.exitStatus(), 0) << pane.screen();
    EXPECT_GE(s.logIndex("Following apps were not shutdown", true), 0);
    EXPECT_EQ(Snapshot(s.app), before);
    editor.kill();
}

TEST(Terminal, WithoutATerminalTheRunningApplicationsQuestionEndsAtOnce) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    Prepare(s);
    ChildProcess editor = s.startEditor();
    ASSERT_TRUE(WaitUntil([&] { return editor.running(); }, 10s));
    const auto before = Snapshot(s.app);
    const auto start = std::chrono::steady_clock::now();
    // Standard input is not a terminal: the welcome takes its default, the question that
    // would repeat itself its cancel answer.
    EXPECT_EQ(s.runPatcher({}), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 20s);
    EXPECT_NE(s.patcherOutput().find("nobody can answer on standard input"), std::string::npos)
        << s.patcherOutput();
    EXPECT_LT(s.patcherOutput().size(), 4096u);
    EXPECT_LT(s.logLines().size(), 300u);
    EXPECT_EQ(Snapshot(s.app), before);
    editor.kill();
}

TEST(Terminal, AUserWhoIsNotRootIsToldToUseSudoAndNothingChanges) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    Prepare(s);
    const auto before = Snapshot(s.app);
    std::string output;
    EXPECT_EQ(RunTool({"setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups",
                       s.bundle + "/Contents/MacOS/PatcherApp"},
                      &output, {"HOME=/tmp", "LANG=C.UTF-8"}),
              1);
    EXPECT_NE(output.find("only root may change; nothing was changed"), std::string::npos)
        << output;
    EXPECT_NE(output.find("  sudo " + s.bundle.substr(0, 0)), std::string::npos) << output;
    EXPECT_EQ(Snapshot(s.app), before);
}

} // namespace
