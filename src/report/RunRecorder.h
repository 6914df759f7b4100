#pragma once

#include "report/SilentReturnHandler.h"

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

// What a run tells scripts and fleet tools: JSON lines of progress on a file descriptor
// while it runs (--status-fd), and one JSON object with its result when it ends
// (--result-json). The code is the one a silent run ends with, in every mode. Safe to call
// from the background worker and the main thread.
//
// Progress line: {"phase":P,"item":n,"of":m,"path":TEXT,"bytes":N}, where P is "checking",
// "extracting", "applying", "undoing" or "done" (the last one with "code" instead of the
// item fields).
// Result: {"code":N,"message":TEXT,"mode":TEXT,"product":TEXT,"fromVersion":TEXT,
// "toVersion":TEXT,"startedAt":TEXT,"durationSeconds":X,"rolledBack":B,
// "operations":[{"keyword":K,"path":TEXT,"result":R,"bytes":N}...]}, R being "done" or
// "failed".
class RunRecorder {
public:
    struct Operation {
        std::string keyword;
        std::string path;
        std::string result;
        uint64_t bytes = 0;
    };

    RunRecorder();
    // fd: where the progress lines go (-1: nowhere); resultPath: where the result goes
    // (empty: nowhere).
    void setOutputs(int statusFd, std::string resultPath);
    void setMode(const std::string& mode);
    void setIdentity(const std::string& product, const std::string& fromVersion,
                     const std::string& toVersion);

    void progress(const std::string& phase, int item, int of, const std::string& path,
                  uint64_t bytes = 0);
    void operation(Operation operation);
    // Sets the bytes of every operation that was done to the size of the regular file now
    // at its path: what an update leaves in place, once all of it is in place. Only where a
    // result file is to be written (setOutputs).
    void measureDoneOperations();
    void setRolledBack(bool rolledBack);
    // The run's result; the first one recorded counts.
    void finish(SilentReturnCode code, const std::string& message);
    std::optional<SilentReturnCode> code() const;

    // The result as JSON (the object above).
    std::string resultJson() const;
    // Writes the result to its file, a new file renamed over the old one, and the last
    // progress line; false (logged) when the file cannot be written.
    bool writeResult();

private:
    void writeLine(const std::string& line);

    mutable std::mutex _mutex;
    int _statusFd = -1;
    std::string _resultPath;
    std::string _mode, _product, _fromVersion, _toVersion;
    std::chrono::steady_clock::time_point _start;
    std::string _startedAt;
    std::vector<Operation> _operations;
    bool _rolledBack = false;
    std::optional<SilentReturnCode> _code;
    std::string _message;
};
