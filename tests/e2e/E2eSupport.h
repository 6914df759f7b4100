#pragma once

#include "ManifestText.h"
#include "base/Md5.h"

// The end-to-end tests' world: a private copy of the machine's system folders, an installed
// application of the product family registered in the real installation database, patcher
// bundles made by mkpatcher, and the real PatcherApp started in them.

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

// True in a copy of this test program that runs the current test alone inside private
// mount and network namespaces, with tmpfs over /opt, /usr/local/share, /var/opt, /tmp,
// /run, /etc/init.d, /etc/orvel and /home; nothing done there reaches the machine's own
// folders. In the
// test program itself it starts that copy, checks that its test passed, and returns false.
bool InPrivateSystem();

// The first statement of every end-to-end test: the test body runs only in the private copy.
#define ORVEL_E2E_IN_PRIVATE_SYSTEM()                                                              \
    do {                                                                                           \
        if (::geteuid() != 0)                                                                      \
            GTEST_SKIP() << "private mount namespaces need the super-user";                        \
        if (!InPrivateSystem())                                                                    \
            return;                                                                                \
    } while (0)

// A child process started with exactly the given environment.
class ChildProcess {
public:
    ChildProcess() = default;
    ChildProcess(const std::vector<std::string>& argv, const std::vector<std::string>& environment,
                 const std::string& outputPath = {});
    ~ChildProcess();
    ChildProcess(ChildProcess&& other) noexcept;
    ChildProcess& operator=(ChildProcess&& other) noexcept;
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return _pid; }
    bool running();
    // The exit status (128+N for signal N), or nothing when it is still running at the end
    // of the wait.
    std::optional<int> wait(std::chrono::milliseconds timeout);
    // Ends the process (SIGKILL) and reaps it.
    void kill();

private:
    pid_t _pid = -1;
    std::optional<int> _status;
};

// The environment of this process without the variables that choose the patcher's mode,
// display, language and installation database, plus the given assignments.
std::vector<std::string> CleanEnvironment(const std::vector<std::string>& assignments);

// Runs a program to its end with a clean environment; its standard output and error go to
// output. Fails the test when it does not end within the time-out.
int RunTool(const std::vector<std::string>& argv, std::string* output = nullptr,
            const std::vector<std::string>& assignments = {}, int timeoutSeconds = 60);

// Calls the predicate every 50 ms until it holds or the time-out has passed.
bool WaitUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout);

// Every entry below the root: relative path -> "file:<md5>:<mode>", "link:<target>" or
// "dir:<mode>".
std::map<std::string, std::string> Snapshot(const std::string& root);

// The product family's editor installed at /opt/Orvel/Suite/Editor.app, its update from 1.0
// to 2.0, and everything needed to build the patcher for it and run it.
class Scenario {
public:
    Scenario();
    ~Scenario();
    Scenario(const Scenario&) = delete;
    Scenario& operator=(const Scenario&) = delete;

    const std::string installDir = "/opt/Orvel/Suite";
    const std::string app = "/opt/Orvel/Suite/Editor.app";
    const std::string code = "{0E2E-ED17-0001}";
    const std::string home = "/home/tester";
    const std::string work = "/tmp/e2e";
    const std::string payload = "/tmp/e2e/payload";
    const std::string bundle = "/tmp/e2e/Editor Update.app";
    const std::string returnCodeFile = "/tmp/OrvelQX3/retVal";
    const std::string historyFile = "/var/opt/Orvel/Installers/{0E2E-ED17-0001}.patch";
    const std::string logFile =
        "/home/tester/.local/state/Orvel/SoftwareUpdates/OrvelSoftwareUpdate.log";
    // The editor's display name, unique to this test program so that no other process of
    // the machine is taken for it.
    std::string appDisplayName;

    // What the configuration says beyond the product's identity.
    struct Config {
        std::vector<std::string> appRunning;
        std::string systemKB = "1024";
        std::string targetKB = "1024";
    };
    Config config;

    // The installed editor at the given bundle version (its executable is a copy of sleep,
    // so that it can run as the editor).
    void installApplication(const std::string& bundleVersion = "1.0");
    // Registers the installation in the installation database with zothctl.
    void registerInstallation(const std::string& version = "1.0");

    // The update's entries: every kind of file operation, a bundle checked by version and
    // a directory set; the new files are put into the payload folder.
    std::vector<FileEntry> updateEntries();
    // The manifest of the entries, with the bundle and directory sets of the update, extra
    // XML (a ServiceSet) before the end.
    std::string manifest(const std::vector<FileEntry>& files, bool withBundleSet = true,
                         bool withDirectorySet = true, const std::string& extra = {}) const;
    std::string configXml() const;
    // Writes the configuration and the manifest and assembles the patcher bundle, signed
    // with the vendor's key, which the machine trusts (both made at the first call).
    void assemble(const std::string& manifestXml);
    // Signs a bundle (again) with the vendor's key, after a test changed it on purpose.
    void sign(const std::string& bundlePath) const;
    // Takes the signature off the bundle and lets this machine run unsigned patchers, as a
    // developer's machine does, for a test of what a signature would have kept out.
    void unsign() const;
    const std::string signingKey = "/tmp/e2e/vendor-key.pem";
    const std::string policyFile = "/etc/orvel/patcher.conf";
    const std::string trustedKey = "/etc/orvel/trusted-keys.d/vendor.pem";

    // The patcher of the bundle, started as a user or an administrator would, with the
    // extra arguments and environment assignments.
    ChildProcess startPatcher(const std::vector<std::string>& args,
                              const std::vector<std::string>& assignments = {}) const;
    // Runs the patcher to its end; its exit status.
    int runPatcher(const std::vector<std::string>& args,
                   const std::vector<std::string>& assignments = {}) const;
    // kor-launch for the editor and the bundle; its standard output.
    std::string runUnderUpdateManager(const std::vector<std::string>& args, int* status) const;

    // Starts the installed editor as a user would.
    ChildProcess startEditor() const;

    std::optional<std::string> returnCode() const;
    // The log's messages without their prefix.
    std::vector<std::string> logLines() const;
    bool logContains(const std::string& message) const;
    // Position of the first line equal to the message (or containing it, for contains),
    // -1 when there is none.
    long logIndex(const std::string& message, bool contains = false) const;
    // Standard output and error of the last patcher run.
    std::string patcherOutput() const;

    std::map<std::string, std::string> md5;

private:
    void writePayloadFile(const std::string& name, const std::string& content);
};

std::string HeadingLine(const std::string& text);

// The process number in "/var/run/<service>.pid", 0 when there is none.
pid_t ServicePid(const std::string& service);
// True while the process runs (not ended, not a zombie).
bool ProcessAlive(pid_t pid);
// A SysV service whose daemon is "sleep", installed and started; true once it runs.
bool StartSleeperService(const std::string& service);
// A manifest's ServiceSet naming that service, to be started again after the update.
std::string ServiceSetXml(const std::string& service);
