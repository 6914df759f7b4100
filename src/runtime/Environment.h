#pragma once

#include <cstddef>
#include <optional>
#include <string>

// The run environment: process-wide settings made at start from the command line and read
// by the rest of the program through these getters. Only the main thread writes them.

void SetENVsilentFlag(bool flag);
bool GetENVsilentFlag();
void SetENVcomboFlag(bool flag);
bool GetENVcomboFlag();
void SetENVrunningUnderKORFlag(bool flag);
bool GetENVrunningUnderKORFlag();
void SetENVshowUIFlag(bool flag);
bool GetENVshowUIFlag();

// Stores the level number of the level name and returns it.
unsigned SetENVverbosityLevel(const std::string& levelName);
unsigned GetENVverbosityLevel();

void SetENVinstallLanguage(const std::string& language);
// The stored install language, or the user's locale when none was set.
std::string GetENVinstallLanguage();
// Forgets the stored install language (for a fresh run environment in tests).
void ClearENVinstallLanguage();

// The user's locale as "<language>_<country>" ("de_DE" for LANG=de_DE.UTF-8), taken from
// LC_ALL, LC_MESSAGES or LANG in that order, as the C library chooses its locale. A locale
// without a country gives the language alone; "C", "POSIX" or none give "en_US".
std::string UserLocale();

struct StringRange {
    static constexpr size_t kNotFound = static_cast<size_t>(-1);
    size_t location = kNotFound;
    size_t length = 0;
};

// Case-insensitive search of pattern in the whole text. The found range is stored in every
// case; true only when something non-empty was found.
bool ContainsString(const std::string& text, const std::string& pattern, StringRange& range);

// The value behind a found option: from the end of the option up to the next blank. Nothing
// when no blank follows.
std::optional<std::string> GetArgValue(const std::string& text, size_t location, size_t length);

// Sets the run flags from the command line: silent flag false and level "debug" first,
// then "-Silent" and "-logLevel=<name>" found anywhere in the joined arguments.
void ReadRunFlags(int argc, const char* const* argv);
