#include "app/CommandLine.h"

#include "base/Version.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstring>
#include <vector>

namespace {

std::string Lower(std::string text) {
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// The edit distance of two short texts, a swap of neighbours counting as one edit.
size_t Distance(const std::string& a, const std::string& b) {
    std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i)
        d[i][0] = i;
    for (size_t j = 0; j <= b.size(); ++j)
        d[0][j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        for (size_t j = 1; j <= b.size(); ++j) {
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1,
                                d[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
        }
    }
    return d[a.size()][b.size()];
}

// The option a mistyped argument was most likely meant to be; nothing when it looks like
// none of them.
std::optional<std::string> MeantOption(const std::string& arg) {
    static const char* const kOptions[] = {"-Silent",   "-logLevel",     "--help",     "--version",
                                           "--dry-run", "--result-json", "--status-fd"};
    const std::string word = Lower(arg.substr(0, arg.find('=')));
    for (const char* option : kOptions) {
        if (Distance(word, Lower(option)) <= 2)
            return std::string(option);
    }
    return std::nullopt;
}

} // namespace

CommandLine CommandLine::parse(int argc, const char* const* argv) {
    CommandLine line;
    const auto takeValue = [&](int& i, const std::string& arg,
                               const char* name) -> std::optional<std::string> {
        const std::string prefix = std::string(name) + "=";
        if (arg.rfind(prefix, 0) == 0)
            return arg.substr(prefix.size());
        if (i + 1 < argc && argv[i + 1])
            return std::string(argv[++i]);
        line.error = std::string("option ") + name + " needs a value";
        return std::nullopt;
    };
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i] ? argv[i] : "";
        const auto named = [&arg](const char* name) {
            const size_t length = std::strlen(name);
            return arg.compare(0, length, name) == 0 &&
                   (arg.size() == length || arg[length] == '=');
        };
        if (arg == "--help" || arg == "-h") {
            line.help = true;
        } else if (arg == "--version") {
            line.version = true;
        } else if (Lower(arg).find("-silent") != std::string::npos ||
                   Lower(arg).find("-loglevel=") != std::string::npos) {
            // Read by ReadRunFlags, which finds them anywhere, in any case.
            line.logLevelGiven =
                line.logLevelGiven || Lower(arg).find("-loglevel=") != std::string::npos;
        } else if (arg == "--dry-run") {
            line.dryRun = true;
        } else if (named("--result-json")) {
            if (auto value = takeValue(i, arg, "--result-json"); value && !value->empty())
                line.resultJson = *value;
            else if (line.error.empty())
                line.error = "option --result-json needs a file";
        } else if (named("--status-fd")) {
            const auto value = takeValue(i, arg, "--status-fd");
            int fd = -1;
            if (value) {
                const auto [end, problem] =
                    std::from_chars(value->data(), value->data() + value->size(), fd);
                if (problem != std::errc() || end != value->data() + value->size() || fd < 0)
                    line.error = "option --status-fd needs a file descriptor number";
                else
                    line.statusFd = fd;
            }
        } else if (arg.rfind("-", 0) == 0 && line.error.empty()) {
            // Other arguments are left alone, as they always were; one that is close to an
            // option is a typing mistake, and must not start an update.
            if (auto meant = MeantOption(arg))
                line.error = "unknown option " + arg + " (did you mean " + *meant + "?)";
        }
    }
    return line;
}

std::string PatcherUsage() {
    return "usage: PatcherApp [-Silent] [-logLevel=LEVEL] [--dry-run] [--result-json FILE]\n"
           "                  [--status-fd N]\n"
           "       PatcherApp --help | --version\n"
           "\n"
           "Brings the installed application this patcher is made for to the new version,\n"
           "as root. Started from a desktop it shows windows, from a terminal it asks on the\n"
           "terminal; the update manager starts it with its own channel.\n"
           "\n"
           "  -Silent            no questions: the result goes to /tmp/OrvelQX3/retVal and is\n"
           "                     the exit status (0 updated, 3 up to date, 5 not found, 6 not\n"
           "                     valid, 7 no space, 8 applications running, 9 failed and\n"
           "                     rolled back, 10 rollback failed, 11 not signed by a trusted\n"
           "                     key, 12 another patcher busy)\n"
           "  -logLevel=LEVEL    debug or 3 (default), info or 2, warning or 1, error or 0;\n"
           "                     any other value gives error\n"
           "  --result-json FILE write the result as a JSON object when the run ends\n"
           "  --status-fd N      write progress as JSON lines to file descriptor N\n"
           "  --dry-run          check everything a run checks and change nothing; print a\n"
           "                     summary, exit with the code a run would end with\n"
           "  -h, --help         print this help and end\n"
           "  --version          print the version and end\n"
           "\n"
           "The log: ~/.local/state/Orvel/SoftwareUpdates/OrvelSoftwareUpdate.log\n";
}

std::string PatcherVersionText() {
    return std::string("PatcherApp (Orvel patcher) ") + kOrvelVersion + "\n";
}
