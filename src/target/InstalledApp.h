#pragma once

#include "base/AppBundle.h"

#include <string>

// A found application: the folder it was found in and its bundle. Not needed by a run; kept
// for the ways of finding an application that offer a choice.
class InstalledApp {
public:
    // path is the application bundle's path; appName its name without ".app".
    InstalledApp(std::string path, std::string appName);
    // Logs "dealloc InstalledApp".
    ~InstalledApp();
    InstalledApp(const InstalledApp&) = delete;
    InstalledApp& operator=(const InstalledApp&) = delete;

    const std::string& path() const { return _path; }
    const AppBundle& bundle() const { return _bundle; }
    const std::string& appName() const { return _appName; }

private:
    std::string _path;
    std::string _appName;
    AppBundle _bundle;
};
