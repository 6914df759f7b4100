#include "system/SysVServiceBackend.h"

#include <algorithm>
#include <dirent.h>
#include <sys/stat.h>
#include <vector>

SysVServiceBackend::SysVServiceBackend(std::string initScriptsFolder, std::string serviceProgram)
    : _initScriptsFolder(std::move(initScriptsFolder)), _serviceProgram(std::move(serviceProgram)) {
}

std::string SysVServiceBackend::jobList(ExecuteWithPrivileges& /*runner*/) const {
    DIR* folder = ::opendir(_initScriptsFolder.c_str());
    if (folder == nullptr)
        return {};
    std::vector<std::string> names;
    while (dirent* entry = ::readdir(folder)) {
        const std::string name = entry->d_name;
        if (name.empty() || name.front() == '.')
            continue;
        struct stat info {};
        const std::string path = _initScriptsFolder + "/" + name;
        // Only scripts that can run count; README and the skeleton are not executable.
        if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode) ||
            (info.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) == 0)
            continue;
        names.push_back(name);
    }
    ::closedir(folder);
    std::sort(names.begin(), names.end());
    std::string list;
    for (const std::string& name : names) {
        list += name;
        list += '\n';
    }
    return list;
}

std::vector<std::string> SysVServiceBackend::controlCommand(const std::string& command,
                                                            const std::string& label) const {
    return {_serviceProgram, label, command};
}
