#pragma once

#include "system/ServiceBackend.h"

// Services of SysV init scripts, controlled through the "service" program. The job list is
// the names of the executable scripts in the init-script folder, sorted; it is read in
// the process, no program is run for it.
class SysVServiceBackend : public ServiceBackend {
public:
    SysVServiceBackend(std::string initScriptsFolder, std::string serviceProgram);

    std::string backendName() const override { return "SysV"; }
    std::string jobList(ExecuteWithPrivileges& runner) const override;
    // <service program> <label> <command>
    std::vector<std::string> controlCommand(const std::string& command,
                                            const std::string& label) const override;

private:
    std::string _initScriptsFolder;
    std::string _serviceProgram;
};
