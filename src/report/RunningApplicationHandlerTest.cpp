#include "report/RunningApplicationHandler.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace {

// A real process running a copy of sleep from the given path.
class RunningProcess {
public:
    explicit RunningProcess(const std::string& executable) {
        std::filesystem::create_directories(std::filesystem::path(executable).parent_path());
        std::filesystem::copy_file("/bin/sleep", executable);
        char* argv[] = {const_cast<char*>(executable.c_str()), const_cast<char*>("60"), nullptr};
        EXPECT_EQ(::posix_spawn(&_pid, executable.c_str(), nullptr, nullptr, argv, environ), 0);
        // Wait until the program has been executed, so /proc names it.
        const std::string link = "/proc/" + std::to_string(_pid) + "/exe";
        for (int i = 0; i < 500; ++i) {
            std::error_code error;
            if (std::filesystem::read_symlink(link, error) == executable)
                break;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    ~RunningProcess() { stop(); }
    void stop() {
        if (_pid > 0) {
            ::kill(_pid, SIGKILL);
            ::waitpid(_pid, nullptr, 0);
            _pid = -1;
        }
    }

private:
    pid_t _pid = -1;
};

// Tests of other processes run at the same time and start editors of their own: this
// process's editor carries its process id in its name.
const std::string& Tag() {
    static const std::string tag = std::to_string(::getpid());
    return tag;
}
const std::string& Name() {
    static const std::string name = "Orvel Editor " + Tag();
    return name;
}

std::vector<XmlNode> Entries(const std::vector<std::string>& patterns) {
    std::string xml = "<AppRunningList>";
    for (const auto& p : patterns)
        xml += "<AppRunning><![CDATA[" + p + "]]></AppRunning>";
    xml += "</AppRunningList>";
    auto parsed = XmlDocument::parseMemory(xml);
    return XmlDocument::root(parsed.document).select("/AppRunningList/AppRunning");
}

class ScriptedWindow : public RunningAppsWindowController {
public:
    std::vector<int> answers;
    std::function<void()> beforeAnswer;
    std::vector<std::string> shownNames;
    int action = 0;
    int modalRuns = 0;

    void resetRunningApplications(const std::string& names) override {
        shownNames.push_back(names);
        action = 0;
    }
    void runModal() override {
        if (beforeAnswer)
            beforeAnswer();
        action = answers.at(static_cast<size_t>(modalRuns++));
    }
    int getUserAction() const override { return action; }
};

class RunningApplicationHandlerTest : public ::testing::Test {
protected:
    void SetUp() override {
        WriteTextFile(dir.file("Orvel Editor.app/Contents/Info.plist"),
                      "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>CFBundleName</key>"
                      "<string>" +
                          Name() + "</string></dict></plist>");
    }
    TempDir dir;
    RunningApplications running{PlatformPaths::defaults()};
};

TEST_F(RunningApplicationHandlerTest, BundledProcessIsNamedByItsBundle) {
    RunningProcess editor(dir.file("Orvel Editor.app/Contents/MacOS/Editor"));
    RunningProcess plain(dir.file("bin/orvelplainhelper"));
    auto names = running.launchedApplications();
    EXPECT_NE(std::find(names.begin(), names.end(), Name()), names.end());
    EXPECT_NE(std::find(names.begin(), names.end(), "orvelplainhelper"), names.end());
}

TEST_F(RunningApplicationHandlerTest, TwoEntriesMatchingOneApplicationListItOnce) {
    RunningProcess editor(dir.file("Orvel Editor.app/Contents/MacOS/Editor"));
    RunningApplicationHandler handler(Entries({"^Orvel Ed.* " + Tag(), "Editor " + Tag() + "$"}),
                                      false, nullptr, running);
    LogCapture log;
    std::string names;
    EXPECT_TRUE(handler.areOrvelAppsRunning(names));
    EXPECT_EQ(names, Name() + "\n");
    // Entries are tried from the last to the first.
    EXPECT_TRUE(log.contains("Editor " + Tag() + "$ application was found running."));
}

TEST_F(RunningApplicationHandlerTest, WithoutUserAMatchFailsAtOnce) {
    RunningProcess editor(dir.file("Orvel Editor.app/Contents/MacOS/Editor"));
    ScriptedWindow window;
    RunningApplicationHandler handler(Entries({Name()}), false, &window, running);
    std::string names;
    EXPECT_FALSE(handler.shutdownOrvelApplications(names));
    EXPECT_EQ(names, Name() + "\n");
    EXPECT_EQ(window.modalRuns, 0);
}

TEST_F(RunningApplicationHandlerTest, RetryAfterQuittingGoesOn) {
    auto editor =
        std::make_unique<RunningProcess>(dir.file("Orvel Editor.app/Contents/MacOS/Editor"));
    ScriptedWindow window;
    window.answers = {1};
    window.beforeAnswer = [&] { editor->stop(); };
    RunningApplicationHandler handler(Entries({Name()}), true, &window, running);
    std::string names;
    EXPECT_TRUE(handler.shutdownOrvelApplications(names));
    EXPECT_EQ(names, "");
    ASSERT_EQ(window.shownNames.size(), 1u);
    EXPECT_EQ(window.shownNames[0], Name() + "\n");
}

TEST_F(RunningApplicationHandlerTest, RetryWhileStillRunningAsksAgainThenCancel) {
    RunningProcess editor(dir.file("Orvel Editor.app/Contents/MacOS/Editor"));
    ScriptedWindow window;
    window.answers = {1, 2};
    RunningApplicationHandler handler(Entries({Name()}), true, &window, running);
    std::string names;
    EXPECT_FALSE(handler.shutdownOrvelApplications(names));
    EXPECT_EQ(window.modalRuns, 2);
    EXPECT_EQ(names, Name() + "\n");
}

TEST_F(RunningApplicationHandlerTest, NothingToCheckOrBadExpressionsMatchNothing) {
    RunningProcess editor(dir.file("Orvel Editor.app/Contents/MacOS/Editor"));
    std::string names = "stale";
    RunningApplicationHandler none({}, false, nullptr, running);
    EXPECT_FALSE(none.areOrvelAppsRunning(names));
    EXPECT_EQ(names, "");
    EXPECT_TRUE(none.shutdownOrvelApplications(names));
    RunningApplicationHandler invalid(Entries({"(Orvel"}), false, nullptr, running);
    EXPECT_TRUE(invalid.shutdownOrvelApplications(names));
}

TEST_F(RunningApplicationHandlerTest, BundleIsReadThroughTheProcesssOwnRoot) {
    // A process of another mount namespace: its executable's path names a bundle in its own
    // file system, and the same path here holds another application.
    const std::string proc = dir.file("proc");
    const std::string bundle = "/opt/Orvel/Suite/Editor.app";
    WriteTextFile(proc + "/4242/root" + bundle + "/Contents/Info.plist",
                  "<plist version=\"1.0\"><dict><key>CFBundleName</key>"
                  "<string>Editor In A Container</string></dict></plist>\n");
    ASSERT_EQ(::symlink((bundle + "/Contents/MacOS/Editor").c_str(), (proc + "/4242/exe").c_str()),
              0);
    // Without a root to read through, the bundle's folder name is all there is.
    WriteTextFile(proc + "/4343/cmdline", "");
    ASSERT_EQ(::symlink("/nowhere/Other.app/Contents/MacOS/Other", (proc + "/4343/exe").c_str()),
              0);
    PlatformPaths paths;
    paths.procRoot = proc;
    RunningApplications inProc(paths);
    EXPECT_EQ(inProc.launchedApplications(),
              (std::vector<std::string>{"Editor In A Container", "Other"}));
}

TEST_F(RunningApplicationHandlerTest, MissingProcFolderListsNothing) {
    PlatformPaths paths;
    paths.procRoot = dir.file("no-proc");
    RunningApplications nowhere(paths);
    EXPECT_TRUE(nowhere.launchedApplications().empty());
}

} // namespace
