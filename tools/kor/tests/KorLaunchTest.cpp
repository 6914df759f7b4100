// The update manager's contract end to end: kor-launch starts a bundle's program with the
// client path and a results channel; the program reports through the results library.

#include "TestSupport.h"
#include "base/PropertyList.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sys/socket.h>
#include <unistd.h>

namespace {

class KorLaunchTest : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string macos = home.file("Patch.app/Contents/MacOS");
        std::filesystem::create_directories(macos);
        std::filesystem::copy_file(KOR_PROBE, macos + "/PatcherApp");
        // The results library sits in the bundle, where a patcher opens it from.
        const std::string frameworks = home.file("Patch.app/Contents/Frameworks");
        std::filesystem::create_directories(frameworks);
        std::filesystem::copy_file(KOR_RESULTS_LIBRARY, frameworks + "/libKORInstallerResults.so");
    }

    int Launch(std::vector<std::string> args) {
        args.insert(args.begin(), KOR_LAUNCH);
        return RunProgram(args, {"HOME=" + home.path()}, home.file("out"), home.file("err"));
    }
    std::string Out() const { return ReadTextFile(home.file("out")); }

    TempDir home;
};

TEST_F(KorLaunchTest, FailureReachesTheLauncherWithItsMessage) {
    ASSERT_EQ(Launch({"--client", "/opt/Orvel/Suite/Editor.app", "--id", "APP-9",
                      home.file("Patch.app"), "failed", "disk full"}),
              0);
    EXPECT_EQ(Out(), "managed: 1\nclient: /opt/Orvel/Suite/Editor.app\nenv-cleared: 1\n"
                     "code: 4\nmessage: disk full\n");
    auto data = PropertyList::readDictionaryFromFile(
        home.path() + "/.local/share/Orvel/Updater/Install/OrvelUpdaterInstallerData.plist");
    ASSERT_TRUE(data);
    EXPECT_EQ(data->stringForKey("KOR_APP_ID"), "APP-9");
}

TEST_F(KorLaunchTest, SuccessHasNoMessage) {
    ASSERT_EQ(Launch({"--client", "/opt/App.app", home.file("Patch.app"), "uptodate", "x"}), 0);
    EXPECT_NE(Out().find("code: 0\nmessage:\n"), std::string::npos);
}

TEST_F(KorLaunchTest, CancelAndTryAgainSendTwo) {
    ASSERT_EQ(Launch({"--client", "/opt/App.app", home.file("Patch.app"), "cancel"}), 0);
    EXPECT_NE(Out().find("code: 2\nmessage: Update cancelled message\n"), std::string::npos);
    ASSERT_EQ(Launch({"--client", "/opt/App.app", home.file("Patch.app"), "tryagain", "Editor"}),
              0);
    EXPECT_NE(Out().find("code: 2\nmessage: KOR_reportUpdateFailedTryAgain\n"), std::string::npos);
}

TEST_F(KorLaunchTest, NoResultExitsOne) {
    EXPECT_EQ(Launch({"--client", "/opt/App.app", home.file("Patch.app"), "none"}), 1);
    EXPECT_NE(ReadTextFile(home.file("err")).find("no result received"), std::string::npos);
}

TEST_F(KorLaunchTest, BadUsage) {
    EXPECT_EQ(Launch({home.file("Patch.app")}), 2);
    EXPECT_EQ(Launch({"--client", "/x.app"}), 2);
    EXPECT_EQ(Launch({"--client", "/x.app", home.file("NoSuch.app")}), 2);
    EXPECT_EQ(Launch({"--bogus", "--client", "/x.app", home.file("Patch.app")}), 2);
}

TEST_F(KorLaunchTest, AProgramStartedByHandIsNeverManaged) {
    const std::string probe = home.file("Patch.app/Contents/MacOS/PatcherApp");
    // Nothing handed over.
    ASSERT_EQ(RunProgram({probe, "failed", "x"}, {}, home.file("out")), 0);
    EXPECT_EQ(Out().substr(0, 11), "managed: 0\n");
    // The variables alone, pointing at something that is not the manager's socket.
    ASSERT_EQ(RunProgram({probe, "failed", "x"},
                         {"ORVEL_KOR_CLIENT_APP_PATH=/opt/App.app", "ORVEL_KOR_RESULTS_FD=1"},
                         home.file("out")),
              0);
    EXPECT_EQ(Out().substr(0, 11), "managed: 0\n");
    ASSERT_EQ(
        RunProgram({probe},
                   {"ORVEL_KOR_CLIENT_APP_PATH=/opt/App.app", "ORVEL_KOR_RESULTS_FD=not-a-number"},
                   home.file("out")),
        0);
    EXPECT_EQ(Out().substr(0, 11), "managed: 0\n");
    // A socket of the wrong kind.
    int stream[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, stream), 0);
    ASSERT_EQ(RunProgram({probe},
                         {"ORVEL_KOR_CLIENT_APP_PATH=/opt/App.app",
                          "ORVEL_KOR_RESULTS_FD=" + std::to_string(stream[1])},
                         home.file("out")),
              0);
    EXPECT_EQ(Out().substr(0, 11), "managed: 0\n");
    ::close(stream[0]);
    ::close(stream[1]);
    // A channel without a client path.
    int packets[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, packets), 0);
    ASSERT_EQ(RunProgram({probe}, {"ORVEL_KOR_RESULTS_FD=" + std::to_string(packets[1])},
                         home.file("out")),
              0);
    EXPECT_EQ(Out().substr(0, 11), "managed: 0\n");
    ::close(packets[0]);
    ::close(packets[1]);
}

} // namespace
