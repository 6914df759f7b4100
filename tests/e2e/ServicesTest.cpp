// A real SysV service named by the manifest: the patcher stops it before its first file
// operation and starts it again after its last one.

#include "E2eSupport.h"
#include "TestSupport.h"

#include <sys/stat.h>

namespace {

const std::string kService = "orvel-e2e-indexer";
TEST(ServiceSet, ServiceIsStoppedBeforeTheFirstFileAndRestartedAfterTheLast) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    ASSERT_TRUE(StartSleeperService(kService));
    const pid_t before = ServicePid(kService);

    // The launching party hands over its authorization, without which the patcher reads no
    // job list and controls no service.
    WriteTextFile("/tmp/authTokenData", std::string(32, 'a'));
    s.installApplication();
    s.registerInstallation();
    const auto entries = s.updateEntries();
    s.assemble(s.manifest(entries, true, true, ServiceSetXml(kService)));
    ASSERT_EQ(s.runPatcher({"-Silent"}), 0) << s.patcherOutput();
    EXPECT_EQ(s.returnCode(), "0");
    EXPECT_EQ(ReadTextFile(s.app + "/Contents/Resources/keep.txt"), "version two\n");

    // The old daemon was stopped; a new one runs.
    EXPECT_FALSE(ProcessAlive(before));
    EXPECT_TRUE(ProcessAlive(ServicePid(kService)));
    EXPECT_NE(ServicePid(kService), before);

    const long stopping = s.logIndex(HeadingLine("STOPPING THE REQUIRED SERVICES"), true);
    const long stopped = s.logIndex("Successfully stopped.");
    const long firstFile = s.logIndex(HeadingLine("PERFORMING FILE SET OPERATION"), true);
    const long firstChange = s.logIndex("Successfully performed \"ADD\" file Operation");
    const long lastChange = s.logIndex("Successfully performed \"REMOVE\" directory Operation");
    const long restarting = s.logIndex(HeadingLine("RESTARTING THE REQUIRED SERVICES"), true);
    const long restarted = s.logIndex("Successfully restarted.");
    EXPECT_TRUE(s.logContains("Elevated privileges"));
    EXPECT_TRUE(s.logContains("Service Name : " + kService));
    EXPECT_TRUE(s.logContains("Service File Path : /etc/init.d/" + kService));
    EXPECT_TRUE(s.logContains("State: Service is running"));
    EXPECT_TRUE(s.logContains("Operation : start"));
    ASSERT_GE(stopping, 0);
    EXPECT_LT(stopping, stopped);
    EXPECT_LT(stopped, firstFile);
    EXPECT_LT(firstFile, firstChange);
    EXPECT_LT(firstChange, lastChange);
    EXPECT_LT(lastChange, s.logIndex("Restarting the services..."));
    EXPECT_LT(s.logIndex("Restarting the services..."), restarting);
    EXPECT_LT(restarting, restarted);
    EXPECT_LT(restarted, s.logIndex("Exit code: 0"));
}

} // namespace
