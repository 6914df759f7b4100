// --help, -h, --version and a wrong option, for every program the project builds: what a
// user or a script meets first, and the same everywhere. Help and the version go to standard
// output with exit status 0 and do nothing else (no file in the home or working folder, no
// update started); a wrong option is refused on standard error with a non-zero status.

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

namespace {

// Help and the version print a few lines; a run that takes longer has started something.
constexpr std::chrono::seconds kTimeout{10};

struct Outcome {
    int status = -1; // exit status, 128+N when killed by signal N, -1 when it did not start
    bool timedOut = false;
    std::string out;
    std::string err;
    std::vector<std::string> written; // entries made in the home and working folders
};

std::vector<std::string> Entries(const std::string& folder, const std::string& label) {
    std::vector<std::string> entries;
    for (const auto& entry : fs::recursive_directory_iterator(folder))
        entries.push_back(label + "/" + fs::relative(entry.path(), folder).string());
    return entries;
}

// Runs the program with its own empty home and working folder, no display and standard
// input from /dev/null; kills it (its whole process group) when it outlives the timeout.
Outcome RunProgramWithTimeout(const std::vector<std::string>& argv) {
    TempDir home;
    TempDir work;
    TempDir output;
    const std::string outPath = output.file("out");
    const std::string errPath = output.file("err");

    // Everything the child uses is made before fork: after it, only system calls.
    std::vector<std::string> environment = {"HOME=" + home.path(), "LANG=C.UTF-8",
                                            "PATH=" + EnvironmentValue("PATH")};
    std::vector<char*> args;
    for (const auto& arg : argv)
        args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    std::vector<char*> envp;
    for (const auto& assignment : environment)
        envp.push_back(const_cast<char*>(assignment.c_str()));
    envp.push_back(nullptr);

    Outcome outcome;
    const pid_t pid = ::fork();
    if (pid < 0)
        return outcome;
    if (pid == 0) {
        ::setpgid(0, 0);
        const int in = ::open("/dev/null", O_RDONLY);
        const int out = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (in < 0 || out < 0 || err < 0 || ::dup2(in, STDIN_FILENO) < 0 ||
            ::dup2(out, STDOUT_FILENO) < 0 || ::dup2(err, STDERR_FILENO) < 0 ||
            ::chdir(work.path().c_str()) != 0)
            ::_exit(126);
        ::execve(args[0], args.data(), envp.data());
        ::_exit(127);
    }
    ::setpgid(pid, pid);
    const auto deadline = std::chrono::steady_clock::now() + kTimeout;
    int status = 0;
    while (true) {
        const pid_t done = ::waitpid(pid, &status, WNOHANG);
        if (done == pid)
            break;
        if (done < 0 && errno != EINTR)
            return outcome;
        if (std::chrono::steady_clock::now() > deadline) {
            outcome.timedOut = true;
            ::kill(-pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (WIFEXITED(status))
        outcome.status = WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        outcome.status = 128 + WTERMSIG(status);
    outcome.out = ReadTextFile(outPath);
    outcome.err = ReadTextFile(errPath);
    outcome.written = Entries(home.path(), "HOME");
    for (auto& entry : Entries(work.path(), "."))
        outcome.written.push_back(entry);
    return outcome;
}

std::string Describe(const Outcome& outcome) {
    std::string text = "exit status " + std::to_string(outcome.status) +
                       (outcome.timedOut ? " (killed after the timeout)" : "") +
                       "\nstandard output:\n" + outcome.out + "\nstandard error:\n" + outcome.err;
    for (const auto& entry : outcome.written)
        text += "\nwritten: " + entry;
    return text;
}

bool StartsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

struct Program {
    std::string name;
    std::string path;
    int usageStatus;         // the exit status of a wrong command line
    std::string wrongOption; // an option it refuses
    bool namesWrongOption;   // whether its message says which option is wrong
};

// How each program answers, as its source and its help say.
const Program& ProgramNamed(const std::string& name) {
    static const std::vector<Program> programs = {
        // PatcherApp leaves alone arguments that look like no option of its (the update
        // manager and older launchers pass their own), so a far-off option would start an
        // update; a mistyped one is refused with status 2.
        {"PatcherApp", ORVEL_PATCHER_APP, 2, "--versoin", true},
        {"mkpatcher", ORVEL_MKPATCHER, 2, "--no-such-option", true},
        {"zothctl", ORVEL_ZOTHCTL, 2, "--no-such-option", true},
        {"kor-launch", ORVEL_KOR_LAUNCH, 2, "--no-such-option", true},
        // bspatch knows no options: any other command line than its three files is a wrong
        // one, refused with its usage only.
        {"bspatch", ORVEL_BSPATCH, 2, "--no-such-option", false},
        // The launcher pkexec starts takes no options: a first argument that is not a
        // patcher program is refused with 127, the status of a command that cannot be run.
        {"orvel-run-patcher", ORVEL_RUN_PATCHER, 127, "--no-such-option", true},
    };
    for (const auto& program : programs) {
        if (program.name == name)
            return program;
    }
    std::abort(); // only called with the names above
}

// The tests take the program's name, which ctest shows in the test's name.
class ProgramTest : public ::testing::TestWithParam<std::string> {
protected:
    const Program& program() const { return ProgramNamed(GetParam()); }

    Outcome run(const std::vector<std::string>& args) const {
        std::vector<std::string> argv = {program().path};
        argv.insert(argv.end(), args.begin(), args.end());
        return RunProgramWithTimeout(argv);
    }

    // Help: status 0, the usage first on standard output, nothing on standard error, nothing
    // written.
    void expectHelp(const std::vector<std::string>& args) const {
        const Outcome result = run(args);
        EXPECT_FALSE(result.timedOut) << Describe(result);
        EXPECT_EQ(result.status, 0) << Describe(result);
        EXPECT_TRUE(StartsWith(result.out, "usage: " + program().name + " ")) << Describe(result);
        EXPECT_TRUE(!result.out.empty() && result.out.back() == '\n') << Describe(result);
        EXPECT_EQ(result.err, "") << Describe(result);
        EXPECT_TRUE(result.written.empty()) << Describe(result);
    }
};

using ProgramHelp = ProgramTest;

TEST_P(ProgramHelp, HelpPrintsTheUsageOnStandardOutput) {
    expectHelp({"--help"});
}

TEST_P(ProgramHelp, VersionIsOneLineWithTheNameAndTheProjectVersion) {
    const Outcome result = run({"--version"});
    EXPECT_FALSE(result.timedOut) << Describe(result);
    EXPECT_EQ(result.status, 0) << Describe(result);
    ASSERT_FALSE(result.out.empty()) << Describe(result);
    EXPECT_EQ(result.out.find('\n'), result.out.size() - 1) << Describe(result);
    EXPECT_TRUE(StartsWith(result.out, program().name + " ")) << Describe(result);
    EXPECT_NE(result.out.find(" " ORVEL_PROJECT_VERSION "\n"), std::string::npos)
        << Describe(result);
    EXPECT_EQ(result.err, "") << Describe(result);
    EXPECT_TRUE(result.written.empty()) << Describe(result);
}

TEST_P(ProgramHelp, AWrongOptionIsRefusedOnStandardError) {
    const Outcome result = run({program().wrongOption});
    EXPECT_FALSE(result.timedOut) << Describe(result);
    EXPECT_EQ(result.status, program().usageStatus) << Describe(result);
    EXPECT_EQ(result.out, "") << Describe(result);
    EXPECT_NE(result.err.find("usage: "), std::string::npos) << Describe(result);
    if (program().namesWrongOption) {
        EXPECT_TRUE(StartsWith(result.err, program().name + ": ")) << Describe(result);
        EXPECT_NE(result.err.find(program().wrongOption), std::string::npos) << Describe(result);
    }
    EXPECT_TRUE(result.written.empty()) << Describe(result);
}

INSTANTIATE_TEST_SUITE_P(Programs, ProgramHelp,
                         ::testing::Values("PatcherApp", "mkpatcher", "zothctl", "kor-launch",
                                           "bspatch", "orvel-run-patcher"));

// -h is --help.
using ProgramShortHelp = ProgramTest;

TEST_P(ProgramShortHelp, IsTheSameAsHelp) {
    expectHelp({"-h"});
    EXPECT_EQ(run({"-h"}).out, run({"--help"}).out);
}

INSTANTIATE_TEST_SUITE_P(Programs, ProgramShortHelp,
                         ::testing::Values("PatcherApp", "mkpatcher", "zothctl", "kor-launch",
                                           "bspatch", "orvel-run-patcher"));

// mkpatcher's commands each have their own help, the usage of the command first.
class MkpatcherCommandHelp : public ::testing::TestWithParam<std::string> {};

TEST_P(MkpatcherCommandHelp, HelpAndShortHelpPrintTheCommandsUsage) {
    const std::string& command = GetParam();
    const std::string usage = "usage: mkpatcher " + command + " ";
    std::string help;
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{command, "--help"}, {command, "-h"}, {"help", command}}) {
        std::vector<std::string> argv = {ORVEL_MKPATCHER};
        argv.insert(argv.end(), args.begin(), args.end());
        const Outcome result = RunProgramWithTimeout(argv);
        EXPECT_FALSE(result.timedOut) << Describe(result);
        EXPECT_EQ(result.status, 0) << args.back() << "\n" << Describe(result);
        EXPECT_TRUE(StartsWith(result.out, usage)) << Describe(result);
        EXPECT_NE(result.out.find("-h, --help"), std::string::npos) << Describe(result);
        EXPECT_EQ(result.err, "") << Describe(result);
        EXPECT_TRUE(result.written.empty()) << Describe(result);
        if (help.empty())
            help = result.out;
        EXPECT_EQ(result.out, help) << "mkpatcher " << args[0] << " " << args[1];
    }
}

// A wrong option (for bsdiff, which takes no option but --help, a wrong number of
// arguments) is refused with status 2 and the command's usage on standard error.
TEST_P(MkpatcherCommandHelp, AWrongOptionGivesTheCommandsUsage) {
    const std::string& command = GetParam();
    const Outcome result = RunProgramWithTimeout({ORVEL_MKPATCHER, command, "--no-such-option"});
    EXPECT_FALSE(result.timedOut) << Describe(result);
    EXPECT_EQ(result.status, 2) << Describe(result);
    EXPECT_EQ(result.out, "") << Describe(result);
    EXPECT_TRUE(StartsWith(result.err, "mkpatcher: ")) << Describe(result);
    EXPECT_NE(result.err.find("usage: mkpatcher " + command + " "), std::string::npos)
        << Describe(result);
    EXPECT_TRUE(result.written.empty()) << Describe(result);
}

INSTANTIATE_TEST_SUITE_P(Commands, MkpatcherCommandHelp,
                         ::testing::Values("create", "assemble", "bsdiff", "keygen", "sign",
                                           "verify"));

// The commands that "mkpatcher --help" lists are the ones tested above.
TEST(MkpatcherHelp, ListsTheCommandsTestedHere) {
    const Outcome result = RunProgramWithTimeout({ORVEL_MKPATCHER, "--help"});
    const std::string list = result.out.substr(result.out.find("\ncommands:\n") + 1);
    std::string commands;
    size_t at = 0;
    while ((at = list.find("\n  ", at)) != std::string::npos) {
        at += 3;
        commands += (commands.empty() ? "" : " ") + list.substr(at, list.find(' ', at) - at);
    }
    EXPECT_EQ(commands, "create assemble bsdiff keygen sign verify") << result.out;
}

// Help and the version end PatcherApp before anything of a run: asked for together with
// the run flags or a mistyped option, they still start no update, write no log under the
// home folder and return at once, even for the super-user.
TEST(PatcherAppHelp, HelpAndVersionNeverStartAnUpdate) {
    for (const std::vector<std::string>& args : {std::vector<std::string>{"-Silent", "--help"},
                                                 {"--dry-run", "--version"},
                                                 {"-logLevel=debug", "-h"},
                                                 {"--help", "--versoin"}}) {
        std::vector<std::string> argv = {ORVEL_PATCHER_APP};
        argv.insert(argv.end(), args.begin(), args.end());
        const auto start = std::chrono::steady_clock::now();
        const Outcome result = RunProgramWithTimeout(argv);
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(
            std::chrono::steady_clock::now() - start);
        EXPECT_FALSE(result.timedOut) << args[0] << " " << args[1] << "\n" << Describe(result);
        EXPECT_LT(seconds.count(), kTimeout.count());
        EXPECT_EQ(result.status, 0) << args[0] << " " << args[1] << "\n" << Describe(result);
        EXPECT_TRUE(StartsWith(result.out, args[1] == "--version" ? "PatcherApp " : "usage: "))
            << Describe(result);
        EXPECT_EQ(result.err, "") << Describe(result);
        EXPECT_TRUE(result.written.empty()) << "nothing ran, so nothing was written\n"
                                            << Describe(result);
    }
}

} // namespace
