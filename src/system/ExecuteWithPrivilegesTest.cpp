#include "system/ExecuteWithPrivileges.h"

#include "runtime/Environment.h"
#include "system/ExecUtils.h"
#include "system/NotificationCenter.h"

#include "SystemTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char* kModeVariable = "ORVEL_SYSTEM_TEST_IDENTITY";

class ExecuteWithPrivilegesTest : public testing::Test {
protected:
    void SetUp() override {
        SetENVverbosityLevel("debug");
        ExecuteWithPrivileges::releaseInstance();
    }
    void TearDown() override { ExecuteWithPrivileges::releaseInstance(); }
};

struct ExitObserver {
    ExitObserver()
        : scoped(NotificationCenter::defaultCenter(), ExecuteWithPrivileges::kExitNotification,
                 nullptr, [this](const Notification& n) { objects.push_back(n.object); }) {}
    std::vector<const void*> objects;
    ScopedNotificationObserver scoped;
};

} // namespace

TEST_F(ExecuteWithPrivilegesTest, TheSuperUserKeepsItsIds) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs the super-user";
    LogCapture log;
    ExecuteWithPrivileges* runner = ExecuteWithPrivileges::getInstance();
    ASSERT_NE(runner, nullptr);
    EXPECT_EQ(ExecuteWithPrivileges::getInstance(), runner);
    EXPECT_EQ(::getuid(), 0u);
    EXPECT_EQ(::geteuid(), 0u);
    EXPECT_FALSE(runner->authorization().has_value());
    EXPECT_EQ(runner->performTask("/usr/bin/id", std::vector<std::string>{"-u"}), "0\n");
    EXPECT_TRUE(ExecuteWithPrivileges::releaseInstance());
    EXPECT_TRUE(ExecuteWithPrivileges::releaseInstance());
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"Elevated privileges", "uid:0 euid:0"}));
}

TEST_F(ExecuteWithPrivilegesTest, RaisesAndRestoresTheIds) {
    if (::getuid() != 0)
        GTEST_SKIP() << "needs the super-user";
    // Lower the effective id (the saved id stays 0), as a program started by a user with
    // the set-user-id bit would be after it gave its privileges away.
    ASSERT_EQ(::seteuid(65534), 0);
    {
        LogCapture log;
        ExecuteWithPrivileges* runner = ExecuteWithPrivileges::getInstance();
        ASSERT_NE(runner, nullptr);
        EXPECT_EQ(::geteuid(), 0u);
        EXPECT_EQ(runner->savedUID(), 0u);
        EXPECT_EQ(runner->savedEUID(), 65534u);
        ExecuteWithPrivileges::releaseInstance();
        EXPECT_EQ(::getuid(), 0u);
        EXPECT_EQ(::geteuid(), 65534u);
        EXPECT_TRUE(log.contains("uid:0 euid:65534"));
    }
    ASSERT_EQ(::seteuid(0), 0);
}

TEST_F(ExecuteWithPrivilegesTest, WithoutTokenFileThereIsNoRunner) {
    TempDir dir;
    LogCapture log;
    EXPECT_EQ(ExecuteWithPrivileges::getInstanceUsingToken(dir.file("authTokenData")), nullptr);
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"Error. Execute with privileges cannot be initialized."});
    EXPECT_EQ(ExecuteWithPrivileges::initWithToken(""), nullptr);
}

TEST_F(ExecuteWithPrivilegesTest, TheTokenFileIsOnlyKept) {
    TempDir dir;
    WriteTextFile(dir.file("authTokenData"), std::string(40, 'k') + "tail");
    ExecuteWithPrivileges* runner =
        ExecuteWithPrivileges::getInstanceUsingToken(dir.file("authTokenData"));
    ASSERT_NE(runner, nullptr);
    ASSERT_TRUE(runner->authorization().has_value());
    EXPECT_EQ(runner->authorization()->size(), 32u);
    // The existing instance is returned as it is, token file or not.
    EXPECT_EQ(ExecuteWithPrivileges::getInstanceUsingToken(dir.file("missing")), runner);
    EXPECT_EQ(ExecuteWithPrivileges::getInstance(), runner);
    ExecuteWithPrivileges::releaseInstance();

    WriteTextFile(dir.file("short"), "abc");
    runner = ExecuteWithPrivileges::getInstanceUsingToken(dir.file("short"));
    ASSERT_NE(runner, nullptr);
    EXPECT_EQ(runner->authorization()->size(), 3u);
    ExecuteWithPrivileges::releaseInstance();

    // An instance made without a token is returned by the token form, too.
    ExecuteWithPrivileges* plain = ExecuteWithPrivileges::getInstance();
    EXPECT_EQ(ExecuteWithPrivileges::getInstanceUsingToken(dir.file("missing")), plain);
}

TEST_F(ExecuteWithPrivilegesTest, PerformTaskReturnsOutputOnlyAfterSuccess) {
    ExecuteWithPrivileges* runner = ExecuteWithPrivileges::getInstance();
    EXPECT_EQ(runner->performTask("/bin/sh", std::vector<std::string>{"-c", "echo hello; exit 0"}),
              "hello\n");
    // Printed, but failed: the empty text.
    EXPECT_EQ(runner->performTask("/bin/sh", std::vector<std::string>{"-c", "echo hello; exit 1"}),
              "");
    EXPECT_EQ(runner->performTask("/bin/sh", std::vector<std::string>{"-c", "echo x; kill $$"}),
              "");
    EXPECT_EQ(runner->performTask("/bin/true", std::nullopt), "");
    EXPECT_EQ(runner->performTask("/nonexistent/program", std::nullopt), "");
    EXPECT_EQ(runner->performTask("/usr/bin/printf", std::vector<std::string>{"\\377\\376"}), "");
    EXPECT_EQ(runner->performTask("/bin/echo", std::nullopt), "\n");
    const std::string big = runner->performTask(
        "/bin/sh", std::vector<std::string>{"-c", "head -c 1000000 /dev/zero | tr '\\0' a"});
    EXPECT_EQ(big, std::string(1000000, 'a'));
}

TEST_F(ExecuteWithPrivilegesTest, ExecuteCommandWithoutCommandPostsAndFails) {
    ExecuteWithPrivileges* runner = ExecuteWithPrivileges::getInstance();
    ExitObserver observer;
    LogCapture log;
    EXPECT_FALSE(runner->executeCommand(std::nullopt, std::nullopt));
    EXPECT_FALSE(runner->executeCommand(std::string(), std::vector<std::string>{"x"}));
    EXPECT_EQ(runner->waitStatus(), -1);
    EXPECT_EQ(observer.objects, (std::vector<const void*>{runner, runner}));
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"No command to execute", "No command to execute"}));
}

TEST_F(ExecuteWithPrivilegesTest, ExecuteCommandRunsAndWaits) {
    ExecuteWithPrivileges* runner = ExecuteWithPrivileges::getInstance();
    ExitObserver observer;
    TempDir dir;
    EXPECT_TRUE(runner->executeCommand(
        std::string("/bin/sh"),
        std::vector<std::string>{"-c", "id -u > \"$0\"; head -c 2000000 /dev/zero; exit 3",
                                 dir.file("uid")}));
    ASSERT_TRUE(WIFEXITED(runner->waitStatus()));
    EXPECT_EQ(WEXITSTATUS(runner->waitStatus()), 3);
    EXPECT_EQ(ReadTextFile(dir.file("uid")), std::to_string(::geteuid()) + "\n");

    // A command that cannot be started is not waited for.
    EXPECT_FALSE(runner->executeCommand(std::string("/nonexistent/program"), std::nullopt));
    EXPECT_EQ(runner->waitStatus(), -1);
    EXPECT_EQ(observer.objects.size(), 2u);
}

TEST_F(ExecuteWithPrivilegesTest, ArgumentsThatCannotBePassedAreDropped) {
    ExecuteWithPrivileges* runner = ExecuteWithPrivileges::getInstance();
    LogCapture log;
    // /bin/sh without arguments reads its (closed) input and ends with 0.
    EXPECT_TRUE(runner->executeCommand(std::string("/bin/sh"),
                                       std::vector<std::string>{"-c", std::string("exit\0 5", 7)}));
    EXPECT_EQ(WEXITSTATUS(runner->waitStatus()), 0);
    EXPECT_TRUE(log.contains("Unable to convert arguments, using empty argument list"));
}

// Runs in a copy of this program started as "nobody" (see UnprivilegedRunTest below).
TEST_F(ExecuteWithPrivilegesTest, DISABLED_UnprivilegedRaisingFails) {
    if (EnvironmentValue(kModeVariable) != "nobody")
        GTEST_SKIP() << "only in the unprivileged run";
    ASSERT_EQ(::getuid(), 65534u);
    ASSERT_EQ(::geteuid(), 65534u);
    LogCapture log;
    ExecuteWithPrivileges* runner = ExecuteWithPrivileges::getInstance();
    ASSERT_NE(runner, nullptr) << "the runner is made all the same";
    EXPECT_EQ(::getuid(), 65534u);
    EXPECT_EQ(::geteuid(), 65534u);
    EXPECT_EQ(runner->performTask("/usr/bin/id", std::vector<std::string>{"-u"}), "65534\n");
    EXPECT_TRUE(runner->executeCommand(std::string("/bin/sh"),
                                       std::vector<std::string>{"-c", "test $(id -u) = 65534"}));
    EXPECT_EQ(WEXITSTATUS(runner->waitStatus()), 0);
    ExecuteWithPrivileges::releaseInstance();
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"Failed to elevate the privileges", "UID:65534 EUID:65534",
                                        "UID:65534 EUID:65534", "uid:65534 euid:65534"}));

    // A child's identity is applied only by the super-user; here it is ignored.
    ExecUtils::ExecId superUser{11, 0, 0, 0, 0};
    std::vector<char> output;
    bool ioError = false;
    EXPECT_EQ(ExecUtils::RunExecutable({"/usr/bin/id", "-u"}, &superUser, nullptr, 0, &output,
                                       ioError, true),
              0);
    EXPECT_EQ(std::string(output.begin(), output.end()), "65534\n");
}

// Runs in a copy of this program started with the real id of "nobody" and the effective
// id 0, as a set-user-id program is started.
TEST_F(ExecuteWithPrivilegesTest, DISABLED_SavedSuperUserRaisesAndRestores) {
    if (EnvironmentValue(kModeVariable) != "setuid")
        GTEST_SKIP() << "only in the set-user-id run";
    ASSERT_EQ(::getuid(), 65534u);
    ASSERT_EQ(::geteuid(), 0u);
    for (int round = 0; round < 2; ++round) {
        LogCapture log;
        ExecuteWithPrivileges* runner = ExecuteWithPrivileges::getInstance();
        ASSERT_NE(runner, nullptr);
        EXPECT_EQ(::getuid(), 0u);
        EXPECT_EQ(::geteuid(), 0u);
        EXPECT_EQ(runner->performTask("/usr/bin/id", std::vector<std::string>{"-ru"}), "0\n");
        ExecuteWithPrivileges::releaseInstance();
        EXPECT_EQ(::getuid(), 65534u);
        EXPECT_EQ(::geteuid(), 0u);
        EXPECT_EQ(log.lines(),
                  (std::vector<std::string>{"Elevated privileges", "uid:65534 euid:0"}))
            << "round " << round;
    }
}

TEST(UnprivilegedRunTest, RaisingFailsAndIsLogged) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "starting a run as nobody needs the super-user";
    std::string output;
    const int status =
        RunSelfWithPrefix({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"},
                          "ExecuteWithPrivilegesTest.DISABLED_UnprivilegedRaisingFails",
                          {std::string(kModeVariable) + "=nobody"}, output);
    EXPECT_EQ(status, 0) << output;
    EXPECT_NE(output.find("[  PASSED  ] 1 test"), std::string::npos) << output;
}

TEST(UnprivilegedRunTest, SavedSuperUserRaisesAndRestores) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "starting the run needs the super-user";
    std::string output;
    const int status =
        RunSelfWithPrefix({"setpriv", "--ruid=65534"},
                          "ExecuteWithPrivilegesTest.DISABLED_SavedSuperUserRaisesAndRestores",
                          {std::string(kModeVariable) + "=setuid"}, output);
    EXPECT_EQ(status, 0) << output;
    EXPECT_NE(output.find("[  PASSED  ] 1 test"), std::string::npos) << output;
}

// The token file lies in /tmp, where any local user can make names.
TEST_F(ExecuteWithPrivilegesTest, OnlyARegularTokenFileOfRootsCounts) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs the super-user";
    TempDir dir;
    WriteTextFile(dir.file("secret"), "a root-only secret, not a token");
    ASSERT_EQ(::symlink(dir.file("secret").c_str(), dir.file("link").c_str()), 0);
    ASSERT_EQ(::mkfifo(dir.file("fifo").c_str(), 0666), 0);
    WriteTextFile(dir.file("foreign"), std::string(32, 'f'));
    ASSERT_EQ(::chown(dir.file("foreign").c_str(), 65534, 65534), 0);
    for (const char* name : {"link", "fifo", "foreign"}) {
        SCOPED_TRACE(name);
        LogCapture log;
        // A pipe nobody writes to would hang an ordinary open: this one returns at once.
        EXPECT_EQ(ExecuteWithPrivileges::initWithToken(dir.file(name)), nullptr);
        EXPECT_TRUE(log.contains("Error. Execute with privileges cannot be initialized."));
        EXPECT_NE(log.text().find("Ignoring " + dir.file(name) + ": "), std::string::npos)
            << log.text();
    }
    // A huge token file: no more than a token's length is read.
    {
        std::string huge(8 << 20, 'h');
        WriteTextFile(dir.file("huge"), huge);
        const auto runner = ExecuteWithPrivileges::initWithToken(dir.file("huge"));
        ASSERT_NE(runner, nullptr);
        EXPECT_EQ(runner->authorization()->size(), ExecuteWithPrivileges::kTokenLength);
    }
}
