// What scripts and fleet tools get from the real PatcherApp: the exit status, the JSON
// result (--result-json) and the JSON progress lines (--status-fd), checked against the
// schema the README documents, and --help and --version that never start an update.

#include "E2eSupport.h"
#include "TestSupport.h"

#include <algorithm>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

const std::string kResult = "/tmp/e2e/result.json";
const std::string kStatus = "/tmp/e2e/status.jsonl";

// The schema of the README, as a Python check: prints "ok" and a summary, or fails.
const std::string kSchemaCheck = R"PY(
import json, sys
result = json.load(open(sys.argv[1]))
lines = [json.loads(l) for l in open(sys.argv[2]) if l.strip()]
want = {"code": int, "message": str, "mode": str, "product": str, "fromVersion": str,
        "toVersion": str, "startedAt": str, "durationSeconds": (int, float),
        "rolledBack": bool, "operations": list}
assert set(result) == set(want), sorted(result)
for key, kind in want.items():
    assert isinstance(result[key], kind), key
for o in result["operations"]:
    assert set(o) == {"keyword", "path", "result", "bytes"}, o
    assert o["result"] in ("done", "failed"), o
    assert isinstance(o["bytes"], int) and o["bytes"] >= 0, o
for l in lines[:-1]:
    assert set(l) == {"phase", "item", "of", "path", "bytes"}, l
    assert l["phase"] in ("checking", "extracting", "applying", "undoing"), l
assert lines[-1] == {"phase": "done", "code": result["code"]}, lines[-1]
applying = [l["item"] for l in lines if l["phase"] == "applying"]
assert applying == list(range(1, len(applying) + 1)), applying
assert all(l["phase"] != "applying" or l["of"] == len(result["operations"]) for l in lines) \
    or result["code"] != 0
print("ok", result["code"], result["mode"], result["fromVersion"], result["toVersion"],
      result["rolledBack"], len(result["operations"]), len(applying),
      sorted(set(o["keyword"] for o in result["operations"])))
)PY";

// Runs the bundle's patcher with the result and the status stream asked for; its exit status.
int RunForScripts(const Scenario& s, const std::vector<std::string>& args) {
    std::vector<std::string> argv = {"/bin/sh", "-c", "exec \"$0\" \"$@\" 3>" + kStatus,
                                     s.bundle + "/Contents/MacOS/PatcherApp"};
    argv.insert(argv.end(), args.begin(), args.end());
    argv.insert(argv.end(), {"--result-json", kResult, "--status-fd", "3"});
    ChildProcess patcher(argv, CleanEnvironment({"HOME=" + s.home, "LANG=C.UTF-8"}),
                         s.work + "/patcher-output.txt");
    const auto status = patcher.wait(std::chrono::seconds(120));
    EXPECT_TRUE(status.has_value());
    return status.value_or(-1);
}

std::string CheckSchema(const Scenario& s) {
    WriteTextFile(s.work + "/schema.py", kSchemaCheck);
    std::string output;
    EXPECT_EQ(RunTool({"python3", s.work + "/schema.py", kResult, kStatus}, &output), 0)
        << output << "\n"
        << ReadTextFile(kResult) << "\n"
        << ReadTextFile(kStatus);
    return output;
}

TEST(Automation, AnAppliedUpdateGivesTheResultAndTheProgressAsDocumented) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    s.installApplication();
    s.registerInstallation();
    const auto entries = s.updateEntries();
    s.assemble(s.manifest(entries));
    EXPECT_EQ(RunForScripts(s, {"-Silent"}), 0);
    const std::string summary = CheckSchema(s);
    EXPECT_EQ(summary.rfind("ok 0 SILENT MODE 1.0 2.0 False ", 0), 0u) << summary;
    EXPECT_NE(summary.find("'ADD'"), std::string::npos) << summary;
    EXPECT_NE(summary.find("'Directory ADD'"), std::string::npos) << summary;
    EXPECT_NE(ReadTextFile(kResult).find("\"path\":\"" + s.app + "/Contents/Resources/new.txt\""),
              std::string::npos);
    EXPECT_NE(ReadTextFile(kStatus).find("\"phase\":\"extracting\""), std::string::npos);
}

TEST(Automation, AnEarlyEndGivesItsCodeAndNoOperations) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    s.installApplication();
    s.updateEntries();
    s.assemble(s.manifest({}));
    // Not registered: not found.
    EXPECT_EQ(RunForScripts(s, {"-Silent"}), 5);
    const std::string summary = CheckSchema(s);
    EXPECT_EQ(summary.rfind("ok 5 SILENT MODE 1.0 2.0 False 0 0 []", 0), 0u) << summary;
    EXPECT_NE(ReadTextFile(kResult).find("\"message\":\"The application to update could not be "
                                         "found.\""),
              std::string::npos)
        << ReadTextFile(kResult);
}

TEST(Automation, AFailedUpdateIsRolledBackAndSaysSo) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    s.installApplication();
    s.registerInstallation();
    auto entries = s.updateEntries();
    // The overwrite of keep.txt comes last among the files, and the user changed that file:
    // the update fails there and is undone.
    std::rotate(entries.begin() + 2, entries.begin() + 3, entries.end());
    ASSERT_EQ(entries.back().objectName, "keep.txt");
    s.assemble(s.manifest(entries));
    WriteTextFile(s.app + "/Contents/Resources/keep.txt", "edited by the user\n");
    const auto before = Snapshot(s.app);
    EXPECT_EQ(RunForScripts(s, {"-Silent"}), 9);
    const std::string summary = CheckSchema(s);
    EXPECT_EQ(summary.rfind("ok 9 SILENT MODE 1.0 2.0 True ", 0), 0u) << summary;
    EXPECT_NE(ReadTextFile(kResult).find("\"result\":\"failed\""), std::string::npos);
    EXPECT_NE(ReadTextFile(kStatus).find("\"phase\":\"undoing\""), std::string::npos);
    EXPECT_EQ(Snapshot(s.app), before);
}

TEST(Automation, HelpAndVersionNeverStartAnUpdate) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    s.installApplication();
    s.registerInstallation();
    s.assemble(s.manifest(s.updateEntries()));
    const auto before = Snapshot(s.app);
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"--help"}, {"-h"}, {"--version"}, {"-Silent", "--help"}}) {
        EXPECT_EQ(s.runPatcher(args), 0) << args.front();
        EXPECT_NE(s.patcherOutput().find(args.back() == "--version" ? "PatcherApp (Orvel patcher)"
                                                                    : "usage: PatcherApp"),
                  std::string::npos)
            << s.patcherOutput();
    }
    EXPECT_EQ(s.runPatcher({"-Silnet"}), 2);
    EXPECT_NE(s.patcherOutput().find("did you mean -Silent?"), std::string::npos);
    EXPECT_EQ(Snapshot(s.app), before);
    EXPECT_FALSE(FileExists(s.logFile)) << "nothing ran, so nothing was logged";
    EXPECT_FALSE(FileExists(s.returnCodeFile));
}

// A display that is named but not there: the terminal front end instead of an abort, and,
// without a terminal either, the default answers.
TEST(Automation, AnUnreachableDisplayFallsBackToTheTerminal) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    s.installApplication();
    s.registerInstallation();
    s.assemble(s.manifest(s.updateEntries()));
    EXPECT_EQ(s.runPatcher({}, {"DISPLAY=:97"}), 0) << s.patcherOutput();
    EXPECT_GE(s.logIndex("The display cannot be opened (DISPLAY=:97: /tmp/.X11-unix/X97: ", true),
              0)
        << ReadTextFile(s.logFile);
    EXPECT_GE(s.logIndex("); the questions go to the terminal instead", true), 0);
    EXPECT_NE(s.patcherOutput().find("[Continue]"), std::string::npos) << s.patcherOutput();
    EXPECT_TRUE(s.logContains("Exit code: 0"));
    EXPECT_TRUE(FileExists(s.historyFile));
}

TEST(Automation, ASilentRunRemovesTheCodeAnEarlierRunLeft) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    s.installApplication();
    s.registerInstallation();
    // A manifest that cannot be read: nothing changes, and the file says 9, not the 0 of an
    // earlier run.
    s.assemble(s.manifest(s.updateEntries()));
    WriteTextFile(s.bundle + "/Contents/Resources/manifest.xml", "<Manifest><FileSet>");
    s.sign(s.bundle);
    fs::create_directories("/tmp/OrvelQX3");
    WriteTextFile(s.returnCodeFile, "0");
    const auto before = Snapshot(s.app);
    EXPECT_EQ(s.runPatcher({"-Silent"}), 9);
    EXPECT_EQ(s.returnCode(), "9");
    EXPECT_TRUE(s.logContains("Removed the return code /tmp/OrvelQX3/retVal of an earlier run"));
    EXPECT_EQ(Snapshot(s.app), before);
}

} // namespace
