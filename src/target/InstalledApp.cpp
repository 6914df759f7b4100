#include "target/InstalledApp.h"

#include "runtime/LoggerUtility.h"

InstalledApp::InstalledApp(std::string path, std::string appName)
    : _path(std::move(path)), _appName(std::move(appName)), _bundle(_path) {}

InstalledApp::~InstalledApp() {
    NSLevelledLog(3, "dealloc InstalledApp");
}
