#include "VersionRegex.h"

#include <cstdlib>
#include <cstring>

namespace ofv {

bool SearchExpression(const char* inBegin, const char* inEnd, const char* inExpression,
                      boost::cmatch& outMatch) {
    try {
        // Compiled afresh on every call: each versioner runs once per file.
        const boost::regex expression(inExpression, boost::regex::perl);
        return boost::regex_search(inBegin, inEnd, outMatch, expression);
    } catch (...) {
        return false;
    }
}

bool SearchExpression(const char* inBegin, const char* inEnd, const char* inExpression) {
    boost::cmatch match;
    return SearchExpression(inBegin, inEnd, inExpression, match);
}

bool SearchExpression(const std::string& inText, const char* inExpression) {
    return SearchExpression(inText.data(), inText.data() + inText.size(), inExpression);
}

int32_t GroupToInt(const boost::csub_match& inGroup) {
    const std::string digits = inGroup.str();
    // strtol saturates on overflow; the narrowing then keeps the low 32 bits, which is what
    // glibc's atoi returns for the same text.
    return static_cast<int32_t>(std::strtol(digits.c_str(), nullptr, 10));
}

void ResetVersion(OFV_FileVersion& outVersion) {
    std::memset(&outVersion, 0xFF, sizeof outVersion);
}

} // namespace ofv
