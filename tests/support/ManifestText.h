#pragma once

#include <string>
#include <vector>

// Manifest text for tests: File entries, bundle and directory sets, the installed bundle's
// property list, and the payload archive.
struct FileEntry {
    std::string operation;
    std::string objectName;
    std::string dir;  // DestinationPath "dir"
    std::string name; // DestinationPath "defName"
    std::string before = {};
    std::string after = {};
    std::string renameDir = {};
    std::string renameName = {};
    std::string permission = {};
};

// The entry as a manifest's "File" element; empty fields are left out.
std::string FileEntryXml(const FileEntry& entry);

// A BundleSet with one verified bundle at path (its version file) holding files.
std::string BundleSetXml(const std::string& path, const std::string& version,
                         const std::vector<FileEntry>& files);

// One "Directory" element.
std::string DirectoryEntryXml(const std::string& operation, const std::string& base);

// An application's Info.plist that holds only its CFBundleVersion.
std::string VersionPlist(const std::string& version);

// Packs everything below folder (not folder itself) as the payload archive: GNU cpio's
// "newc", gzip-compressed. The shell's exit status.
int PackPayload(const std::string& folder, const std::string& archive);
