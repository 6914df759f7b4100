#include "system/ServiceBackend.h"

#include "base/Path.h"
#include "runtime/LoggerUtility.h"
#include "system/SysVServiceBackend.h"
#include "system/SystemdServiceBackend.h"

#include <cctype>

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
    if (FolderExists(paths.systemdRunFolder))
        return std::make_unique<SystemdServiceBackend>(
            SystemdServiceBackend::resolveProgram(paths.systemctlProgram));
    return std::make_unique<SysVServiceBackend>(paths.initScriptsFolder, paths.serviceProgram);
}
