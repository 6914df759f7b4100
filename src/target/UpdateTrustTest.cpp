#include "target/UpdateTrust.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

Ed25519Key NewKey() {
    std::string problem;
    auto key = Ed25519Key::generate(&problem);
    EXPECT_TRUE(key) << problem;
    return std::move(*key);
}

SignedStatement Identity(const std::string& to = "2.0") {
    SignedStatement identity;
    identity.installationCodes = {"{CODE-1}"};
    identity.fromVersions = {"1.0"};
    identity.toVersion = to;
    return identity;
}

bool Contains(const std::vector<std::string>& lines, const std::string& part) {
    for (const auto& line : lines) {
        if (line.find(part) != std::string::npos)
            return true;
    }
    return false;
}

// Checks of root's files need the super-user's own files to check.
#define NEEDS_ROOT()                                                                               \
    do {                                                                                           \
        if (::geteuid() != 0)                                                                      \
            GTEST_SKIP() << "only root's files are trusted";                                       \
    } while (0)

class UpdateTrustTest : public ::testing::Test {
protected:
    void SetUp() override {
        NEEDS_ROOT();
        paths.trustedKeysFolder = dir.file("trusted-keys.d");
        paths.patcherPolicyFile = dir.file("patcher.conf");
        fs::create_directories(paths.trustedKeysFolder);
        fs::create_directories(bundle + "/Contents/Resources");
        WriteTextFile(bundle + "/Contents/Resources/config.xml", "<PatcherConfig/>");
        WriteTextFile(bundle + "/Contents/Info.plist", "<plist/>");
    }
    void Sign(const Ed25519Key& key, const SignedStatement& identity = Identity()) {
        std::string problem;
        ASSERT_TRUE(BundleSignature::sign(bundle, identity, key, &problem)) << problem;
    }
    void Trust(const Ed25519Key& key, const std::string& name = "vendor.pem") {
        WriteTextFile(paths.trustedKeysFolder + "/" + name, key.publicPem());
    }

    TempDir dir;
    PlatformPaths paths;
    const std::string bundle = dir.file("Update.app");
    const std::string installed = dir.file("Editor.app");
};

TEST_F(UpdateTrustTest, AGoodSignatureByATrustedKeyForTheLocatedInstallationIsAccepted) {
    const Ed25519Key key = NewKey();
    Sign(key);
    Trust(key);
    UpdateTrust trust(paths);
    ASSERT_TRUE(trust.checkBundle(bundle)) << trust.problem();
    EXPECT_TRUE(Contains(trust.takeNotes(), "The update is signed by key " + key.fingerprint()));
    EXPECT_TRUE(trust.checkTarget(Identity(), "{CODE-1}", installed, "1.0")) << trust.problem();
    // A repair: the installed version is the one the update brings.
    EXPECT_TRUE(trust.checkTarget(Identity(), "{CODE-1}", installed, "2.0")) << trust.problem();
}

TEST_F(UpdateTrustTest, UnsignedBundlesRunOnlyWhereThePolicyAllowsThem) {
    UpdateTrust refused(paths);
    EXPECT_FALSE(refused.checkBundle(bundle));
    EXPECT_NE(refused.problem().find("The update is not signed"), std::string::npos);

    WriteTextFile(paths.patcherPolicyFile,
                  "# developers' machine\nallow-unsigned-patchers = yes\ncolour = blue\n");
    UpdateTrust allowed(paths);
    ASSERT_TRUE(allowed.checkBundle(bundle)) << allowed.problem();
    const auto notes = allowed.takeNotes();
    EXPECT_TRUE(Contains(notes, "Unsigned patchers are allowed on this machine"));
    EXPECT_TRUE(Contains(notes, "This patcher is not signed; it runs only because"));
    EXPECT_TRUE(Contains(notes, "line 3 is not understood and is ignored: colour = blue"));
    // Held to its configuration: no downgrade either.
    EXPECT_TRUE(allowed.checkTarget(Identity(), "{CODE-1}", installed, "1.0"));
    EXPECT_FALSE(allowed.checkTarget(Identity("0.9"), "{CODE-1}", installed, "1.0"));

    // A policy file that another user may change is no policy.
    ::chmod(paths.patcherPolicyFile.c_str(), 0666);
    UpdateTrust writable(paths);
    EXPECT_FALSE(writable.checkBundle(bundle));
    EXPECT_TRUE(Contains(writable.takeNotes(),
                         "The patcher's policy " + paths.patcherPolicyFile + " is not used"));
    ::chmod(paths.patcherPolicyFile.c_str(), 0644);
    ASSERT_EQ(::chown(paths.patcherPolicyFile.c_str(), 65534, 65534), 0);
    EXPECT_FALSE(UpdateTrust(paths).checkBundle(bundle));

    WriteTextFile(dir.file("other.conf"), "allow-unsigned-patchers = no\n");
    paths.patcherPolicyFile = dir.file("other.conf");
    EXPECT_FALSE(UpdateTrust(paths).checkBundle(bundle));
}

TEST_F(UpdateTrustTest, APolicyDoesNotLetABadSignatureThrough) {
    WriteTextFile(paths.patcherPolicyFile, "allow-unsigned-patchers = yes\n");
    Sign(NewKey());
    WriteTextFile(bundle + "/Contents/Resources/config.xml", "<PatcherConfig></PatcherConfig>");
    UpdateTrust trust(paths);
    EXPECT_FALSE(trust.checkBundle(bundle));
    EXPECT_EQ(trust.problem(), "The update's signature does not hold: "
                               "Contents/Resources/config.xml is not as signed");
}

TEST_F(UpdateTrustTest, TheSignerMustBeTrustedByTheMachineOrTheInstalledApplication) {
    const Ed25519Key key = NewKey();
    Sign(key);
    {
        UpdateTrust trust(paths);
        ASSERT_TRUE(trust.checkBundle(bundle));
        EXPECT_FALSE(trust.checkTarget(Identity(), "{CODE-1}", installed, "1.0"));
        EXPECT_NE(trust.problem().find("No key is trusted to sign updates"), std::string::npos);
    }
    Trust(NewKey(), "another.pem");
    {
        UpdateTrust trust(paths);
        ASSERT_TRUE(trust.checkBundle(bundle));
        EXPECT_FALSE(trust.checkTarget(Identity(), "{CODE-1}", installed, "1.0"));
        EXPECT_EQ(trust.problem(), "The update is signed by key " + key.fingerprint() +
                                       ", which is not trusted on this machine");
    }
    // The key the installed application ships pins what may update it.
    const std::string pinned = installed + "/" + UpdateTrust::kApplicationKeysFolder;
    fs::create_directories(pinned);
    WriteTextFile(pinned + "/vendor.pem", key.publicPem());
    {
        UpdateTrust trust(paths);
        ASSERT_TRUE(trust.checkBundle(bundle));
        EXPECT_TRUE(trust.checkTarget(Identity(), "{CODE-1}", installed, "1.0")) << trust.problem();
        // Not when nothing was located.
        EXPECT_FALSE(trust.checkTarget(Identity(), std::nullopt, std::nullopt, std::nullopt));
    }
    // A key file that someone else could have written is not trusted.
    ::chmod((pinned + "/vendor.pem").c_str(), 0664);
    {
        UpdateTrust trust(paths);
        ASSERT_TRUE(trust.checkBundle(bundle));
        EXPECT_FALSE(trust.checkTarget(Identity(), "{CODE-1}", installed, "1.0"));
        EXPECT_TRUE(
            Contains(trust.takeNotes(), "The key " + pinned + "/vendor.pem is not trusted"));
    }
}

TEST_F(UpdateTrustTest, KeysThatAreNotEd25519PublicKeysAreLeftOut) {
    const Ed25519Key key = NewKey();
    WriteTextFile(paths.trustedKeysFolder + "/private.pem", key.privatePem());
    WriteTextFile(paths.trustedKeysFolder + "/garbage.pem", "not a key");
    WriteTextFile(paths.trustedKeysFolder + "/ignored.txt", key.publicPem());
    Trust(NewKey(), "good.pem");
    std::vector<std::string> notes;
    EXPECT_EQ(TrustedKeysIn(paths.trustedKeysFolder, &notes).size(), 1u);
    EXPECT_TRUE(Contains(notes, "private.pem is not trusted: it holds a private key"));
    EXPECT_TRUE(Contains(notes, "garbage.pem is not trusted"));
    EXPECT_EQ(notes.size(), 2u);
}

TEST_F(UpdateTrustTest, WhatOthersCanChangeIsReadFromCopiesMadeWhileChecking) {
    const Ed25519Key key = NewKey();
    const std::string resources = bundle + "/Contents/Resources";
    WriteTextFile(resources + "/manifest.xml", "<Manifest/>");
    WriteTextFile(resources + "/Payload.cpio.gz", RandomText(300000, 7));
    Sign(key);
    Trust(key);
    {
        // Only root can change the bundle: it is read where it is.
        UpdateTrust trust(paths);
        ASSERT_TRUE(trust.checkBundle(bundle)) << trust.problem();
        EXPECT_EQ(trust.resourcesFolder(), resources);
    }
    std::string copies;
    {
        // Another user owns the payload: the three files are read from private copies.
        ASSERT_EQ(::chown((resources + "/Payload.cpio.gz").c_str(), 65534, 65534), 0);
        paths.tmpVolume = dir.file("tmp");
        fs::create_directories(paths.tmpVolume);
        UpdateTrust trust(paths);
        ASSERT_TRUE(trust.checkBundle(bundle)) << trust.problem();
        copies = trust.resourcesFolder();
        EXPECT_EQ(copies.rfind(paths.tmpVolume + "/orvel-checked-", 0), 0u) << copies;
        EXPECT_TRUE(Contains(trust.takeNotes(), "read from the copies checked in " + copies));
        struct stat info {};
        ASSERT_EQ(::stat(copies.c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 07777, 0700u);
        EXPECT_EQ(info.st_uid, 0u);
        for (const char* name : {"config.xml", "manifest.xml", "Payload.cpio.gz"})
            EXPECT_EQ(ReadTextFile(copies + "/" + name), ReadTextFile(resources + "/" + name));
        // A change after the check does not reach the copies.
        const std::string checked = ReadTextFile(copies + "/manifest.xml");
        WriteTextFile(resources + "/manifest.xml", "<Manifest><FileSet/></Manifest>");
        EXPECT_EQ(ReadTextFile(copies + "/manifest.xml"), checked);
    }
    EXPECT_FALSE(fs::exists(copies)) << "the copies go with the check";

    // A bad bundle leaves no copies behind either.
    {
        UpdateTrust trust(paths);
        EXPECT_FALSE(trust.checkBundle(bundle));
        EXPECT_TRUE(trust.resourcesFolder().empty());
    }
    EXPECT_TRUE(fs::is_empty(paths.tmpVolume));
}

TEST_F(UpdateTrustTest, TheSignedTargetMustBeTheLocatedInstallationAndNoDowngrade) {
    const Ed25519Key key = NewKey();
    Sign(key);
    Trust(key);
    UpdateTrust trust(paths);
    ASSERT_TRUE(trust.checkBundle(bundle));

    EXPECT_FALSE(trust.checkTarget(Identity(), "{CODE-2}", installed, "1.0"));
    EXPECT_EQ(trust.problem(),
              "The update is signed for another product: not for the installation {CODE-2}");

    EXPECT_FALSE(trust.checkTarget(Identity(), "{CODE-1}", installed, "2.1"));
    EXPECT_EQ(trust.problem(), "The update would take the installed version 2.1 back to the "
                               "older version 2.0; a downgrade is refused");
    EXPECT_FALSE(trust.checkTarget(Identity(), "{CODE-1}", installed, "10.0"));

    SignedStatement otherConfig = Identity();
    otherConfig.installationCodes = {"{CODE-2}"};
    EXPECT_FALSE(trust.checkTarget(otherConfig, "{CODE-1}", installed, "1.0"));
    EXPECT_EQ(trust.problem().rfind("The update's configuration is not what was signed", 0), 0u);
}

} // namespace
