#include "system/SystemdServiceBackend.h"

#include "system/ExecuteWithPrivileges.h"

#include <sstream>
#include <unistd.h>

SystemdServiceBackend::SystemdServiceBackend(std::string systemctlPath)
    : _systemctlPath(std::move(systemctlPath)) {}

std::string SystemdServiceBackend::jobList(ExecuteWithPrivileges& runner) const {
    const std::string output = runner.performTask(
        _systemctlPath, std::vector<std::string>{"list-units", "--type=service", "--all", "--plain",
                                                 "--no-legend"});
    return labelsFromUnitList(output);
}

std::vector<std::string> SystemdServiceBackend::controlCommand(const std::string& command,
                                                               const std::string& label) const {
    return {_systemctlPath, command, label};
}

std::string SystemdServiceBackend::labelsFromUnitList(const std::string& listOutput) {
    static constexpr std::string_view kSuffix = ".service";
    std::istringstream lines(listOutput);
    std::string line;
    std::string labels;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        std::string unit;
        words >> unit;
        // A failed unit may be marked with a leading dot even in plain output.
        if (unit == "\xE2\x97\x8F" || unit == "*")
            words >> unit;
        if (unit.size() <= kSuffix.size() ||
            unit.compare(unit.size() - kSuffix.size(), kSuffix.size(), kSuffix) != 0)
            continue;
        labels += unit.substr(0, unit.size() - kSuffix.size());
        labels += '\n';
    }
    return labels;
}

std::string SystemdServiceBackend::resolveProgram(const std::string& program) {
    if (program.find('/') != std::string::npos)
        return program;
    for (const char* folder : {"/usr/bin/", "/bin/", "/usr/sbin/", "/sbin/"}) {
        const std::string candidate = folder + program;
        if (::access(candidate.c_str(), X_OK) == 0)
            return candidate;
    }
    return "/usr/bin/" + program;
}
