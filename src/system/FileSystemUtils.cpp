#include "system/FileSystemUtils.h"

#include <array>
#include <cassert>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/FileUtil.h"
#include "base/Path.h"

namespace FileSystemUtils {

int ValidateUTF8FullPathString(const std::string& text) {
    if (text.empty() || text.front() != '/')
        return 3;
    if (text.size() > 1024)
        return 2;
    size_t start = 1;
    while (start <= text.size()) {
        size_t slash = text.find('/', start);
        if (slash == std::string::npos)
            slash = text.size();
        if (slash - start >= 256)
            return 2;
        start = slash + 1;
    }
    return 0;
}

bool Exists(const FileSystemPath& path) {
    return PathExistsNoFollow(path.AsUTF8String());
}

bool IsDirectory(const FileSystemPath& path, bool& isDirectory) {
    struct stat info {};
    if (::lstat(path.AsUTF8String().c_str(), &info) != 0)
        return false;
    isDirectory = S_ISDIR(info.st_mode);
    return true;
}

bool DeleteFile(const FileSystemPath& path, bool /*recursive*/) {
    return ::unlink(path.AsUTF8String().c_str()) == 0;
}

bool LoadFileContents(const FileSystemPath& path, std::vector<char>& outFileContents) {
    struct stat info {};
    if (::stat(path.AsUTF8String().c_str(), &info) != 0)
        return false;
    if (info.st_size == 0) {
        outFileContents.clear();
        return true;
    }
    UniqueFd fd(::open(path.AsUTF8String().c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid())
        return false;
    std::vector<char> contents(static_cast<size_t>(info.st_size));
    assert(contents.size() > 0 && "outFileContents.size() > 0");
    size_t done = 0;
    while (done < contents.size()) {
        ssize_t n = ::read(fd.get(), contents.data() + done, contents.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    outFileContents.swap(contents);
    return true;
}

bool TempFilenameInDirectory(const FileSystemPath& directory, FileSystemPath& outPath) {
    // The same contract as the C library's mktemp() (a name, no file), made here because
    // the linker warns about every use of mktemp().
    static constexpr char kLetters[] =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::array<uint8_t, 6> random{};
        if (::getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size()))
            return false;
        std::string name = ".temp";
        for (uint8_t byte : random)
            name += kLetters[byte % (sizeof kLetters - 1)];
        FileSystemPath candidate = directory;
        candidate.AppendUTF8Segment(name);
        if (ValidateUTF8FullPathString(candidate.AsUTF8String()) != 0)
            return false;
        if (!Exists(candidate)) {
            outPath = candidate;
            return true;
        }
    }
    return false;
}

bool SetWorkingDirectory(const FileSystemPath& path) {
    return ::chdir(path.AsUTF8String().c_str()) == 0;
}

bool GetRemovableDrives(std::vector<FileSystemPath>& /*drives*/) {
    return false;
}

namespace {

void ReadVersionParts(const std::string& text, const std::string& separator,
                      std::array<int32_t, 4>& parts) {
    parts.fill(INT32_MIN);
    if (separator.empty())
        return;
    size_t partStart = 0;
    size_t found = text.find(separator);
    for (size_t i = 0; i < parts.size() && found != std::string::npos; ++i) {
        parts[i] =
            static_cast<int32_t>(std::atoi(text.substr(partStart, found - partStart).c_str()));
        partStart = found + separator.size();
        found = text.find(separator, found + 2);
    }
}

} // namespace

int CompareVersionStrings(const std::string& a, const std::string& b,
                          const std::string& separator) {
    std::array<int32_t, 4> first{};
    std::array<int32_t, 4> second{};
    ReadVersionParts(a, separator, first);
    ReadVersionParts(b, separator, second);
    for (size_t i = 0; i < first.size(); ++i) {
        if (first[i] > second[i])
            return 1;
        if (first[i] < second[i])
            return -1;
    }
    return 0;
}

} // namespace FileSystemUtils
