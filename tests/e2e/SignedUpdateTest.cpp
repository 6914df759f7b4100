// Signed bundles as the real PatcherApp meets them: every way a signature can fail (a changed,
// added or removed file, another key, a cut signature, another product, a downgrade, no
// trusted key, none at all) ends the run before any change with code 11; the good bundle,
// and the unsigned one on a developer's machine, apply.

#include "E2eSupport.h"
#include "TestSupport.h"
#include "base/BundleSignature.h"

#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

// The installed editor at version, registered, and its signed update from 1.0 to 2.0.
void Prepare(Scenario& s, const std::string& version = "1.0") {
    s.installApplication(version);
    s.registerInstallation(version);
    s.assemble(s.manifest(s.updateEntries()));
}

// The bundle's regular files below it, the signature aside.
std::vector<std::string> SignedFiles(const Scenario& s) {
    std::vector<std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(s.bundle)) {
        const std::string path = fs::relative(entry.path(), s.bundle).string();
        if (entry.is_regular_file() && !entry.is_symlink() && path != "Contents/Signature")
            files.push_back(path);
    }
    std::sort(files.begin(), files.end());
    return files;
}

// A silent run that must end before any change: code 11, the reason logged, the
// application as it was, nothing unpacked and no patch recorded.
void ExpectRefused(const Scenario& s, const std::string& reason) {
    const auto before = Snapshot(s.app);
    ::unlink(s.logFile.c_str());
    EXPECT_EQ(s.runPatcher({"-Silent"}), 11);
    EXPECT_EQ(s.returnCode(), "11") << ReadTextFile(s.logFile);
    EXPECT_GE(s.logIndex(reason, true), 0) << reason << "\n" << ReadTextFile(s.logFile);
    EXPECT_GE(s.logIndex("; nothing was changed", true), 0);
    EXPECT_GE(s.logIndex("The update is not signed by a trusted key; nothing was changed."), 0);
    EXPECT_EQ(Snapshot(s.app), before);
    EXPECT_FALSE(FileExists(s.historyFile));
    EXPECT_LT(s.logIndex("SETUP for Update", true), 0) << "the payload was unpacked";
    EXPECT_LT(s.logIndex("Proceed for update ..."), 0);
}

void ExpectApplied(const Scenario& s) {
    EXPECT_EQ(s.runPatcher({"-Silent"}), 0);
    EXPECT_EQ(s.returnCode(), "0") << ReadTextFile(s.logFile);
    EXPECT_EQ(Md5OfFile(s.app + "/Contents/MacOS/Editor").value_or(""), s.md5.at("editor2"));
    EXPECT_TRUE(FileExists(s.historyFile));
}

TEST(SignedUpdate, AGoodSignatureByATrustedKeyApplies) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    Prepare(s);
    ExpectApplied(s);
    EXPECT_GE(s.logIndex("The update is signed by key ", true), 0);
    EXPECT_LT(s.logIndex("Unsigned patchers are allowed", true), 0);
    // Checked before the configuration is read and before anything is located.
    EXPECT_LT(s.logIndex("The update is signed by key ", true),
              s.logIndex("Mode of Execution: SILENT MODE"));
}

TEST(SignedUpdate, AByteChangedInAnySignedFileIsRefused) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    Prepare(s);
    const auto files = SignedFiles(s);
    ASSERT_GE(files.size(), 9u);
    for (const std::string& file : files) {
        SCOPED_TRACE(file);
        const std::string path = s.bundle + "/" + file;
        const std::string original = ReadTextFile(path);
        struct stat info {};
        ASSERT_EQ(::stat(path.c_str(), &info), 0);
        // The last byte: for the program and its libraries that is in a table the loader
        // never reads, so what refuses the run is the signature, not a broken program.
        std::string changed = original;
        changed.back() = static_cast<char>(changed.back() ^ 0x20);
        WriteTextFile(path, changed);
        ::chmod(path.c_str(), info.st_mode & 07777);
        ExpectRefused(s, "The update's signature does not hold: " + file + " is not as signed");
        WriteTextFile(path, original);
        ::chmod(path.c_str(), info.st_mode & 07777);
    }
    ExpectApplied(s);
}

TEST(SignedUpdate, AFileAddedOrRemovedIsRefused) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    Prepare(s);
    const std::string added = s.bundle + "/Contents/Resources/postinstall.sh";
    WriteTextFile(added, "#!/bin/sh\n");
    ExpectRefused(s, "Contents/Resources/postinstall.sh is not signed");
    ::unlink(added.c_str());

    const std::string removed =
        s.bundle + "/Contents/Resources/locale/de/LC_MESSAGES/PatcherApp.mo";
    const std::string text = ReadTextFile(removed);
    ASSERT_EQ(::unlink(removed.c_str()), 0);
    ExpectRefused(s,
                  "Contents/Resources/locale/de/LC_MESSAGES/PatcherApp.mo is signed but missing");
    WriteTextFile(removed, text);
    ExpectApplied(s);
}

TEST(SignedUpdate, ASignatureByAnotherKeyIsRefused) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    Prepare(s);
    std::string output;
    ASSERT_EQ(RunTool({ORVEL_MKPATCHER, "keygen", "--private", s.work + "/other.pem", "--public",
                       s.work + "/other.pub"},
                      &output),
              0);
    ASSERT_EQ(RunTool({ORVEL_MKPATCHER, "sign", s.bundle, "--key", s.work + "/other.pem"}), 0);
    ExpectRefused(s, "which is not trusted on this machine");
}

TEST(SignedUpdate, ACutSignatureIsRefused) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    Prepare(s);
    const std::string signature = s.bundle + "/Contents/Signature";
    const std::string text = ReadTextFile(signature);
    for (const size_t length : {size_t{0}, text.size() / 2, text.size() - 1}) {
        SCOPED_TRACE(length);
        WriteTextFile(signature, text.substr(0, length));
        ExpectRefused(s, "The update's signature does not hold: ");
    }
}

TEST(SignedUpdate, ABundleSignedForAnotherInstallationIsRefused) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    Prepare(s);
    // The vendor's key, the right files, but a statement for another product's code.
    std::string problem;
    const auto key = Ed25519Key::readPemFile(s.signingKey, &problem);
    ASSERT_TRUE(key) << problem;
    SignedStatement identity;
    identity.installationCodes = {"{0E2E-0THE-R000}"};
    identity.fromVersions = {"1.0"};
    identity.toVersion = "2.0";
    ASSERT_TRUE(BundleSignature::sign(s.bundle, identity, *key, &problem)) << problem;
    ExpectRefused(s, "The update's configuration is not what was signed: signed for "
                     "installation code {0E2E-0THE-R000}, not " +
                         s.code);
}

TEST(SignedUpdate, AnOlderVersionSignedByTheRightKeyIsRefused) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    // 3.0 is installed; the signed update brings 2.0.
    Prepare(s, "3.0");
    ExpectRefused(s, "The update would take the installed version 3.0 back to the older "
                     "version 2.0; a downgrade is refused");
}

TEST(SignedUpdate, WithoutATrustedKeyNothingIsApplied) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    Prepare(s);
    ASSERT_EQ(::unlink(s.trustedKey.c_str()), 0);
    ExpectRefused(s, "No key is trusted to sign updates");
    // A key file that another user could have written is no trust either.
    ASSERT_EQ(RunTool({"openssl", "pkey", "-in", s.signingKey, "-pubout", "-out", s.trustedKey}),
              0);
    ::chmod(s.trustedKey.c_str(), 0666);
    ExpectRefused(s, "The key " + s.trustedKey + " is not trusted");
    ::chmod(s.trustedKey.c_str(), 0644);
    ExpectApplied(s);
}

TEST(SignedUpdate, AKeyShippedWithTheInstalledApplicationPinsItsUpdates) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    Prepare(s);
    const std::string pinned = s.app + "/Contents/Resources/trusted-keys.d/vendor.pem";
    fs::create_directories(fs::path(pinned).parent_path());
    fs::copy_file(s.trustedKey, pinned);
    ASSERT_EQ(::unlink(s.trustedKey.c_str()), 0);
    // The installed tree changed: the update's entries check only their own files.
    ExpectApplied(s);
}

TEST(SignedUpdate, AnUnsignedBundleRunsOnlyOnADevelopersMachine) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    Prepare(s);
    ASSERT_EQ(::unlink((s.bundle + "/Contents/Signature").c_str()), 0);
    ExpectRefused(s, "The update is not signed");

    // Not an environment variable, not an option.
    const auto before = Snapshot(s.app);
    (void)s.runPatcher({"-Silent", "--allow-unsigned"}, {"ORVEL_ALLOW_UNSIGNED=1"});
    EXPECT_EQ(s.returnCode(), "11");
    EXPECT_EQ(Snapshot(s.app), before);

    // A policy file that others may write is no policy.
    WriteTextFile(s.policyFile, "allow-unsigned-patchers = yes\n");
    ::chmod(s.policyFile.c_str(), 0666);
    ExpectRefused(s, "The patcher's policy /etc/orvel/patcher.conf is not used");

    ::chmod(s.policyFile.c_str(), 0644);
    ::unlink(s.logFile.c_str());
    ExpectApplied(s);
    EXPECT_GE(s.logIndex("Unsigned patchers are allowed on this machine: /etc/orvel/patcher.conf "
                         "says allow-unsigned-patchers = yes"),
              0);
    EXPECT_GE(s.logIndex("This patcher is not signed; it runs only because "
                         "/etc/orvel/patcher.conf allows unsigned patchers"),
              0);
}

// A bundle whose resources another user owns (the libraries it loads must be root's in
// any case): what was checked is what is applied, from private copies, which go at the end.
TEST(SignedUpdate, ABundleOthersCanChangeIsAppliedFromCopiesOfWhatWasChecked) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    Prepare(s);
    ASSERT_EQ(RunTool({"chown", "-R", "65534:65534", s.bundle + "/Contents/Resources"}), 0);
    ExpectApplied(s);
    EXPECT_GE(s.logIndex("Others can change the bundle, so its configuration, manifest and "
                         "payload are read from the copies checked in /tmp/orvel-checked-",
                         true),
              0);
    for (const auto& entry : fs::directory_iterator("/tmp"))
        EXPECT_NE(entry.path().filename().string().rfind("orvel-checked-", 0), 0u) << entry.path();
}

TEST(SignedUpdate, TheUpdateManagerHearsOfARefusal) {
    ORVEL_E2E_IN_PRIVATE_SYSTEM();
    Scenario s;
    Prepare(s);
    ASSERT_EQ(::unlink(s.trustedKey.c_str()), 0);
    const auto before = Snapshot(s.app);
    int status = -1;
    const std::string output = s.runUnderUpdateManager({}, &status);
    EXPECT_EQ(status, 0) << output;
    EXPECT_NE(output.find("code: 4"), std::string::npos) << output;
    EXPECT_NE(output.find("The update is not signed by a trusted key; nothing was changed."),
              std::string::npos)
        << output;
    EXPECT_EQ(Snapshot(s.app), before);
}

} // namespace
