#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <unistd.h>
#include <vector>

// Helpers shared by the unit and end-to-end tests.

// A fresh folder under $TMPDIR (or /tmp), removed with everything in it at the end.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return _path; }
    std::string file(const std::string& name) const { return _path + "/" + name; }

private:
    std::string _path;
};

void WriteTextFile(const std::string& path, const std::string& text);
std::string ReadTextFile(const std::string& path);
// size bytes of every value, the same for the same seed.
std::string RandomText(size_t size, unsigned seed);
bool FileExists(const std::string& path);
// Polls done every 2 ms until it is true (true) or 20 seconds have passed (false): for work
// that another thread does.
bool WaitUntil(const std::function<bool()>& done);
void RemoveTree(const std::string& path);

// Every entry below root (links not followed): relative path -> "file:<md5>", "link:<target>"
// or "dir"; with modes, files and folders end in ":<octal mode>".
enum class TreeDetail { Contents, ContentsAndModes };
std::map<std::string, std::string> SnapshotTree(const std::string& root,
                                                TreeDetail detail = TreeDetail::Contents);

// Puts the working folder back, at the end of a test that changes it.
class WorkingDirectoryGuard {
public:
    WorkingDirectoryGuard() {
        char buffer[4096];
        _saved = ::getcwd(buffer, sizeof buffer) ? buffer : "/";
    }
    ~WorkingDirectoryGuard() { EXPECT_EQ(::chdir(_saved.c_str()), 0); }
    WorkingDirectoryGuard(const WorkingDirectoryGuard&) = delete;
    WorkingDirectoryGuard& operator=(const WorkingDirectoryGuard&) = delete;

private:
    std::string _saved;
};

// Writes /etc/init.d/<name> (mode 0755), a SysV script whose daemon is a sleep started and
// stopped with start-stop-daemon under /var/run/<name>.pid; any other command exits 3.
// With operationsLog, "start <name>" or "stop <name>" is appended to that file for each
// start and stop. False when the script could not be made executable. Only for a private
// mount namespace, where /etc/init.d is a tmpfs of the test's.
[[nodiscard]] bool WriteSleeperInitScript(const std::string& name,
                                          const std::string& operationsLog = {});

// Captures what the log writes (standard error) while it lives. lines() gives the captured
// lines without the log prefix ("date time process[pid:tid] ").
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> lines() const;
    std::vector<std::string> rawLines() const;
    std::string text() const;
    bool contains(const std::string& message) const;

private:
    TempDir _dir;
    int _savedStderr = -1;
};

// The message part of one log line, or the line itself when it has no log prefix.
std::string StripLogPrefix(const std::string& line);

// Runs a program (no shell) and returns its exit status (-1 when it could not run, 128+N
// when killed by signal N); output and errors go to the given files when not empty.
int RunProgram(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv = {},
               const std::string& stdoutPath = {}, const std::string& stderrPath = {});

// As RunProgram, but in a private mount namespace with an empty tmpfs mounted over each of
// the folders (made first when missing), so the program's writes to those system folders
// never reach the machine's own. Needs the super-user; -1 when the namespace cannot be made.
int RunProgramIsolated(const std::vector<std::string>& argv,
                       const std::vector<std::string>& extraEnv,
                       const std::vector<std::string>& tmpfsFolders,
                       const std::string& stdoutPath = {}, const std::string& stderrPath = {});

// The path of the running test program.
std::string SelfExecutable();

// Runs this test program with the disabled tests of the filter enabled, behind the
// prefix command (setpriv, unshare...), with the extra environment; returns the exit
// status and puts standard output and error into output.
int RunSelfWithPrefix(const std::vector<std::string>& prefix, const std::string& filter,
                      const std::vector<std::string>& extraEnv, std::string& output);

// The value of an environment variable, or the empty text.
std::string EnvironmentValue(const char* name);

// The mount namespace of this process ("mnt:[4026531841]").
std::string MountNamespaceId();
