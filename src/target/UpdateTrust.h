#pragma once

#include "base/BundleSignature.h"
#include "base/FileUtil.h"
#include "runtime/PlatformPaths.h"

#include <optional>
#include <string>
#include <vector>

// What the machine says about unsigned patchers: the developers' entry
// "allow-unsigned-patchers = yes" in the policy file. The file counts only when root alone
// controls it (no environment variable or option can say the same).
struct PatcherPolicy {
    bool allowUnsigned = false;
    std::vector<std::string> notes; // for the log: a refused file, entries not understood

    static PatcherPolicy read(const std::string& path);
};

// The public keys of the "*.pem" files in folder that only root controls; any other file,
// or one that holds no Ed25519 public key, is left out with a note.
std::vector<Ed25519Key> TrustedKeysIn(const std::string& folder, std::vector<std::string>* notes);

// Whether a patcher bundle may be applied, decided in two steps: its signature before
// anything of the bundle is parsed, then, once the installation is located, whether the
// signer is trusted and the signed update is for that installation and no downgrade.
class UpdateTrust {
public:
    explicit UpdateTrust(const PlatformPaths& paths) : _paths(paths) {}
    // Removes the private copies, if any were made.
    ~UpdateTrust();
    UpdateTrust(const UpdateTrust&) = delete;
    UpdateTrust& operator=(const UpdateTrust&) = delete;

    // Reads every file of the bundle once. False when the bundle is unsigned (and the policy
    // does not allow that) or its signature does not hold; problem() says why. A run
    // without a bundle counts as unsigned.
    // copyChanging: copy what others could change while checking it (a run that will not
    // apply anything needs no copies).
    [[nodiscard]] bool checkBundle(const std::optional<std::string>& bundle,
                                   bool copyChanging = true);

    // The installation as located: the code it was found under, its application bundle
    // (whose "Contents/Resources/trusted-keys.d" keys are trusted too) and that bundle's
    // version; each absent when unknown. configIdentity is what the configuration states.
    [[nodiscard]] bool checkTarget(const SignedStatement& configIdentity,
                                   const std::optional<std::string>& locatedCode,
                                   const std::optional<std::string>& applicationBundle,
                                   const std::optional<std::string>& installedVersion);

    bool isSigned() const { return _verdict.state == BundleVerdict::State::Good; }
    // The bundle's files could not be copied to the private folder (a full disk): the
    // signature itself was not found wanting.
    bool copyFailed() const { return _verdict.copyFailed; }
    // Where the run reads the configuration, the manifest and the payload: the bundle's
    // Resources folder when only root controls those files, else a private folder of copies
    // made while they were checked, so that nobody can change them once checked. Set by a
    // checkBundle that accepted the bundle.
    const std::string& resourcesFolder() const { return _resourcesFolder; }
    const std::string& problem() const { return _problem; }
    // Lines for the log since the last call.
    std::vector<std::string> takeNotes() { return std::move(_notes); }

    // Where an installed application keeps the keys that may update it.
    static constexpr const char* kApplicationKeysFolder = "Contents/Resources/trusted-keys.d";

private:
    bool refuse(std::string problem);
    // A private folder for the copies, or nothing (with a note) when none can be made.
    bool makeCopyFolder();

    const PlatformPaths& _paths;
    BundleVerdict _verdict;
    std::string _problem;
    std::vector<std::string> _notes;
    std::string _resourcesFolder;
    std::string _copyFolder; // empty when no copies were made
    UniqueFd _copyFolderFd;
};
