// Regular-expression helpers shared by the versioners that find their marks and version lines
// with expressions.
#pragma once

#include "FileUtils.h"
#include "xplat/OrvelFileVersioner.h"

#include <boost/regex.hpp>

#include <string>
#include <vector>

namespace ofv {

// Searches inExpression (Perl syntax, default flags) anywhere in [inBegin, inEnd); the first
// match goes to outMatch. Any regex error, such as a search that grows too complex, counts as
// no match.
bool SearchExpression(const char* inBegin, const char* inEnd, const char* inExpression,
                      boost::cmatch& outMatch);
bool SearchExpression(const char* inBegin, const char* inEnd, const char* inExpression);
bool SearchExpression(const std::string& inText, const char* inExpression);

// The range that version expressions are searched in: the bytes read without the last one,
// so a version that ends exactly at the last byte read is cut short or missed.
inline const char* VersionSearchEnd(const std::vector<char>& inBytes) {
    return inBytes.empty() ? inBytes.data() : inBytes.data() + inBytes.size() - 1;
}

// The integer value of one captured group as the C library's atoi reads it: leading digits,
// 0 for an empty group, truncated to 32 bits like glibc's atoi when the digits overflow.
int32_t GroupToInt(const boost::csub_match& inGroup);

// Sets all four parts of outVersion to -1 (unset).
void ResetVersion(OFV_FileVersion& outVersion);

} // namespace ofv

namespace ofv {

// Sets all four parts of outVersion to -1, then parts 0 to 3 from groups 1 to 4 of inMatch
// (an empty group gives 0) through the versioner's part setter.
template <class TVersioner>
void SetVersionFromGroups(const boost::cmatch& inMatch, OFV_FileVersion& outVersion) {
    ResetVersion(outVersion);
    for (int part = 0; part < 4; ++part) {
        TVersioner::SetVersionPart(part, GroupToInt(inMatch[part + 1]), outVersion);
    }
}

// The versioning of a file whose first inBytesToRead bytes hold its version: the bytes read
// (at least one) must satisfy inAccepts(bytes), the file's mark by name or by content; then
// groups 1 to 4 of inVersionExpression, searched in VersionSearchEnd's range, give the
// version and outType becomes inType. Nothing is set when false is returned.
template <class TVersioner, class TAccepts>
bool VersionFromLeadingBytes(const PlatformFilePath& inPath, std::size_t inBytesToRead,
                             TAccepts inAccepts, const char* inVersionExpression,
                             OFV_FileType inType, OFV_FileVersion& outVersion,
                             OFV_FileType& outType) {
    std::vector<char> bytes;
    if (!ReadFileBytes(inPath, inBytesToRead, bytes) || bytes.empty()) {
        return false;
    }
    if (!inAccepts(bytes)) {
        return false;
    }
    boost::cmatch match;
    if (!SearchExpression(bytes.data(), VersionSearchEnd(bytes), inVersionExpression, match)) {
        return false;
    }
    SetVersionFromGroups<TVersioner>(match, outVersion);
    outType = inType;
    return true;
}

} // namespace ofv
