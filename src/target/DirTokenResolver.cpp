#include "target/DirTokenResolver.h"

#include "base/Path.h"
#include "runtime/CommonUtility.h"
#include "runtime/LoggerUtility.h"

#include <array>

namespace {

constexpr const char* kInstallDirToken = "[INSTALLDIR]";

// The order in which the head of a path is tested; the first match wins.
constexpr std::array<const char*, 11> kTokenOrder = {"[OrvelProgramFiles]",
                                                     "[ProgramFiles]",
                                                     "[OrvelCommon]",
                                                     "[Common]",
                                                     "[SharedApplicationData]",
                                                     "[Utilities]",
                                                     "[SharedDocuments]",
                                                     "[FontsFolder]",
                                                     "[Library]",
                                                     "[ScriptingAdditions]",
                                                     "[UserPreferences]"};

bool StartsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

} // namespace

DirTokenResolver::DirTokenResolver(const PlatformPaths& paths)
    : DirTokenResolver(paths, GetUserName()) {}

DirTokenResolver::DirTokenResolver(const PlatformPaths& paths,
                                   const std::optional<std::string>& userName) {
    // A folder that the platform table leaves empty has no entry; a path starting with its
    // token is then left as it is.
    const auto enter = [this](const char* token, const std::string& folder) {
        if (!folder.empty())
            _dirTokenDictionary[token] = ExpandTildeInPath(folder);
    };
    enter("[ProgramFiles]", paths.programFiles);
    enter("[OrvelProgramFiles]", paths.orvelProgramFiles);
    enter("[Utilities]", paths.utilities);
    enter("[Common]", paths.common);
    enter("[SharedApplicationData]", paths.sharedApplicationData);
    enter("[OrvelCommon]", paths.orvelCommon);
    enter("[SharedDocuments]", paths.sharedDocuments);
    enter("[Library]", paths.library);
    enter("[FontsFolder]", paths.fontsFolder);
    enter("[ScriptingAdditions]", paths.scriptingAdditions);
    // Made from the users' root and the user's name rather than from the home folder the
    // account reports, so a patcher run by root for a desktop user still reaches that
    // user's folder. Without a known user there is no folder to name.
    if (userName && !userName->empty()) {
        _dirTokenDictionary["[UserPreferences]"] =
            JoinPath(JoinPath(paths.usersRoot, *userName), paths.userPreferencesFolder);
    }
}

std::optional<DirTokenResolver::LeadingToken>
DirTokenResolver::leadingToken(const std::string& path,
                               const std::optional<std::string>& appPath) const {
    if (appPath && StartsWith(path, kInstallDirToken))
        return LeadingToken{kInstallDirToken, *appPath};
    for (const char* token : kTokenOrder) {
        if (!StartsWith(path, token))
            continue;
        auto entry = _dirTokenDictionary.find(token);
        if (entry == _dirTokenDictionary.end())
            return std::nullopt;
        return LeadingToken{entry->first, entry->second};
    }
    return std::nullopt;
}

std::optional<std::string>
DirTokenResolver::replaceToken(const std::string& path,
                               const std::optional<std::string>& appPath) const {
    const auto leading = leadingToken(path, appPath);
    if (!leading)
        return std::nullopt;
    std::string result = path;
    result.replace(0, leading->token.size(), leading->folder);
    return result;
}

std::string DirTokenResolver::expandedPath(const std::string& path,
                                           const std::optional<std::string>& appPath) const {
    return replaceToken(path, appPath).value_or(path);
}

std::string
DirTokenResolver::expandDirectoryTokenForPath(const std::string& path,
                                              const std::optional<std::string>& appPath) const {
    if (const auto result = replaceToken(path, appPath)) {
        NSLevelledLog(3, "Expanded %@ to %@ ", path, *result);
        if (*result != path)
            return *result;
    }
    NSLevelledLog(3, "No expansion is performed");
    return path;
}
