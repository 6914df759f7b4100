#include "system/ExecUtils.h"

#include "runtime/Environment.h"
#include "runtime/PlatformPaths.h"
#include "system/SysVServiceBackend.h"

#include "SystemTestSupport.h"
#include "TestSupport.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>
#include <random>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// The machine's process folder: these tests look at real processes.
const std::string& ProcRoot() {
    return PlatformPaths::defaults().procRoot;
}

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

struct ChildRun {
    int status = -1;
    std::string output;
    bool ioError = false;
};

ChildRun RunWith(const std::vector<std::string>& args, const ExecUtils::ExecId* identity = nullptr,
                 const std::string& input = {}) {
    ChildRun run;
    std::vector<char> output;
    run.status = ExecUtils::RunExecutable(args, identity, input.data(), input.size(), &output,
                                          run.ioError, true);
    run.output.assign(output.begin(), output.end());
    return run;
}

std::set<std::string> Lines(const std::string& text) {
    std::set<std::string> lines;
    std::istringstream stream(text);
    std::string line;
    while (std::getline(stream, line))
        lines.insert(line);
    return lines;
}

class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : _name(name) {
        const char* old = std::getenv(name);
        if (old != nullptr)
            _old = old;
        _had = old != nullptr;
        ::setenv(name, value, 1);
    }
    ~ScopedEnv() {
        if (_had)
            ::setenv(_name.c_str(), _old.c_str(), 1);
        else
            ::unsetenv(_name.c_str());
    }

private:
    std::string _name, _old;
    bool _had = false;
};

} // namespace

TEST(ExecUtilsTest, FormExecArgvLaysTheTextsEndToEnd) {
    std::vector<char> buffer;
    std::vector<char*> argv;
    ASSERT_TRUE(ExecUtils::FormExecArgv({"a", "bc", ""}, buffer, argv));
    EXPECT_EQ(std::string(buffer.begin(), buffer.end()), std::string("a\0bc\0\0", 6));
    ASSERT_EQ(argv.size(), 4u);
    EXPECT_EQ(argv[0], buffer.data());
    EXPECT_EQ(argv[1], buffer.data() + 2);
    EXPECT_EQ(argv[2], buffer.data() + 5);
    EXPECT_EQ(argv[3], nullptr);

    ASSERT_TRUE(ExecUtils::FormExecArgv({}, buffer, argv));
    EXPECT_TRUE(buffer.empty());
    ASSERT_EQ(argv.size(), 1u);
    EXPECT_EQ(argv[0], nullptr);

    EXPECT_FALSE(ExecUtils::FormExecArgv({"ok", std::string("a\0b", 3)}, buffer, argv));
    EXPECT_TRUE(buffer.empty());
    EXPECT_TRUE(argv.empty());
}

TEST(ExecUtilsTest, CleanedEnvironmentKeepsOnlyTheTwoNamesAndAFixedPath) {
    const char* entries[] = {"HOME=/root",
                             "__CF_USER_TEXT_ENCODING=0x1F5:0:0",
                             "SECURITYSESSIONID=abc=def",
                             "SECURITYSESSIONIDX=1",
                             "XSECURITYSESSIONID=1",
                             "__CF_USER_TEXT_ENCODING",
                             "PATH=/home/user/bin",
                             "LD_PRELOAD=/tmp/evil.so",
                             nullptr};
    const std::vector<std::string> expected = {"__CF_USER_TEXT_ENCODING=0x1F5:0:0",
                                               "SECURITYSESSIONID=abc=def",
                                               std::string("PATH=") + ExecUtils::kChildSearchPath};
    EXPECT_EQ(ExecUtils::CleanedEnvironment(entries), expected);
    EXPECT_EQ(ExecUtils::CleanedEnvironment(nullptr),
              std::vector<std::string>{std::string("PATH=") + ExecUtils::kChildSearchPath});
}

TEST(ExecUtilsTest, ChildSeesOnlyTheCleanedEnvironment) {
    ScopedEnv a("__CF_USER_TEXT_ENCODING", "0x0:0:0");
    ScopedEnv b("SECURITYSESSIONID", "186a5");
    ScopedEnv c("ORVEL_SECRET", "must-not-pass");
    ScopedEnv d("PATH", "/nonexistent-folder");
    ScopedEnv e("LD_PRELOAD", "");
    const ChildRun run = RunWith({"/usr/bin/env"});
    ASSERT_EQ(run.status, 0);
    const std::set<std::string> expected = {"__CF_USER_TEXT_ENCODING=0x0:0:0",
                                            "SECURITYSESSIONID=186a5",
                                            std::string("PATH=") + ExecUtils::kChildSearchPath};
    EXPECT_EQ(Lines(run.output), expected);
}

TEST(ExecUtilsTest, AllOfALargeOutputIsCollected) {
    const ChildRun run = RunWith({"/bin/sh", "-c", "head -c 5000000 /dev/zero; echo end"});
    EXPECT_EQ(run.status, 0);
    EXPECT_FALSE(run.ioError);
    ASSERT_EQ(run.output.size(), 5000004u);
    EXPECT_EQ(run.output.substr(5000000), "end\n");
    EXPECT_EQ(std::count(run.output.begin(), run.output.end(), '\0'), 5000000);
}

TEST(ExecUtilsTest, InputAndOutputAreServedTogether) {
    std::string input(3 * 1024 * 1024, '\0');
    std::mt19937 random(42);
    for (char& c : input)
        c = static_cast<char>(random());
    const ChildRun run = RunWith({"/bin/cat"}, nullptr, input);
    EXPECT_EQ(run.status, 0);
    EXPECT_FALSE(run.ioError);
    EXPECT_TRUE(run.output == input);
}

TEST(ExecUtilsTest, OutputMayBeThrownAway) {
    bool ioError = true;
    EXPECT_EQ(ExecUtils::RunExecutable({"/bin/sh", "-c", "head -c 100000 /dev/zero; exit 4"},
                                       nullptr, 0, nullptr, ioError, false),
              4);
    EXPECT_FALSE(ioError);
}

TEST(ExecUtilsTest, InputThatIsNotReadSetsTheErrorFlag) {
    // The child closes its input at once; the write fails with a broken pipe, which the
    // flag tells the process to ignore.
    std::string input(1024 * 1024, 'x');
    const ChildRun run =
        RunWith({"/bin/sh", "-c", "exec 0<&-; sleep 0.2; echo done"}, nullptr, input);
    EXPECT_TRUE(run.ioError);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.output, "done\n");
}

TEST(ExecUtilsTest, ExitStatuses) {
    EXPECT_EQ(RunWith({"/bin/sh", "-c", "exit 7"}).status, 7);
    EXPECT_EQ(RunWith({"/bin/true"}).status, 0);
    // Death from any signal is 129.
    EXPECT_EQ(RunWith({"/bin/sh", "-c", "kill -KILL $$"}).status, 129);
    EXPECT_EQ(RunWith({"/bin/sh", "-c", "kill -TERM $$"}).status, 129);
    EXPECT_EQ(ExecUtils::ExitStatusFromWaitStatus(W_EXITCODE(3, 0)), 3);
    EXPECT_EQ(ExecUtils::ExitStatusFromWaitStatus(W_EXITCODE(0, SIGSEGV)), 129);
    EXPECT_EQ(ExecUtils::ExitStatusFromWaitStatus(W_STOPCODE(SIGSTOP)), 128 + SIGSTOP);
}

TEST(ExecUtilsTest, AProgramThatCannotBeFoundEndsWith71) {
    EXPECT_EQ(RunWith({"/nonexistent/program"}).status, 71);
    // No search of a command path: a bare name is a relative path.
    EXPECT_EQ(RunWith({"sh", "-c", "exit 0"}).status, 71);
    EXPECT_EQ(RunWith({}).status, 71);

    UniqueFd input, output;
    const pid_t pid = ExecUtils::OpenExecutable({"/nonexistent/program"}, input, output);
    ASSERT_GT(pid, 0);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 71);
    EXPECT_EQ(ExecUtils::OpenExecutable({}, input, output), -1);

    int execError = 0;
    const pid_t failed =
        ExecUtils::StartExecutable({"/nonexistent/program"}, nullptr, input, output, execError);
    ASSERT_GT(failed, 0);
    EXPECT_EQ(execError, ENOENT);
    ASSERT_EQ(::waitpid(failed, &status, 0), failed);
    const pid_t started =
        ExecUtils::StartExecutable({"/bin/true"}, nullptr, input, output, execError);
    ASSERT_GT(started, 0);
    EXPECT_EQ(execError, 0);
    ASSERT_EQ(::waitpid(started, &status, 0), started);
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(ExecUtilsTest, OpenExecutableGivesThePipes) {
    UniqueFd input, output;
    const pid_t pid = ExecUtils::OpenExecutable({"/usr/bin/tr", "a-z", "A-Z"}, input, output);
    ASSERT_GT(pid, 0);
    ASSERT_TRUE(WriteAll(input.get(), "hello", 5));
    input.reset();
    std::string text;
    char buffer[64];
    ssize_t n;
    while ((n = ::read(output.get(), buffer, sizeof buffer)) > 0)
        text.append(buffer, static_cast<size_t>(n));
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_EQ(text, "HELLO");
}

TEST(ExecUtilsTest, IdentityIsAppliedForTheSuperUser) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs the super-user";
    using namespace ExecUtils;
    ExecId user{kExecIdSetUid, 65534, 0, 0, 0};
    EXPECT_EQ(RunWith({"/usr/bin/id", "-u"}, &user).output, "65534\n");
    EXPECT_EQ(RunWith({"/usr/bin/id", "-ru"}, &user).output, "65534\n");

    ExecId realGroup{kExecIdSetGid, 0, 0, 65534, 0};
    EXPECT_EQ(RunWith({"/usr/bin/id", "-rg"}, &realGroup).output, "65534\n");
    EXPECT_EQ(RunWith({"/usr/bin/id", "-g"}, &realGroup).output, "0\n");

    ExecId effectiveGroup{kExecIdSetEgid, 0, 0, 0, 65534};
    EXPECT_EQ(RunWith({"/usr/bin/id", "-g"}, &effectiveGroup).output, "65534\n");
    EXPECT_EQ(RunWith({"/usr/bin/id", "-rg"}, &effectiveGroup).output, "0\n");

    ExecId effectiveUser{kExecIdSetEuid, 0, 65534, 0, 0};
    EXPECT_EQ(RunWith({"/usr/bin/id", "-u"}, &effectiveUser).output, "65534\n");
    EXPECT_EQ(RunWith({"/usr/bin/id", "-ru"}, &effectiveUser).output, "0\n");

    // Flag 4 acts only while the effective id is still 0: after flag 1 it is not.
    ExecId both{kExecIdSetUid | kExecIdSetEuid, 65534, 4242, 0, 0};
    EXPECT_EQ(RunWith({"/usr/bin/id", "-u"}, &both).output, "65534\n");

    ExecId superUser{kExecIdSetUid | kExecIdSetGid | kExecIdSetEgid, 0, 0, 0, 0};
    EXPECT_EQ(
        RunWith({"/bin/sh", "-c", "echo $(id -u) $(id -ru) $(id -g) $(id -rg)"}, &superUser).output,
        "0 0 0 0\n");
}

TEST(ExecUtilsTest, WaitWhileProcessExistsOnItselfReturnsAtOnce) {
    const auto start = Clock::now();
    EXPECT_FALSE(ExecUtils::WaitWhileProcessExists(::getpid(), 5));
    EXPECT_FALSE(ExecUtils::WaitWhileProcessExists(::getpid(), 0));
    EXPECT_LT(SecondsSince(start), 1.0);
}

TEST(ExecUtilsTest, WaitWhileProcessExistsTimesOut) {
    const pid_t pid = StartSleeper(30);
    ASSERT_GT(pid, 0);
    const auto start = Clock::now();
    EXPECT_FALSE(ExecUtils::WaitWhileProcessExists(pid, 1));
    const double waited = SecondsSince(start);
    EXPECT_GE(waited, 0.9);
    EXPECT_LT(waited, 5.0);
    EXPECT_EQ(WaitForPID(pid, 1), ETIMEDOUT);
    KillAndReap(pid);
}

TEST(ExecUtilsTest, WaitWhileProcessExistsSeesTheEnd) {
    const pid_t pid = StartSleeper(0.3);
    ASSERT_GT(pid, 0);
    const auto start = Clock::now();
    EXPECT_TRUE(ExecUtils::WaitWhileProcessExists(pid, 20));
    EXPECT_LT(SecondsSince(start), 10.0);
    KillAndReap(pid);

    // No limit when the time-out is 0 or less.
    const pid_t second = StartSleeper(0.3);
    EXPECT_TRUE(ExecUtils::WaitWhileProcessExists(second, 0));
    KillAndReap(second);
    const pid_t third = StartSleeper(0.3);
    EXPECT_EQ(WaitForPID(third, -1), 0);
    KillAndReap(third);

    // An id that names no process is a failure.
    EXPECT_FALSE(ExecUtils::WaitWhileProcessExists(third, 1));
    EXPECT_EQ(WaitForPID(third, 1), ESRCH);
    EXPECT_FALSE(ExecUtils::WaitWhileProcessExists(0, 1));
    EXPECT_EQ(WaitForPID(-5, 1), EINVAL);
}

TEST(ExecUtilsTest, ProcessListFromProc) {
    std::unique_ptr<BSDProcessRecord[]> list;
    size_t count = 0;
    ASSERT_EQ(GetBSDProcessList(list, count, ProcRoot()), 0);
    ASSERT_GT(count, 1u);
    const BSDProcessRecord* self = nullptr;
    for (size_t i = 0; i < count; ++i) {
        if (list[i].pid == ::getpid())
            self = &list[i];
    }
    ASSERT_NE(self, nullptr);
    EXPECT_EQ(self->parentPid, ::getppid());
    EXPECT_EQ(self->uid, ::geteuid());
    EXPECT_EQ(self->state, 'R');
    EXPECT_EQ(self->name, SelfExecutable().substr(SelfExecutable().rfind('/') + 1).substr(0, 15));

    std::unique_ptr<BSDProcessRecord[]> untouched;
    size_t untouchedCount = 99;
    EXPECT_EQ(GetBSDProcessList(untouched, untouchedCount, "/nonexistent-proc"), ENOENT);
    EXPECT_EQ(untouched, nullptr);
    EXPECT_EQ(untouchedCount, 99u);
}

TEST(ExecUtilsTest, IsProcessRunning) {
    EXPECT_EQ(IsProcessRunning(::getpid(), ProcRoot()), 1);
    const pid_t pid = StartSleeper(30);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(IsProcessRunning(pid, ProcRoot()), 1);
    EXPECT_EQ(IsProcessRunning(pid, "/nonexistent-proc"), 0);
    // Ended but not yet reaped: no longer running.
    ::kill(pid, SIGKILL);
    EXPECT_EQ(WaitForPID(pid, 5), 0);
    EXPECT_EQ(IsProcessRunning(pid, ProcRoot()), 0);
    KillAndReap(pid);
    EXPECT_EQ(IsProcessRunning(pid, ProcRoot()), 0);
}

TEST(ExecUtilsTest, GetProcessIDByName) {
    TempDir dir;
    const pid_t pid = StartSleeper(30, dir.path(), "orvelsleeper");
    ASSERT_GT(pid, 0);
    pid_t found = -1;
    for (int i = 0; i < 100 && found != pid; ++i) { // the child needs a moment to exec
        found = GetProcessID("orvelsleeper", ProcRoot());
        if (found != pid)
            ::usleep(20000);
    }
    EXPECT_EQ(found, pid);
    EXPECT_EQ(GetProcessID("no-such-process-name", ProcRoot()), -1);
    EXPECT_EQ(GetProcessID("", ProcRoot()), -1);
    KillAndReap(pid);
    EXPECT_EQ(GetProcessID("orvelsleeper", ProcRoot()), -1);
}

// launchctlCommand through a SysV service manager whose "service" program is a script of
// the test: it records its arguments and exits with the status in a file.
class LaunchctlCommandTest : public testing::Test {
protected:
    void SetUp() override {
        SetENVverbosityLevel("debug");
        ASSERT_EQ(::mkdir(_dir.file("init.d").c_str(), 0755), 0);
        ASSERT_EQ(::mkdir(_dir.file("run").c_str(), 0755), 0);
        WriteTextFile(_dir.file("status"), "0");
        WriteTextFile(_dir.file("service"), "#!/bin/sh\necho \"$1 $2\" >> " + _dir.file("calls") +
                                                "\nexit $(cat " + _dir.file("status") + ")\n");
        ASSERT_EQ(::chmod(_dir.file("service").c_str(), 0755), 0);
        _backend = std::make_unique<SysVServiceBackend>(_dir.file("init.d"), _dir.file("service"));
        _pidFormat = _dir.path() + "/run/%@.pid";
    }
    int Command(const char* name, const char* command, int waitSeconds) {
        return launchctlCommand(*_backend, _pidFormat, name, command, waitSeconds);
    }
    std::string Calls() const {
        return FileExists(_dir.file("calls")) ? ReadTextFile(_dir.file("calls")) : "";
    }

    TempDir _dir;
    std::unique_ptr<SysVServiceBackend> _backend;
    std::string _pidFormat;
};

TEST_F(LaunchctlCommandTest, WithoutPidFileReturnsWhenTheCommandHasEnded) {
    const auto start = Clock::now();
    EXPECT_EQ(Command("orvelsvc", "stop", 30), 0);
    EXPECT_LT(SecondsSince(start), 5.0);
    EXPECT_EQ(Calls(), "orvelsvc stop\n");
}

TEST_F(LaunchctlCommandTest, AFailingCommandGivesItsStatus) {
    WriteTextFile(_dir.file("status"), "3");
    const pid_t pid = StartSleeper(30);
    WriteTextFile(_dir.file("run/orvelsvc.pid"), std::to_string(pid) + "\n");
    const auto start = Clock::now();
    EXPECT_EQ(Command("orvelsvc", "start", 30), 3);
    EXPECT_LT(SecondsSince(start), 5.0) << "no wait after a failure";
    KillAndReap(pid);
}

TEST_F(LaunchctlCommandTest, WaitsForTheRecordedProcess) {
    const pid_t running = StartSleeper(30);
    WriteTextFile(_dir.file("run/orvelsvc.pid"), std::to_string(running) + "\n");
    auto start = Clock::now();
    EXPECT_EQ(Command("orvelsvc", "start", 1), 0);
    double waited = SecondsSince(start);
    EXPECT_GE(waited, 0.9);
    EXPECT_LT(waited, 5.0);
    KillAndReap(running);

    const pid_t ending = StartSleeper(0.5);
    WriteTextFile(_dir.file("run/orvelsvc.pid"), std::to_string(ending));
    start = Clock::now();
    EXPECT_EQ(Command("orvelsvc", "stop", 30), 0);
    EXPECT_LT(SecondsSince(start), 10.0);
    EXPECT_EQ(IsProcessRunning(ending, ProcRoot()), 0);
    KillAndReap(ending);

    // A pid file without a number is nothing to wait for.
    WriteTextFile(_dir.file("run/orvelsvc.pid"), "none\n");
    start = Clock::now();
    EXPECT_EQ(Command("orvelsvc", "stop", 30), 0);
    EXPECT_LT(SecondsSince(start), 5.0);
    EXPECT_EQ(Calls(), "orvelsvc start\norvelsvc stop\norvelsvc stop\n");
}

TEST_F(LaunchctlCommandTest, NamesThatAreNoLabelsAreRefusedAndNothingRuns) {
    LogCapture log;
    for (const char* name : {"../etc/passwd", "a b", "a;reboot", "$(reboot)", "/bin/sh", "-x", "",
                             "a..b", "x\ny", "`id`", "a|b", "a&b", ".hidden"}) {
        EXPECT_EQ(Command(name, "stop", 30), 71) << name;
    }
    EXPECT_EQ(launchctlCommand(nullptr, "stop"), 71);
    EXPECT_EQ(Command("orvelsvc", nullptr, 30), 71);
    EXPECT_EQ(Calls(), "");
    EXPECT_TRUE(log.contains("Refused service name \"../etc/passwd\": not a plain service label."));
    EXPECT_TRUE(log.contains("Refused service name \"a;reboot\": not a plain service label."));
}
