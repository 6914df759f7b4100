#pragma once

#include <string>

// An absolute path in UTF-8. The text always starts with "/" and never ends in "/" unless
// it is the root itself. On Linux the native form of a path is its UTF-8 text, so every
// "Native" operation is its UTF-8 twin.
//
// The constructors, Parent() and NameAsUTF8String() throw std::runtime_error; they are the
// only operations of this layer that throw, and callers catch at the place of the call.
class FileSystemPath {
public:
    // The current working directory; throws "Unable to get current working directory."
    FileSystemPath();
    // The text must be a valid full path (FileSystemUtils::ValidateUTF8FullPathString),
    // else throws "Invalid path passed to FileSystemPath constructor."; trailing "/" are
    // removed while the text is at least two bytes long.
    explicit FileSystemPath(const std::string& utf8Path);

    const std::string& AsUTF8String() const { return _path; }
    const std::string& AsNative() const { return _path; }

    // The last component (POSIX base name); throws "Unable to get path base name."
    std::string NameAsUTF8String() const;
    std::string NameAsNative() const { return NameAsUTF8String(); }

    // The POSIX directory name as a path; throws "Unable to get path parent." when it
    // cannot be made, or the constructor's error when it is no valid path.
    FileSystemPath Parent() const;

    // Strips leading "/" from the segment, adds one "/" unless the path already ends in one,
    // and appends the segment. The result is not validated again.
    FileSystemPath& AppendUTF8Segment(const std::string& segment);
    FileSystemPath& AppendNativeSegment(const std::string& segment) {
        return AppendUTF8Segment(segment);
    }

    // A text beginning with "/" as it is; any other text as a segment of the current
    // working directory. Throws as the constructors do.
    static FileSystemPath PathFromUTF8(const std::string& text);
    static FileSystemPath PathFromNative(const std::string& text) { return PathFromUTF8(text); }

    bool operator==(const FileSystemPath& other) const = default;

private:
    std::string _path;
};
