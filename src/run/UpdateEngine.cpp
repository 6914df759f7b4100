#include "run/UpdateEngine.h"

#include "run/CommonUtility.h"
#include "run/Environment.h"
#include "run/LoggerUtility.h"
#include "run/MainLoop.h"

UpdateEngine::UpdateEngine(MainLoop& loop, std::optional<AppBundle> bundle,
                           const PlatformPaths& paths)
    : _loop(loop), _bundle(std::move(bundle)), _paths(paths), _isSilentInstall(GetENVsilentFlag()),
      _logPath(ExpandTildeInPath("~/" + paths.logFileInHome)) {}

std::string UpdateEngine::modeOfExecution() const {
    if (_isRunningUnderKOR)
        return "KOR MODE";
    return GetENVsilentFlag() ? "SILENT MODE" : "FULL UI MODE";
}

void UpdateEngine::appLaunched() {
    if (StartLogging(_logPath)) {
        NSFormatLog(0);
        NSFormatLogWithHeading(0, "Orvel Software Update");
        NSFormatLog(0);
    } else {
        NSLevelledLog(3, "Logging Failed");
    }

    std::optional<std::string> configPath;
    std::optional<std::string> manifestPath;
    if (_bundle) {
        configPath = _bundle->pathForResource("config", "xml");
        manifestPath = _bundle->pathForResource("manifest", "xml");
    }
    NSLevelledLog(3, "Patcher bundle: %@", _bundle ? _bundle->bundlePath() : std::string());
    NSLevelledLog(3, "Configuration file: %@", configPath);
    NSLevelledLog(3, "Manifest file: %@", manifestPath);

    NSLevelledLog(0, "Mode of Execution: %@", modeOfExecution());

    // Locating, validating and applying the update are not wired into the run yet; the
    // run ends here without touching anything.
    NSLevelledLog(1, "No update is applied by this build of the patcher");
    _loop.terminate(0);
}
