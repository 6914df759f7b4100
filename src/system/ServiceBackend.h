#pragma once

#include "runtime/PlatformPaths.h"

#include <memory>
#include <string>
#include <vector>

class ExecuteWithPrivileges;

// How long a service's recorded process is waited for after a start or a stop.
inline constexpr int kServiceWaitSeconds = 30;

// True when name can only be taken as a service label: 1 to 255 bytes of letters, digits
// and "._-@:+", not starting with "-" or "." and without "..". Names with "/", blanks,
// control or shell characters are never labels; they could reach a path or be read as an
// option by the service manager.
bool IsValidServiceLabel(const std::string& name);
// As IsValidServiceLabel, logging "Refused service name \"%@\": not a plain service label."
// (error) when the name is refused.
bool AcceptServiceLabel(const std::string& name);

// The local service manager: what the rest of the system calls the job list and the
// "start"/"stop" commands for a job label. Implementations only say what to run; the
// caller runs it (no shell is ever involved), so tests can hand in their own manager.
class ServiceBackend {
public:
    virtual ~ServiceBackend() = default;

    // A short name for the log ("systemd", "SysV").
    virtual std::string backendName() const = 0;
    // The labels of all services the manager knows, one per line, read with the runner's
    // ids where a program has to be run; the empty text when nothing could be read.
    virtual std::string jobList(ExecuteWithPrivileges& runner) const = 0;
    // The program (an absolute path) and its arguments that run the command word on the
    // service with the label.
    virtual std::vector<std::string> controlCommand(const std::string& command,
                                                    const std::string& label) const = 0;

    // systemd when paths.systemdRunFolder is a directory (systemd is running), otherwise
    // the SysV init scripts.
    static std::unique_ptr<ServiceBackend> forMachine(const PlatformPaths& paths);
};
