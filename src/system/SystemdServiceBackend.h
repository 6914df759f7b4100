#pragma once

#include "system/ServiceBackend.h"

// Services of systemd. The job list is the service units of
// "systemctl list-units --type=service --all --plain --no-legend", each given as its label:
// the unit name without ".service" (the name the init scripts and pid files also use;
// systemctl adds the suffix again for "start" and "stop").
class SystemdServiceBackend : public ServiceBackend {
public:
    explicit SystemdServiceBackend(std::string systemctlPath);

    std::string backendName() const override { return "systemd"; }
    std::string jobList(ExecuteWithPrivileges& runner) const override;
    // systemctl <command> <label>
    std::vector<std::string> controlCommand(const std::string& command,
                                            const std::string& label) const override;

    // One label per line from the output of list-units.
    static std::string labelsFromUnitList(const std::string& listOutput);
    // A program name without "/" is looked for in the system's fixed program folders
    // (never in the caller's PATH); "/usr/bin/<name>" when it is in none of them.
    static std::string resolveProgram(const std::string& program);

private:
    std::string _systemctlPath;
};
