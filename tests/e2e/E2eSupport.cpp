#include "E2eSupport.h"

#include "TestSupport.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace fs = std::filesystem;

namespace {

constexpr const char* kParentNamespace = "ORVEL_E2E_PARENT_NAMESPACE";

// The system folders a run of the patcher may write to, each replaced by an empty tmpfs.
// The build tree (the tools, the built bundle) stays where it is even when it lies below
// one of them, as it does in a checkout under /tmp.
bool MountPrivateSystemFolders() {
    const std::string buildTree = ORVEL_BINARY_DIR;
    const int buildTreeFd = ::open(buildTree.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (buildTreeFd < 0) {
        ADD_FAILURE() << "cannot open the build tree " << buildTree;
        return false;
    }
    bool covered = false;
    for (const char* folder : {"/opt", "/usr/local/share", "/var/opt", "/tmp", "/run",
                               "/etc/init.d", "/etc/orvel", "/home"}) {
        std::error_code ignored;
        fs::create_directories(folder, ignored);
        const char* options = std::strcmp(folder, "/tmp") == 0 ? "mode=1777" : "mode=0755";
        if (::mount("tmpfs", folder, "tmpfs", 0, options) != 0) {
            ADD_FAILURE() << "cannot mount a tmpfs over " << folder << ": " << std::strerror(errno);
            ::close(buildTreeFd);
            return false;
        }
        covered = covered || buildTree.rfind(std::string(folder) + "/", 0) == 0;
    }
    struct stat info {};
    if (::lstat("/var/run", &info) == 0 && !S_ISLNK(info.st_mode) &&
        ::mount("tmpfs", "/var/run", "tmpfs", 0, "mode=0755") != 0) {
        ADD_FAILURE() << "cannot mount a tmpfs over /var/run";
        ::close(buildTreeFd);
        return false;
    }
    if (covered) {
        std::error_code ignored;
        fs::create_directories(buildTree, ignored);
        const std::string source = "/proc/self/fd/" + std::to_string(buildTreeFd);
        if (::mount(source.c_str(), buildTree.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
            ADD_FAILURE() << "cannot show the build tree again at " << buildTree << ": "
                          << std::strerror(errno);
            ::close(buildTreeFd);
            return false;
        }
    }
    ::close(buildTreeFd);
    // Daemons that the runs leave behind become children of this process, so they are
    // ended with it and never outlive the test.
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    return true;
}

void ReapOrphans() {
    // Everything still running below this process belongs to the test.
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos)
            continue;
        const std::string stat = ReadTextFile(entry.path().string() + "/stat");
        const auto close = stat.rfind(')');
        if (close == std::string::npos)
            continue;
        std::istringstream fields(stat.substr(close + 2));
        char state = 0;
        pid_t parent = 0;
        fields >> state >> parent;
        if (parent == ::getpid())
            ::kill(static_cast<pid_t>(std::stol(name)), SIGKILL);
    }
    int status = 0;
    while (::waitpid(-1, &status, WNOHANG) > 0) {
    }
}

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

std::string PlistXml(const std::vector<std::pair<std::string, std::string>>& entries) {
    std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                      "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
                      "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
                      "<plist version=\"1.0\">\n<dict>\n";
    for (const auto& [key, value] : entries)
        xml += "  <key>" + key + "</key>\n  <string>" + value + "</string>\n";
    return xml + "</dict>\n</plist>\n";
}

} // namespace

bool InPrivateSystem() {
    const std::string parent = EnvironmentValue(kParentNamespace);
    if (!parent.empty()) {
        // Never mount anything unless this process has a mount namespace of its own.
        if (parent == MountNamespaceId()) {
            ADD_FAILURE() << "the copy runs in its parent's mount namespace";
            return false;
        }
        static const bool mounted = MountPrivateSystemFolders();
        return mounted;
    }
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    const std::string filter = std::string(info->test_suite_name()) + "." + info->name();
    std::string output;
    const int status =
        RunSelfWithPrefix({"unshare", "--mount", "--net", "--propagation", "private"}, filter,
                          {std::string(kParentNamespace) + "=" + MountNamespaceId()}, output);
    if (status != 0 || output.find("[  PASSED  ] 1 test.") == std::string::npos)
        ADD_FAILURE() << "the test failed in its private system (exit status " << status << "):\n"
                      << output;
    return false;
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv,
                           const std::vector<std::string>& environment,
                           const std::string& outputPath) {
    std::vector<char*> args;
    for (const auto& arg : argv)
        args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    std::vector<char*> env;
    for (const auto& assignment : environment)
        env.push_back(const_cast<char*>(assignment.c_str()));
    env.push_back(nullptr);
    _pid = ::fork();
    if (_pid == 0) {
        const int in = ::open("/dev/null", O_RDONLY);
        ::dup2(in, STDIN_FILENO);
        const int out = ::open(outputPath.empty() ? "/dev/null" : outputPath.c_str(),
                               O_WRONLY | O_CREAT | O_APPEND, 0644);
        ::dup2(out, STDOUT_FILENO);
        ::dup2(out, STDERR_FILENO);
        ::execvpe(args[0], args.data(), env.data());
        ::_exit(127);
    }
}

ChildProcess::~ChildProcess() {
    kill();
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : _pid(std::exchange(other._pid, -1)), _status(other._status) {}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
    if (this != &other) {
        kill();
        _pid = std::exchange(other._pid, -1);
        _status = other._status;
    }
    return *this;
}

bool ChildProcess::running() {
    return !wait(std::chrono::milliseconds(0)).has_value();
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout) {
    if (_status || _pid <= 0)
        return _status;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        int status = 0;
        const pid_t done = ::waitpid(_pid, &status, WNOHANG);
        if (done == _pid) {
            _status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return _status;
        }
        if (done < 0 && errno != EINTR)
            return std::nullopt;
        if (std::chrono::steady_clock::now() >= deadline)
            return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

void ChildProcess::kill() {
    if (_pid > 0 && !_status) {
        ::kill(_pid, SIGKILL);
        int status = 0;
        while (::waitpid(_pid, &status, 0) < 0 && errno == EINTR) {
        }
        _status = 128 + SIGKILL;
    }
}

std::vector<std::string> CleanEnvironment(const std::vector<std::string>& assignments) {
    auto assigned = [&](const std::string& name) {
        return std::any_of(assignments.begin(), assignments.end(), [&](const std::string& a) {
            return a.compare(0, name.size() + 1, name + "=") == 0;
        });
    };
    std::vector<std::string> result;
    for (char** entry = environ; *entry; ++entry) {
        const std::string assignment = *entry;
        const std::string name = assignment.substr(0, assignment.find('='));
        if (assigned(name))
            continue; // the caller's value replaces the inherited one
        if (name == "DISPLAY" || name == "WAYLAND_DISPLAY" || name == "XAUTHORITY" ||
            name == "HOME" || name == "LANG" || name == "LANGUAGE" || name.rfind("LC_", 0) == 0 ||
            name.rfind("ORVEL_", 0) == 0 || name.rfind("QT_", 0) == 0 || name == "SUDO_USER" ||
            name == "PKEXEC_UID" || name == "XDG_RUNTIME_DIR" || name == "DBUS_SESSION_BUS_ADDRESS")
            continue;
        result.push_back(assignment);
    }
    result.insert(result.end(), assignments.begin(), assignments.end());
    return result;
}

int RunTool(const std::vector<std::string>& argv, std::string* output,
            const std::vector<std::string>& assignments, int timeoutSeconds) {
    const std::string outputPath = "/tmp/e2e-tool-output." + std::to_string(::getpid());
    ::unlink(outputPath.c_str());
    ChildProcess child(argv, CleanEnvironment(assignments), outputPath);
    const auto status = child.wait(std::chrono::seconds(timeoutSeconds));
    const std::string text = FileExists(outputPath) ? ReadTextFile(outputPath) : std::string();
    ::unlink(outputPath.c_str());
    if (output)
        *output = text;
    if (!status) {
        ADD_FAILURE() << argv.front() << " did not end within " << timeoutSeconds << " s";
        return -1;
    }
    return *status;
}

bool WaitUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
}

std::map<std::string, std::string> Snapshot(const std::string& root) {
    std::map<std::string, std::string> tree;
    for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator();
         ++it) {
        const std::string relative = fs::relative(it->path(), root).string();
        struct stat info {};
        ::lstat(it->path().c_str(), &info);
        const std::string mode = std::to_string(info.st_mode & 07777);
        if (it->is_symlink())
            tree[relative] = "link:" + fs::read_symlink(it->path()).string();
        else if (it->is_directory())
            tree[relative] = "dir:" + mode;
        else
            tree[relative] = "file:" + Md5OfFile(it->path().string()).value_or("") + ":" + mode;
    }
    return tree;
}

pid_t ServicePid(const std::string& service) {
    const std::string pidFile = "/var/run/" + service + ".pid";
    return FileExists(pidFile) ? static_cast<pid_t>(std::atol(ReadTextFile(pidFile).c_str())) : 0;
}

bool ProcessAlive(pid_t pid) {
    if (pid <= 0 || ::kill(pid, 0) != 0)
        return false;
    // A daemon that ended but is not reaped yet is no longer running.
    const std::string stat = ReadTextFile("/proc/" + std::to_string(pid) + "/stat");
    const auto close = stat.rfind(')');
    return close != std::string::npos && stat.size() > close + 2 && stat[close + 2] != 'Z';
}

bool StartSleeperService(const std::string& service) {
    std::string output;
    if (!WriteSleeperInitScript(service) ||
        RunTool({"/usr/sbin/service", service, "start"}, &output) != 0) {
        ADD_FAILURE() << "cannot start " << service << ": " << output;
        return false;
    }
    return WaitUntil([&] { return ProcessAlive(ServicePid(service)); }, std::chrono::seconds(10));
}

std::string ServiceSetXml(const std::string& service) {
    return "<ServiceSet><Service><ServiceName>" + service + "</ServiceName><FilePath>/etc/init.d/" +
           service + "</FilePath><Operation>start</Operation></Service></ServiceSet>\n";
}

std::string HeadingLine(const std::string& text) {
    return " " + text + " ";
}

Scenario::Scenario() : appDisplayName("Orvel Editor " + std::to_string(::getpid())) {
    fs::create_directories(payload);
    fs::create_directories(home);
}

Scenario::~Scenario() {
    ReapOrphans();
}

void Scenario::installApplication(const std::string& bundleVersion) {
    const std::string contents = app + "/Contents";
    WriteTextFile(contents + "/Info.plist", PlistXml({{"CFBundleName", appDisplayName},
                                                      {"CFBundleIdentifier", "com.orvel.editor"},
                                                      {"CFBundleExecutable", "Editor"},
                                                      {"CFBundleVersion", bundleVersion}}));
    fs::create_directories(contents + "/MacOS");
    fs::copy_file("/usr/bin/sleep", contents + "/MacOS/Editor",
                  fs::copy_options::overwrite_existing);
    ::chmod((contents + "/MacOS/Editor").c_str(), 0755);
    WriteTextFile(contents + "/Resources/old.txt", "to be removed\n");
    WriteTextFile(contents + "/Resources/keep.txt", "version one\n");
    WriteTextFile(contents + "/Resources/rename-me.txt", "renamed content\n");
    WriteTextFile(contents + "/Resources/tool.sh", "#!/bin/sh\necho tool\n");
    ::chmod((contents + "/Resources/tool.sh").c_str(), 0644);
    fs::create_directories(contents + "/Obsolete");
    fs::create_symlink("Resources/keep.txt", contents + "/oldlink");
}

void Scenario::registerInstallation(const std::string& version) {
    std::string output;
    ASSERT_EQ(RunTool({ORVEL_ZOTHCTL, "add", "--code", code, "--installdir", installDir,
                       "--language", "en", "--version", version},
                      &output),
              0)
        << output;
}

void Scenario::writePayloadFile(const std::string& name, const std::string& content) {
    WriteTextFile(payload + "/" + name, content);
}

std::vector<FileEntry> Scenario::updateEntries() {
    const std::string contents = app + "/Contents";
    writePayloadFile("new.txt", "a new file\n");
    writePayloadFile("keep.txt", "version two\n");
    writePayloadFile("Info.plist", PlistXml({{"CFBundleName", appDisplayName},
                                             {"CFBundleIdentifier", "com.orvel.editor"},
                                             {"CFBundleExecutable", "Editor"},
                                             {"CFBundleVersion", "2.0"}}));
    // The new editor: the old program with a changed tail, still a program that runs.
    std::string newEditor = ReadTextFile(contents + "/MacOS/Editor");
    newEditor += "Orvel Editor 2.0 resources";
    WriteTextFile(work + "/Editor.new", newEditor);
    std::string output;
    EXPECT_EQ(RunTool({"bsdiff", contents + "/MacOS/Editor", work + "/Editor.new",
                       payload + "/Editor.patch"},
                      &output),
              0)
        << output;

    md5 = {{"new", Md5OfFile(payload + "/new.txt").value_or("")},
           {"keep1", Md5OfFile(contents + "/Resources/keep.txt").value_or("")},
           {"keep2", Md5OfFile(payload + "/keep.txt").value_or("")},
           {"editor1", Md5OfFile(contents + "/MacOS/Editor").value_or("")},
           {"editor2", Md5OfFile(work + "/Editor.new").value_or("")},
           {"rename", Md5OfFile(contents + "/Resources/rename-me.txt").value_or("")},
           {"plist1", Md5OfFile(contents + "/Info.plist").value_or("")},
           {"plist2", Md5OfFile(payload + "/Info.plist").value_or("")}};
    const std::string res = "[INSTALLDIR]/Editor.app/Contents/Resources";
    const std::string top = "[INSTALLDIR]/Editor.app/Contents";
    return {
        {"ADD", "new.txt", res, "new.txt", "", md5["new"]},
        {"REMOVE", "old.txt", res, "old.txt", "", ""},
        {"OVERWRITE", "keep.txt", res, "keep.txt", md5["keep1"], md5["keep2"]},
        {"PATCH", "Editor.patch", top + "/MacOS", "Editor", md5["editor1"], md5["editor2"]},
        {"RENAME", "rename-me.txt", res, "rename-me.txt", "", md5["rename"], res, "renamed.txt"},
        {"CREATELINK", "newlink", top, "newlink", "", "", "", "Resources/new.txt"},
        {"REMOVELINK", "oldlink", top, "oldlink", "", ""},
        {"CHANGEPERM", "tool.sh", res, "tool.sh", "", "", "", "", "755"},
    };
}

std::string Scenario::manifest(const std::vector<FileEntry>& files, bool withBundleSet,
                               bool withDirectorySet, const std::string& extra) const {
    std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Manifest>\n<FileSet>\n";
    for (const auto& e : files)
        xml += FileEntryXml(e);
    xml += "</FileSet>\n";
    if (withBundleSet) {
        xml += "<BundleSet><Bundle Path=\"[INSTALLDIR]/Editor.app/Contents/Info.plist\" "
               "Version=\"1.0\" Verify=\"TRUE\">\n" +
               FileEntryXml({"OVERWRITE", "Info.plist", "[INSTALLDIR]/Editor.app/Contents",
                             "Info.plist", md5.at("plist1"), md5.at("plist2")}) +
               "</Bundle></BundleSet>\n";
    }
    if (withDirectorySet) {
        xml += "<DirectorySet>\n"
               "<Directory><Operation>ADD</Operation><DirectoryBase>[INSTALLDIR]/Editor.app/"
               "Contents/PlugIns/Filters</DirectoryBase></Directory>\n"
               "<Directory><Operation>REMOVE</Operation><DirectoryBase>[INSTALLDIR]/Editor.app/"
               "Contents/Obsolete</DirectoryBase></Directory>\n"
               "</DirectorySet>\n";
    }
    return xml + extra + "</Manifest>\n";
}

std::string Scenario::configXml() const {
    std::string running;
    for (const auto& pattern : config.appRunning)
        running += "<AppRunning>" + pattern + "</AppRunning>";
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<PatcherConfig>\n"
           "  <Family>Orvel Creative</Family>\n"
           "  <Name>Orvel Editor</Name>\n"
           "  <PatcherID>EDT-200-01</PatcherID>\n"
           "  <BuildNumber>17</BuildNumber>\n"
           "  <PatchExecutableName>Editor Update</PatchExecutableName>\n"
           "  <Version>2.0</Version>\n"
           "  <ProductData>\n"
           "    <AppName>Editor</AppName>\n"
           "    <BundleIdentifier>com.orvel.editor</BundleIdentifier>\n"
           "    <OldVersion>1.0</OldVersion>\n"
           "    <NewVersion>2.0</NewVersion>\n"
           "    <KOR><AppID>EDT2</AppID><Version>2.1</Version></KOR>\n"
           "    <OrvelCode><GUID>" +
           code +
           "</GUID></OrvelCode>\n"
           "  </ProductData>\n"
           "  <PrePatchValidation>\n"
           "    <AppRunningList>" +
           running +
           "</AppRunningList>\n"
           "    <SpaceRequirement><System>" +
           config.systemKB + "</System><Target>" + config.targetKB +
           "</Target></SpaceRequirement>\n"
           "  </PrePatchValidation>\n"
           "</PatcherConfig>\n";
}

void Scenario::assemble(const std::string& manifestXml) {
    WriteTextFile(work + "/config.xml", configXml());
    WriteTextFile(work + "/manifest.xml", manifestXml);
    std::string output;
    if (!FileExists(signingKey)) {
        fs::create_directories(fs::path(trustedKey).parent_path());
        ASSERT_EQ(
            RunTool({ORVEL_MKPATCHER, "keygen", "--private", signingKey, "--public", trustedKey},
                    &output),
            0)
            << output;
    }
    ASSERT_EQ(RunTool({ORVEL_MKPATCHER, "assemble", "--config", work + "/config.xml", "--manifest",
                       work + "/manifest.xml", "--payload", payload, "--out", bundle, "--force",
                       // The sanitizers' reports name lines only with the debug sections.
                       "--keep-debug-info", "--sign-key", signingKey},
                      &output),
              0)
        << output;
    ASSERT_TRUE(FileExists(bundle + "/Contents/Resources/Payload.cpio.gz"));
}

void Scenario::sign(const std::string& bundlePath) const {
    std::string output;
    ASSERT_EQ(RunTool({ORVEL_MKPATCHER, "sign", bundlePath, "--key", signingKey}, &output), 0)
        << output;
}

void Scenario::unsign() const {
    ASSERT_EQ(::unlink((bundle + "/Contents/Signature").c_str()), 0);
    WriteTextFile(policyFile, "allow-unsigned-patchers = yes\n");
}

ChildProcess Scenario::startPatcher(const std::vector<std::string>& args,
                                    const std::vector<std::string>& assignments) const {
    std::vector<std::string> argv = {bundle + "/Contents/MacOS/PatcherApp"};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<std::string> env = {"HOME=" + home, "LANG=C.UTF-8"};
    env.insert(env.end(), assignments.begin(), assignments.end());
    ::unlink((work + "/patcher-output.txt").c_str());
    return ChildProcess(argv, CleanEnvironment(env), work + "/patcher-output.txt");
}

int Scenario::runPatcher(const std::vector<std::string>& args,
                         const std::vector<std::string>& assignments) const {
    ChildProcess patcher = startPatcher(args, assignments);
    const auto status = patcher.wait(std::chrono::seconds(120));
    if (!status) {
        ADD_FAILURE() << "PatcherApp did not end within 120 s\n" << patcherOutput();
        return -1;
    }
    return *status;
}

std::string Scenario::runUnderUpdateManager(const std::vector<std::string>& args,
                                            int* status) const {
    std::vector<std::string> argv = {ORVEL_KOR_LAUNCH, "--client", app, "--id", "EDT2", bundle};
    argv.insert(argv.end(), args.begin(), args.end());
    const std::string outputPath = work + "/kor-output.txt";
    ::unlink(outputPath.c_str());
    ::unlink((work + "/patcher-output.txt").c_str());
    // The launcher's report on standard output; the patcher's own output apart.
    const std::string command = "exec \"$@\" 2>'" + work + "/patcher-output.txt'";
    std::vector<std::string> shell = {"/bin/sh", "-c", command, "sh"};
    shell.insert(shell.end(), argv.begin(), argv.end());
    ChildProcess launcher(shell, CleanEnvironment({"HOME=" + home, "LANG=C.UTF-8"}), outputPath);
    const auto result = launcher.wait(std::chrono::seconds(120));
    if (!result)
        ADD_FAILURE() << "kor-launch did not end within 120 s";
    *status = result.value_or(-1);
    return FileExists(outputPath) ? ReadTextFile(outputPath) : std::string();
}

ChildProcess Scenario::startEditor() const {
    const std::string program = app + "/Contents/MacOS/Editor";
    ChildProcess editor({program, "600"}, CleanEnvironment({"HOME=" + home}));
    const std::string exe = "/proc/" + std::to_string(editor.pid()) + "/exe";
    EXPECT_TRUE(WaitUntil(
        [&] {
            std::error_code error;
            return fs::read_symlink(exe, error).string() == program;
        },
        std::chrono::seconds(10)));
    return editor;
}

std::optional<std::string> Scenario::returnCode() const {
    if (!FileExists(returnCodeFile))
        return std::nullopt;
    return ReadTextFile(returnCodeFile);
}

std::vector<std::string> Scenario::logLines() const {
    std::vector<std::string> lines;
    for (const auto& line : SplitLines(FileExists(logFile) ? ReadTextFile(logFile) : ""))
        lines.push_back(StripLogPrefix(line));
    return lines;
}

bool Scenario::logContains(const std::string& message) const {
    return logIndex(message) >= 0;
}

long Scenario::logIndex(const std::string& message, bool contains) const {
    const auto lines = logLines();
    for (size_t i = 0; i < lines.size(); ++i) {
        if (contains ? lines[i].find(message) != std::string::npos : lines[i] == message)
            return static_cast<long>(i);
    }
    return -1;
}

std::string Scenario::patcherOutput() const {
    const std::string path = work + "/patcher-output.txt";
    return FileExists(path) ? ReadTextFile(path) : std::string();
}
