#pragma once

#include "base/Xml.h"
#include "runtime/PlatformPaths.h"

#include <string>
#include <sys/types.h>
#include <vector>

// The window that asks the user to quit applications: shows the names, runs modally until
// Retry (1) or Cancel (2) is pressed. The Qt and terminal front ends implement it.
class RunningAppsWindowController {
public:
    virtual ~RunningAppsWindowController() = default;

    // Shows the names and resets the user's answer to 0.
    virtual void resetRunningApplications(const std::string& names) = 0;
    // Shows the window and returns when the user has answered.
    virtual void runModal() = 0;
    // 0 no answer yet, 1 retry, 2 cancel.
    virtual int getUserAction() const = 0;
};

// The display names of the running applications, in process-id order: for each process
// in the table's procRoot, the CFBundleName of the ".app" bundle that holds its executable
// (the bundle's name when it has none), else the executable's file name. The search for the
// bundle stops at the table's protected folders.
//
// The process "self" and every process descended from it (parent ids read from
// "<procRoot>/<pid>/stat") are left out: the patcher's own bundle or name often matches the
// applications it updates, and neither it nor what it started has to be quit by the user.
class RunningApplications {
public:
    virtual ~RunningApplications() = default;
    virtual std::vector<std::string> launchedApplications() const;

    // self: the process whose family is left out; 0 means the one listing, as getpid()
    // gives it at the time of each listing.
    explicit RunningApplications(const PlatformPaths& paths, pid_t self = 0)
        : _procRoot(paths.procRoot), _protectedFolders(paths.protectedFolders), _self(self) {}

private:
    std::string _procRoot;
    std::vector<std::string> _protectedFolders;
    pid_t _self;
};

// Makes sure none of the configured applications runs before files are touched.
class RunningApplicationHandler {
public:
    // appsToQuit: the configuration's entries, each a regular expression searched in the
    // running applications' names. The window is used only with showUI; it is not owned.
    RunningApplicationHandler(std::vector<XmlNode> appsToQuit, bool showUI,
                              RunningAppsWindowController* runningAppsWindowH,
                              const RunningApplications& runningApplications);

    // Whether a configured application runs; names receives one line per running match.
    bool areOrvelAppsRunning(std::string& names) const;
    // True when none runs any more; with a user, asks until they quit them or cancel.
    bool shutdownOrvelApplications(std::string& names) const;

private:
    std::vector<XmlNode> _appsToQuit;
    bool _showUI;
    RunningAppsWindowController* _runningAppsWindowH;
    const RunningApplications& _runningApplications;
};
