#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Who the patcher is for: the product's identity and what the patcher checks before it
// patches. Empty fields are filled from the two trees where they can be (see
// PatcherBuilder::create).
struct PatcherIdentity {
    std::string family;      // "Family"
    std::string productName; // "Name"
    std::string patcherId;   // "PatcherID"
    std::string buildNumber; // "BuildNumber"
    std::string appName;     // "ProductData/AppName": the bundle is <AppName>.app
    std::string bundleIdentifier;
    std::string oldVersion; // the installed bundle's CFBundleVersion
    std::string newVersion;
    std::string kvrFilePath; // e.g. "[INSTALLDIR]/Editor.app/Contents/Resources/kvr.xml"
    std::vector<std::string> installationCodes; // "ProductData/OrvelCode/GUID"
    std::vector<std::string> runningApps;       // "AppRunningList/AppRunning"
    std::optional<uint64_t> spaceSystemKb;      // "SpaceRequirement/System"
    std::optional<uint64_t> spaceTargetKb;      // "SpaceRequirement/Target"
    bool combo = false;

    // Reads the fields a configuration template sets. The template is a configuration file
    // ("PatcherConfig") with any of the elements the patcher reads; the builder writes the
    // full configuration itself. Nothing with a message when the file is not such a document.
    static std::optional<PatcherIdentity> fromTemplate(const std::string& path, std::string* error);
    // Sets every field of other that is set (non-empty) over this one.
    void overrideWith(const PatcherIdentity& other);
};

// Compares the old and the new version of an application bundle and makes the patcher that
// turns one into the other: configuration, manifest and payload, assembled into a bundle.
class PatcherBuilder {
public:
    struct Options {
        std::string oldTree; // the application bundle folder, old version
        std::string newTree; // the same, new version
        std::string outPath; // <Name>.app
        std::optional<std::string> name;
        std::optional<std::string> builtBundle;
        bool force = false;
        bool keepDebugInfo = false;  // see BundleAssembler::Options
        bool allowDowngrade = false; // accept a new version that is not newer than the old one
        PatcherIdentity identity;
        // A changed file becomes a PATCH when its patch is at most this share of the new file
        // and the new file has at least minPatchSize bytes. Applying a patch runs the patch
        // tool, a few milliseconds per file; below 64 KiB that costs more than the download
        // it saves, so smaller files are shipped whole.
        double patchRatio = 0.5;
        uint64_t minPatchSize = 64 * 1024;
    };

    struct Report {
        std::string bundlePath;
        int added = 0, patched = 0, overwritten = 0, removed = 0;
        int linksCreated = 0, linksRemoved = 0, permissionChanges = 0;
        int foldersAdded = 0, foldersRemoved = 0;
        int unchanged = 0;
        uint64_t payloadBytes = 0;        // uncompressed
        uint64_t payloadArchiveBytes = 0; // Payload.cpio.gz
        uint64_t newTreeBytes = 0;        // all regular files of the new tree
        PatcherIdentity identity;         // as written into the configuration
    };

    // How far create has come. The phases, in this order: "Comparing the trees" (every file
    // of both trees read for its checksum), "Making patches" (the new files that changed,
    // diffed against the old ones) and "Assembling the bundle" (not counted: total 0).
    // Counted in bytes, so a large file weighs what it costs. Each phase begins with done 0
    // and ends with one step marked last, done equal to total; done never goes back. The
    // texts are valid during the call only.
    struct ProgressStep {
        std::string_view phase;
        uint64_t done = 0;
        uint64_t total = 0;
        std::string_view item; // the file at hand, relative to the tree; may be empty
        bool last = false;
    };
    // Called on the thread that runs create, once per file and for large files once per
    // piece read or diffed, so it should return quickly.
    using Progress = std::function<void(const ProgressStep& step)>;

    // 0 on success, 1 with a message. Nothing is left at outPath on failure. The inputs are
    // checked first, as checkInputs does.
    [[nodiscard]] static int create(const Options& options, Report* report, std::string* error,
                                    const Progress& progress = {});

    // What create checks before it writes or compares anything, cheapest first: both trees are
    // application bundles (<Name>.app with Contents/Info.plist) with a version, the new version
    // is newer (unless allowDowngrade), an installation code is given, the output is named
    // <Name>.app, lies outside both trees and is free (unless force); last, the trees differ.
    // 0 when all hold, else 1 with one line naming the input and the command-line option it
    // comes from.
    [[nodiscard]] static int checkInputs(const Options& options, std::string* error);

    // True for a GUID: 8-4-4-4-12 hexadecimal digits, alone or in braces.
    static bool isGuid(const std::string& text);

    // Orders versions as dotted numbers, part by part ("1.10" after "1.9", "1.0" equal to
    // "1.0.0"); text after a part's digits orders it before the bare number ("1.0b2" before
    // "1.0"). Negative, 0 or positive as a is older, the same or newer than b.
    static int compareVersions(const std::string& a, const std::string& b);
};
