#include "update/ManifestConfinement.h"

#include "base/FileUtil.h"
#include "base/Path.h"
#include "base/Xml.h"
#include "target/DirTokenResolver.h"
#include "update/FileOperationInfo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unordered_set>
#include <vector>

namespace {

std::string ThroughLink(const std::string& path, const std::string& link) {
    return "\"" + path + "\" is reached through the symbolic link " + link;
}

std::optional<std::string> SingleText(const XmlNode& node, const char* expression) {
    const auto nodes = node.select(expression);
    if (!IsSingleElement(nodes))
        return std::nullopt;
    return nodes.front().stringValue();
}

} // namespace

ManifestConfinement::ManifestConfinement(const DirTokenResolver& dirToken, std::string appPath)
    : _dirToken(dirToken), _appPath(std::move(appPath)) {}

std::optional<std::string> ManifestConfinement::pathProblem(const std::string& path,
                                                            std::string* expanded,
                                                            std::string* base) const {
    const auto leading = _dirToken.leadingToken(path, _appPath);
    if (!leading || leading->folder.empty() || leading->folder[0] != '/')
        return "\"" + path + "\" does not start with a directory token of a known folder";
    const std::string rest = path.substr(leading->token.size());
    // "[INSTALLDIR]x" would name a sibling of the folder, not something inside it.
    if (!rest.empty() && rest[0] != '/')
        return "\"" + path + "\" does not lie inside the folder " + leading->token + " names";
    for (size_t start = 0; start <= rest.size();) {
        const size_t end = std::min(rest.find('/', start), rest.size());
        if (rest.compare(start, end - start, "..") == 0)
            return "\"" + path + "\" has a \"..\" component";
        start = end + 1;
    }
    if (expanded)
        *expanded = leading->folder + rest;
    if (base)
        *base = leading->folder;
    return std::nullopt;
}

std::optional<std::string> ManifestConfinement::useProblem(const std::string& path) const {
    std::string expanded;
    std::string base;
    if (auto problem = pathProblem(path, &expanded, &base))
        return problem;
    if (auto link = linkOnTheWay(base, expanded))
        return ThroughLink(path, *link);
    return std::nullopt;
}

std::optional<std::string>
ManifestConfinement::useProblem(const std::string& path,
                                std::unordered_set<std::string>& linkFree) const {
    std::string expanded;
    std::string base;
    if (auto problem = pathProblem(path, &expanded, &base))
        return problem;
    const std::string folder = ParentPath(expanded);
    if (linkFree.count(folder))
        return std::nullopt;
    if (auto link = linkOnTheWay(base, expanded))
        return ThroughLink(path, *link);
    linkFree.insert(folder);
    return std::nullopt;
}

std::vector<std::string> ManifestConfinement::folders() const {
    std::vector<std::string> folders;
    auto add = [&](std::string folder) {
        while (folder.size() > 1 && folder.back() == '/')
            folder.pop_back();
        if (folder.size() > 1 && folder[0] == '/')
            folders.push_back(std::move(folder));
    };
    add(_appPath);
    for (const auto& [token, folder] : _dirToken.tokenTable())
        add(folder);
    return folders;
}

std::optional<std::string> ManifestConfinement::linkOnTheWay(const std::string& base,
                                                             const std::string& path) {
    if (path.size() <= base.size() || path.compare(0, base.size(), base) != 0)
        return std::nullopt;
    const std::string parent = ParentPath(path);
    if (parent.size() <= base.size())
        return std::nullopt;
    // Most paths lie in folders that exist and hold no link: one resolution in the kernel
    // says so. Otherwise (a folder not made yet, a link) the folders are looked at one by
    // one, which also names the link.
    if (const UniqueFd top(::open(base.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)); top.valid()) {
        if (OpenBeneath(top.get(), parent.substr(base.size() + 1), O_PATH | O_DIRECTORY | O_CLOEXEC,
                        true)
                .valid())
            return std::nullopt;
    }
    for (size_t at = base.size() + 1; at <= parent.size();) {
        const size_t end = std::min(parent.find('/', at), parent.size());
        const std::string level = parent.substr(0, end);
        struct stat info {};
        if (end > at && ::lstat(level.c_str(), &info) == 0 && S_ISLNK(info.st_mode))
            return level;
        at = end + 1;
    }
    return std::nullopt;
}

std::optional<std::string> ManifestConfinement::manifestProblem(const XmlNode& root) const {
    // A folder found free of links is not looked at again for the next path in it: a
    // manifest names thousands of files in a few hundred folders. (Each entry is checked
    // again as it runs, and the file system reaches every path without following links.)
    std::unordered_set<std::string> linkFree;
    auto check = [&](const std::string& where,
                     const std::string& path) -> std::optional<std::string> {
        std::string expanded;
        std::string base;
        if (auto problem = pathProblem(path, &expanded, &base))
            return where + ": " + *problem;
        std::string folder = base + '\0' + ParentPath(expanded);
        if (linkFree.contains(folder))
            return std::nullopt;
        if (auto link = linkOnTheWay(base, expanded))
            return where + ": " + ThroughLink(path, *link);
        linkFree.insert(std::move(folder));
        return std::nullopt;
    };
    // A path element's every name: its default and each localized one.
    auto checkNames = [&](const std::string& where,
                          const XmlNode& element) -> std::optional<std::string> {
        const std::string dir = element.attribute("dir").value_or("");
        std::vector<std::string> names;
        if (const auto name = element.attribute("defName"))
            names.push_back(*name);
        for (const XmlNode& localized : element.select("./FileName"))
            names.push_back(localized.stringValue());
        for (const std::string& name : names) {
            if (auto problem = check(where, JoinPath(dir, name)))
                return problem;
        }
        return std::nullopt;
    };
    auto checkFile = [&](const std::string& where,
                         const XmlNode& file) -> std::optional<std::string> {
        for (const XmlNode& destination : file.select("./DestinationPath")) {
            if (auto problem = checkNames(where, destination))
                return problem;
        }
        // A link's content is written as it is and never followed by the patcher.
        if (EqualsIgnoringCase(SingleText(file, "./Operation").value_or(""), "CREATELINK"))
            return std::nullopt;
        for (const XmlNode& rename : file.select("./RenamePath")) {
            if (auto problem = checkNames(where, rename))
                return problem;
        }
        return std::nullopt;
    };

    size_t index = 0;
    for (const XmlNode& file : root.select("/Manifest/FileSet/File")) {
        if (auto problem = checkFile("File " + std::to_string(++index), file))
            return problem;
    }
    index = 0;
    for (const XmlNode& bundle : root.select("/Manifest/BundleSet/Bundle")) {
        const std::string where = "Bundle " + std::to_string(++index);
        if (const auto path = bundle.attribute("Path")) {
            if (auto problem = check(where, *path))
                return problem;
        }
        size_t inner = 0;
        for (const XmlNode& file : bundle.select("./File")) {
            if (auto problem = checkFile(where + ", File " + std::to_string(++inner), file))
                return problem;
        }
    }
    index = 0;
    for (const XmlNode& directory : root.select("/Manifest/DirectorySet/Directory")) {
        const std::string where = "Directory " + std::to_string(++index);
        if (const auto base = SingleText(directory, "./DirectoryBase")) {
            if (auto problem = check(where, *base))
                return problem;
        }
    }
    return std::nullopt;
}
