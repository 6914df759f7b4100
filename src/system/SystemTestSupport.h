#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

// Helpers for the system layer's tests: re-running this test program under another
// identity or in a private mount namespace, and small child processes.

// The path of the running test program.
std::string SelfExecutable();

// Runs this test program with the disabled tests of the filter enabled, behind the
// prefix command (setpriv, unshare...), with the extra environment; returns the exit
// status and puts standard output and error into output.
int RunSelfWithPrefix(const std::vector<std::string>& prefix, const std::string& filter,
                      const std::vector<std::string>& extraEnv, std::string& output);

// The value of an environment variable, or the empty text.
std::string EnvironmentValue(const char* name);

// The mount namespace of this process ("mnt:[4026531841]").
std::string MountNamespaceId();

// Starts "sleep <seconds>" as a child (optionally under another program name through a
// symbolic link in folder) and returns its id.
pid_t StartSleeper(double seconds, const std::string& linkFolder = {},
                   const std::string& name = {});
// Kills and reaps a child started by StartSleeper (ignores ids that are gone).
void KillAndReap(pid_t pid);
