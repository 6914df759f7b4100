// Full user-interface runs: the real PatcherApp shows its Qt windows on an Xvfb display and
// the test answers them from the keyboard with xdotool, as a user would. With
// ORVEL_E2E_SCREENSHOTS naming a folder, a picture of each window is saved there.

#include "E2eSupport.h"
#include "TestSupport.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

using namespace std::chrono_literals;

// Xvfb on a display of its own; the network namespace keeps its socket private. Without
// -noreset the server starts itself afresh each time its last client leaves, and a program
// that connects in that moment is refused ("could not connect to display").
class VirtualDisplay {
public:
    VirtualDisplay() {
        _server = ChildProcess(
            {"Xvfb", kName, "-screen", "0", "1024x768x24", "-nolisten", "tcp", "-noreset"},
            CleanEnvironment({}), "/tmp/e2e/xvfb.txt");
        ready = WaitUntil(
            [this] {
                return _server.running() && RunTool({"xdotool", "getdisplaygeometry"}, nullptr,
                                                    {std::string("DISPLAY=") + kName}, 10) == 0;
            },
            20s);
    }

    static constexpr const char* kName = ":7";
    bool ready = false;

private:
    ChildProcess _server;
};

std::string Xdotool(const std::vector<std::string>& args, int* status = nullptr) {
    std::vector<std::string> argv = {"xdotool"};
    argv.insert(argv.end(), args.begin(), args.end());
    std::string output;
    const int result =
        RunTool(argv, &output, {std::string("DISPLAY=") + VirtualDisplay::kName}, 20);
    if (status)
        *status = result;
    return output;
}

// The visible windows whose title matches the pattern (an extended regular expression).
std::vector<std::string> VisibleWindows(const std::string& title) {
    std::vector<std::string> ids;
    std::istringstream lines(Xdotool({"search", "--onlyvisible", "--name", title}));
    for (std::string id; std::getline(lines, id);) {
        if (!id.empty())
            ids.push_back(id);
    }
    return ids;
}

// Waits for a visible window of that title that is not one of the known ones.
std::string WaitForWindow(const std::string& title, const std::vector<std::string>& known = {},
                          std::chrono::milliseconds timeout = 60s) {
    std::string found;
    WaitUntil(
        [&] {
            for (const auto& id : VisibleWindows(title)) {
                if (std::find(known.begin(), known.end(), id) == known.end()) {
                    found = id;
                    return true;
                }
            }
            return false;
        },
        timeout);
    EXPECT_FALSE(found.empty()) << "no window \"" << title << "\" appeared";
    return found;
}

bool WindowVisible(const std::string& id) {
    const auto ids = VisibleWindows(".*");
    return std::find(ids.begin(), ids.end(), id) != ids.end();
}

// Gives the window the keyboard and presses the keys.
void PressKeys(const std::string& window, const std::vector<std::string>& keys) {
    int status = 0;
    Xdotool({"windowfocus", "--sync", window}, &status);
    EXPECT_EQ(status, 0) << "cannot focus window " << window;
    std::vector<std::string> args = {"key", "--clearmodifiers", "--delay", "50"};
    args.insert(args.end(), keys.begin(), keys.end());
    Xdotool(args, &status);
    EXPECT_EQ(status, 0);
}

// A picture of the window, when pictures are asked for.
void Screenshot(const std::string& window, const std::string& name) {
    // Kept with the test output unless another folder is asked for.
    std::string folder = EnvironmentValue("ORVEL_E2E_SCREENSHOTS");
    if (folder.empty())
        folder = std::string(ORVEL_BINARY_DIR) + "/screenshots";
    if (window.empty())
        return;
    fs::create_directories(folder);
    // Let the window finish drawing.
    std::this_thread::sleep_for(300ms);
    const std::string command = "xwd -silent -display " + std::string(VirtualDisplay::kName) +
                                " -id " + window + " | xwdtopnm 2>/dev/null | pnmtopng > '" +
                                folder + "/" + name + ".png'";
    std::string output;
    EXPECT_EQ(RunTool({"/bin/sh", "-c", command}, &output), 0) << output;
}

// What a desktop session gives the programs it starts: the display, a runtime folder and
// the address of a session bus (none runs here, so nothing tries to start one).
std::vector<std::string> DesktopSession() {
    fs::create_directories("/tmp/e2e/runtime");
    fs::permissions("/tmp/e2e/runtime", fs::perms::owner_all, fs::perm_options::replace);
    std::vector<std::string> session = {std::string("DISPLAY=") + VirtualDisplay::kName,
                                        "XDG_RUNTIME_DIR=/tmp/e2e/runtime",
                                        "DBUS_SESSION_BUS_ADDRESS=unix:path=/tmp/e2e/runtime/bus"};
    // libxkbcommon-x11 copies the keyboard's atom names with strndup from counted,
    // unterminated buffers that libxcb hands it. Strict string checks make the sanitizer's
    // strndup read to a terminator that is not there, so they are off for the windowed
    // runs; every other check stays on.
    if (const char* options = std::getenv("ASAN_OPTIONS"))
        session.push_back(std::string("ASAN_OPTIONS=") + options + ":strict_string_checks=0");
    return session;
}

std::vector<FileEntry> PrepareUpdate(Scenario& s) {
    s.config.appRunning = {s.appDisplayName};
    s.installApplication();
    s.registerInstallation();
    return s.updateEntries();
}

const std::string kSoftwareUpdate = "^Software Update$";
// A volume of its own for a folder (an ext4 image on a loop device) that can be frozen:
// every write to it then waits until it is thawed. A watchdog thaws it after a minute
// should the test end without doing so.
class StallingVolume {
public:
    explicit StallingVolume(std::string folder) : _folder(std::move(folder)) {
        const std::string image = "/tmp/e2e-volume.img";
        fs::create_directories(_folder);
        std::string output;
        mounted = RunTool({"truncate", "-s", "64M", image}, &output) == 0 &&
                  RunTool({"mkfs.ext4", "-q", "-F", image}, &output) == 0 &&
                  RunTool({"mount", "-o", "loop", image, _folder}, &output) == 0;
        EXPECT_TRUE(mounted) << output;
        // A volume whose top others may write to gets no backups of the patcher (they stay
        // in its state folder), so the first write to it is the first change of the tree.
        if (mounted)
            fs::permissions(_folder, fs::perms::group_write, fs::perm_options::add);
    }
    ~StallingVolume() {
        (void)thaw();
        _watchdog.kill();
    }
    StallingVolume(const StallingVolume&) = delete;
    StallingVolume& operator=(const StallingVolume&) = delete;

    bool freeze() {
        _watchdog = ChildProcess({"/bin/sh", "-c", "sleep 60; fsfreeze -u '" + _folder + "'"},
                                 CleanEnvironment({}));
        _frozen = RunTool({"fsfreeze", "-f", _folder}) == 0;
        return _frozen;
    }
    bool thaw() {
        if (!_frozen)
            return true;
        _frozen = RunTool({"fsfreeze", "-u", _folder}) != 0;
        return !_frozen;
    }

    bool mounted = false;

private:
    std::string _folder;
    bool _frozen = false;
    ChildProcess _watchdog;
};

// Waits for the patcher to end after its last window.
void ExpectPatcherEnds(ChildProcess& patcher, const Scenario& s) {
    const auto status = patcher.wait(60s);
    ASSERT_TRUE(status.has_value()) << "PatcherApp is still running\n" << s.patcherOutput();
    EXPECT_EQ(*status, 0) << s.patcherOutput();
}

// The window titles of a language, the environment that chooses it and the prefix of its
// screenshots.
struct WindowTexts {
    std::vector<std::string> environment;
    std::string softwareUpdate;
    std::string cancelQuestion;
    std::string cancelled;
    std::string installing;
    std::string administrator;
    std::string prefix;
};

const WindowTexts kEnglish{{},
                           kSoftwareUpdate,
                           "^Cancel the update\\?$",
                           "^Update Cancelled$",
                           "^Installing the Update$",
                           "^Administrator Rights Needed$",
                           ""};
const WindowTexts kGerman{{"LANGUAGE=de"},
                          "^Softwareaktualisierung$",
                          "^Update abbrechen\\?$",
                          "^Update abgebrochen$",
                          "^Update wird installiert$",
                          "^Administratorrechte erforderlich$",
                          "de-"};

TEST(UserInterface, ContinueThroughTheWelcomeToTheSuccessAlert) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    VirtualDisplay display;
    ASSERT_TRUE(display.ready) << ReadTextFile("/tmp/e2e/xvfb.txt");
    s.assemble(s.manifest(PrepareUpdate(s)));
    ChildProcess patcher = s.startPatcher({}, DesktopSession());

    const std::string welcome = WaitForWindow(kSoftwareUpdate);
    ASSERT_FALSE(welcome.empty()) << s.patcherOutput();
    EXPECT_TRUE(s.logContains("Mode of Execution: FULL UI MODE"));
    EXPECT_TRUE(s.logContains("Show Welcome Dialog"));
    EXPECT_FALSE(s.logContains("Proceed for update ..."));
    Screenshot(welcome, "1-welcome");
    PressKeys(welcome, {"Return"});
    EXPECT_TRUE(WaitUntil([&] { return !WindowVisible(welcome); }, 30s));

    // The progress window runs to the end and closes before the success alert.
    ASSERT_TRUE(WaitUntil([&] { return s.logContains("Exit code: 0"); }, 60s));
    const std::string success = WaitForWindow(kSoftwareUpdate, {welcome});
    ASSERT_FALSE(success.empty());
    EXPECT_TRUE(s.logContains("_reportUpToDate"));
    Screenshot(success, "5-success");
    EXPECT_TRUE(patcher.running()) << "the alert waits for the user";
    PressKeys(success, {"Return"});
    ExpectPatcherEnds(patcher, s);

    EXPECT_EQ(ReadTextFile(s.app + "/Contents/Resources/keep.txt"), "version two\n");
    EXPECT_TRUE(FileExists(s.historyFile));
    EXPECT_EQ(s.returnCode(), std::nullopt);
    EXPECT_TRUE(Xdotool({"search", "--name", kSoftwareUpdate}).empty())
        << "no window is left once the patcher has ended";
}

// The same windows in German, from the welcome to the success alert.
TEST(UserInterface, TheWindowsSpeakGerman) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    VirtualDisplay display;
    ASSERT_TRUE(display.ready) << ReadTextFile("/tmp/e2e/xvfb.txt");
    s.assemble(s.manifest(PrepareUpdate(s)));
    std::vector<std::string> session = DesktopSession();
    session.push_back("LANGUAGE=de");
    ChildProcess patcher = s.startPatcher({}, session);
    const std::string welcome = WaitForWindow("^Softwareaktualisierung$");
    ASSERT_FALSE(welcome.empty()) << s.patcherOutput();
    Screenshot(welcome, "de-1-welcome");
    PressKeys(welcome, {"Return"});
    ASSERT_TRUE(WaitUntil([&] { return s.logContains("Exit code: 0"); }, 60s));
    const std::string success = WaitForWindow("^Softwareaktualisierung$", {welcome});
    ASSERT_FALSE(success.empty());
    Screenshot(success, "de-5-success");
    PressKeys(success, {"Return"});
    ExpectPatcherEnds(patcher, s);
    EXPECT_TRUE(FileExists(s.historyFile));
}

TEST(UserInterface, CancelAtTheWelcomeReportsNothing) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    VirtualDisplay display;
    ASSERT_TRUE(display.ready) << ReadTextFile("/tmp/e2e/xvfb.txt");
    s.assemble(s.manifest(PrepareUpdate(s)));
    const auto before = Snapshot(s.app);
    ChildProcess patcher = s.startPatcher({}, DesktopSession());

    const std::string welcome = WaitForWindow(kSoftwareUpdate);
    ASSERT_FALSE(welcome.empty()) << s.patcherOutput();
    // Escape answers with the Cancel button.
    PressKeys(welcome, {"Escape"});
    ExpectPatcherEnds(patcher, s);

    EXPECT_TRUE(s.logContains("User cancelled, nothing to report"));
    for (const auto& line : s.logLines())
        EXPECT_EQ(line.find("_report"), std::string::npos) << line;
    EXPECT_FALSE(s.logContains("Proceed for update ..."));
    EXPECT_EQ(Snapshot(s.app), before);
    EXPECT_EQ(s.returnCode(), std::nullopt);
    EXPECT_FALSE(FileExists(s.historyFile));
}

TEST(UserInterface, AnUpdateSignedByAnUntrustedKeyEndsInTheFailureAlert) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    VirtualDisplay display;
    ASSERT_TRUE(display.ready) << ReadTextFile("/tmp/e2e/xvfb.txt");
    s.assemble(s.manifest(PrepareUpdate(s)));
    ASSERT_EQ(::unlink(s.trustedKey.c_str()), 0);
    const auto before = Snapshot(s.app);
    for (const WindowTexts& texts : {kEnglish, kGerman}) {
        std::vector<std::string> session = DesktopSession();
        session.insert(session.end(), texts.environment.begin(), texts.environment.end());
        ChildProcess patcher = s.startPatcher({}, session);

        // No welcome: the first window is the failure alert.
        const std::string alert = WaitForWindow(texts.installing);
        ASSERT_FALSE(alert.empty()) << s.patcherOutput();
        EXPECT_TRUE(s.logContains("_reportUpdateFailed"));
        EXPECT_TRUE(
            s.logContains("The update is not signed by a trusted key; nothing was changed."));
        EXPECT_FALSE(s.logContains("Show Welcome Dialog"));
        Screenshot(alert, texts.prefix + "untrusted-update");
        PressKeys(alert, {"Return"});
        ExpectPatcherEnds(patcher, s);
        EXPECT_EQ(Snapshot(s.app), before);
        EXPECT_FALSE(FileExists(s.historyFile));
    }
}

// A desktop user who is not root: the patcher starts itself again through pkexec (here a
// stand-in that records what it is given and answers as pkexec would).
class FakePkexec {
public:
    explicit FakePkexec(int status) {
        WriteTextFile(kScript, "#!/bin/sh\nprintf '%s\\n' \"$@\" > " + kArguments + "\nexit " +
                                   std::to_string(status) + "\n");
        ::chmod(kScript.c_str(), 0755);
        ::chmod("/tmp/e2e", 0755);
        // Written by the desktop user.
        WriteTextFile(kArguments, "");
        ::chmod(kArguments.c_str(), 0666);
        mounted = ::mount(kScript.c_str(), "/usr/bin/pkexec", nullptr, MS_BIND, nullptr) == 0;
    }
    ~FakePkexec() {
        if (mounted)
            ::umount("/usr/bin/pkexec");
    }
    std::vector<std::string> arguments() const {
        std::vector<std::string> lines;
        std::istringstream in(ReadTextFile(kArguments));
        for (std::string line; std::getline(in, line);)
            lines.push_back(line);
        return lines;
    }
    bool mounted = false;
    const std::string kScript = "/tmp/e2e/fake-pkexec";
    const std::string kArguments = "/tmp/e2e/pkexec-arguments";
};

ChildProcess StartAsDesktopUser(const Scenario& s, uid_t uid = 65534,
                                const std::vector<std::string>& extra = {}) {
    const std::string home = "/tmp/e2e/desktop-user";
    fs::create_directories(home);
    ::chown(home.c_str(), uid, uid);
    std::vector<std::string> env = DesktopSession();
    env.insert(env.end(), {"HOME=" + home, "LANG=C.UTF-8"});
    env.insert(env.end(), extra.begin(), extra.end());
    return ChildProcess({"setpriv", "--reuid", std::to_string(uid), "--regid", std::to_string(uid),
                         "--clear-groups", s.bundle + "/Contents/MacOS/PatcherApp",
                         "-logLevel=info"},
                        CleanEnvironment(env), s.work + "/patcher-output.txt");
}

TEST(UserInterface, ADesktopUserWhoIsNotRootIsAskedForAnAdministratorThroughPkexec) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    if (::access("/usr/bin/pkexec", F_OK) != 0)
        GTEST_SKIP() << "pkexec is not installed";
    Scenario s;
    VirtualDisplay display;
    ASSERT_TRUE(display.ready) << ReadTextFile("/tmp/e2e/xvfb.txt");
    s.assemble(s.manifest(PrepareUpdate(s)));
    const auto before = Snapshot(s.app);
    {
        // Elevation given: the run as root is pkexec's child, whose status is the patcher's.
        FakePkexec pkexec(0);
        ASSERT_TRUE(pkexec.mounted);
        ChildProcess patcher = StartAsDesktopUser(s);
        ASSERT_EQ(patcher.wait(60s), 0) << s.patcherOutput();
        // LANGUAGE too, which the patcher sets from LANG for its texts.
        auto arguments = pkexec.arguments();
        std::erase_if(arguments,
                      [](const std::string& word) { return word.rfind("LANGUAGE=", 0) == 0; });
        EXPECT_EQ(arguments,
                  (std::vector<std::string>{
                      "/usr/bin/env", std::string("DISPLAY=") + VirtualDisplay::kName,
                      "XDG_RUNTIME_DIR=/tmp/e2e/runtime", "HOME=/tmp/e2e/desktop-user",
                      "LANG=C.UTF-8", s.bundle + "/Contents/MacOS/PatcherApp", "-logLevel=info"}));
    }
    {
        // Refused: an alert, and nothing changes.
        FakePkexec pkexec(126);
        for (const WindowTexts& texts : {kEnglish, kGerman}) {
            ChildProcess patcher = StartAsDesktopUser(s, 65534, texts.environment);
            const std::string alert = WaitForWindow(texts.administrator);
            ASSERT_FALSE(alert.empty()) << s.patcherOutput();
            Screenshot(alert, texts.prefix + "administrator-refused");
            PressKeys(alert, {"Return"});
            EXPECT_EQ(patcher.wait(30s), 1);
        }
    }
    EXPECT_EQ(Snapshot(s.app), before);
    EXPECT_FALSE(FileExists(s.historyFile));
}

// The real thing: the system bus, polkitd and the setuid pkexec, with the patchers' polkit
// action and launcher installed where the packages put them (an overlay over the system's
// folders, private to the test). A rule stands in for the administrator's password: the
// patchers' action is granted to nobody and refused to daemon; every other action is refused,
// so a run that gets through went through the patchers' action and launcher.
class PolkitDaemon {
public:
    PolkitDaemon() {
        fs::create_directories(kScratch);
        if (::mount("tmpfs", kScratch, "tmpfs", 0, "mode=0755") != 0) {
            _problem = std::string("cannot mount a tmpfs over ") + kScratch;
            return;
        }
        // Each folder the test adds to, as an overlay whose changes stay in the scratch tmpfs.
        if (!Overlay(ExistingAncestor(fs::path(PATCHERS_LAUNCHER).parent_path())) ||
            !Overlay("/usr/share/polkit-1/actions") || !Overlay("/etc/polkit-1/rules.d"))
            return;
        // An overlay over /usr/local hides the private system's tmpfs below it; a fresh one.
        for (const std::string& folder : _covered) {
            if (std::string("/usr/local/share").rfind(folder + "/", 0) == 0)
                ::mount("tmpfs", "/usr/local/share", "tmpfs", 0, "mode=0755");
        }
        fs::create_directories(fs::path(PATCHERS_LAUNCHER).parent_path());
        fs::copy_file(RUN_PATCHER, PATCHERS_LAUNCHER, fs::copy_options::overwrite_existing);
        ::chmod(PATCHERS_LAUNCHER, 0755);
        fs::copy_file(POLICY_FILE, "/usr/share/polkit-1/actions/org.orvel.patcher.policy",
                      fs::copy_options::overwrite_existing);
        WriteTextFile(
            "/etc/polkit-1/rules.d/10-orvel-test.rules",
            "polkit.addRule(function(action, subject) {\n"
            "    if (action.id == \"org.orvel.patcher.update\" && subject.user == \"nobody\")\n"
            "        return polkit.Result.YES;\n"
            "    return polkit.Result.NO;\n"
            "});\n");
        fs::create_directories("/run/dbus");
        std::string output;
        if (RunTool({"dbus-daemon", "--system", "--fork"}, &output) != 0) {
            _problem = "dbus-daemon: " + output;
            return;
        }
        _polkitd = ChildProcess({"/usr/lib/polkit-1/polkitd", "--no-debug"}, CleanEnvironment({}),
                                "/tmp/e2e/polkitd.txt");
        // Ready once it owns its name on the bus.
        ready = WaitUntil(
            [] {
                std::string names;
                RunTool({"dbus-send", "--system", "--print-reply", "--dest=org.freedesktop.DBus",
                         "/org/freedesktop/DBus", "org.freedesktop.DBus.ListNames"},
                        &names);
                return names.find("org.freedesktop.PolicyKit1") != std::string::npos;
            },
            20s);
    }
    ~PolkitDaemon() { _polkitd.kill(); }

    bool ready = false;
    std::string problem() const { return _problem + ReadTextFile("/tmp/e2e/polkitd.txt"); }

private:
    static constexpr const char* kScratch = "/run/e2e-overlays";

    static fs::path ExistingAncestor(fs::path folder) {
        std::error_code ec;
        while (!fs::is_directory(folder, ec) && folder.has_parent_path() && folder != "/")
            folder = folder.parent_path();
        return folder;
    }

    bool Overlay(const fs::path& folder) {
        const std::string name = std::to_string(_covered.size());
        const std::string upper = std::string(kScratch) + "/upper" + name;
        const std::string work = std::string(kScratch) + "/work" + name;
        fs::create_directories(upper);
        fs::create_directories(work);
        const std::string options =
            "lowerdir=" + folder.string() + ",upperdir=" + upper + ",workdir=" + work;
        if (::mount("overlay", folder.c_str(), "overlay", 0, options.c_str()) != 0) {
            _problem =
                "cannot put an overlay over " + folder.string() + ": " + std::strerror(errno);
            return false;
        }
        _covered.push_back(folder.string());
        return true;
    }

    std::vector<std::string> _covered;
    std::string _problem;
    ChildProcess _polkitd;
};

TEST(UserInterface, ARealPkexecStartsTheUpdateThroughThePatchersPolkitAction) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    for (const char* program :
         {"/usr/bin/pkexec", "/usr/lib/polkit-1/polkitd", "/usr/bin/dbus-daemon"}) {
        if (::access(program, X_OK) != 0)
            GTEST_SKIP() << program << " is not installed";
    }
    Scenario s;
    VirtualDisplay display;
    ASSERT_TRUE(display.ready) << ReadTextFile("/tmp/e2e/xvfb.txt");
    PolkitDaemon polkit;
    ASSERT_TRUE(polkit.ready) << polkit.problem();
    s.assemble(s.manifest(PrepareUpdate(s)));
    const auto before = Snapshot(s.app);
    {
        // Refused to daemon: pkexec says "Not authorized", the patcher says so in a window.
        ChildProcess patcher = StartAsDesktopUser(s, 1);
        const std::string alert = WaitForWindow("^Administrator Rights Needed$");
        ASSERT_FALSE(alert.empty()) << s.patcherOutput();
        PressKeys(alert, {"Return"});
        EXPECT_EQ(patcher.wait(30s), 1) << s.patcherOutput();
        EXPECT_NE(s.patcherOutput().find("Not authorized"), std::string::npos) << s.patcherOutput();
        EXPECT_EQ(Snapshot(s.app), before);
    }
    // Granted to nobody: the patcher runs again as root, with its windows on the user's
    // display, and applies the update.
    ChildProcess patcher = StartAsDesktopUser(s);
    const std::string welcome = WaitForWindow(kSoftwareUpdate);
    ASSERT_FALSE(welcome.empty()) << s.patcherOutput() << polkit.problem();
    PressKeys(welcome, {"Return"});
    const std::string success = WaitForWindow(kSoftwareUpdate, {welcome});
    ASSERT_FALSE(success.empty()) << s.patcherOutput();
    PressKeys(success, {"Return"});
    // The run as root was pkexec's: it acted for the desktop user, whose log it wrote.
    const auto log = [] {
        return ReadTextFile(
            "/tmp/e2e/desktop-user/.local/state/Orvel/SoftwareUpdates/OrvelSoftwareUpdate.log");
    };
    ASSERT_EQ(patcher.wait(60s), 0) << s.patcherOutput() << log();
    EXPECT_EQ(ReadTextFile(s.app + "/Contents/Resources/keep.txt"), "version two\n");
    EXPECT_TRUE(FileExists(s.historyFile));
    EXPECT_NE(log().find("Exit code: 0"), std::string::npos) << log();
}

// The editor's volume stalls (frozen, as for a snapshot) from the first change on: the
// update waits in its first entry with the cancel button shown, however fast the machine,
// until the volume is thawed after the user has confirmed the cancel.
void CancelDuringTheProgress(const WindowTexts& texts) {
    Scenario s;
    VirtualDisplay display;
    ASSERT_TRUE(display.ready) << ReadTextFile("/tmp/e2e/xvfb.txt");
    StallingVolume volume(s.installDir);
    ASSERT_TRUE(volume.mounted);
    auto entries = PrepareUpdate(s);
    // The first entry, an overwrite, stalls in its first change; once the volume is thawed
    // it completes, and the cancel is seen before the second entry.
    std::swap(entries[0], entries[2]);
    s.assemble(s.manifest(entries));
    const auto before = Snapshot(s.app);
    ASSERT_TRUE(volume.freeze());
    std::vector<std::string> session = DesktopSession();
    session.insert(session.end(), texts.environment.begin(), texts.environment.end());
    ChildProcess patcher = s.startPatcher({}, session);

    const std::string welcome = WaitForWindow(texts.softwareUpdate);
    ASSERT_FALSE(welcome.empty()) << s.patcherOutput();
    PressKeys(welcome, {"Return"});
    const std::string progress = WaitForWindow(texts.softwareUpdate, {welcome});
    ASSERT_FALSE(progress.empty());
    ASSERT_TRUE(WaitUntil(
        [&] {
            return s.logIndex("Overwriting file \"" + s.app + "/Contents/Resources/keep.txt\" ",
                              true) >= 0;
        },
        30s));
    Screenshot(progress, texts.prefix + "2-progress");
    // The first step has shown the cancel button; Tab gives it the focus, space presses
    // it. Keys that reach the window once the question is open are blocked by it.
    std::string question;
    WaitUntil(
        [&] {
            const auto found = VisibleWindows(texts.cancelQuestion);
            if (!found.empty())
                question = found.front();
            else
                PressKeys(progress, {"Tab", "space"});
            return !found.empty();
        },
        30s);
    ASSERT_FALSE(question.empty()) << "the cancel question never appeared";
    Screenshot(question, texts.prefix + "4-cancel-question");
    EXPECT_FALSE(s.logContains("Long task finished"));
    // The question's default button goes on with the update; Escape answers Cancel.
    PressKeys(question, {"Escape"});
    EXPECT_TRUE(WaitUntil([&] { return !WindowVisible(question); }, 30s));
    EXPECT_TRUE(s.logContains("User wish to cancel the update."));
    ASSERT_TRUE(volume.thaw());

    const std::string cancelled = WaitForWindow(texts.cancelled);
    ASSERT_FALSE(cancelled.empty()) << s.patcherOutput();
    Screenshot(cancelled, texts.prefix + "6-cancelled");
    PressKeys(cancelled, {"Return"});
    ExpectPatcherEnds(patcher, s);

    // The first entry was prepared (kept, journaled, its new content written beside it) and
    // its change waited for the group's sync; the cancel before the second entry dropped it,
    // so nothing was changed, and the rollback finds it so.
    const auto lines = s.logLines();
    const long rollback = s.logIndex(HeadingLine("ROLLBACK FILE SET OPERATION"), true);
    ASSERT_GT(rollback, 0);
    std::vector<std::string> changes;
    for (long i = 0; i < rollback; ++i) {
        if (lines[i].rfind("Successfully performed", 0) == 0)
            changes.push_back(lines[i]);
    }
    EXPECT_EQ(changes, std::vector<std::string>{});
    EXPECT_TRUE(s.logContains("1 prepared changes not made"));
    EXPECT_TRUE(s.logContains("Rollback successful"));
    EXPECT_TRUE(s.logContains("Exit code: 1"));
    EXPECT_TRUE(s.logContains("UpdateEngine:_reportUpdateCancelled"));
    EXPECT_TRUE(s.logContains("User cancelled the update."));
    EXPECT_EQ(Snapshot(s.app), before);
    EXPECT_FALSE(FileExists(s.historyFile));
    EXPECT_EQ(s.returnCode(), std::nullopt);
}

TEST(UserInterface, CancelDuringTheProgressRollsBackAfterConfirmation) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    CancelDuringTheProgress(kEnglish);
}

TEST(UserInterface, CancelDuringTheProgressInGerman) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    CancelDuringTheProgress(kGerman);
}

void RunningEditorIsQuitThenRetry(const WindowTexts& texts) {
    Scenario s;
    VirtualDisplay display;
    ASSERT_TRUE(display.ready) << ReadTextFile("/tmp/e2e/xvfb.txt");
    s.assemble(s.manifest(PrepareUpdate(s)));
    ChildProcess editor = s.startEditor();
    std::vector<std::string> session = DesktopSession();
    session.insert(session.end(), texts.environment.begin(), texts.environment.end());
    ChildProcess patcher = s.startPatcher({}, session);

    const std::string welcome = WaitForWindow(texts.softwareUpdate);
    ASSERT_FALSE(welcome.empty()) << s.patcherOutput();
    PressKeys(welcome, {"Return"});
    const std::string running = WaitForWindow(texts.softwareUpdate, {welcome});
    ASSERT_FALSE(running.empty());
    EXPECT_TRUE(s.logContains(s.appDisplayName + " application was found running."));
    Screenshot(running, texts.prefix + "3-running-applications");

    // Retry with the editor still running asks again.
    PressKeys(running, {"Return"});
    ASSERT_TRUE(WaitUntil(
        [&] {
            long count = 0;
            for (const auto& line : s.logLines())
                count += line == s.appDisplayName + " application was found running.";
            return count == 2;
        },
        30s));
    const std::string again = WaitForWindow(texts.softwareUpdate, {welcome});
    ASSERT_FALSE(again.empty());

    // The user quits the editor and presses Retry.
    editor.kill();
    PressKeys(again, {"Return"});
    ASSERT_TRUE(WaitUntil([&] { return s.logContains("Exit code: 0"); }, 60s)) << s.patcherOutput();
    EXPECT_TRUE(s.logContains("Applications were Quit result (non zero mean quit) = 1"));
    const std::string success = WaitForWindow(texts.softwareUpdate, {welcome, running, again});
    ASSERT_FALSE(success.empty());
    PressKeys(success, {"Return"});
    ExpectPatcherEnds(patcher, s);
    EXPECT_EQ(ReadTextFile(s.app + "/Contents/Resources/keep.txt"), "version two\n");
    EXPECT_TRUE(FileExists(s.historyFile));
}

TEST(UserInterface, RunningEditorIsQuitThenRetry) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    RunningEditorIsQuitThenRetry(kEnglish);
}

TEST(UserInterface, RunningEditorIsQuitThenRetryInGerman) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    RunningEditorIsQuitThenRetry(kGerman);
}

} // namespace
