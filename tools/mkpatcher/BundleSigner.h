#pragma once

#include "base/BundleSignature.h"

#include <optional>
#include <string>

// The release engineer's side of bundle signatures: key pairs in PEM files, signing a made
// bundle for the identity its configuration states, and reporting what a signature says.
namespace BundleSigner {

// Writes a new key pair: the private key (PKCS #8) readable by its owner only, the public
// key beside it. Neither file may exist already. False with a message otherwise.
[[nodiscard]] bool writeKeyPair(const std::string& privatePath, const std::string& publicPath,
                                std::string* error, std::string* fingerprint = nullptr);

// The installation codes, the version updated from and the version updated to that the
// bundle's configuration (Contents/Resources/config.xml) states.
[[nodiscard]] std::optional<SignedStatement> identityOfBundle(const std::string& bundle,
                                                              std::string* error);

// Signs (or signs again) the bundle with the private key in keyPath.
[[nodiscard]] bool signBundle(const std::string& bundle, const std::string& keyPath,
                              std::string* error, std::string* fingerprint = nullptr);

// What a verification found, for the terminal and for JSON.
struct Report {
    bool good = false;   // a good signature by the expected key, for the configuration's identity
    std::string verdict; // "good", "unsigned", "bad", "other-key"
    std::string problem; // empty when good
    BundleVerdict signature;
    std::string expectedKey; // fingerprint of the key asked for
};

// Checks the bundle's signature against the public (or private) key in keyPath.
Report verifyBundle(const std::string& bundle, const std::string& keyPath);

std::string reportText(const std::string& bundle, const Report& report);
std::string reportJson(const std::string& bundle, const Report& report);

} // namespace BundleSigner
