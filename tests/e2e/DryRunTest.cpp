// PatcherApp --dry-run on a real installation: every check of a run, the code a run would
// end with, and not a byte changed in any folder the patcher may write.

#include "E2eSupport.h"
#include "TestSupport.h"

#include <algorithm>
#include <filesystem>
#include <regex>
#include <sstream>

namespace fs = std::filesystem;

namespace {

// Everything below the folders a run may write to: the test's own work folder aside, and
// the build tree, which the private system shows where it is (a checkout under /tmp) and
// which other tests write to meanwhile.
std::map<std::string, std::string> Machine() {
    const std::string build = ORVEL_BINARY_DIR;
    std::map<std::string, std::string> listing;
    for (const char* folder : {"/opt", "/var/opt", "/usr/local/share", "/tmp", "/home",
                               "/etc/init.d", "/etc/orvel", "/run"}) {
        for (const auto& entry : fs::directory_iterator(folder)) {
            const std::string path = entry.path().string();
            if (path == "/tmp/e2e" || build == path || build.rfind(path + "/", 0) == 0)
                continue;
            if (!entry.is_directory() || entry.is_symlink()) {
                listing[path] = entry.is_symlink() ? "link" : "file";
                continue;
            }
            for (const auto& [below, what] : Snapshot(path))
                listing[path + "/" + below] = what;
            listing[path] = "dir";
        }
    }
    return listing;
}

void Prepare(Scenario& s, std::vector<FileEntry> entries = {}) {
    s.config.appRunning = {s.appDisplayName};
    s.installApplication();
    s.registerInstallation();
    if (entries.empty())
        entries = s.updateEntries();
    s.assemble(s.manifest(entries, true, true, ServiceSetXml("orvel-dry-run")));
}

TEST(DryRun, AnUpdateThatWouldApplyChangesNothingAndSaysSo) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    Prepare(s);
    const auto before = Machine();
    EXPECT_EQ(s.runPatcher({"--dry-run"}), 0) << s.patcherOutput();
    EXPECT_EQ(Machine(), before);
    const std::string output = s.patcherOutput();
    EXPECT_NE(output.find("Dry run of Orvel Editor 1.0 -> 2.0: nothing was changed."),
              std::string::npos)
        << output;
    EXPECT_NE(output.find("Result: the update would apply (0)."), std::string::npos);
    EXPECT_NE(output.find("signature: The update is signed by key "), std::string::npos);
    EXPECT_NE(output.find("manifest entries: 11 (ADD 1, CHANGEPERM 1"), std::string::npos)
        << output;
    EXPECT_NE(output.find(" not as expected"), std::string::npos);
    EXPECT_NE(output.find("0 not as expected"), std::string::npos) << output;
    EXPECT_NE(output.find("services: orvel-dry-run (start)"), std::string::npos) << output;
    EXPECT_NE(output.find("running applications: none that must be quit"), std::string::npos);
    EXPECT_FALSE(FileExists(s.logFile));
    EXPECT_FALSE(FileExists(s.returnCodeFile));
    // Silent makes no difference: still nothing written.
    EXPECT_EQ(s.runPatcher({"-Silent", "--dry-run"}), 0);
    EXPECT_EQ(Machine(), before);
}

TEST(DryRun, EachCheckThatFailsGivesTheCodeARunWouldEndWith) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    Prepare(s);
    // A file changed since the installation: the run would fail there and roll back.
    WriteTextFile(s.app + "/Contents/Resources/keep.txt", "edited by the user\n");
    auto before = Machine();
    EXPECT_EQ(s.runPatcher({"--dry-run"}), 9) << s.patcherOutput();
    EXPECT_NE(s.patcherOutput().find("not as expected: " + s.app +
                                     "/Contents/Resources/keep.txt: found "),
              std::string::npos)
        << s.patcherOutput();
    EXPECT_EQ(Machine(), before);

    // The editor running: listed, not asked about.
    WriteTextFile(s.app + "/Contents/Resources/keep.txt", "version one\n");
    ChildProcess editor = s.startEditor();
    ASSERT_TRUE(WaitUntil([&] { return editor.running(); }, std::chrono::seconds(10)));
    before = Machine();
    EXPECT_EQ(s.runPatcher({"--dry-run"}), 8) << s.patcherOutput();
    EXPECT_NE(
        s.patcherOutput().find("applications that must be quit are running: " + s.appDisplayName),
        std::string::npos)
        << s.patcherOutput();
    editor.kill();
    EXPECT_EQ(Machine(), before);

    // Not installed where the database says.
    ASSERT_EQ(RunTool({ORVEL_ZOTHCTL, "remove", "--code", s.code}), 0);
    before = Machine();
    EXPECT_EQ(s.runPatcher({"--dry-run"}), 5) << s.patcherOutput();
    EXPECT_EQ(Machine(), before);
}

// The output without what changes from run to run: log prefixes and times.
std::string Steady(const std::string& output) {
    std::istringstream in(output);
    std::string steady;
    for (std::string line; std::getline(in, line);)
        steady += std::regex_replace(StripLogPrefix(line), std::regex("in [0-9]+ ms"), "") + "\n";
    return steady;
}

// A language without string tables of its own gets the English texts, never their names.
TEST(DryRun, ALanguageWithoutTablesGetsTheEnglishTexts) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    Prepare(s);
    ASSERT_EQ(RunTool({ORVEL_ZOTHCTL, "remove", "--code", s.code}), 0);
    EXPECT_EQ(s.runPatcher({"--dry-run"}, {"LANG=C.UTF-8"}), 5);
    const std::string english = Steady(s.patcherOutput());
    for (const char* language : {"LANG=fr_FR.UTF-8", "LANGUAGE=fr", "LANGUAGE=pt_BR:fr"}) {
        EXPECT_EQ(s.runPatcher({"--dry-run"}, {language}), 5);
        EXPECT_EQ(Steady(s.patcherOutput()), english) << language;
        EXPECT_EQ(s.patcherOutput().find(" message"), std::string::npos) << s.patcherOutput();
    }
    EXPECT_EQ(s.runPatcher({"--dry-run"}, {"LANGUAGE=de"}), 5);
    EXPECT_NE(Steady(s.patcherOutput()), english) << "German has tables of its own";
}

} // namespace
