#pragma once

#include <string>

// Path texts as the patcher joins and splits them. Every function works on the text alone
// (no file-system access) and gives one answer for the edge cases:
//   - trailing slashes are ignored ("/a/b/" is "/a/b"), except that "/" stays "/";
//   - the root is its own last component and its own parent;
//   - a path of one component ("name") has the parent "" (no folder), as does "";
//   - "." is a component like any other.

// folder + "/" + name, with exactly one slash between them. An empty side gives the other.
std::string JoinPath(const std::string& folder, const std::string& name);
// The path without its last component: "/a" for "/a/b", "/" for "/a" and "/", "" for
// "name" and "".
std::string ParentPath(const std::string& path);
// The last component: "b" for "/a/b/", "/" for "/", "" for "".
std::string LastPathComponent(const std::string& path);
// The extension of the last component without its dot: "" when there is no dot, when the
// only dot starts the name (a hidden file) or ends it.
std::string PathExtension(const std::string& path);
// The path with its trailing slashes dropped ("/" stays "/").
std::string WithoutTrailingSlashes(std::string path);
// True when path is folder itself or lies below it, compared component by component
// ("/opt/a" is inside "/opt", "/optx" is not). Both are taken as they are: no "..", no
// links resolved.
bool IsPathInside(const std::string& path, const std::string& folder);

// File-system questions about a path, asked with one stat call each.
// Something is there (links followed; a dangling link or a loop is nothing).
bool PathExists(const std::string& path);
// Something is there, a link counting as itself.
bool PathExistsNoFollow(const std::string& path);
// A folder is there (links followed).
bool FolderExists(const std::string& path);
