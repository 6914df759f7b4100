#include "app/CommandLine.h"
#include "app/FrontEnd.h"
#include "runtime/Environment.h"
#include "runtime/RootEnvironment.h"

#include <clocale>
#include <csignal>
#include <cstdio>

int main(int argc, char** argv) {
    // Help, the version and a mistyped option end here, before anything else runs.
    const CommandLine line = CommandLine::parse(argc, argv);
    if (line.help || line.version) {
        std::fputs(line.help ? PatcherUsage().c_str() : PatcherVersionText().c_str(), stdout);
        return 0;
    }
    if (!line.error.empty()) {
        std::fprintf(stderr, "PatcherApp: %s\n%s", line.error.c_str(), PatcherUsage().c_str());
        return 2;
    }
    // A reader of the status stream or of standard error that goes away must not end an
    // update half-way; a failed write is seen as such.
    ::signal(SIGPIPE, SIG_IGN);
    StartAgainWithoutUnsafeVariables(argv);
    ReadRunFlags(argc, argv);
    // A dry run writes no log file: only what matters goes to standard error, unless a
    // level is asked for.
    if (line.dryRun && !line.logLevelGiven)
        SetENVverbosityLevel("error");
    std::setlocale(LC_ALL, "");
    return RunPatcherApplication(argc, argv, line);
}
