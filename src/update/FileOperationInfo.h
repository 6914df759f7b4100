#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// The value every optional manifest field takes when the manifest leaves it out. It is
// compared ignoring case wherever a field is tested for presence.
inline constexpr const char* kAbsentMarker = "x1y2z3";

// True when the two texts are equal ignoring ASCII letter case.
inline bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i) {
        char x = a[i], y = b[i];
        if (x >= 'A' && x <= 'Z')
            x = static_cast<char>(x - 'A' + 'a');
        if (y >= 'A' && y <= 'Z')
            y = static_cast<char>(y - 'A' + 'a');
        if (x != y)
            return false;
    }
    return true;
}

// True when the field holds the absent marker (in any letter case).
inline bool IsAbsentField(std::string_view value) {
    return EqualsIgnoringCase(value, kAbsentMarker);
}

// One File entry of a manifest (or of the rollback journal, which is a manifest too).
// Absent fields hold kAbsentMarker. DestinationPath and RenamePath are full paths with the
// directory tokens already expanded.
struct FileOperationInfo {
    std::string Operation = kAbsentMarker;
    std::string ObjectName = kAbsentMarker;
    std::string Touch = kAbsentMarker;
    std::string DestinationPath = kAbsentMarker;
    std::string BeforePatch = kAbsentMarker;
    std::string AfterPatch = kAbsentMarker;
    std::string RenamePath = kAbsentMarker;
    std::string UserID = kAbsentMarker;
    std::string GroupID = kAbsentMarker;
    std::string Permission = kAbsentMarker;
};

// One Directory entry: "ADD" or "REMOVE" and the folder, tokens expanded.
struct DirectoryOperationInfo {
    std::string Operation = kAbsentMarker;
    std::string DirectoryBase = kAbsentMarker;
};
