#include "base/AppBundle.h"

#include <climits>
#include <sys/stat.h>
#include <unistd.h>

AppBundle::AppBundle(std::string bundlePath) : _bundlePath(std::move(bundlePath)) {
    while (_bundlePath.size() > 1 && _bundlePath.back() == '/')
        _bundlePath.pop_back();
}

std::optional<AppBundle> AppBundle::fromExecutablePath(const std::string& executablePath) {
    const std::string marker = "/Contents/MacOS/";
    auto at = executablePath.rfind(marker);
    if (at == std::string::npos || at == 0)
        return std::nullopt;
    if (executablePath.find('/', at + marker.size()) != std::string::npos)
        return std::nullopt;
    return AppBundle(executablePath.substr(0, at));
}

std::optional<AppBundle> AppBundle::mainBundle() {
    char buffer[PATH_MAX];
    ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (n <= 0)
        return std::nullopt;
    return fromExecutablePath(std::string(buffer, static_cast<size_t>(n)));
}

std::optional<std::string> AppBundle::pathForResource(const std::string& name,
                                                      const std::string& type) const {
    std::string path = resourcePath() + "/" + name;
    if (!type.empty())
        path += "." + type;
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode))
        return std::nullopt;
    return path;
}
