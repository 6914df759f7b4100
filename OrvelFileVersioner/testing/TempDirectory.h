#pragma once

#include <filesystem>
#include <string>

namespace ofv_testing {

// A fresh folder under the system's temporary folder, removed with everything in it when the
// object goes away. Its name holds no dot, so it never changes which versioner claims a file.
class TempDirectory {
public:
    TempDirectory();
    ~TempDirectory();
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;

    const std::filesystem::path& path() const { return _path; }

    // Writes inContent to the file inRelativePath (folders are made as needed) and returns the
    // file's full path.
    std::string WriteFile(const std::string& inRelativePath, const std::string& inContent) const;

private:
    std::filesystem::path _path;
};

// Writes inContent to inPath, replacing any file there. Throws std::runtime_error on failure.
void WriteWholeFile(const std::filesystem::path& inPath, const std::string& inContent);

} // namespace ofv_testing
