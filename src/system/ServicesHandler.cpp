#include "system/ServicesHandler.h"

#include "base/Path.h"
#include "runtime/Environment.h"
#include "runtime/LoggerUtility.h"
#include "system/ExecUtils.h"
#include "system/ExecuteWithPrivileges.h"
#include "system/Utf8Text.h"

#include <cctype>
#include <climits>
#include <cstdlib>
#include <strings.h>

namespace {

bool EqualsIgnoringCase(const std::string& a, const std::string& b) {
    return ::strcasecmp(a.c_str(), b.c_str()) == 0;
}

// The number at the start of a text, read as a 32-bit integer value is: blanks, a sign,
// digits; 0 when there is none; clamped at the limits.
long long LeadingInteger(const std::string& text) {
    size_t i = 0;
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i])))
        ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-'))
        negative = text[i++] == '-';
    long long value = 0;
    for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
        value = value * 10 + (text[i] - '0');
        if (value > INT_MAX)
            return negative ? INT_MIN : INT_MAX;
    }
    return negative ? -value : value;
}

} // namespace

ServicesHandler::ServicesHandler(const XmlNode& manifest, const std::string& /*tempDir*/,
                                 DirectoryTokenExpander expandDirectoryToken,
                                 ServiceControlSettings settings)
    : _dirTokenReslove(std::move(expandDirectoryToken)), _settings(std::move(settings)) {
    if (!_settings.backend)
        _settings.backend = ServiceBackend::forMachine(_settings.paths);
    _execWithPrivilege =
        ExecuteWithPrivileges::getInstanceUsingToken(_settings.paths.authTokenFile);

    if (manifest)
        _serviceNodesArray = select(manifest, "/Manifest/ServiceSet/Service");
    if (!_serviceNodesArray.empty()) {
        std::string list;
        if (_execWithPrivilege != nullptr)
            list = _settings.backend->jobList(*_execWithPrivilege);
        if (list.empty())
            list = "None";
        NSLevelledLog(3, "List of services: %@", list);
        size_t start = 0;
        for (;;) {
            const size_t end = list.find('\n', start);
            _allLoadedServicesArray.push_back(list.substr(start, end - start));
            if (end == std::string::npos)
                break;
            start = end + 1;
        }
    }
}

ServicesHandler::~ServicesHandler() {
    ExecuteWithPrivileges::releaseInstance();
}

std::vector<XmlNode> ServicesHandler::select(const XmlNode& node, const std::string& expression) {
    std::vector<XmlError> errors;
    std::vector<XmlNode> nodes = node.select(expression, {}, &errors);
    for (const XmlError& error : errors)
        handleError(error);
    return nodes;
}

std::string ServicesHandler::expandPath(const std::string& path) const {
    return _dirTokenReslove ? _dirTokenReslove(path) : path;
}

bool ServicesHandler::isSingleElementType(const std::vector<XmlNode>& nodes) {
    return IsSingleElement(nodes);
}

void ServicesHandler::handleError(const XmlError& error) {
    if (GetENVverbosityLevel() > 2)
        NSLevelledLog(3, " Error Code returned : %d", error.code);
}

void ServicesHandler::stopServices() {
    NSFormatLogWithHeading(1, "STOPPING THE REQUIRED SERVICES");
    if (_serviceNodesArray.empty()) {
        NSLevelledLog(3, "No service mentioned in the Service Set.");
        return;
    }
    int number = 0;
    for (const XmlNode& node : _serviceNodesArray) {
        NSLevelledLog(3, "Stopping Service: %d", ++number);
        const std::vector<XmlNode> nameNodes = select(node, "./ServiceName");
        if (!isSingleElementType(nameNodes)) {
            NSLevelledLog(3, "ServiceName field is missing.");
            continue;
        }
        const std::string name = nameNodes.front().stringValue();
        NSLevelledLog(3, "Service Name : %@", name);
        if (!AcceptServiceLabel(name))
            continue;

        const std::vector<XmlNode> pathNodes = select(node, "./FilePath");
        if (!isSingleElementType(pathNodes)) {
            NSLevelledLog(3, "Service File Path field is missing.");
            continue;
        }
        const std::string filePath = expandPath(pathNodes.front().stringValue());
        if (!filePath.empty()) {
            NSLevelledLog(3, "Service File Path : %@", filePath);
            if (!PathExists(filePath)) {
                NSLevelledLog(3, "No such service");
                continue;
            }
        }

        if (!isRunning(name))
            continue;
        // Kept for the restart even when the stop fails: a service half stopped is
        // better started again than left down.
        _restartServices.push_back(name);
        if (stop(name) != 0)
            NSLevelledLog(0, "Failed to stop the service :%@", name);
        else
            NSLevelledLog(3, "Successfully stopped.");
    }
}

void ServicesHandler::startServices() {
    NSFormatLogWithHeading(1, "RESTARTING THE REQUIRED SERVICES");
    int number = 0;
    for (const std::string& name : _restartServices) {
        NSLevelledLog(3, "Restarting Service: %d", ++number);
        if (start(name) == 0)
            NSLevelledLog(3, "Successfully restarted.");
        else
            NSLevelledLog(3, "Failed to restart the service :%@", name);
    }
}

int ServicesHandler::stop(const std::string& serviceName) {
    return launchctlCommand(*_settings.backend, _settings.paths.pidFileFormat, serviceName.c_str(),
                            "stop", _settings.waitSeconds);
}

int ServicesHandler::start(const std::string& serviceName) {
    if (!AcceptServiceLabel(serviceName))
        return 0;
    for (const XmlNode& node : _serviceNodesArray) {
        const std::vector<XmlNode> nameNodes = select(node, "./ServiceName");
        if (!isSingleElementType(nameNodes))
            continue;
        const std::string name = nameNodes.front().stringValue();
        if (!EqualsIgnoringCase(name, serviceName))
            continue;
        NSLevelledLog(3, "Service Name : %@", name);

        const std::vector<XmlNode> operationNodes = select(node, "./Operation");
        if (isSingleElementType(operationNodes)) {
            const std::string operation = operationNodes.front().stringValue();
            if (!operation.empty())
                NSLevelledLog(3, "Operation : %@", operation);
            if (EqualsIgnoringCase(operation, "stop"))
                continue;
        } else {
            // Without an operation the entry is not marked to stay stopped, and the
            // service was running before the patch: it is started again.
            NSLevelledLog(3, "Operation field is missing.");
        }

        const std::vector<XmlNode> pathNodes = select(node, "./FilePath");
        if (!isSingleElementType(pathNodes)) {
            NSLevelledLog(3, "File Path field is missing.");
            return 0;
        }
        const std::string filePath = expandPath(pathNodes.front().stringValue());
        if (!filePath.empty())
            NSLevelledLog(3, "File Path : %@", filePath);

        const std::vector<XmlNode> elevatedNodes = select(node, "./StartElevated");
        if (isSingleElementType(elevatedNodes))
            NSLevelledLog(3, "Start Elevated: %@", elevatedNodes.front().stringValue());
        else
            NSLevelledLog(3, "Start Elevated field is missing.");

        // The arguments and the start-elevated flag are only reported: the service manager
        // starts a service as its own definition says.
        std::vector<std::string> arguments;
        for (const XmlNode& argument : select(node, "./ArgumentList/Argument")) {
            arguments.push_back(argument.stringValue());
            NSLevelledLog(3, "Args (%d) : %@", static_cast<int>(arguments.size()),
                          arguments.back());
        }

        launchctlCommand(*_settings.backend, _settings.paths.pidFileFormat, name.c_str(), "start",
                         _settings.waitSeconds);
    }
    return 0;
}

bool ServicesHandler::isRunning(const std::string& serviceName) {
    bool running = false;
    if (AcceptServiceLabel(serviceName)) {
        bool loaded = false;
        for (const std::string& line : _allLoadedServicesArray) {
            if (line == serviceName) {
                loaded = true;
                break;
            }
        }
        const std::string pidFile = StringWithFormat(_settings.paths.pidFileFormat, serviceName);
        if (loaded && PathExists(pidFile)) {
            std::string text = ReadFileText(pidFile, 4096).value_or(std::string());
            if (!IsValidUTF8(text))
                text.clear();
            const long long pid = LeadingInteger(text);
            running = !text.empty() && pid != 0 &&
                      IsProcessRunning(static_cast<pid_t>(pid), _settings.paths.procRoot) == 1;
        }
    }
    NSLevelledLog(3, running ? "State: Service is running" : "State: Service is not running");
    return running;
}
