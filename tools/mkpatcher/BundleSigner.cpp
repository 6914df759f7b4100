#include "BundleSigner.h"

#include "PatcherBuilder.h"
#include "base/FileUtil.h"
#include "base/Json.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace BundleSigner {

namespace {

bool WriteNewFile(const std::string& path, const std::string& text, mode_t mode,
                  std::string* error) {
    UniqueFd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode));
    if (!file.valid()) {
        *error = "cannot create " + path + ": " + std::strerror(errno);
        return false;
    }
    // The mode given at creation is narrowed by the umask; the private key's must not be
    // widened by it either.
    if (::fchmod(file.get(), mode) != 0 || !WriteAll(file.get(), text.data(), text.size()) ||
        ::fsync(file.get()) != 0) {
        *error = "cannot write " + path + ": " + std::strerror(errno);
        ::unlink(path.c_str());
        return false;
    }
    return true;
}

std::string JsonList(const std::vector<std::string>& values) {
    std::string text = "[";
    for (const auto& value : values)
        text += (text.size() > 1 ? "," : "") + JsonQuoted(value);
    return text + "]";
}

} // namespace

bool writeKeyPair(const std::string& privatePath, const std::string& publicPath, std::string* error,
                  std::string* fingerprint) {
    if (privatePath == publicPath) {
        *error = "the private and the public key need two files";
        return false;
    }
    auto key = Ed25519Key::generate(error);
    if (!key)
        return false;
    if (!WriteNewFile(privatePath, key->privatePem(), 0600, error))
        return false;
    if (!WriteNewFile(publicPath, key->publicPem(), 0644, error)) {
        ::unlink(privatePath.c_str());
        return false;
    }
    if (fingerprint)
        *fingerprint = key->fingerprint();
    return true;
}

std::optional<SignedStatement> identityOfBundle(const std::string& bundle, std::string* error) {
    const std::string config = bundle + "/Contents/Resources/config.xml";
    auto identity = PatcherIdentity::fromTemplate(config, error);
    if (!identity)
        return std::nullopt;
    SignedStatement statement;
    statement.installationCodes = identity->installationCodes;
    if (!identity->oldVersion.empty())
        statement.fromVersions.push_back(identity->oldVersion);
    statement.toVersion = identity->newVersion;
    if (statement.installationCodes.empty() || statement.toVersion.empty()) {
        *error = config + " names no installation code (ProductData/OrvelCode/GUID) or no "
                          "new version (ProductData/NewVersion)";
        return std::nullopt;
    }
    return statement;
}

bool signBundle(const std::string& bundle, const std::string& keyPath, std::string* error,
                std::string* fingerprint) {
    auto key = Ed25519Key::readPemFile(keyPath, error);
    if (!key)
        return false;
    if (!key->hasPrivateKey()) {
        *error = keyPath + " holds a public key; signing needs the private key";
        return false;
    }
    auto identity = identityOfBundle(bundle, error);
    if (!identity)
        return false;
    if (!BundleSignature::sign(bundle, std::move(*identity), *key, error))
        return false;
    if (fingerprint)
        *fingerprint = key->fingerprint();
    return true;
}

Report verifyBundle(const std::string& bundle, const std::string& keyPath) {
    Report report;
    std::string error;
    const auto key = Ed25519Key::readPemFile(keyPath, &error);
    if (!key) {
        report.verdict = "bad";
        report.problem = error;
        return report;
    }
    report.expectedKey = key->fingerprint();
    report.signature = BundleSignature::verify(bundle);
    const BundleVerdict& signature = report.signature;
    if (signature.state == BundleVerdict::State::Unsigned) {
        report.verdict = "unsigned";
        report.problem = signature.problem;
        return report;
    }
    if (signature.state == BundleVerdict::State::Bad) {
        report.verdict = "bad";
        report.problem = signature.problem;
        return report;
    }
    if (signature.signer->publicBytes() != key->publicBytes()) {
        report.verdict = "other-key";
        report.problem =
            "signed by key " + signature.signer->fingerprint() + ", not by " + report.expectedKey;
        return report;
    }
    const auto identity = identityOfBundle(bundle, &error);
    const auto differs = identity ? signature.statement.identityDiffers(*identity)
                                  : std::optional<std::string>(error);
    if (differs) {
        report.verdict = "bad";
        report.problem = "the configuration is not what was signed: " + *differs;
        return report;
    }
    report.good = true;
    report.verdict = "good";
    return report;
}

std::string reportText(const std::string& bundle, const Report& report) {
    const BundleVerdict& signature = report.signature;
    std::string text;
    if (report.good)
        text = "Good signature of " + bundle + " by key " + report.expectedKey + "\n";
    else if (report.verdict == "unsigned")
        text = "NOT SIGNED: " + bundle + "\n";
    else
        text = "BAD signature of " + bundle + ": " + report.problem + "\n";
    const SignedStatement& statement = signature.statement;
    if (signature.state == BundleVerdict::State::Unsigned || statement.toVersion.empty())
        return text;
    if (signature.signer)
        text += "  signed by:          " + signature.signer->fingerprint() + "\n";
    for (const auto& code : statement.installationCodes)
        text += "  installation code:  " + code + "\n";
    for (const auto& version : statement.fromVersions)
        text += "  updates from:       " + version + "\n";
    text += "  updates to:         " + statement.toVersion + "\n";
    uint64_t bytes = 0;
    for (const auto& file : statement.files)
        bytes += file.size;
    text += "  files:              " + std::to_string(statement.files.size()) + " (" +
            std::to_string(bytes) + " bytes)\n";
    for (const auto& file : statement.files)
        text += "    " + file.sha256 + " " + std::to_string(file.size) + " " + file.path +
                (file.kind == SignedFile::Kind::Link ? " (link)" : "") + "\n";
    return text;
}

std::string reportJson(const std::string& bundle, const Report& report) {
    const BundleVerdict& signature = report.signature;
    const SignedStatement& statement = signature.statement;
    std::string json = "{\"bundle\":" + JsonQuoted(bundle) +
                       ",\"good\":" + (report.good ? "true" : "false") +
                       ",\"verdict\":" + JsonQuoted(report.verdict) +
                       ",\"problem\":" + JsonQuoted(report.problem) +
                       ",\"expectedKey\":" + JsonQuoted(report.expectedKey) + ",\"signedBy\":" +
                       (signature.signer ? JsonQuoted(signature.signer->fingerprint()) : "null") +
                       ",\"installationCodes\":" + JsonList(statement.installationCodes) +
                       ",\"fromVersions\":" + JsonList(statement.fromVersions) +
                       ",\"toVersion\":" + JsonQuoted(statement.toVersion) + ",\"files\":[";
    for (size_t i = 0; i < statement.files.size(); ++i) {
        const SignedFile& file = statement.files[i];
        json += std::string(i ? "," : "") + "{\"path\":" + JsonQuoted(file.path) +
                ",\"kind\":" + (file.kind == SignedFile::Kind::Link ? "\"link\"" : "\"file\"") +
                ",\"size\":" + std::to_string(file.size) +
                ",\"sha256\":" + JsonQuoted(file.sha256) + "}";
    }
    return json + "]}\n";
}

} // namespace BundleSigner
