#include "report/RunRecorder.h"

#include "base/FileUtil.h"
#include "base/Json.h"
#include "runtime/CommonUtility.h"
#include "runtime/LoggerUtility.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <pwd.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

RunRecorder::RunRecorder() : _start(std::chrono::steady_clock::now()) {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    char text[32] = "";
    if (::gmtime_r(&now, &utc))
        std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    _startedAt = text;
}

void RunRecorder::setOutputs(int statusFd, std::string resultPath) {
    std::lock_guard<std::mutex> lock(_mutex);
    _statusFd = statusFd;
    _resultPath = std::move(resultPath);
}

void RunRecorder::setMode(const std::string& mode) {
    std::lock_guard<std::mutex> lock(_mutex);
    _mode = mode;
}

void RunRecorder::setIdentity(const std::string& product, const std::string& fromVersion,
                              const std::string& toVersion) {
    std::lock_guard<std::mutex> lock(_mutex);
    _product = product;
    _fromVersion = fromVersion;
    _toVersion = toVersion;
}

void RunRecorder::writeLine(const std::string& line) {
    if (_statusFd < 0)
        return;
    const std::string text = line + "\n";
    if (!WriteAll(_statusFd, text.data(), text.size())) {
        // A reader that went away is no reason to stop the update.
        _statusFd = -1;
    }
}

void RunRecorder::progress(const std::string& phase, int item, int of, const std::string& path,
                           uint64_t bytes) {
    std::lock_guard<std::mutex> lock(_mutex);
    writeLine("{\"phase\":" + JsonQuoted(phase) + ",\"item\":" + std::to_string(item) +
              ",\"of\":" + std::to_string(of) + ",\"path\":" + JsonQuoted(path) +
              ",\"bytes\":" + std::to_string(bytes) + "}");
}

void RunRecorder::operation(Operation operation) {
    std::lock_guard<std::mutex> lock(_mutex);
    _operations.push_back(std::move(operation));
}

void RunRecorder::measureDoneOperations() {
    std::lock_guard<std::mutex> lock(_mutex);
    // Only the result file tells the sizes: a stat per operation is not spent for nothing.
    if (_resultPath.empty())
        return;
    for (Operation& operation : _operations) {
        struct stat info {};
        if (operation.result == "done" && ::lstat(operation.path.c_str(), &info) == 0 &&
            S_ISREG(info.st_mode))
            operation.bytes = static_cast<uint64_t>(info.st_size);
    }
}

void RunRecorder::setRolledBack(bool rolledBack) {
    std::lock_guard<std::mutex> lock(_mutex);
    _rolledBack = rolledBack;
}

void RunRecorder::finish(SilentReturnCode code, const std::string& message) {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_code)
        return;
    _code = code;
    _message = message;
}

std::optional<SilentReturnCode> RunRecorder::code() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _code;
}

std::string RunRecorder::resultJson() const {
    std::lock_guard<std::mutex> lock(_mutex);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - _start).count();
    char duration[32];
    std::snprintf(duration, sizeof duration, "%.3f", seconds);
    std::string json =
        "{\"code\":" + std::to_string(_code ? static_cast<int>(*_code) : 9) +
        ",\"message\":" + JsonQuoted(_message) + ",\"mode\":" + JsonQuoted(_mode) +
        ",\"product\":" + JsonQuoted(_product) + ",\"fromVersion\":" + JsonQuoted(_fromVersion) +
        ",\"toVersion\":" + JsonQuoted(_toVersion) + ",\"startedAt\":" + JsonQuoted(_startedAt) +
        ",\"durationSeconds\":" + duration + ",\"rolledBack\":" + (_rolledBack ? "true" : "false") +
        ",\"operations\":[";
    for (size_t i = 0; i < _operations.size(); ++i) {
        const Operation& operation = _operations[i];
        json += std::string(i ? "," : "") + "{\"keyword\":" + JsonQuoted(operation.keyword) +
                ",\"path\":" + JsonQuoted(operation.path) +
                ",\"result\":" + JsonQuoted(operation.result) +
                ",\"bytes\":" + std::to_string(operation.bytes) + "}";
    }
    return json + "]}\n";
}

bool RunRecorder::writeResult() {
    const std::string json = resultJson();
    {
        std::lock_guard<std::mutex> lock(_mutex);
        writeLine("{\"phase\":\"done\",\"code\":" +
                  std::to_string(_code ? static_cast<int>(*_code) : 9) + "}");
    }
    std::string path;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        path = _resultPath;
    }
    if (path.empty())
        return true;
    // Written as the user who asked for it (through sudo or pkexec), so that the path can
    // name only what that user could write anyway.
    uid_t uid = ::getuid();
    gid_t gid = ::getgid();
    if (const auto invoking = InvokingUserId()) {
        if (const struct passwd* account = ::getpwuid(*invoking)) {
            uid = account->pw_uid;
            gid = account->pw_gid;
        }
    }
    const int oldGid = ::setfsgid(gid);
    const int oldUid = ::setfsuid(uid);
    std::string error;
    const bool written = WriteFileAtomically(path, json, &error);
    (void)::setfsuid(static_cast<uid_t>(oldUid));
    (void)::setfsgid(static_cast<gid_t>(oldGid));
    if (written)
        return true;
    NSLevelledLog(0, "The result is not written to %@: %@", path, error);
    return false;
}
