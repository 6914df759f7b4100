#include "base/BundleSignature.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

// A small bundle: a program, a nested library, a configuration, a payload and a link.
void MakeBundle(const std::string& bundle) {
    fs::create_directories(bundle + "/Contents/MacOS");
    fs::create_directories(bundle + "/Contents/Frameworks/lib.framework");
    fs::create_directories(bundle + "/Contents/Resources/locale/de");
    WriteTextFile(bundle + "/Contents/Info.plist", "<plist/>");
    WriteTextFile(bundle + "/Contents/MacOS/PatcherApp", RandomText(3 * 1024 * 1024 + 5, 1));
    WriteTextFile(bundle + "/Contents/Frameworks/lib.framework/lib", RandomText(70000, 2));
    WriteTextFile(bundle + "/Contents/Resources/config.xml", "<PatcherConfig/>");
    WriteTextFile(bundle + "/Contents/Resources/Payload.cpio.gz", RandomText(2000000, 3));
    WriteTextFile(bundle + "/Contents/Resources/locale/de/PatcherApp.mo", "mo");
    ASSERT_EQ(::symlink("lib.framework/lib", (bundle + "/Contents/Frameworks/lib.so").c_str()), 0);
}

SignedStatement Identity() {
    SignedStatement identity;
    identity.installationCodes = {"{AAAA-0001}", "{AAAA-0002}"};
    identity.fromVersions = {"1.0"};
    identity.toVersion = "2.0";
    return identity;
}

Ed25519Key NewKey() {
    std::string problem;
    auto key = Ed25519Key::generate(&problem);
    EXPECT_TRUE(key) << problem;
    return std::move(*key);
}

class BundleSignatureTest : public ::testing::Test {
protected:
    void SetUp() override {
        MakeBundle(bundle);
        std::string problem;
        ASSERT_TRUE(BundleSignature::sign(bundle, Identity(), key, &problem)) << problem;
    }
    TempDir dir;
    const std::string bundle = dir.file("Update.app");
    const Ed25519Key key = NewKey();
};

TEST_F(BundleSignatureTest, AFreshlySignedBundleIsGoodAndNamesItsIdentityAndFiles) {
    const BundleVerdict verdict = BundleSignature::verify(bundle);
    ASSERT_EQ(verdict.state, BundleVerdict::State::Good) << verdict.problem;
    ASSERT_TRUE(verdict.signer);
    EXPECT_EQ(verdict.signer->publicBytes(), key.publicBytes());
    EXPECT_EQ(verdict.statement.installationCodes, Identity().installationCodes);
    EXPECT_EQ(verdict.statement.fromVersions, Identity().fromVersions);
    EXPECT_EQ(verdict.statement.toVersion, "2.0");
    std::vector<std::string> paths;
    for (const auto& file : verdict.statement.files)
        paths.push_back(file.path);
    EXPECT_EQ(paths, (std::vector<std::string>{
                         "Contents/Frameworks/lib.framework/lib", "Contents/Frameworks/lib.so",
                         "Contents/Info.plist", "Contents/MacOS/PatcherApp",
                         "Contents/Resources/Payload.cpio.gz", "Contents/Resources/config.xml",
                         "Contents/Resources/locale/de/PatcherApp.mo"}));
    EXPECT_EQ(verdict.statement.files[3].size, 3u * 1024 * 1024 + 5);
    EXPECT_EQ(verdict.bytesRead, 3u * 1024 * 1024 + 5 + 70000 + 8 + 16 + 2000000 + 2);
    // The digest is what sha256sum prints.
    const std::string output = dir.file("sha.out");
    ASSERT_EQ(RunProgram({"/usr/bin/sha256sum", bundle + "/Contents/MacOS/PatcherApp"}, {}, output),
              0);
    EXPECT_EQ(verdict.statement.files[3].sha256, ReadTextFile(output).substr(0, 64));
}

TEST_F(BundleSignatureTest, AnyByteChangedInAnyFileMakesItBad) {
    const auto files = BundleSignature::digestFiles(bundle, nullptr);
    ASSERT_TRUE(files);
    for (const auto& file : *files) {
        if (file.kind != SignedFile::Kind::File)
            continue;
        SCOPED_TRACE(file.path);
        const std::string path = bundle + "/" + file.path;
        const std::string original = ReadTextFile(path);
        for (const size_t at : {size_t{0}, original.size() / 2, original.size() - 1}) {
            std::string changed = original;
            changed[at] = static_cast<char>(changed[at] ^ 0x01);
            WriteTextFile(path, changed);
            const BundleVerdict verdict = BundleSignature::verify(bundle);
            EXPECT_EQ(verdict.state, BundleVerdict::State::Bad);
            EXPECT_EQ(verdict.problem, file.path + " is not as signed");
        }
        WriteTextFile(path, original);
    }
    EXPECT_EQ(BundleSignature::verify(bundle).state, BundleVerdict::State::Good);
}

TEST_F(BundleSignatureTest, AFileAddedRemovedOrALinkChangedMakesItBad) {
    WriteTextFile(bundle + "/Contents/Resources/extra.sh", "#!/bin/sh\n");
    EXPECT_EQ(BundleSignature::verify(bundle).problem, "Contents/Resources/extra.sh is not signed");
    ::unlink((bundle + "/Contents/Resources/extra.sh").c_str());
    fs::create_directories(bundle + "/Contents/Resources/empty");
    EXPECT_EQ(BundleSignature::verify(bundle).state, BundleVerdict::State::Good);

    ::unlink((bundle + "/Contents/Info.plist").c_str());
    EXPECT_EQ(BundleSignature::verify(bundle).problem, "Contents/Info.plist is signed but missing");
    WriteTextFile(bundle + "/Contents/Info.plist", "<plist/>");

    ::unlink((bundle + "/Contents/Frameworks/lib.so").c_str());
    ASSERT_EQ(::symlink("/etc/passwd", (bundle + "/Contents/Frameworks/lib.so").c_str()), 0);
    EXPECT_EQ(BundleSignature::verify(bundle).problem,
              "Contents/Frameworks/lib.so is not as signed");

    ::unlink((bundle + "/Contents/Frameworks/lib.so").c_str());
    ASSERT_EQ(::mkfifo((bundle + "/Contents/Frameworks/lib.so").c_str(), 0600), 0);
    EXPECT_EQ(BundleSignature::verify(bundle).problem,
              "Contents/Frameworks/lib.so is neither a file, a link nor a folder");
}

TEST_F(BundleSignatureTest, AnotherKeysSignatureVerifiesOnlyAsThatKeys) {
    const Ed25519Key other = NewKey();
    std::string problem;
    ASSERT_TRUE(BundleSignature::sign(bundle, Identity(), other, &problem)) << problem;
    const BundleVerdict verdict = BundleSignature::verify(bundle);
    ASSERT_EQ(verdict.state, BundleVerdict::State::Good);
    EXPECT_EQ(verdict.signer->publicBytes(), other.publicBytes());
    EXPECT_NE(verdict.signer->publicBytes(), key.publicBytes());
}

TEST_F(BundleSignatureTest, AChangedOrCutSignatureFileIsBad) {
    const std::string path = bundle + "/" + BundleSignature::kSignatureFile;
    const std::string original = ReadTextFile(path);
    // Cut at every length: never good.
    for (size_t length = 0; length < original.size(); length += 7) {
        WriteTextFile(path, original.substr(0, length));
        EXPECT_EQ(BundleSignature::verify(bundle).state, BundleVerdict::State::Bad) << length;
    }
    // The statement says another version: the signature no longer holds.
    std::string changed = original;
    changed.replace(changed.find("to-version 2.0"), 14, "to-version 9.0");
    WriteTextFile(path, changed);
    EXPECT_EQ(BundleSignature::verify(bundle).problem.rfind("the signature does not verify", 0),
              0u);
    // Another key put beside a signature made with the first.
    const Ed25519Key other = NewKey();
    changed = original;
    const size_t keyLine = changed.find("\nkey ") + 5;
    std::string otherKey;
    {
        std::string problem;
        const std::string other64 = [&] {
            WriteTextFile(path, original);
            EXPECT_TRUE(BundleSignature::sign(bundle, Identity(), other, &problem));
            const std::string text = ReadTextFile(path);
            const size_t at = text.find("\nkey ") + 5;
            return text.substr(at, text.find('\n', at) - at);
        }();
        otherKey = other64;
    }
    changed.replace(keyLine, changed.find('\n', keyLine) - keyLine, otherKey);
    WriteTextFile(path, changed);
    EXPECT_EQ(BundleSignature::verify(bundle).state, BundleVerdict::State::Bad);
    ::unlink(path.c_str());
    EXPECT_EQ(BundleSignature::verify(bundle).state, BundleVerdict::State::Unsigned);
}

TEST(BundleSignatureStatementTest, OnlyTheCanonicalTextParses) {
    SignedStatement statement = Identity();
    statement.files = {{SignedFile::Kind::File, "a b", 3, std::string(64, 'a')},
                       {SignedFile::Kind::Link, "c", 1, std::string(64, 'b')}};
    const std::string text = statement.text();
    std::string problem;
    const auto parsed = SignedStatement::parse(text, &problem);
    ASSERT_TRUE(parsed) << problem;
    EXPECT_EQ(parsed->files, statement.files);
    EXPECT_EQ(parsed->text(), text);

    for (const auto& [from, to] : std::vector<std::pair<std::string, std::string>>{
             {"file " + std::string(64, 'a') + " 3", "file " + std::string(64, 'a') + " 03"},
             {std::string(64, 'a'), std::string(64, 'A')},
             {"link", "lnk"},
             {"end\n", "end\nmore\n"},
             {"to-version 2.0\n", "to-version 2.0\nto-version 2.1\n"},
         }) {
        std::string changed = text;
        changed.replace(changed.find(from), from.size(), to);
        EXPECT_FALSE(SignedStatement::parse(changed, &problem)) << to;
    }
    // Files out of order.
    std::swap(statement.files[0], statement.files[1]);
    EXPECT_FALSE(SignedStatement::parse(statement.text(), &problem));
}

TEST(Ed25519KeyTest, PemRoundTripsAndOtherKeysAreRefused) {
    const Ed25519Key key = NewKey();
    std::string problem;
    const auto privateKey = Ed25519Key::fromPem(key.privatePem(), &problem);
    ASSERT_TRUE(privateKey) << problem;
    EXPECT_TRUE(privateKey->hasPrivateKey());
    const auto publicKey = Ed25519Key::fromPem(key.publicPem(), &problem);
    ASSERT_TRUE(publicKey) << problem;
    EXPECT_FALSE(publicKey->hasPrivateKey());
    EXPECT_EQ(publicKey->publicBytes(), key.publicBytes());
    EXPECT_EQ(publicKey->fingerprint().size(), 32u);

    const auto signature = privateKey->sign("message");
    ASSERT_TRUE(signature);
    EXPECT_TRUE(publicKey->verify("message", *signature));
    EXPECT_FALSE(publicKey->verify("messagf", *signature));
    EXPECT_FALSE(publicKey->sign("message"));

    // An RSA key made by the openssl tool is not an Ed25519 key.
    TempDir dir;
    ASSERT_EQ(RunProgram({"/usr/bin/openssl", "genpkey", "-algorithm", "RSA", "-pkeyopt",
                          "rsa_keygen_bits:1024", "-out", dir.file("rsa.pem")},
                         {}, dir.file("out"), dir.file("err")),
              0);
    EXPECT_FALSE(Ed25519Key::readPemFile(dir.file("rsa.pem"), &problem));
    EXPECT_NE(problem.find("not an Ed25519 key"), std::string::npos) << problem;
    EXPECT_FALSE(Ed25519Key::fromPem("-----BEGIN PUBLIC KEY-----\nAAAA\n", &problem));
    // The openssl tool reads our keys, and we read its.
    ASSERT_EQ(RunProgram({"/usr/bin/openssl", "genpkey", "-algorithm", "ED25519", "-out",
                          dir.file("ed.pem")},
                         {}, dir.file("out"), dir.file("err")),
              0);
    EXPECT_TRUE(Ed25519Key::readPemFile(dir.file("ed.pem"), &problem)) << problem;
}

} // namespace
