#pragma once

// Helpers for the tests of the installation database client: databases made by zothctl and
// chosen through the library's environment variable.

#include "TestSupport.h"

#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

// Runs zothctl on the database; its exit status.
inline int RunZothctl(const std::string& db, const std::vector<std::string>& args,
                      const std::string& stderrPath = {}) {
    std::vector<std::string> argv{ZOTHCTL_PATH, "--db", db};
    argv.insert(argv.end(), args.begin(), args.end());
    return RunProgram(argv, {}, {}, stderrPath);
}

// Sets an environment variable for the life of the object.
class ScopedEnvironment {
public:
    ScopedEnvironment(const char* name, const std::string& value) : _name(name) {
        if (const char* old = std::getenv(name))
            _old = old;
        ::setenv(name, value.c_str(), 1);
    }
    ~ScopedEnvironment() {
        if (_old)
            ::setenv(_name, _old->c_str(), 1);
        else
            ::unsetenv(_name);
    }
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

private:
    const char* _name;
    std::optional<std::string> _old;
};
