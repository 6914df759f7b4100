#include "base/Path.h"

#include <sys/stat.h>

std::string WithoutTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

std::string JoinPath(const std::string& folder, const std::string& name) {
    if (name.empty())
        return folder;
    if (folder.empty())
        return name;
    std::string result = WithoutTrailingSlashes(folder);
    size_t start = 0;
    while (start < name.size() && name[start] == '/')
        ++start;
    if (result != "/")
        result += '/';
    result.append(name, start, std::string::npos);
    return result;
}

std::string ParentPath(const std::string& path) {
    const std::string trimmed = WithoutTrailingSlashes(path);
    const size_t slash = trimmed.rfind('/');
    if (slash == std::string::npos)
        return {};
    if (slash == 0)
        return "/";
    return WithoutTrailingSlashes(trimmed.substr(0, slash));
}

std::string LastPathComponent(const std::string& path) {
    const std::string trimmed = WithoutTrailingSlashes(path);
    if (trimmed == "/")
        return trimmed;
    const size_t slash = trimmed.rfind('/');
    return slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
}

std::string PathExtension(const std::string& path) {
    const std::string name = LastPathComponent(path);
    const size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == name.size())
        return {};
    return name.substr(dot + 1);
}

bool IsPathInside(const std::string& path, const std::string& folder) {
    const std::string base = WithoutTrailingSlashes(folder);
    const std::string candidate = WithoutTrailingSlashes(path);
    if (base.empty() || candidate.size() < base.size() ||
        candidate.compare(0, base.size(), base) != 0)
        return false;
    return candidate.size() == base.size() || base == "/" || candidate[base.size()] == '/';
}

bool PathExists(const std::string& path) {
    struct stat info {};
    return !path.empty() && ::stat(path.c_str(), &info) == 0;
}

bool PathExistsNoFollow(const std::string& path) {
    struct stat info {};
    return !path.empty() && ::lstat(path.c_str(), &info) == 0;
}

bool FolderExists(const std::string& path) {
    struct stat info {};
    return !path.empty() && ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}
