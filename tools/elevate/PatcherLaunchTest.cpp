// The launcher pkexec starts for a desktop user's patcher: which command lines it takes, and
// what the real program does with them.
#include "PatcherLaunch.h"

#include "TestSupport.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

std::optional<std::string> AsGiven(const std::string& path) {
    return path;
}

std::string Refusal(const std::vector<std::string>& words) {
    std::string error;
    EXPECT_FALSE(PlanPatcherLaunch(words, AsGiven, &error).has_value());
    return error;
}

TEST(PatcherLaunchTest, TakesTheDisplayAndLanguageVariablesThenThePatcherAndItsArguments) {
    std::string error;
    const auto launch =
        PlanPatcherLaunch({"DISPLAY=:0", "HOME=/home/ann", "LANG=de_DE.UTF-8",
                           "/tmp/U p.app/Contents/MacOS/PatcherApp", "-logLevel=info", "A=B"},
                          AsGiven, &error);
    ASSERT_TRUE(launch.has_value()) << error;
    EXPECT_EQ(launch->variables,
              (std::vector<std::pair<std::string, std::string>>{
                  {"DISPLAY", ":0"}, {"HOME", "/home/ann"}, {"LANG", "de_DE.UTF-8"}}));
    EXPECT_EQ(launch->program, "/tmp/U p.app/Contents/MacOS/PatcherApp");
    // After the program every word is an argument, even one that looks like a variable.
    EXPECT_EQ(launch->arguments, (std::vector<std::string>{"-logLevel=info", "A=B"}));
}

TEST(PatcherLaunchTest, RefusesOtherVariablesAndProgramsThatAreNotPatchers) {
    EXPECT_EQ(Refusal({"LD_PRELOAD=/tmp/evil.so", "/tmp/U.app/Contents/MacOS/PatcherApp"}),
              "the variable LD_PRELOAD is not passed on to a patcher");
    EXPECT_EQ(Refusal({"PATH=/tmp", "/tmp/U.app/Contents/MacOS/PatcherApp"}),
              "the variable PATH is not passed on to a patcher");
    EXPECT_EQ(Refusal({"DISPLAY=:0"}), "no patcher program given");
    EXPECT_EQ(Refusal({}), "no patcher program given");
    for (const std::string program :
         {"/bin/sh", "/tmp/U.app/Contents/MacOS/sh", "/tmp/.app/Contents/MacOS/PatcherApp",
          "U.app/Contents/MacOS/PatcherApp", "/tmp/U/Contents/MacOS/PatcherApp"})
        EXPECT_NE(Refusal({program}).find("is not a patcher program"), std::string::npos)
            << program;
}

TEST(PatcherLaunchTest, APatcherPathThatLeadsElsewhereIsRefused) {
    std::string error;
    const auto elsewhere = [](const std::string&) -> std::optional<std::string> {
        return std::string("/bin/sh");
    };
    EXPECT_FALSE(
        PlanPatcherLaunch({"/tmp/U.app/Contents/MacOS/PatcherApp"}, elsewhere, &error).has_value());
    EXPECT_EQ(error, "/tmp/U.app/Contents/MacOS/PatcherApp leads to /bin/sh, which is not a "
                     "patcher program");
    const auto missing = [](const std::string&) -> std::optional<std::string> {
        return std::nullopt;
    };
    EXPECT_FALSE(
        PlanPatcherLaunch({"/tmp/U.app/Contents/MacOS/PatcherApp"}, missing, &error).has_value());
    EXPECT_EQ(error, "/tmp/U.app/Contents/MacOS/PatcherApp is not a file");
}

// A stand-in patcher program that prints its arguments and the variables it got.
std::string MakePatcher(const TempDir& dir, const std::string& name) {
    const std::string program = dir.file(name + ".app/Contents/MacOS/PatcherApp");
    WriteTextFile(program, "#!/bin/sh\necho \"args: $*\"\necho \"DISPLAY=$DISPLAY\"\n"
                           "echo \"LANG=$LANG\"\necho \"SECRET=$SECRET\"\nexit 7\n");
    ::chmod(program.c_str(), 0755);
    return program;
}

TEST(PatcherLaunchTest, TheProgramStartsThePatcherWithItsVariablesAndEndsWithItsStatus) {
    TempDir dir;
    const std::string program = MakePatcher(dir, "Update");
    const std::string out = dir.file("out.txt");
    EXPECT_EQ(RunProgram({RUN_PATCHER, "DISPLAY=:7", "LANG=de_DE.UTF-8", program, "-Silent", "x y"},
                         {"SECRET=kept by the caller"}, out),
              7);
    EXPECT_EQ(ReadTextFile(out),
              "args: -Silent x y\nDISPLAY=:7\nLANG=de_DE.UTF-8\nSECRET=kept by the caller\n");
}

TEST(PatcherLaunchTest, TheProgramStartsNothingForARefusedCommandLine) {
    TempDir dir;
    const std::string program = MakePatcher(dir, "Update");
    // A link named like a patcher that leads to another program.
    const std::string link = dir.file("Trick.app/Contents/MacOS/PatcherApp");
    WriteTextFile(dir.file("Trick.app/Contents/MacOS/keep"), "");
    ASSERT_EQ(::symlink("/bin/echo", link.c_str()), 0);
    struct Case {
        std::vector<std::string> words;
        std::string message;
    };
    for (const Case& c : std::vector<Case>{
             {{"LD_PRELOAD=/tmp/x.so", program}, "the variable LD_PRELOAD is not passed on"},
             {{"/bin/echo", "started"}, "/bin/echo is not a patcher program"},
             {{link, "started"}, "which is not a patcher program"},
             {{dir.file("Gone.app/Contents/MacOS/PatcherApp")}, "is not a file"}}) {
        std::vector<std::string> argv = {RUN_PATCHER};
        argv.insert(argv.end(), c.words.begin(), c.words.end());
        const std::string out = dir.file("out.txt"), err = dir.file("err.txt");
        EXPECT_EQ(RunProgram(argv, {}, out, err), 127) << c.message;
        EXPECT_EQ(ReadTextFile(out), "") << c.message;
        EXPECT_NE(ReadTextFile(err).find(c.message), std::string::npos) << ReadTextFile(err);
        EXPECT_NE(ReadTextFile(err).find("nothing was started"), std::string::npos);
    }
}

TEST(PatcherLaunchTest, ThePolkitActionNamesTheInstalledLauncherAndAsksForAnAdministrator) {
    const std::string policy = ReadTextFile(POLICY_FILE);
    EXPECT_NE(policy.find("<action id=\"org.orvel.patcher.update\">"), std::string::npos);
    EXPECT_NE(policy.find("<annotate key=\"org.freedesktop.policykit.exec.path\">" +
                          std::string(PATCHERS_LAUNCHER) + "</annotate>"),
              std::string::npos);
    EXPECT_NE(policy.find("<allow_active>auth_admin</allow_active>"), std::string::npos);
    EXPECT_EQ(policy.find("yes</allow"), std::string::npos);
}

} // namespace
