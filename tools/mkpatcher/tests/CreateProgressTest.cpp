// Progress of mkpatcher create: the builder counts every byte of each phase, and the real
// program draws its bar on a terminal only, keeping the summary and the output without a
// terminal as they were.

#include "PatcherBuilder.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <pty.h>
#include <regex>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

const std::string kCode = "{0DE30DE3-0000-4000-8000-00000000F00D}";
const std::string kProgram = "Contents/MacOS/Editor";

std::string Plist(const std::string& version) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
           "<key>CFBundleName</key><string>Orvel Editor</string>"
           "<key>CFBundleVersion</key><string>" +
           version + "</string></dict></plist>\n";
}

// A version of a small application: a program of 1.5 MB that changes here and there
// between the versions (a patch), a resource that does not, one file removed and one added.
void MakeApp(const std::string& app, bool two) {
    WriteTextFile(app + "/Contents/Info.plist", Plist(two ? "2.0" : "1.0"));
    std::string program = RandomText(1'500'000, 11);
    if (two) {
        for (size_t i = 4000; i < program.size(); i += 60'000)
            program[i] = static_cast<char>(program[i] ^ 0x5a);
    }
    WriteTextFile(app + "/" + kProgram, program);
    WriteTextFile(app + "/Contents/Resources/same.bin", RandomText(700'000, 12));
    WriteTextFile(app + "/Contents/Resources/" + (two ? "added.txt" : "removed.txt"),
                  two ? "new in two\n" : "gone in two\n");
}

uint64_t FileBytes(const std::string& root) {
    uint64_t bytes = 0;
    for (const auto& item : fs::recursive_directory_iterator(root)) {
        if (item.is_regular_file() && !item.is_symlink())
            bytes += item.file_size();
    }
    return bytes;
}

struct Step {
    std::string phase;
    uint64_t done;
    uint64_t total;
    std::string item;
    bool last;
};

// argv as execv takes it; the texts stay with args.
std::vector<char*> Argv(std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (auto& arg : args)
        argv.push_back(arg.data());
    argv.push_back(nullptr);
    return argv;
}

int ExitStatus(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Reads fd to its end (or, for a terminal's master side, until the other side is gone).
std::string ReadAll(int fd) {
    std::string text;
    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n > 0)
            text.append(buffer, static_cast<size_t>(n));
        else if (n < 0 && errno == EINTR)
            continue;
        else
            return text;
    }
}

// Runs the program with its input, output and errors on a new pseudo-terminal of the given
// width; the exit status, and in shown everything the terminal received.
int RunOnTerminal(std::vector<std::string> args, unsigned short columns, std::string* shown) {
    std::vector<char*> argv = Argv(args);
    struct winsize size {};
    size.ws_row = 24;
    size.ws_col = columns;
    int master = -1;
    const pid_t pid = ::forkpty(&master, nullptr, nullptr, &size);
    if (pid < 0)
        return -1;
    if (pid == 0) {
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    *shown = ReadAll(master);
    ::close(master);
    return ExitStatus(pid);
}

// Runs the program with its errors to a pipe, read into errors, and its output to a file.
int RunWithErrorsToPipe(std::vector<std::string> args, const std::string& outputPath,
                        std::string* errors) {
    std::vector<char*> argv = Argv(args);
    int pipe[2];
    if (::pipe2(pipe, O_CLOEXEC) != 0)
        return -1;
    const int output = ::open(outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const pid_t pid = output < 0 ? -1 : ::fork();
    if (pid == 0) {
        if (::dup2(output, STDOUT_FILENO) < 0 || ::dup2(pipe[1], STDERR_FILENO) < 0)
            ::_exit(126);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(pipe[1]);
    if (output >= 0)
        ::close(output);
    *errors = pid < 0 ? std::string() : ReadAll(pipe[0]);
    ::close(pipe[0]);
    return pid < 0 ? -1 : ExitStatus(pid);
}

bool Contains(const std::string& text, const std::string& piece) {
    return text.find(piece) != std::string::npos;
}

class CreateProgressTest : public ::testing::Test {
protected:
    void SetUp() override {
        MakeApp(oldApp, false);
        MakeApp(newApp, true);
    }

    std::vector<std::string> Args() const {
        return {MKPATCHER_PROGRAM, "create", "--old",  oldApp, "--new",  newApp,
                "--out",           outApp,   "--code", kCode,  "--from", BUILT_BUNDLE};
    }

    TempDir temp;
    std::string oldApp = temp.file("v1/Editor.app");
    std::string newApp = temp.file("v2/Editor.app");
    std::string outApp = temp.file("out/EditorUpdate.app");
};

TEST_F(CreateProgressTest, BuilderCountsEveryByteOfEachPhase) {
    PatcherBuilder::Options options;
    options.oldTree = oldApp;
    options.newTree = newApp;
    options.outPath = outApp;
    options.builtBundle = BUILT_BUNDLE;
    options.identity.installationCodes = {kCode};
    std::vector<Step> steps;
    PatcherBuilder::Report report;
    std::string error;
    ASSERT_EQ(PatcherBuilder::create(options, &report, &error,
                                     [&steps](const PatcherBuilder::ProgressStep& step) {
                                         steps.push_back({std::string(step.phase), step.done,
                                                          step.total, std::string(step.item),
                                                          step.last});
                                     }),
              0)
        << error;
    EXPECT_EQ(report.patched, 1);

    // Each phase in turn, with what it counts: both trees read whole; the new version of the
    // files that changed (the program and Info.plist); the assembly not at all.
    const std::vector<std::pair<std::string, uint64_t>> phases = {
        {"Comparing the trees", FileBytes(oldApp) + FileBytes(newApp)},
        {"Making patches",
         fs::file_size(newApp + "/" + kProgram) + fs::file_size(newApp + "/Contents/Info.plist")},
        {"Assembling the bundle", 0}};
    size_t at = 0;
    for (const auto& [phase, total] : phases) {
        SCOPED_TRACE(phase);
        ASSERT_LT(at, steps.size());
        EXPECT_EQ(steps[at].phase, phase);
        EXPECT_EQ(steps[at].done, 0u);
        EXPECT_FALSE(steps[at].last);
        uint64_t done = 0;
        size_t programSteps = 0;
        for (; at < steps.size() && steps[at].phase == phase; ++at) {
            const Step& step = steps[at];
            EXPECT_EQ(step.total, total);
            EXPECT_GE(step.done, done) << "progress went back at " << step.item;
            EXPECT_LE(step.done, total);
            done = step.done;
            programSteps += step.item == kProgram ? 1 : 0;
            if (step.last) {
                EXPECT_EQ(step.done, total);
                ++at;
                break;
            }
        }
        EXPECT_TRUE(steps[at - 1].last) << "the phase did not end";
        // The large file is counted as it is read and diffed, not only once it is done.
        if (total > 0) {
            EXPECT_GT(programSteps, 4u);
        }
    }
    EXPECT_EQ(at, steps.size());
}

TEST_F(CreateProgressTest, ProgramDrawsABarOnlyOnATerminal) {
    static const std::regex kCompressed("\\([0-9]+ compressed\\)");
    std::string shown;
    ASSERT_EQ(RunOnTerminal(Args(), 100, &shown), 0) << shown;
    // Each phase's end is shown, with the last file it counted.
    for (const char* text :
         {"\rComparing the trees  [", "\rMaking patches  [", "100%",
          "  Contents/Resources/same.bin\033[K", "  Contents/MacOS/Editor\033[K"}) {
        EXPECT_TRUE(Contains(shown, text)) << text << "\n" << shown;
    }
    // Every drawing fits in the terminal's 100 columns, leaving the last one free.
    for (size_t start = 0; start < shown.size();) {
        const size_t end = std::min(shown.find_first_of("\r\n", start), shown.size());
        const std::string piece = shown.substr(start, end - start);
        if (piece.size() >= 3 && piece.compare(piece.size() - 3, 3, "\033[K") == 0) {
            EXPECT_LT(piece.size() - 3, 100u) << piece;
        }
        start = end + 1;
    }

    // Without a terminal: one line per phase, as before, and the same summary.
    std::string errors;
    auto again = Args();
    again.push_back("--force");
    ASSERT_EQ(RunWithErrorsToPipe(again, temp.file("stdout"), &errors), 0) << errors;
    EXPECT_EQ(errors, "mkpatcher: Comparing the trees\nmkpatcher: Making patches\n"
                      "mkpatcher: Assembling the bundle\n");
    EXPECT_EQ(errors.find('\r'), std::string::npos);
    std::string summary = ReadTextFile(temp.file("stdout"));
    ASSERT_TRUE(Contains(summary, "files patched:      1\n")) << summary;
    // The terminal shows each end of line as "\r\n". The compressed size may differ by a few
    // bytes, as the patches written in each run carry that run's time.
    for (size_t i = summary.find('\n'); i != std::string::npos; i = summary.find('\n', i + 2))
        summary.insert(i, "\r");
    EXPECT_EQ(std::regex_replace(summary, kCompressed, "(compressed)"),
              std::regex_replace(shown.substr(std::min(shown.find("Created "), shown.size())),
                                 kCompressed, "(compressed)"))
        << shown;

    // --no-progress on a terminal: the lines of a run without one.
    again.push_back("--no-progress");
    ASSERT_EQ(RunOnTerminal(again, 100, &shown), 0) << shown;
    EXPECT_TRUE(Contains(shown, "mkpatcher: Comparing the trees\r\nmkpatcher: Making patches\r\n"
                                "mkpatcher: Assembling the bundle\r\n"))
        << shown;
    EXPECT_FALSE(Contains(shown, "\033[K")) << shown;
}

} // namespace
