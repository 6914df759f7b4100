#pragma once

#include "base/Format.h"
#include "runtime/Environment.h"

#include <cstdint>
#include <string>
#include <string_view>

// The log: standard error, redirected at the start of a run to the user's log file.
// Every line is written whole, with the prefix
//   "YYYY-MM-DD HH:MM:SS.mmm <process>[<pid>:<tid>] "
// in one write, so lines of the main thread and the worker never mix.

// Redirects standard error to the log file at relativePath below folder (the user's home
// folder in a run), appending. The missing folders and the file are made, and the file is
// opened, with the file-system ids of the folder's owner, walking down from the folder
// without following symbolic links; only a regular file is used. So a root run writes
// nothing its owner could not, the owner cannot point the log anywhere else, and the
// owner's own next run can append. A log that an earlier root run created there (root's,
// one name) is handed to the owner. False with the reason in problem when nothing is
// redirected.
//
// The log rotates: a log of kLogRotationBytes or more is moved aside before the run writes
// to it, and so is the log a line would take past that size during the run. "<log>.2"
// becomes "<log>.3" (the oldest is dropped), "<log>.1" becomes "<log>.2", the log becomes
// "<log>.1", and a new log is made, all as the folder's owner through the folder handle
// the walk opened. When that fails the reason is logged and the run goes on writing to the
// file it has open, with no further rotation in that run.
inline constexpr std::uint64_t kLogRotationBytes = 10 * 1024 * 1024;
inline constexpr int kLogRotationKept = 3;

[[nodiscard]] bool StartLogging(const std::string& folder, const std::string& relativePath,
                                std::string* problem = nullptr);

// From now on lines are gathered and written several at a time: when the first of them is
// 10 ms old, when 64 KB have gathered, on FlushLog, before the process forks (so the lines
// come before anything a child writes), before the log rotates, and at exit. A run makes
// thousands of lines; this saves nearly all of their system calls, and a process killed
// outright loses at most the last few milliseconds of its lines.
void BatchLogLines();

// Writes the lines gathered so far (a run calls it at the end of each manifest entry).
void FlushLog();

// Calls FlushLog when it goes out of scope, however the scope ends.
class FlushLogAtEnd {
public:
    FlushLogAtEnd() = default;
    ~FlushLogAtEnd() { FlushLog(); }
    FlushLogAtEnd(const FlushLogAtEnd&) = delete;
    FlushLogAtEnd& operator=(const FlushLogAtEnd&) = delete;
};

// "error"/"0" -> 0, "warning"/"1" -> 1, "info"/"2" -> 2, "debug"/"3" -> 3 (any case);
// anything else 0.
unsigned ResolveLogLevelString(const std::string& name);

// The 65-character separator of type 0 to 3; any other type gives the type as text.
std::string GetSeparatorStringGivenType(int type);

// Writes one line with the log prefix. The message is written as it is.
void NSLog(std::string_view message);

// A message of the level, written when the level is at most the run's verbosity.
template <typename... Args>
void NSLevelledLog(unsigned level, std::string_view format, const Args&... args) {
    if (level > GetENVverbosityLevel())
        return;
    std::string message = StringWithFormat(format, args...);
    if (message.empty())
        return;
    NSLog(message);
}

// The heading centred in a separator line of the type, when it is short enough; never
// filtered by level.
std::string ComposeHeadingLine(int type, const std::string& heading);

template <typename... Args>
void NSFormatLogWithHeading(int type, std::string_view format, const Args&... args) {
    std::string line = ComposeHeadingLine(type, StringWithFormat(format, args...));
    // The composed line is itself used as the format: "%%" in a heading prints "%".
    NSLog(StringWithFormat(line));
}

// The bare separator line of the type; never filtered by level.
void NSFormatLog(int type);
