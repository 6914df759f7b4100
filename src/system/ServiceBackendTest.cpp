#include "system/ServiceBackend.h"

#include "system/ExecuteWithPrivileges.h"
#include "system/SysVServiceBackend.h"
#include "system/SystemdServiceBackend.h"

#include "TestSupport.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

TEST(ServiceBackendTest, LabelsAreAcceptedOrRefused) {
    for (const char* good :
         {"cron", "orvel-agent", "ssh.service", "getty@tty1", "a_b", "x:y", "gpm+1", "A1"})
        EXPECT_TRUE(IsValidServiceLabel(good)) << good;
    for (const char* bad : {"",        "/etc/init.d/cron",
                            "a/b",     "..",
                            "a..b",    "../x",
                            ".hidden", "-x",
                            "--all",   "a b",
                            "a\tb",    "a\nb",
                            "a;b",     "a|b",
                            "a&b",     "$(x)",
                            "`x`",     "a'b",
                            "a\"b",    "a>b",
                            "a<b",     "a*",
                            "a?",      "[a]",
                            "{a}",     "a!",
                            "~a",      "a\\b",
                            "a#b",     "a=b",
                            "a%b",     "caf\xC3\xA9"})
        EXPECT_FALSE(IsValidServiceLabel(bad)) << bad;
    EXPECT_TRUE(IsValidServiceLabel(std::string(255, 'a')));
    EXPECT_FALSE(IsValidServiceLabel(std::string(256, 'a')));
}

TEST(ServiceBackendTest, SystemdUnitListBecomesLabels) {
    const std::string output =
        "cron.service                 loaded active running Regular background program\n"
        "  dbus.service loaded active running D-Bus System Message Bus\n"
        "\xE2\x97\x8F failed-thing.service loaded failed failed Something failed\n"
        "getty@tty1.service loaded active running Getty on tty1\n"
        "systemd-journald.socket loaded active running Journal Socket\n"
        ".service loaded active running nameless\n"
        "\n";
    EXPECT_EQ(SystemdServiceBackend::labelsFromUnitList(output),
              "cron\ndbus\nfailed-thing\ngetty@tty1\n");
    EXPECT_EQ(SystemdServiceBackend::labelsFromUnitList(""), "");
}

TEST(ServiceBackendTest, SystemdCommands) {
    SystemdServiceBackend backend("/usr/bin/systemctl");
    EXPECT_EQ(backend.backendName(), "systemd");
    EXPECT_EQ(backend.controlCommand("stop", "cron"),
              (std::vector<std::string>{"/usr/bin/systemctl", "stop", "cron"}));
    EXPECT_EQ(backend.controlCommand("start", "cron"),
              (std::vector<std::string>{"/usr/bin/systemctl", "start", "cron"}));
    const std::string resolved = SystemdServiceBackend::resolveProgram("sh");
    EXPECT_TRUE(resolved == "/usr/bin/sh" || resolved == "/bin/sh") << resolved;
    EXPECT_EQ(SystemdServiceBackend::resolveProgram("/opt/x/systemctl"), "/opt/x/systemctl");
    EXPECT_EQ(SystemdServiceBackend::resolveProgram("no-such-program-here"),
              "/usr/bin/no-such-program-here");
}

TEST(ServiceBackendTest, SystemdJobListRunsListUnitsThroughTheRunner) {
    // A stand-in systemctl that answers only the exact list-units call.
    TempDir dir;
    WriteTextFile(dir.file("systemctl"),
                  "#!/bin/sh\n"
                  "[ \"$*\" = \"list-units --type=service --all --plain --no-legend\" ] || exit 2\n"
                  "echo 'alpha.service loaded active running Alpha'\n"
                  "echo 'beta.service loaded inactive dead Beta'\n"
                  "echo 'gamma.timer loaded active waiting Gamma'\n");
    ASSERT_EQ(::chmod(dir.file("systemctl").c_str(), 0755), 0);
    ExecuteWithPrivileges runner;
    SystemdServiceBackend backend(dir.file("systemctl"));
    EXPECT_EQ(backend.jobList(runner), "alpha\nbeta\n");
    SystemdServiceBackend missing(dir.file("missing"));
    EXPECT_EQ(missing.jobList(runner), "");
}

TEST(ServiceBackendTest, SysVJobListIsTheExecutableScripts) {
    TempDir dir;
    for (const char* name : {"zeta", "alpha", "README", ".hidden", "skeleton"})
        WriteTextFile(dir.file(name), "#!/bin/sh\n");
    for (const char* name : {"zeta", "alpha", ".hidden"})
        ASSERT_EQ(::chmod(dir.file(name).c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(dir.file("folder").c_str(), 0755), 0);
    ASSERT_EQ(::symlink("alpha", dir.file("linked").c_str()), 0);
    ExecuteWithPrivileges runner;
    SysVServiceBackend backend(dir.path(), "/usr/sbin/service");
    EXPECT_EQ(backend.backendName(), "SysV");
    EXPECT_EQ(backend.jobList(runner), "alpha\nlinked\nzeta\n");
    EXPECT_EQ(backend.controlCommand("start", "alpha"),
              (std::vector<std::string>{"/usr/sbin/service", "alpha", "start"}));
    SysVServiceBackend missing(dir.file("missing"), "/usr/sbin/service");
    EXPECT_EQ(missing.jobList(runner), "");
}

TEST(ServiceBackendTest, TheMachinesBackendFollowsTheSystemdFolder) {
    TempDir dir;
    PlatformPaths paths;
    paths.systemdRunFolder = dir.path();
    EXPECT_EQ(ServiceBackend::forMachine(paths)->backendName(), "systemd");
    paths.systemdRunFolder = dir.file("missing");
    EXPECT_EQ(ServiceBackend::forMachine(paths)->backendName(), "SysV");
    WriteTextFile(dir.file("file"), "");
    paths.systemdRunFolder = dir.file("file");
    EXPECT_EQ(ServiceBackend::forMachine(paths)->backendName(), "SysV");
}
