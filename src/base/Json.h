#pragma once

#include <string>
#include <string_view>

// The text as a JSON string, quotes included: the escapes JSON requires, control characters
// as \u00XX, and bytes that are not UTF-8 as U+FFFD so that the document stays valid.
std::string JsonQuoted(std::string_view text);
