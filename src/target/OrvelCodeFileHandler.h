#pragma once

#include "base/Xml.h"
#include "runtime/PlatformPaths.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <sys/stat.h>

// The patch-history file of one installation: root "PBSHistory" (attributes ProductName,
// ProductFamily, tsInstalled, tsModified) with one "Patcher" element per applied patch
// (attributes SequenceID, PatcherID; children OldVersion, NewVersion and a copy of the
// patch's manifest root). The handler decides from it how the current patcher may run and
// appends an entry after a successful install or combo patch. A file that does not belong
// to the current installation is moved aside, never edited.
//
// One handler exists per run; createInstance / getInstance / releaseInstance manage it and
// are meant for the main thread. Tests may also construct handlers of their own.
class OrvelCodeFileHandler {
public:
    static constexpr int kModeNotPatchable = -1;
    static constexpr int kModeInstall = 0;
    static constexpr int kModeRepair = 1;
    static constexpr int kModeComboPatch = 2;

    // Stores the values; the two database times are kept as decimal text. The mode is
    // kModeNotPatchable until getPatcherModeAndInstalledAppBuildVersion has run.
    OrvelCodeFileHandler(std::string filePath, std::optional<std::string> patcherID,
                         std::optional<std::string> patcherOldVersion,
                         std::optional<std::string> patcherNewVersion,
                         std::optional<std::string> productName,
                         std::optional<std::string> productFamily, int64_t timeInstalled,
                         int64_t timeModified);

    // Makes the single handler (replacing an earlier one), computes its mode at once and
    // returns it.
    static OrvelCodeFileHandler* createInstance(const std::string& filePath,
                                                const std::optional<std::string>& patcherID,
                                                const std::optional<std::string>& patcherOldVersion,
                                                const std::optional<std::string>& patcherNewVersion,
                                                const std::optional<std::string>& productName,
                                                const std::optional<std::string>& productFamily,
                                                int64_t timeInstalled, int64_t timeModified);
    // The single handler, or nullptr.
    static OrvelCodeFileHandler* getInstance();
    // Destroys the single handler; always true.
    static bool releaseInstance();

    // "<history folder><installation code>.patch".
    static std::string patchFilePathForCode(const PlatformPaths& paths, const std::string& code);

    // The mode last computed.
    int getPatcherMode() const { return patcherMode; }
    // Computes, stores and returns the mode: 0 install, 1 repair, 2 combo patch, -1 not to
    // be patched. versionFound receives the installed version taken from the history (or
    // the configured old version when there is no usable history), or nothing when the file
    // could not be read. An out-of-date file is moved aside.
    int getPatcherModeAndInstalledAppBuildVersion(std::optional<std::string>& versionFound);
    // Writes a new file holding only the root element; true when written.
    [[nodiscard]] bool createOCPatchFile();
    // Appends an entry for the patch whose manifest is at manifestPath, creating the file
    // when missing; the file is replaced atomically. False (file untouched) on any failure.
    // With saveAs the new history is written there instead (synced), and the file itself is
    // left as it is for the caller to replace.
    [[nodiscard]] bool addPatcherEntry(const std::string& manifestPath,
                                       const std::optional<std::string>& saveAs = std::nullopt);

    // The new history with that entry added, made ahead (on another thread while the
    // update runs: the manifest's copy and the writing out take a while for a large
    // manifest) without a log line or a change on disk. Nothing when the history is missing
    // or unreadable or not the current installation's. addPatcherEntry writes it as it is
    // while the history file and the manifest are still those it was made from (same
    // device, inode, size and times), and otherwise makes the entry itself.
    struct PreparedEntry {
        std::string manifestPath;
        std::string text;
        bool historyMissing = false; // made from a new history, as none was there
        struct stat history {};
        struct stat manifest {};
    };
    [[nodiscard]] std::optional<PreparedEntry>
    preparePatcherEntry(const std::string& manifestPath) const;
    [[nodiscard]] bool addPatcherEntry(const std::string& manifestPath,
                                       const std::optional<std::string>& saveAs,
                                       const std::optional<PreparedEntry>& prepared);
    // Moves the file to the first free "<path>_backup<n>", n from 1; true when moved.
    [[nodiscard]] bool removeOutOfDatePatchFile();
    // Deletes every file with the extension "patch" in the folder and below. False when a
    // deletion failed; the deletions after it are not tried.
    [[nodiscard]] static bool removeAllOCPatchFilesAtGivenPath(const std::string& folder);

    const std::string& getOCPatchFilePath() const { return ocPatchFilePath; }
    const std::string& getTsInstalled() const { return tsInstalled; }
    const std::string& getTsModified() const { return tsModified; }
    // The version that a new entry records as "OldVersion".
    const std::string& getInstVer() const { return InstVer; }

private:
    // A history holding no entry yet.
    XmlDocumentHandle newHistoryDocument() const;
    // Whether the history and the manifest are still those prepared was made from.
    bool stillAsPrepared(const PreparedEntry& prepared) const;
    // The history document with this patch's entry added (manifest copied in), written out;
    // nothing when the document is not the current installation's history.
    std::optional<std::string> historyWithEntry(const XmlDocumentHandle& history,
                                                const XmlDocumentHandle& manifest) const;

    int patcherMode = kModeNotPatchable;
    std::string tsInstalled;
    std::string tsModified;
    std::string ocPatchFilePath;
    std::optional<std::string> patcherID;
    std::optional<std::string> PatchBaseVer;
    std::optional<std::string> PatchNewVer;
    std::string InstVer;
    std::optional<std::string> ProductName;
    std::optional<std::string> ProductFamily;
};
