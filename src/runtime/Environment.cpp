#include "runtime/Environment.h"

#include "runtime/LoggerUtility.h"

#include <atomic>
#include <cctype>
#include <cstdlib>
#include <mutex>

namespace {

std::atomic<bool> gSilentFlag{false};
std::atomic<bool> gComboFlag{false};
std::atomic<bool> gRunningUnderKORFlag{false};
std::atomic<bool> gShowUIFlag{false};
// Everything is logged until the command line says otherwise, as main sets it first thing;
// code that runs without main (tests, tools) then logs everything too.
std::atomic<unsigned> gVerbosityLevel{3};

// The language is written on the main thread while the worker may read it; the lock keeps
// a reader from seeing a string being replaced.
std::mutex gLanguageMutex;
std::optional<std::string> gInstallLanguage;

char FoldCase(char c) {
    return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

} // namespace

void SetENVsilentFlag(bool flag) {
    gSilentFlag = flag;
}
bool GetENVsilentFlag() {
    return gSilentFlag;
}
void SetENVcomboFlag(bool flag) {
    gComboFlag = flag;
}
bool GetENVcomboFlag() {
    return gComboFlag;
}
void SetENVrunningUnderKORFlag(bool flag) {
    gRunningUnderKORFlag = flag;
}
bool GetENVrunningUnderKORFlag() {
    return gRunningUnderKORFlag;
}
void SetENVshowUIFlag(bool flag) {
    gShowUIFlag = flag;
}
bool GetENVshowUIFlag() {
    return gShowUIFlag;
}

unsigned SetENVverbosityLevel(const std::string& levelName) {
    unsigned level = ResolveLogLevelString(levelName);
    gVerbosityLevel = level;
    return level;
}

unsigned GetENVverbosityLevel() {
    return gVerbosityLevel;
}

void SetENVinstallLanguage(const std::string& language) {
    std::lock_guard lock(gLanguageMutex);
    gInstallLanguage = language;
}

void ClearENVinstallLanguage() {
    std::lock_guard lock(gLanguageMutex);
    gInstallLanguage.reset();
}

std::string GetENVinstallLanguage() {
    {
        std::lock_guard lock(gLanguageMutex);
        if (gInstallLanguage)
            return *gInstallLanguage;
    }
    return UserLocale();
}

std::string UserLocale() {
    const char* name = nullptr;
    for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* value = std::getenv(variable);
        if (value && *value) {
            name = value;
            break;
        }
    }
    std::string locale = name ? name : "";
    // language[_territory][.codeset][@modifier]
    locale = locale.substr(0, locale.find_first_of(".@"));
    if (locale.empty() || locale == "C" || locale == "POSIX")
        return "en_US";
    auto underscore = locale.find('_');
    if (underscore == std::string::npos)
        return locale;
    return StringWithFormat("%@_%@", locale.substr(0, underscore), locale.substr(underscore + 1));
}

bool ContainsString(const std::string& text, const std::string& pattern, StringRange& range) {
    range = StringRange{};
    if (!pattern.empty() && pattern.size() <= text.size()) {
        for (size_t i = 0; i + pattern.size() <= text.size(); ++i) {
            size_t k = 0;
            while (k < pattern.size() && FoldCase(text[i + k]) == FoldCase(pattern[k]))
                ++k;
            if (k == pattern.size()) {
                range = StringRange{i, pattern.size()};
                break;
            }
        }
    }
    return range.location != StringRange::kNotFound && range.length != 0;
}

std::optional<std::string> GetArgValue(const std::string& text, size_t location, size_t length) {
    size_t start = location + length;
    if (start > text.size())
        return std::nullopt;
    size_t blank = text.find(' ', start);
    if (blank == std::string::npos)
        return std::nullopt;
    std::string value = text.substr(start, blank - start);
    NSLevelledLog(3, "%@", value);
    return value;
}

void ReadRunFlags(int argc, const char* const* argv) {
    SetENVsilentFlag(false);
    SetENVverbosityLevel("debug");
    if (argc <= 1)
        return;
    std::string arguments;
    arguments.reserve(1024);
    for (int i = 1; i < argc; ++i) {
        arguments += argv[i] ? argv[i] : "";
        arguments += ' ';
    }
    StringRange range;
    SetENVsilentFlag(ContainsString(arguments, "-Silent", range));
    if (ContainsString(arguments, "-logLevel=", range)) {
        if (auto value = GetArgValue(arguments, range.location, range.length))
            SetENVverbosityLevel(*value);
    }
}
