#include "TempDirectory.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace ofv_testing {

TempDirectory::TempDirectory() {
    // No dot before the random part: the colour-profile name test looks for ".pf", ".icc" and
    // the like anywhere in a path, and would claim every file in a folder named ".pfXXXX".
    std::string pattern = (std::filesystem::temp_directory_path() / "OrvelFileVersioner-XXXXXX");
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (::mkdtemp(buffer.data()) == nullptr) {
        throw std::runtime_error(std::string("mkdtemp failed: ") + std::strerror(errno));
    }
    _path = buffer.data();
}

TempDirectory::~TempDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(_path, ignored);
}

std::string TempDirectory::WriteFile(const std::string& inRelativePath,
                                     const std::string& inContent) const {
    const std::filesystem::path file = _path / inRelativePath;
    std::filesystem::create_directories(file.parent_path());
    WriteWholeFile(file, inContent);
    return file.string();
}

void WriteWholeFile(const std::filesystem::path& inPath, const std::string& inContent) {
    std::ofstream out(inPath, std::ios::binary | std::ios::trunc);
    out.write(inContent.data(), static_cast<std::streamsize>(inContent.size()));
    out.close();
    if (!out) {
        throw std::runtime_error("cannot write " + inPath.string());
    }
}

} // namespace ofv_testing
