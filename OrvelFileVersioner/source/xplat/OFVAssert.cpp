#include "xplat/OFVAssert.h"

#include <cstdio>
#include <cstdlib>

void OFV_AssertionFailed(const char* inFile, unsigned inLine, const char* inExpression) {
    std::fprintf(stderr, "%s:%u: failed assertion `%s'\n", inFile, inLine, inExpression);
    std::fflush(stderr);
    std::abort();
}
