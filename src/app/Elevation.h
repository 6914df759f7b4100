#pragma once

#include "app/ElevatedEnvironment.h"
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

// The command line that starts program (with its arguments) again as root through pkexec:
// pkexec runs the launcher (env, or the patchers' own launcher where the polkit action is
// installed), which sets the variables of kElevatedEnvironment that are set here and starts
// program.
std::vector<std::string>
PkexecCommandLine(const std::string& pkexec, const std::string& launcher,
                  const std::string& program, const std::vector<std::string>& arguments,
                  const std::function<std::optional<std::string>(const std::string&)>& variable);

// The launcher pkexec is to start: the patchers' own (its polkit action names the request
// "Update an Orvel application") when it is installed where only root can change it, else
// env, which pkexec's generic action covers.
std::string ElevationLauncher(const std::string& patchersLauncher);

// pkexec's exit status when the administrator's password was not given (the dialog was
// dismissed, or the password was wrong).
bool ElevationWasRefused(int pkexecStatus);

// Runs the command line and waits for it; its exit status (128+N for signal N, 127 when it
// could not be started).
int RunAndWait(const std::vector<std::string>& commandLine);
