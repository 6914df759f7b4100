#pragma once

#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

// The patcher's one privileged runner. While it exists the process's user ids are raised
// to the super-user's (when the process may do so); the ids are restored when it goes
// away. It runs programs with those ids, either as a fire-and-wait command
// (executeCommand) or as a task whose output it returns (performTask).
//
// There is one shared instance per process, made by getInstance/getInstanceUsingToken and
// given back with releaseInstance. The token file handed over by the update manager is only
// tested for existence; its first 32 bytes are kept but not interpreted.
class ExecuteWithPrivileges {
public:
    static constexpr const char* kExitNotification = "ExecuteWithPrivileges_ExitNotification";
    static constexpr size_t kTokenLength = 32;

    // The shared instance, made without a token on first use.
    static ExecuteWithPrivileges* getInstance();
    // The shared instance, made from the token file (the table's authTokenFile) on first
    // use; null (logged) when there is no such file. An existing instance is returned as it
    // is, however it was made.
    static ExecuteWithPrivileges* getInstanceUsingToken(const std::string& tokenFile);
    // Destroys and forgets the shared instance, if any; always true.
    static bool releaseInstance();

    // Raises the ids: "Elevated privileges" (info) or, when that fails, "Failed to elevate
    // the privileges" (error) and the saved and current ids.
    ExecuteWithPrivileges();
    // The runner made from the token file, or null after "Error. Execute with privileges
    // cannot be initialized." when the file does not exist.
    static std::unique_ptr<ExecuteWithPrivileges> initWithToken(const std::string& tokenFile);
    // Restores the real and effective user ids of the time of creation.
    ~ExecuteWithPrivileges();

    ExecuteWithPrivileges(const ExecuteWithPrivileges&) = delete;
    ExecuteWithPrivileges& operator=(const ExecuteWithPrivileges&) = delete;

    // Runs the command (a path, no search) with the arguments and the current ids, throws
    // its output away and waits for it. True when it was started and waited for; the wait
    // status word is then waitStatus(). Always posts kExitNotification with this object on
    // the default notification centre before returning.
    bool executeCommand(const std::optional<std::string>& command,
                        const std::optional<std::vector<std::string>>& arguments);
    // Runs the program with the arguments and the current ids and returns its standard
    // output as text when it exits with 0 and printed valid UTF-8; otherwise the empty text.
    std::string performTask(const std::string& launchPath,
                            const std::optional<std::vector<std::string>>& arguments);

    // The status word of the last command waited for; -1 before one was.
    int waitStatus() const { return _waitStatus; }
    // The token bytes read at creation, if the runner was made from a token.
    const std::optional<std::vector<char>>& authorization() const { return _authRef; }
    uid_t savedUID() const { return _savedUID; }
    uid_t savedEUID() const { return _savedeUID; }

private:
    struct FromToken {};
    ExecuteWithPrivileges(FromToken, std::vector<char> token);
    void raisePrivileges();

    std::optional<std::vector<char>> _authRef;
    uid_t _savedUID = 0;
    uid_t _savedeUID = 0;
    int _waitStatus = -1;
};
