#pragma once

#include <string>

// Manifest text for tests: one File entry and its XML.
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
