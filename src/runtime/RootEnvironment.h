#pragma once

#include <string>
#include <vector>

// What a root run takes from the environment it was started with. Variables that make the
// dynamic loader, the C library or the libraries the patcher uses load code or data from
// elsewhere (LD_*, GCONV_PATH, LOCPATH, Qt's plugin paths, another installation database,
// and the like) are not honoured: a root run removes them and starts itself again, so that
// not even the loader has used them, and the new run logs which ones it ignored.

// The names of the variables in env (a NULL-terminated "NAME=value" list) that a root run
// does not honour, in their order there.
std::vector<std::string> VariablesARootRunIgnores(const char* const* env);

// For a process running as root: removes every variable VariablesARootRunIgnores names and
// replaces the process by a fresh start of its own program with the same arguments (its
// return only when that start fails, with the variables removed all the same). Does
// nothing for another user, or when there is nothing to remove.
void StartAgainWithoutUnsafeVariables(char** argv);

// The names the earlier start of this run removed, comma-separated ("" when none), for the
// log; read once at start.
const std::string& IgnoredEnvironment();
