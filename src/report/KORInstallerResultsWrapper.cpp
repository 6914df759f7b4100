#include "report/KORInstallerResultsWrapper.h"

#include "base/AppBundle.h"
#include "base/FileUtil.h"
#include "base/PropertyList.h"
#include "base/StringTable.h"
#include "report/KORInstallerResults.h"
#include "report/UserInterface.h"
#include "runtime/LoggerUtility.h"

#include <dlfcn.h>
#include <optional>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char* kResultsLibraryName = "libKORInstallerResults.so";

struct LoadedResultsLibrary {
    KORResultsLibrary functions;
    std::string problem;
};

// The bundle's library, or the program's own functions when its bundle has none. The
// program is not linked with the library, so that the dynamic loader never loads a copy
// that someone other than root could have put in place.
LoadedResultsLibrary LoadResultsLibrary() {
    LoadedResultsLibrary loaded;
    void* handle = RTLD_DEFAULT;
    if (const auto bundle = AppBundle::mainBundle()) {
        const std::string library = bundle->frameworksPath() + "/" + kResultsLibraryName;
        if (::access(library.c_str(), F_OK) == 0) {
            std::string problem;
            const std::optional<std::string> path = LibraryPathToLoad(library, &problem);
            handle = path ? ::dlopen(path->c_str(), RTLD_NOW | RTLD_LOCAL) : nullptr;
            if (!handle) {
                const char* error = path ? ::dlerror() : nullptr;
                loaded.problem = "The library " + library + " is not loaded: " +
                                 (path ? (error ? error : "unknown error") : problem);
                return loaded;
            }
        }
    }
    using GetClientAppPath = int (*)(uint32_t*, char*);
    using SetInstallerResults = int (*)(int32_t, const char*);
    loaded.functions.getClientAppPath =
        reinterpret_cast<GetClientAppPath>(::dlsym(handle, "KORGetClientAppPath"));
    loaded.functions.setInstallerResults =
        reinterpret_cast<SetInstallerResults>(::dlsym(handle, "KORSetInstallerResults"));
    return loaded;
}

const LoadedResultsLibrary& ResultsLibrary() {
    static const LoadedResultsLibrary library = LoadResultsLibrary();
    return library;
}

} // namespace

KORResultsLibrary KORResultsLibrary::linked() {
    return ResultsLibrary().functions;
}

const std::string& KORResultsLibrary::loadProblem() {
    return ResultsLibrary().problem;
}

KORInstallerResultsWrapper::KORInstallerResultsWrapper(ReportingContext context)
    : _context(std::move(context)) {}

std::string KORInstallerResultsWrapper::localized(const std::string& key) const {
    return _context.strings ? _context.strings->localizedString(key) : key;
}

int KORInstallerResultsWrapper::runPanel(AlertStyle style, const std::string& title,
                                         const std::string& messageFormat) const {
    static HeadlessUserInterface headless;
    UserInterface* ui = _context.userInterface ? _context.userInterface : &headless;
    // The report text is the panel's message format: "%%" shows as "%".
    const int answer =
        ui->runAlertPanel(style, title, StringWithFormat(messageFormat), localized("Finish"));
    if (answer != kAlertDefaultReturn)
        NSLevelledLog(3, "Unexpected up to date alert result (%d)", answer);
    return answer;
}

void KORInstallerResultsWrapper::showCancelledPanel() const {
    runPanel(AlertStyle::Critical, localized("Update cancelled title"),
             localized("Update cancelled message"));
    NSLevelledLog(3, "User cancelled the update.");
}

bool KORInstallerResultsWrapper::testKORID(const std::optional<std::string>& korId) const {
    NSLevelledLog(3, "KORInstallerResultsWrapper:testKORID: KORId = %@", korId);
    if (!korId)
        return true;
    const std::string& path = _context.installerDataPath;
    NSLevelledLog(3, "InstallerDataPath = %@", path);
    auto installerData = PropertyList::readDictionaryFromFile(path);
    if (!installerData)
        return false;
    NSLevelledLog(3, "got InstallerData dictionary, InstallerData = %@",
                  installerData->description());
    auto installerDataKORId = installerData->stringForKey("KOR_APP_ID");
    NSLevelledLog(3, "InstallerDataKORId = %@", installerDataKORId);
    int compareResult = 1;
    if (installerDataKORId) {
        const int order = korId->compare(*installerDataKORId);
        compareResult = order < 0 ? -1 : order > 0 ? 1 : 0;
    }
    NSLevelledLog(3, "compare result = %d", compareResult);
    const bool result = compareResult == 0;
    NSLevelledLog(3, "KORInstallerResultsWrapper:testKORID: returning result = %d", result ? 1 : 0);
    return result;
}

std::optional<std::string> KORInstallerResultsWrapper::clientAppPath() const {
    const auto& library = _context.library;
    if (!library.getClientAppPath)
        return std::nullopt;
    std::vector<char> buffer(1024, '\0');
    uint32_t length = static_cast<uint32_t>(buffer.size());
    int korResult = library.getClientAppPath(&length, buffer.data());
    if (korResult == 0) {
        if (length == 0)
            return std::nullopt;
        NSLevelledLog(3, "length != 0");
        buffer.assign(static_cast<size_t>(length) + 1, '\0');
        length = static_cast<uint32_t>(buffer.size());
        korResult = library.getClientAppPath(&length, buffer.data());
    }
    if (korResult != 1)
        return std::nullopt;
    NSLevelledLog(3, " 1 == korResult");
    buffer.push_back('\0'); // a library that filled the buffer without a terminator
    return std::string(buffer.data());
}

std::optional<std::string>
KORInstallerResultsWrapper::clientAppPath(const std::optional<std::string>& korId) const {
    if (testKORID(korId)) {
        auto path = clientAppPath();
        NSLevelledLog(3, "KORInstallerResultsWrapper:clientAppPath = %@", path);
        return path;
    }
    NSLevelledLog(3, "KORInstallerResultsWrapper:clientAppPath returning NULL");
    return std::nullopt;
}

bool KORInstallerResultsWrapper::runningUnderKOR() const {
    return clientAppPath().has_value();
}

bool KORInstallerResultsWrapper::runningUnderKOR(const std::optional<std::string>& korId) const {
    return clientAppPath(korId).has_value();
}

bool KORInstallerResultsWrapper::setInstallerResults(
    int code, const std::optional<std::string>& message) const {
    const auto& library = _context.library;
    if (!library.setInstallerResults)
        return false;
    return library.setInstallerResults(code, message ? message->c_str() : nullptr) == 1;
}

bool KORInstallerResultsWrapper::setInstallerResults(int code) const {
    return setInstallerResults(code, std::nullopt);
}

bool KORInstallerResultsWrapper::cleanup() const {
    return true;
}

bool KORInstallerResultsWrapper::cleanup(const std::optional<std::string>& korId) const {
    return testKORID(korId) ? cleanup() : false;
}

void KORInstallerResultsWrapper::reportAlreadyUpToDate(const std::string& text) const {
    NSLevelledLog(3, "_reportAlreadyUpToDate");
    if (runningUnderKOR()) {
        (void)setInstallerResults(0);
        return;
    }
    runPanel(AlertStyle::Informational, localized("UpToDate Title"), text);
}

void KORInstallerResultsWrapper::reportUpToDate(const std::string& text) const {
    NSLevelledLog(3, "_reportUpToDate");
    if (runningUnderKOR()) {
        (void)setInstallerResults(0);
        return;
    }
    runPanel(AlertStyle::Informational, localized("UpToDate Title"), text);
}

void KORInstallerResultsWrapper::reportUpdateFailed(const std::string& text) const {
    NSLevelledLog(3, "_reportUpdateFailed");
    if (runningUnderKOR()) {
        (void)setInstallerResults(4, text);
        return;
    }
    runPanel(AlertStyle::Critical, localized("Installing the patch title"),
             StringWithFormat(localized("Update failed message"), text));
}

void KORInstallerResultsWrapper::reportUpdateCancelled() const {
    NSLevelledLog(3, "UpdateEngine:_reportUpdateCancelled");
    if (runningUnderKOR()) {
        NSLevelledLog(3, "User cancelled installation. Notifying KOR.");
        (void)setInstallerResults(2, localized("Update cancelled message"));
        return;
    }
    showCancelledPanel();
}

void KORInstallerResultsWrapper::reportUpdateFailedTryAgain(const std::string& names) const {
    if (runningUnderKOR()) {
        (void)setInstallerResults(
            2, StringWithFormat(localized("KOR_reportUpdateFailedTryAgain"), names));
        return;
    }
    showCancelledPanel();
}
