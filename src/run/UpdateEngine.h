#pragma once

#include "base/AppBundle.h"
#include "system/PlatformPaths.h"

#include <optional>
#include <string>

class MainLoop;

// Drives one run of the patcher from launch to exit. appLaunched() runs once on the main
// thread after the loop has started.
class UpdateEngine {
public:
    UpdateEngine(MainLoop& loop, std::optional<AppBundle> bundle, const PlatformPaths& paths);

    void appLaunched();

    // "KOR MODE", "SILENT MODE" or "FULL UI MODE".
    std::string modeOfExecution() const;
    const std::string& logPath() const { return _logPath; }

private:
    MainLoop& _loop;
    std::optional<AppBundle> _bundle;
    const PlatformPaths& _paths;
    bool _isRunningUnderKOR = false;
    bool _isSilentInstall = false;
    std::string _logPath;
};
