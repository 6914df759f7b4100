#include "TestSupport.h"

#include "base/Md5.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <sched.h>
#include <sstream>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

std::map<std::string, std::string> SnapshotTree(const std::string& root, TreeDetail detail) {
    namespace fs = std::filesystem;
    std::map<std::string, std::string> tree;
    if (!fs::exists(root))
        return tree;
    for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator();
         ++it) {
        const std::string path = it->path().string();
        // Lexically: fs::relative would resolve a link to the path of its target.
        const std::string relative = it->path().lexically_relative(root).string();
        std::string mode;
        struct stat info {};
        if (detail == TreeDetail::ContentsAndModes && ::lstat(path.c_str(), &info) == 0) {
            char text[8];
            std::snprintf(text, sizeof text, ":%o", info.st_mode & 07777);
            mode = text;
        }
        if (it->is_symlink())
            tree[relative] = "link:" + fs::read_symlink(path).string();
        else if (it->is_directory())
            tree[relative] = "dir" + mode;
        else
            tree[relative] = "file:" + Md5OfFile(path).value_or("?") + mode;
    }
    return tree;
}

TempDir::TempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/orvel-test-XXXXXX";
    if (!::mkdtemp(pattern.data()))
        throw std::runtime_error("mkdtemp failed");
    _path = pattern;
}

TempDir::~TempDir() {
    RemoveTree(_path);
}

void WriteTextFile(const std::string& path, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out)
        throw std::runtime_error("cannot write " + path);
}

bool WaitUntil(const std::function<bool()>& done) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

std::string RandomText(size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::string text(size, '\0');
    for (auto& c : text)
        c = static_cast<char>(random());
    return text;
}

std::string ReadTextFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool FileExists(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0;
}

void RemoveTree(const std::string& path) {
    std::error_code ignored;
    // Make read-only folders removable first.
    for (auto it = std::filesystem::recursive_directory_iterator(
             path, std::filesystem::directory_options::skip_permission_denied, ignored);
         it != std::filesystem::recursive_directory_iterator(); it.increment(ignored)) {
        if (it->is_directory(ignored) && !it->is_symlink(ignored))
            ::chmod(it->path().c_str(), 0755);
    }
    std::filesystem::remove_all(path, ignored);
}

LogCapture::LogCapture() {
    std::fflush(stderr);
    _savedStderr = ::dup(STDERR_FILENO);
    int fd = ::open(_dir.file("log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    ::dup2(fd, STDERR_FILENO);
    ::close(fd);
}

LogCapture::~LogCapture() {
    std::fflush(stderr);
    ::dup2(_savedStderr, STDERR_FILENO);
    ::close(_savedStderr);
}

std::string LogCapture::text() const {
    return ReadTextFile(_dir.file("log"));
}

std::vector<std::string> LogCapture::rawLines() const {
    std::vector<std::string> result;
    std::istringstream in(text());
    for (std::string line; std::getline(in, line);)
        result.push_back(line);
    return result;
}

std::vector<std::string> LogCapture::lines() const {
    std::vector<std::string> result;
    for (const auto& line : rawLines())
        result.push_back(StripLogPrefix(line));
    return result;
}

bool LogCapture::contains(const std::string& message) const {
    for (const auto& line : lines()) {
        if (line == message)
            return true;
    }
    return false;
}

std::string StripLogPrefix(const std::string& line) {
    static const std::regex prefix(
        R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} [^\[ ]+\[\d+:\d+\] )");
    std::smatch match;
    if (std::regex_search(line, match, prefix))
        return line.substr(static_cast<size_t>(match.length(0)));
    return line;
}

namespace {

int RunChild(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv,
             const std::vector<std::string>& tmpfsFolders, bool isolated,
             const std::string& stdoutPath, const std::string& stderrPath) {
    pid_t pid = ::fork();
    if (pid < 0)
        return -1;
    if (pid == 0) {
        auto redirect = [](const std::string& path, int target) {
            if (path.empty())
                return;
            int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (fd >= 0) {
                ::dup2(fd, target);
                ::close(fd);
            }
        };
        redirect(stdoutPath, STDOUT_FILENO);
        redirect(stderrPath, STDERR_FILENO);
        if (isolated) {
            if (::unshare(CLONE_NEWNS) != 0 ||
                ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
                ::_exit(126);
            for (const auto& folder : tmpfsFolders) {
                std::error_code ignored;
                std::filesystem::create_directories(folder, ignored);
                if (::mount("tmpfs", folder.c_str(), "tmpfs", 0, "mode=0755") != 0)
                    ::_exit(126);
            }
        }
        for (const auto& assignment : extraEnv)
            ::putenv(const_cast<char*>(assignment.c_str()));
        std::vector<char*> args;
        for (const auto& arg : argv)
            args.push_back(const_cast<char*>(arg.c_str()));
        args.push_back(nullptr);
        ::execvp(args[0], args.data());
        ::_exit(127);
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return -1;
}

} // namespace

int RunProgram(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv,
               const std::string& stdoutPath, const std::string& stderrPath) {
    return RunChild(argv, extraEnv, {}, false, stdoutPath, stderrPath);
}

int RunProgramIsolated(const std::vector<std::string>& argv,
                       const std::vector<std::string>& extraEnv,
                       const std::vector<std::string>& tmpfsFolders, const std::string& stdoutPath,
                       const std::string& stderrPath) {
    if (::geteuid() != 0)
        return -1;
    const int status = RunChild(argv, extraEnv, tmpfsFolders, true, stdoutPath, stderrPath);
    return status == 126 ? -1 : status;
}

std::string SelfExecutable() {
    char buffer[4096];
    ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (n <= 0)
        return {};
    return std::string(buffer, static_cast<size_t>(n));
}

int RunSelfWithPrefix(const std::vector<std::string>& prefix, const std::string& filter,
                      const std::vector<std::string>& extraEnv, std::string& output) {
    TempDir dir;
    ::chmod(dir.path().c_str(), 0777);
    std::vector<std::string> argv = prefix;
    argv.push_back(SelfExecutable());
    argv.push_back("--gtest_also_run_disabled_tests");
    argv.push_back("--gtest_filter=" + filter);
    const std::string logPath = dir.file("output.txt");
    int status = RunProgram(argv, extraEnv, logPath, logPath);
    output = FileExists(logPath) ? ReadTextFile(logPath) : std::string();
    return status;
}

std::string EnvironmentValue(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

std::string MountNamespaceId() {
    char buffer[256];
    ssize_t n = ::readlink("/proc/self/ns/mnt", buffer, sizeof buffer - 1);
    return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : std::string();
}

bool WriteSleeperInitScript(const std::string& name, const std::string& operationsLog) {
    const auto note = [&](const char* operation) {
        return operationsLog.empty()
                   ? std::string()
                   : "  echo \"" + std::string(operation) + " $NAME\" >> " + operationsLog + "\n";
    };
    const std::string path = "/etc/init.d/" + name;
    WriteTextFile(path, "#!/bin/sh\n"
                        "NAME=" +
                            name +
                            "\n"
                            "PIDFILE=/var/run/$NAME.pid\n"
                            "case \"$1\" in\n"
                            "start)\n" +
                            note("start") +
                            "  start-stop-daemon --start --quiet --background --make-pidfile "
                            "--pidfile $PIDFILE --exec /usr/bin/sleep -- 600\n"
                            "  ;;\n"
                            "stop)\n" +
                            note("stop") +
                            "  start-stop-daemon --stop --quiet --retry TERM/5 --pidfile $PIDFILE "
                            "--exec /usr/bin/sleep\n"
                            "  status=$?\n"
                            "  rm -f $PIDFILE\n"
                            "  [ $status -le 1 ] || exit $status\n"
                            "  ;;\n"
                            "*) exit 3 ;;\n"
                            "esac\n"
                            "exit 0\n");
    return ::chmod(path.c_str(), 0755) == 0;
}
