#pragma once

#include <optional>
#include <string>

struct CommandLine;

// Which front end a run gets: the Qt windows when a user started it and a display is
// there, the terminal when a user started it without a display, and none (headless) for
// silent and update-manager runs, which never need a display.
enum class FrontEndKind { Qt, Terminal, Headless };

FrontEndKind ChooseFrontEnd(bool silent, bool underUpdateManager, bool haveDisplay);

// True when DISPLAY or WAYLAND_DISPLAY names a display.
bool HaveDisplay();

// Nothing when the display the environment names answers a connection (the Wayland socket,
// the X server's local socket or its TCP port); else why not, for the log.
std::optional<std::string> DisplayProblem();

// Makes the bundle's string tables usable whatever locales the machine has installed.
void PrepareMessageLocale();

// Runs the patcher's event loop with the chosen front end until the run ends; returns the
// process's exit status.
int RunPatcherApplication(int argc, char** argv, const CommandLine& line);
