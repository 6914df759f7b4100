#pragma once

#include "app/FrontEnd.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

// The patcher changes root's files, so a run that is not root's is settled before it
// starts: a user at the desktop is asked for an administrator's password through pkexec,
// which starts the patcher again as root; a user at a terminal is told to use sudo. Silent
// and managed runs are left to whoever started them.
enum class Elevation {
    NotNeeded,     // root already, or a silent or managed run
    ThroughPkexec, // windows: start again through pkexec
    UseSudo,       // terminal: say so and end before any change
    Unavailable,   // windows, but pkexec is not installed: say so and end
};

Elevation DecideElevation(bool isRoot, FrontEndKind kind, bool pkexecInstalled);

// The environment the windows of the run started again need, and the desktop user's home
// for the log; pkexec passes on nothing else.
inline const std::vector<std::string> kElevatedEnvironment = {
    "DISPLAY", "WAYLAND_DISPLAY", "XAUTHORITY", "XDG_RUNTIME_DIR", "HOME",
    "LANG",    "LANGUAGE",        "LC_ALL",     "LC_MESSAGES"};

// The command line that starts program (with its arguments) again as root through pkexec:
// pkexec runs env, which sets the variables above that are set here and starts program.
std::vector<std::string>
PkexecCommandLine(const std::string& pkexec, const std::string& program,
                  const std::vector<std::string>& arguments,
                  const std::function<std::optional<std::string>(const std::string&)>& variable);

// pkexec's exit status when the administrator's password was not given (the dialog was
// dismissed, or the password was wrong).
bool ElevationWasRefused(int pkexecStatus);

// Runs the command line and waits for it; its exit status (128+N for signal N, 127 when it
// could not be started).
int RunAndWait(const std::vector<std::string>& commandLine);
