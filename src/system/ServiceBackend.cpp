#include "system/ServiceBackend.h"

#include "run/LoggerUtility.h"
#include "system/SysVServiceBackend.h"
#include "system/SystemdServiceBackend.h"

#include <cctype>
#include <sys/stat.h>

bool IsValidServiceLabel(const std::string& name) {
    if (name.empty() || name.size() > 255 || name.front() == '-' || name.front() == '.')
        return false;
    if (name.find("..") != std::string::npos)
        return false;
    for (char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if (std::isalnum(byte) && byte < 0x80)
            continue;
        if (c == '.' || c == '_' || c == '-' || c == '@' || c == ':' || c == '+')
            continue;
        return false;
    }
    return true;
}

bool AcceptServiceLabel(const std::string& name) {
    if (IsValidServiceLabel(name))
        return true;
    NSLevelledLog(0, "Refused service name \"%@\": not a plain service label.", name);
    return false;
}

std::unique_ptr<ServiceBackend> ServiceBackend::forMachine(const PlatformPaths& paths) {
    struct stat info {};
    if (::stat(paths.systemdRunFolder.c_str(), &info) == 0 && S_ISDIR(info.st_mode))
        return std::make_unique<SystemdServiceBackend>(
            SystemdServiceBackend::resolveProgram(paths.systemctlProgram));
    return std::make_unique<SysVServiceBackend>(paths.initScriptsFolder, paths.serviceProgram);
}
