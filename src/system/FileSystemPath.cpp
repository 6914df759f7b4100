#include "system/FileSystemPath.h"

#include "system/FileSystemUtils.h"

#include <libgen.h>
#include <stdexcept>
#include <unistd.h>
#include <vector>

namespace {

// basename() and dirname() may change the text they are given, so they work on a copy.
std::vector<char> MutableCopy(const std::string& text) {
    std::vector<char> copy(text.begin(), text.end());
    copy.push_back('\0');
    return copy;
}

} // namespace

FileSystemPath::FileSystemPath() {
    char buffer[1025];
    if (::getcwd(buffer, sizeof buffer) == nullptr)
        throw std::runtime_error("Unable to get current working directory.");
    *this = FileSystemPath(std::string(buffer));
}

FileSystemPath::FileSystemPath(const std::string& utf8Path) {
    if (FileSystemUtils::ValidateUTF8FullPathString(utf8Path) != 0)
        throw std::runtime_error("Invalid path passed to FileSystemPath constructor.");
    _path = utf8Path;
    while (_path.size() >= 2 && _path.back() == '/')
        _path.pop_back();
}

std::string FileSystemPath::NameAsUTF8String() const {
    std::vector<char> copy = MutableCopy(_path);
    const char* name = ::basename(copy.data());
    if (name == nullptr)
        throw std::runtime_error("Unable to get path base name.");
    return name;
}

FileSystemPath FileSystemPath::Parent() const {
    std::vector<char> copy = MutableCopy(_path);
    const char* parent = ::dirname(copy.data());
    if (parent == nullptr)
        throw std::runtime_error("Unable to get path parent.");
    return FileSystemPath(std::string(parent));
}

FileSystemPath& FileSystemPath::AppendUTF8Segment(const std::string& segment) {
    const size_t start = segment.find_first_not_of('/');
    if (_path.empty() || _path.back() != '/')
        _path += '/';
    if (start != std::string::npos)
        _path.append(segment, start, std::string::npos);
    return *this;
}

FileSystemPath FileSystemPath::PathFromUTF8(const std::string& text) {
    if (!text.empty() && text.front() == '/')
        return FileSystemPath(text);
    FileSystemPath path;
    path.AppendUTF8Segment(text);
    return path;
}
