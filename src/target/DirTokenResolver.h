#pragma once

#include "runtime/PlatformPaths.h"

#include <map>
#include <optional>
#include <string>

// Expands the bracketed directory token at the head of a path ("[Library]/Fonts/x") into
// the folder it stands for. The folders come from the platform table; "[UserPreferences]"
// is the preferences folder of the console user; "[INSTALLDIR]" is the installed
// application's path that the caller hands in.
class DirTokenResolver {
public:
    // The table of the given platform, with the console user (GetUserName) for
    // "[UserPreferences]".
    explicit DirTokenResolver(const PlatformPaths& paths);
    // As above with the user given; without a user there is no "[UserPreferences]" entry.
    DirTokenResolver(const PlatformPaths& paths, const std::optional<std::string>& userName);

    // The path with its leading token replaced by the token's folder, or an unchanged copy
    // when it starts with no known token. "[INSTALLDIR]" is replaced only when appPath is
    // given. Tokens are matched case-sensitively and only at the very start of the path.
    [[nodiscard]] std::string
    expandDirectoryTokenForPath(const std::string& path,
                                const std::optional<std::string>& appPath) const;

    // The same expansion without a log line, for paths worked out ahead of their entry.
    [[nodiscard]] std::string expandedPath(const std::string& path,
                                           const std::optional<std::string>& appPath) const;

    // The token at the head of path (brackets included) and the folder it names; nothing
    // when the path starts with no known token.
    struct LeadingToken {
        std::string token;
        std::string folder;
    };
    [[nodiscard]] std::optional<LeadingToken>
    leadingToken(const std::string& path, const std::optional<std::string>& appPath) const;

    // Token text (brackets included) to folder.
    const std::map<std::string, std::string>& tokenTable() const { return _dirTokenDictionary; }

private:
    // The path with its token replaced, or nothing when it starts with no known token.
    std::optional<std::string> replaceToken(const std::string& path,
                                            const std::optional<std::string>& appPath) const;

    std::map<std::string, std::string> _dirTokenDictionary;
};
