#pragma once

#include <string>
#include <vector>

// The environment a patcher started again as root needs for its windows, and the desktop
// user's home for the log. pkexec passes on nothing else, so the command line carries these
// as NAME=VALUE words; the launcher that pkexec starts accepts only these names.
inline const std::vector<std::string> kElevatedEnvironment = {
    "DISPLAY", "WAYLAND_DISPLAY", "XAUTHORITY", "XDG_RUNTIME_DIR", "HOME",
    "LANG",    "LANGUAGE",        "LC_ALL",     "LC_MESSAGES"};
