#pragma once

#include "runtime/PlatformPaths.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

// What applying a manifest would meet, found without changing anything: the manifest read
// and its paths checked for confinement, every file it touches checked against the
// checksum it expects before the update, the bytes its backups would take and the free
// space where they go, and the services it names.
struct ManifestDryRun {
    bool readable = false; // the manifest parses
    std::optional<std::string> confinementProblem;
    int entries = 0;                             // file, bundle-file and folder entries
    std::map<std::string, int> keywords;         // entries by Operation
    int checksumsChecked = 0;                    // files whose BeforePatch was compared
    int alreadyUpdated = 0;                      // files already at their AfterPatch
    std::vector<std::string> checksumMismatches; // "path: found X, expected Y"
    uint64_t backupBytes = 0;                    // of installed files to be kept aside
    std::string backupFolder;                    // where the backups would go
    uint64_t backupFolderFreeBytes = 0;
    std::vector<std::string> services; // named by the ServiceSet

    // Whether the manifest would apply: readable, confined, every checksum as expected
    // (or the file already updated) and room for the backups.
    bool wouldApply() const;

    // appPath: the located installation folder ([INSTALLDIR]); backupFolder: where a real
    // run would keep its backups (the state folder, or the application's file system).
    static ManifestDryRun check(const std::string& manifestPath, const std::string& appPath,
                                const std::string& backupFolder, const PlatformPaths& paths);
};
