#pragma once

#include "base/Xml.h"
#include "runtime/PlatformPaths.h"
#include "system/ServiceBackend.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

class ExecuteWithPrivileges;

// Expands the directory token at the head of a path (no application path is known for
// services); the manifest processor hands in its directory-token resolver this way.
using DirectoryTokenExpander = std::function<std::string(const std::string& path)>;

// Where a services handler finds the machine. The defaults are this machine's; tests hand
// in their own locations, service manager and a shorter wait.
struct ServiceControlSettings {
    PlatformPaths paths;
    // Null: the service manager of the machine (ServiceBackend::forMachine(paths)).
    std::shared_ptr<const ServiceBackend> backend;
    int waitSeconds = kServiceWaitSeconds;
};

// Stops the services that a manifest names before the files are replaced, and starts
// again afterwards exactly those it found running and stopped, in the order it stopped
// them. Service names are labels of the service manager and of "/var/run/<name>.pid"; a
// name that is no plain label is refused with a log line and nothing is run for it.
class ServicesHandler {
public:
    // Takes the shared privileged runner (from the token file) and, when the manifest has
    // service entries, reads the service manager's job list once. tempDir is not used.
    ServicesHandler(const XmlNode& manifest, const std::string& tempDir,
                    DirectoryTokenExpander expandDirectoryToken,
                    ServiceControlSettings settings = {});
    // Gives the shared privileged runner back (ExecuteWithPrivileges::releaseInstance).
    ~ServicesHandler();

    ServicesHandler(const ServicesHandler&) = delete;
    ServicesHandler& operator=(const ServicesHandler&) = delete;

    void stopServices();
    void startServices();

    // The exit status of the stop command (0: stopped).
    int stop(const std::string& serviceName);
    // Starts the service for every entry of that name (any letter case) whose operation is
    // not "stop"; always 0.
    int start(const std::string& serviceName);
    // Listed in the job list, with a pid file that begins with a non-zero process id of a
    // live process.
    bool isRunning(const std::string& serviceName);
    // Logs " Error Code returned : %d" when the verbosity is above 2.
    void handleError(const XmlError& error);

    static bool isSingleElementType(const std::vector<XmlNode>& nodes);

    // The names stopped by this handler, in the order stopped.
    const std::vector<std::string>& restartServices() const { return _restartServices; }
    const std::vector<std::string>& loadedServices() const { return _allLoadedServicesArray; }

private:
    std::vector<XmlNode> select(const XmlNode& node, const std::string& expression);
    std::string expandPath(const std::string& path) const;

    std::vector<XmlNode> _serviceNodesArray;
    std::vector<std::string> _allLoadedServicesArray;
    std::vector<std::string> _restartServices;
    DirectoryTokenExpander _dirTokenReslove;
    ExecuteWithPrivileges* _execWithPrivilege = nullptr;
    ServiceControlSettings _settings;
};
