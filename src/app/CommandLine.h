#pragma once

#include <optional>
#include <string>

// PatcherApp's command line. Besides the run flags ("-Silent", "-logLevel=LEVEL", read by
// ReadRunFlags), it takes the options below; anything else that looks like an option is a
// mistake that must never start an update.
struct CommandLine {
    bool help = false;                     // --help, -h: print the usage and end
    bool version = false;                  // --version: print the version and end
    bool dryRun = false;                   // --dry-run: check everything, change nothing
    bool logLevelGiven = false;            // "-logLevel=" is among the arguments
    std::optional<std::string> resultJson; // --result-json PATH: the result as JSON
    std::optional<int> statusFd;           // --status-fd N: progress as JSON lines
    std::string error;                     // why the command line is refused; empty when not

    static CommandLine parse(int argc, const char* const* argv);
};

// The text --help prints.
std::string PatcherUsage();
// The text --version prints.
std::string PatcherVersionText();
