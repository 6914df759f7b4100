// Assertions for programming errors inside the file-versioning library. They stay active in
// release builds: a broken caller contract must stop the process rather than produce a wrong
// version that could let an older file replace a newer one.
#pragma once

// Prints "<file>:<line>: failed assertion `<expression>'" on standard error and aborts.
[[noreturn]] void OFV_AssertionFailed(const char* inFile, unsigned inLine,
                                      const char* inExpression);

#define OFV_ASSERT(expression)                                                                     \
    ((expression) ? (void)0 : OFV_AssertionFailed(__FILE__, __LINE__, #expression))
