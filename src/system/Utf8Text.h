#pragma once

#include <string_view>

// True when the bytes are well-formed UTF-8 (no overlong forms, no surrogates, nothing
// above U+10FFFF). Output of child processes and process-id files is taken as text only
// when this holds.
bool IsValidUTF8(std::string_view bytes);
