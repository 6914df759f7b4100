#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

// Helpers for the system layer's tests: small child processes. Re-running this test
// program under another identity or in a private mount namespace is in TestSupport.h.

#include "TestSupport.h"

// Starts "sleep <seconds>" as a child (optionally under another program name through a
// symbolic link in folder) and returns its id.
pid_t StartSleeper(double seconds, const std::string& linkFolder = {},
                   const std::string& name = {});
// Kills and reaps a child started by StartSleeper (ignores ids that are gone).
void KillAndReap(pid_t pid);
