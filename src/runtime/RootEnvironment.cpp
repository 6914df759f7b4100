#include "runtime/RootEnvironment.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>

extern char** environ;

namespace {

// Carries the removed names across the new start (only ever logged).
constexpr const char* kIgnoredVariable = "ORVEL_PATCHER_IGNORED_ENVIRONMENT";

// The C library's own list of variables it ignores in privileged programs (but TMPDIR,
// which the patcher never uses: its places are fixed), with the libraries' plugin paths and
// this project's database location.
constexpr const char* kUnsafeNames[] = {
    "GCONV_PATH",      "GETCONF_DIR",
    "GLIBC_TUNABLES",  "HOSTALIASES",
    "LOCALDOMAIN",     "LOCPATH",
    "MALLOC_TRACE",    "NIS_PATH",
    "NLSPATH",         "RESOLV_HOST_CONF",
    "RES_OPTIONS",     "TZDIR",
    "QT_PLUGIN_PATH",  "QT_QPA_PLATFORM_PLUGIN_PATH",
    "QML_IMPORT_PATH", "QML2_IMPORT_PATH",
    "QT_QPA_FONTDIR",  "ORVEL_ZOTH_DB",
};

bool IsUnsafe(const std::string& name) {
    if (name.rfind("LD_", 0) == 0)
        return true;
    for (const char* unsafe : kUnsafeNames) {
        if (name == unsafe)
            return true;
    }
    return false;
}

std::string TakeIgnoredNames() {
    const char* value = std::getenv(kIgnoredVariable);
    std::string names = value ? value : "";
    ::unsetenv(kIgnoredVariable);
    return names;
}

} // namespace

std::vector<std::string> VariablesARootRunIgnores(const char* const* env) {
    std::vector<std::string> names;
    for (; env && *env; ++env) {
        const char* equals = std::strchr(*env, '=');
        const std::string name = equals ? std::string(*env, equals) : std::string(*env);
        if (IsUnsafe(name))
            names.push_back(name);
    }
    return names;
}

void StartAgainWithoutUnsafeVariables(char** argv) {
    (void)IgnoredEnvironment(); // what an earlier start removed, before this one changes it
    if (::geteuid() != 0)
        return;
    const std::vector<std::string> names = VariablesARootRunIgnores(environ);
    if (names.empty())
        return;
    std::string list;
    for (const std::string& name : names) {
        ::unsetenv(name.c_str());
        list += (list.empty() ? "" : ", ") + name;
    }
    ::setenv(kIgnoredVariable, list.c_str(), 1);
    ::execv("/proc/self/exe", argv);
    // No fresh start: go on with the variables removed.
    ::unsetenv(kIgnoredVariable);
}

const std::string& IgnoredEnvironment() {
    static const std::string names = TakeIgnoredNames();
    return names;
}
