#include "report/RunningApplicationHandler.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace {

// The process of /proc that runs the executable, or -1.
pid_t ProcessRunning(const std::string& executable) {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
        std::error_code linkError;
        if (std::filesystem::read_symlink(entry.path() / "exe", linkError) == executable)
            return static_cast<pid_t>(std::atoi(entry.path().filename().c_str()));
    }
    return -1;
}

// A real process running a copy of sleep from the given path. With throughShell the copy
// is started by a shell, so it is a grandchild of the test.
class RunningProcess {
public:
    explicit RunningProcess(const std::string& executable, bool throughShell = false) {
        std::filesystem::create_directories(std::filesystem::path(executable).parent_path());
        std::filesystem::copy_file("/bin/sleep", executable);
        std::vector<std::string> args = {executable, "60"};
        if (throughShell)
            args = {"/bin/sh", "-c", "\"$0\" 60 & wait", executable};
        std::vector<char*> argv;
        for (auto& arg : args)
            argv.push_back(arg.data());
        argv.push_back(nullptr);
        EXPECT_EQ(::posix_spawn(&_pid, argv[0], nullptr, nullptr, argv.data(), environ), 0);
        // Wait until the program has been executed, so /proc names it.
        for (int i = 0; i < 500 && (_sleeper = ProcessRunning(executable)) <= 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ~RunningProcess() { stop(); }
    pid_t pid() const { return _pid; }
    void stop() {
        if (_pid > 0) {
            // A shell is left to reap its sleeper and end by itself, so no orphan is left.
            ::kill(_sleeper > 0 ? _sleeper : _pid, SIGKILL);
            ::waitpid(_pid, nullptr, 0);
            _pid = -1;
        }
    }

private:
    pid_t _pid = -1;
    pid_t _sleeper = -1;
};

// Beyond the kernel's highest process id (2^22): no process descends from it, so a listing
// with it as self leaves nothing out, not even the processes this test starts.
constexpr pid_t kNoProcess = 0x7fffffff;

// A process of a fake /proc tree: its exe link (none when executable is empty) and, when
// parent is not negative, a stat file with the parent and the start time.
void WriteFakeProcess(const std::string& proc, long pid, const std::string& executable, long parent,
                      unsigned long long start = 0, const std::string& command = "x") {
    const std::string folder = proc + "/" + std::to_string(pid);
    std::filesystem::create_directories(folder);
    if (!executable.empty()) {
        ASSERT_EQ(::symlink(executable.c_str(), (folder + "/exe").c_str()), 0);
    }
    if (parent < 0)
        return;
    std::string stat = std::to_string(pid) + " (" + command + ") S " + std::to_string(parent);
    for (int field = 5; field < 22; ++field)
        stat += " 0";
    stat += " " + std::to_string(start) + " 0 0\n";
    WriteTextFile(folder + "/stat", stat);
}

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
    RunningApplications running{PlatformPaths::defaults(), kNoProcess};
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

TEST_F(RunningApplicationHandlerTest, SelfAndItsDescendantsAreLeftOut) {
    const std::string proc = dir.file("proc");
    const std::string bundle = dir.file("Notes Update.app");
    WriteTextFile(bundle + "/Contents/Info.plist",
                  "<plist version=\"1.0\"><dict><key>CFBundleName</key>"
                  "<string>Notes Update</string></dict></plist>\n");
    WriteFakeProcess(proc, 1, "/sbin/init", 0, 1);
    // The patcher, a child, and a grandchild through a child whose executable is not seen.
    WriteFakeProcess(proc, 500, bundle + "/Contents/MacOS/NotesUpdate", 1, 100, "NotesUpdate");
    WriteFakeProcess(proc, 501, "/opt/Notes/Notes", 500, 110, "Notes) (odd");
    WriteFakeProcess(proc, 510, "", 500, 120);
    WriteFakeProcess(proc, 511, "/opt/Notes/Notes", 510, 130);
    // The same application, not started by the patcher.
    WriteFakeProcess(proc, 600, "/opt/Notes/Notes", 1, 50);
    // Gone while listed: its stat file is missing, so its parents are not known.
    WriteFakeProcess(proc, 700, "/opt/Notes/Notes", -1);
    // Its parent is gone.
    WriteFakeProcess(proc, 701, "/opt/Notes/Notes", 800, 140);
    // Its parent pid now names a process that started after it: a newer process that got
    // the pid of its ended parent, so not its parent.
    WriteFakeProcess(proc, 702, "/opt/Notes/Notes", 510, 115);
    // Parents in a loop.
    WriteFakeProcess(proc, 950, "/opt/Notes/Notes", 951, 150);
    WriteFakeProcess(proc, 951, "/opt/Notes/Notes", 950, 150);
    PlatformPaths paths;
    paths.procRoot = proc;

    RunningApplications asPatcher(paths, 500);
    EXPECT_EQ(
        asPatcher.launchedApplications(),
        (std::vector<std::string>{"init", "Notes", "Notes", "Notes", "Notes", "Notes", "Notes"}));
    RunningApplicationHandler handler(Entries({"^Notes"}), false, nullptr, asPatcher);
    std::string names;
    EXPECT_TRUE(handler.areOrvelAppsRunning(names));
    EXPECT_EQ(names, "Notes\nNotes\nNotes\nNotes\nNotes\nNotes\n");

    // Seen from the child, only the child and what descends from it are left out.
    RunningApplications asChild(paths, 510);
    EXPECT_EQ(asChild.launchedApplications(),
              (std::vector<std::string>{"init", "Notes Update", "Notes", "Notes", "Notes", "Notes",
                                        "Notes", "Notes", "Notes"}));

    // Alone, the patcher's bundle matches: nothing else of the family runs.
    for (long pid : {501, 511, 600, 700, 701, 702, 950, 951})
        std::filesystem::remove_all(proc + "/" + std::to_string(pid));
    RunningApplicationHandler updater(Entries({"^Notes"}), false, nullptr, asPatcher);
    EXPECT_FALSE(updater.areOrvelAppsRunning(names));
    EXPECT_EQ(names, "");
    RunningApplications asAnother(paths, 600);
    RunningApplicationHandler seenByAnother(Entries({"^Notes"}), false, nullptr, asAnother);
    EXPECT_TRUE(seenByAnother.areOrvelAppsRunning(names));
    EXPECT_EQ(names, "Notes Update\n");
}

TEST_F(RunningApplicationHandlerTest, RealChildrenOfSelfAreLeftOut) {
    const std::string name = "OrvelNotes" + Tag();
    RunningProcess child(dir.file("child/" + name));
    RunningProcess grandchild(dir.file("grandchild/" + name), true);
    RunningProcess other(dir.file("other/orvelunrelated" + Tag()));
    const auto count = [&](const std::vector<std::string>& names) {
        return std::count(names.begin(), names.end(), name);
    };
    EXPECT_EQ(
        count(RunningApplications(PlatformPaths::defaults(), kNoProcess).launchedApplications()),
        2);

    RunningApplications asSelf(PlatformPaths::defaults());
    EXPECT_EQ(count(asSelf.launchedApplications()), 0);
    RunningApplications asTest(PlatformPaths::defaults(), ::getpid());
    RunningApplicationHandler handler(Entries({"^" + name + "$"}), false, nullptr, asTest);
    std::string names;
    EXPECT_FALSE(handler.areOrvelAppsRunning(names));
    EXPECT_EQ(names, "");

    // Another process does not descend from the test: both copies are counted.
    RunningApplications asOther(PlatformPaths::defaults(), other.pid());
    RunningApplicationHandler fromOther(Entries({"^" + name + "$"}), false, nullptr, asOther);
    EXPECT_TRUE(fromOther.areOrvelAppsRunning(names));
    EXPECT_EQ(names, name + "\n" + name + "\n");
}

} // namespace
