#pragma once

#include "xplat/OFVAssert.h"
#include "xplat/OrvelFileVersioner.h"

#include <algorithm>
#include <cstdint>
#include <vector>

// Operations on whole versions.
class VersionOps {
public:
    // The four parts of inVersion, part 0 first.
    static std::vector<int32_t> VersionToVector(const OFV_FileVersion& inVersion) {
        return {inVersion.majorVersion, inVersion.minorVersion, inVersion.fixVersion,
                inVersion.buildVersion};
    }

    // Compares the parts of inLhs and inRhs lexicographically with inCompare applied to the
    // parts as signed integers; with std::less that answers "inLhs is older than inRhs".
    // Both versions must be valid: handing in an unset part is a programming error and aborts.
    template <class Compare>
    static bool CompareVersions(const OFV_FileVersion& inLhs, const OFV_FileVersion& inRhs,
                                Compare inCompare) {
        OFV_ASSERT(inLhs.IsValid());
        OFV_ASSERT(inRhs.IsValid());
        const std::vector<int32_t> lhs = VersionToVector(inLhs);
        const std::vector<int32_t> rhs = VersionToVector(inRhs);
        return std::lexicographical_compare(lhs.begin(), lhs.end(), rhs.begin(), rhs.end(),
                                            inCompare);
    }
};
