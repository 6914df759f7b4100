#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Ed25519 signatures over a patcher bundle. The signer states, for every file of the bundle
// (the signature file aside), its path, size and SHA-256 digest, together with the
// installation codes, the versions updated from and the version updated to; the statement
// and its signature are kept in the bundle as kSignatureFile. A bundle is good when the
// statement's files are exactly the bundle's files, byte for byte, and the signature
// verifies with the public key kept beside it. Whether that key is trusted is the caller's
// question. Nothing here logs.

// An Ed25519 key: a key pair, or only its public half.
class Ed25519Key {
public:
    Ed25519Key(Ed25519Key&&) noexcept;
    Ed25519Key& operator=(Ed25519Key&&) noexcept;
    ~Ed25519Key();

    [[nodiscard]] static std::optional<Ed25519Key> generate(std::string* problem);
    // A key in PEM: a private key (PKCS #8) or a public key (SubjectPublicKeyInfo).
    // Anything but an Ed25519 key is refused, with the reason in problem.
    [[nodiscard]] static std::optional<Ed25519Key> fromPem(std::string_view pem,
                                                           std::string* problem);
    [[nodiscard]] static std::optional<Ed25519Key> readPemFile(const std::string& path,
                                                               std::string* problem);
    // The public key of its 32 raw bytes.
    [[nodiscard]] static std::optional<Ed25519Key> fromPublicBytes(std::string_view bytes);

    bool hasPrivateKey() const { return _private; }
    // The 32 raw bytes of the public key.
    std::string publicBytes() const;
    // Names the public key in messages: the first 16 bytes of its SHA-256, in hex.
    std::string fingerprint() const;
    std::string publicPem() const;
    std::string privatePem() const; // empty for a public key

    // The 64-byte signature of message; nothing without a private key.
    [[nodiscard]] std::optional<std::string> sign(std::string_view message) const;
    [[nodiscard]] bool verify(std::string_view message, std::string_view signature) const;

private:
    struct Key;
    explicit Ed25519Key(std::unique_ptr<Key> key, bool hasPrivate);
    std::unique_ptr<Key> _key;
    bool _private = false;
};

// One file of a bundle as the signature states it. A symbolic link is stated by its
// target's text.
struct SignedFile {
    enum class Kind { File, Link };
    Kind kind = Kind::File;
    std::string path; // below the bundle folder, "/"-separated
    uint64_t size = 0;
    std::string sha256; // lower-case hex

    bool operator==(const SignedFile&) const = default;
};

// What is signed. Its text is canonical: one statement has exactly one text, and parse
// accepts nothing else.
struct SignedStatement {
    std::vector<std::string> installationCodes;
    std::vector<std::string> fromVersions;
    std::string toVersion;
    std::vector<SignedFile> files; // in byte order of their paths

    std::string text() const;
    // Nothing when this statement is for the identity's installation codes, versions from
    // and version to (its files aside); else which of them differs, for messages.
    std::optional<std::string> identityDiffers(const SignedStatement& identity) const;
    [[nodiscard]] static std::optional<SignedStatement> parse(std::string_view text,
                                                              std::string* problem);
};

// What a bundle's signature says.
struct BundleVerdict {
    enum class State {
        Unsigned, // no signature file
        Bad,      // a signature that does not hold: problem says why
        Good,     // every file as signed, and the signature verifies with signer
    };
    State state = State::Unsigned;
    std::string problem;
    SignedStatement statement;        // as read (Bad: as far as it could be read)
    std::optional<Ed25519Key> signer; // the key the signature names
    uint64_t bytesRead = 0;           // of the bundle's files, to check them
    bool copyFailed = false;          // Bad only because a copy could not be written (a full disk)
};

namespace BundleSignature {

// The signature file, below the bundle folder.
inline constexpr const char* kSignatureFile = "Contents/Signature";

// Files of the bundle to be copied as they are read, so that what is used later is exactly
// what was checked even when others can change the bundle meanwhile: each path (below the
// bundle) is written to a new file of its base name in the folder of the handle.
struct CopyWhileReading {
    int folder = -1;
    std::vector<std::string> paths;
};

// Every file and link below the bundle folder but the signature file, read once each
// without following links, in byte order of their paths. Nothing, with problem, when one
// cannot be read (or copied) or is neither a file, a link nor a folder.
[[nodiscard]] std::optional<std::vector<SignedFile>>
digestFiles(const std::string& bundle, std::string* problem, uint64_t* bytesRead = nullptr,
            const CopyWhileReading* copies = nullptr);

// Signs the bundle for the identity (installation codes, versions from, version to; the
// statement's files are read from the bundle) with key, replacing an earlier signature.
[[nodiscard]] bool sign(const std::string& bundle, SignedStatement identity, const Ed25519Key& key,
                        std::string* problem);

// Checks the bundle's signature; copies (when given) are made as the files are read, and
// are what was signed only when the verdict is Good.
[[nodiscard]] BundleVerdict verify(const std::string& bundle,
                                   const CopyWhileReading* copies = nullptr);

} // namespace BundleSignature
