#pragma once

#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

class DirTokenResolver;
class XmlNode;

// Keeps a manifest's changes inside the folders its directory tokens name. A path counts
// only when it starts with a known token, has no ".." component and, once expanded, lies
// below the token's folder ("[INSTALLDIR]" is the installed application); and a path is
// reached only through real folders below that folder, never through a symbolic link,
// since a link there could lead root anywhere.
class ManifestConfinement {
public:
    ManifestConfinement(const DirTokenResolver& dirToken, std::string appPath);

    // Why the whole manifest may not be applied, naming the first entry and path at fault:
    // every destination, rename target, folder and bundle path of its sets, each localized
    // name included (a link's content aside, which is written, never followed); nothing
    // when every path is confined. Checked before anything is touched.
    [[nodiscard]] std::optional<std::string> manifestProblem(const XmlNode& root) const;

    // Why the manifest path (tokens not expanded) may not be used; nothing when it is
    // confined, with its expansion in expanded and the token's folder in base.
    [[nodiscard]] std::optional<std::string> pathProblem(const std::string& path,
                                                         std::string* expanded = nullptr,
                                                         std::string* base = nullptr) const;

    // Why the manifest path may not be used now: pathProblem's reason, or the symbolic link
    // on its way below the token's folder (linkOnTheWay); nothing when it may.
    [[nodiscard]] std::optional<std::string> useProblem(const std::string& path) const;
    // The same, skipping the look for links in a folder found free of them since the caller
    // last emptied linkFree (it adds each folder it finds so). The caller empties it whenever
    // something may have put a link among those folders.
    [[nodiscard]] std::optional<std::string>
    useProblem(const std::string& path, std::unordered_set<std::string>& linkFree) const;

    // The folders the tokens name (the installed application's among them), where the file
    // system is to reach paths without following links (RealFileSystem::confineBelow).
    [[nodiscard]] std::vector<std::string> folders() const;

    // The first symbolic link among the folders between base (not itself checked) and
    // path (its last component, which the entry changes as it is, not checked either);
    // nothing when every existing one is a real folder.
    static std::optional<std::string> linkOnTheWay(const std::string& base,
                                                   const std::string& path);

private:
    const DirTokenResolver& _dirToken;
    std::string _appPath;
};
