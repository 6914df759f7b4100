#pragma once

#include "base/FileUtil.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

class ServiceBackend;

// Child processes: started with a chosen identity and a cleaned environment, fed, read and
// waited for. Nothing here throws; a failure to start or to wait is the exit status 71, the
// same status a child ends with when its own set-up fails.
namespace ExecUtils {

// The identity a child takes. It is applied only when the parent's effective user id is
// 0; otherwise the child keeps the parent's ids.
struct ExecId {
    uint32_t flags = 0;
    uint32_t uid = 0;  // flag 1: real and effective user id
    uint32_t euid = 0; // flag 4: effective user id
    uint32_t gid = 0;  // flag 2: real group id (the effective group id is kept)
    uint32_t egid = 0; // flag 8: effective group id
};
inline constexpr uint32_t kExecIdSetUid = 1;
inline constexpr uint32_t kExecIdSetGid = 2;
inline constexpr uint32_t kExecIdSetEuid = 4;
inline constexpr uint32_t kExecIdSetEgid = 8;

inline constexpr int kExecFailureStatus = 71;
inline constexpr size_t kReadChunkSize = 16384;

// The PATH every child gets. The parent's PATH is never passed on: a child may run with
// the super-user's ids, and a search path chosen by whoever started the patcher must not
// decide which programs such a child (a shell script, the "service" wrapper) runs.
inline constexpr const char* kChildSearchPath =
    "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

// Starts the program named by args[0] (a path; no search) with args as its argument list.
// Returns the child's process id, or -1 when no child could be made (also for an empty
// list); inputFd gets the write end of the child's standard input, outputFd the read end
// of its standard output. Standard error stays the parent's.
pid_t OpenExecutable(const std::vector<std::string>& args, const ExecId* identity,
                     UniqueFd& inputFd, UniqueFd& outputFd);
pid_t OpenExecutable(const std::vector<std::string>& args, UniqueFd& inputFd, UniqueFd& outputFd);

// As OpenExecutable, but returns only once the child has executed the program or failed
// to; execError is 0, or the error number of the step that failed (that child then ends
// with status 71 and still has to be waited for).
pid_t StartExecutable(const std::vector<std::string>& args, const ExecId* identity,
                      UniqueFd& inputFd, UniqueFd& outputFd, int& execError);

// Starts the program, writes the input to it, collects everything it writes to standard
// output (appended to output when given), waits for it and returns its exit status: the
// status of a normal exit, 129 after a signal, 128 plus the stop signal when it stopped, 71
// when it could not be started or waited for. ioError is set when the input could not all
// be written or the output could not all be read. With ignoreBrokenPipe the process
// ignores SIGPIPE from then on. Input and output are served together, so a child that
// writes much before reading all of its input does not stall.
int RunExecutable(const std::vector<std::string>& args, const ExecId* identity, const void* input,
                  size_t inputLength, std::vector<char>* output, bool& ioError,
                  bool ignoreBrokenPipe);
int RunExecutable(const std::vector<std::string>& args, const void* input, size_t inputLength,
                  std::vector<char>* output, bool& ioError, bool ignoreBrokenPipe);

// Lays the arguments end to end, each ended by a zero byte, into buffer and fills argv with
// pointers into it, ended by a null pointer. False (and both left empty) when an argument
// holds a zero byte and so cannot be passed whole.
[[nodiscard]] bool FormExecArgv(const std::vector<std::string>& args, std::vector<char>& buffer,
                                std::vector<char*>& argv);

// The environment of a child: of the given "NAME=value" entries only
// "__CF_USER_TEXT_ENCODING" and "SECURITYSESSIONID" pass, plus PATH=kChildSearchPath.
std::vector<std::string> CleanedEnvironment(const char* const* environment);

// The exit status that RunExecutable reports for a wait status word.
int ExitStatusFromWaitStatus(int status);

// True when the process ended within timeoutSeconds (0 or less: no limit); false on
// time-out, on any failure (an id that names no process included) and for the caller's
// own id.
bool WaitWhileProcessExists(pid_t pid, int timeoutSeconds);

} // namespace ExecUtils

// One entry of the process list, read from /proc.
struct BSDProcessRecord {
    pid_t pid = 0;
    pid_t parentPid = 0;
    uid_t uid = 0;    // the owner of the process (its effective user id)
    char state = 0;   // the kernel's state letter: 'R', 'S', 'Z' (ended, not yet reaped)...
    std::string name; // the command name (at most 15 bytes)
};

// Fills list with a new array of the records of all processes in procRoot (the table's
// "/proc") and count with their number; returns 0, or the error number when the list cannot
// be read (list and count then untouched).
int GetBSDProcessList(std::unique_ptr<BSDProcessRecord[]>& list, size_t& count,
                      const std::string& procRoot);

// 1 when a live process of that id is in the process list, else 0 (also when the list
// cannot be read). A process that has ended but was not yet reaped by its parent does not
// count: on Linux such entries can stay in the list for good when nobody reaps them.
int IsProcessRunning(pid_t pid, const std::string& procRoot);

// The id of the first live process whose command name is name (compared on the kernel's
// 15 bytes), or -1.
pid_t GetProcessID(const std::string& name, const std::string& procRoot);

// Waits for the process to end: 0 when it did, ETIMEDOUT after timeoutSeconds (0 or less:
// no limit), otherwise the error number (ESRCH when no such process exists).
int WaitForPID(pid_t pid, int timeoutSeconds);

// Runs the command word ("start", "stop") on the service through the service backend with
// the super-user identity (flags 11, ids 0), no input, output discarded. Returns a non-zero
// exit status as it is. After success, when the pid file (pidFileFormat with the name)
// holds a process id, waits while that process exists, at most waitSeconds; returns 0
// whatever the wait gave. A name that is no plain service label is refused with a log
// line and 71, and nothing is run.
int launchctlCommand(const ServiceBackend& backend, const std::string& pidFileFormat,
                     const char* serviceName, const char* command, int waitSeconds);
// The same with this machine's service backend, "/var/run/%@.pid" and 30 seconds.
int launchctlCommand(const char* serviceName, const char* command);
