#include "app/FrontEnd.h"

#include "app/CommandLine.h"
#include "app/Elevation.h"
#include "app/TerminalFrontEnd.h"
#include "base/AppBundle.h"
#include "base/StringTable.h"
#include "report/KORInstallerResultsWrapper.h"
#include "report/ProgressWindowController.h"
#include "report/RunRecorder.h"
#include "report/SilentReturnHandler.h"
#include "report/UserInterface.h"
#include "run/UpdateEngine.h"
#include "runtime/CommonUtility.h"
#include "runtime/Environment.h"
#include "runtime/LoggerUtility.h"
#include "runtime/MainLoop.h"
#include "ui/QtMainLoop.h"
#include "ui/QtProgressWindow.h"
#include "ui/QtRunningAppsDialog.h"
#include "ui/QtUserInterface.h"

#include "base/FileUtil.h"

#include <QApplication>
#include <QTimer>

#include <charconv>
#include <clocale>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

FrontEndKind ChooseFrontEnd(bool silent, bool underUpdateManager, bool haveDisplay) {
    if (silent || underUpdateManager)
        return FrontEndKind::Headless;
    return haveDisplay ? FrontEndKind::Qt : FrontEndKind::Terminal;
}

bool HaveDisplay() {
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY"}) {
        const char* value = std::getenv(name);
        if (value && *value)
            return true;
    }
    // The offscreen platform needs no display either (used for tests and screenshots).
    const char* platform = std::getenv("QT_QPA_PLATFORM");
    return platform && std::string(platform).rfind("offscreen", 0) == 0;
}

namespace {

// Connects a stream socket to the address; the error text when that fails.
std::optional<std::string> TryConnect(const sockaddr* address, socklen_t length, int family) {
    UniqueFd socket(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket.valid() || ::connect(socket.get(), address, length) != 0)
        return std::string(std::strerror(errno));
    return std::nullopt;
}

std::optional<std::string> TryUnixSocket(const std::string& path, bool abstract) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const size_t offset = abstract ? 1 : 0;
    if (path.size() + offset >= sizeof address.sun_path)
        return std::string("the socket name is too long");
    std::memcpy(address.sun_path + offset, path.data(), path.size());
    return TryConnect(
        reinterpret_cast<const sockaddr*>(&address),
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + offset + path.size()), AF_UNIX);
}

} // namespace

std::optional<std::string> DisplayProblem() {
    const char* wayland = std::getenv("WAYLAND_DISPLAY");
    if (wayland && *wayland) {
        std::string path = wayland;
        if (path.front() != '/') {
            const char* runtime = std::getenv("XDG_RUNTIME_DIR");
            path = std::string(runtime ? runtime : "") + "/" + path;
        }
        if (!TryUnixSocket(path, false))
            return std::nullopt;
        // A Wayland session usually offers X as well; try that before giving up.
    }
    const char* platform = std::getenv("QT_QPA_PLATFORM");
    if (platform && std::string(platform).rfind("offscreen", 0) == 0)
        return std::nullopt;
    const char* display = std::getenv("DISPLAY");
    if (!display || !*display)
        return std::string("no display is named");
    // [host]:number[.screen], host "unix" or empty meaning this machine.
    const std::string text = display;
    const size_t colon = text.rfind(':');
    const std::string host = colon == std::string::npos ? std::string() : text.substr(0, colon);
    const std::string number = colon == std::string::npos
                                   ? std::string()
                                   : text.substr(colon + 1, text.find('.', colon) - colon - 1);
    if (number.empty() || number.find_first_not_of("0123456789") != std::string::npos)
        return "DISPLAY=" + text + " is not a display name";
    if (host.empty() || host == "unix") {
        const std::string socket = "/tmp/.X11-unix/X" + number;
        if (!TryUnixSocket(socket, true))
            return std::nullopt;
        if (auto problem = TryUnixSocket(socket, false))
            return "DISPLAY=" + text + ": " + socket + ": " + *problem;
        return std::nullopt;
    }
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const std::string port = std::to_string(6000 + std::stoi(number));
    if (::getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0 || !found)
        return "DISPLAY=" + text + ": the host " + host + " is not known";
    std::optional<std::string> problem = std::string("no address");
    for (addrinfo* address = found; address && problem; address = address->ai_next)
        problem = TryConnect(address->ai_addr, address->ai_addrlen, address->ai_family);
    ::freeaddrinfo(found);
    if (problem)
        return "DISPLAY=" + text + ": " + host + " port " + port + ": " + *problem;
    return std::nullopt;
}

namespace {

// What every front end hands the engine besides its own windows: the machine's table, the
// patcher's bundle and its string tables.
struct RunSetting {
    const PlatformPaths& paths;
    const std::optional<AppBundle>& bundle;
    const StringTable* strings;
    RunRecorder* recorder;
    std::vector<std::string> notes; // for the log, once it is open
    bool dryRun = false;
};

KORInstallerResultsWrapper MakeReporter(const RunSetting& setting, UserInterface& ui) {
    ReportingContext context;
    context.userInterface = &ui;
    context.strings = setting.strings;
    context.installerDataPath = ExpandTildeInPath("~/" + setting.paths.installerDataInHome);
    return KORInstallerResultsWrapper(std::move(context));
}

EngineEnvironment BaseEnvironment(const RunSetting& setting, MainLoop& loop,
                                  KORInstallerResultsWrapper& reporter) {
    EngineEnvironment environment;
    environment.loop = &loop;
    environment.reporter = &reporter;
    environment.bundle = setting.bundle;
    environment.paths = setting.paths;
    environment.strings = setting.strings;
    environment.recorder = setting.recorder;
    environment.startNotes = setting.notes;
    environment.dryRun = setting.dryRun;
    // How long a silent or managed run waits for another patcher, in seconds.
    if (const char* wait = std::getenv("ORVEL_PATCHER_LOCK_WAIT")) {
        unsigned long seconds = 0;
        const auto [end, error] = std::from_chars(wait, wait + std::strlen(wait), seconds);
        if (error == std::errc() && *end == '\0')
            environment.unattendedLockWait = std::chrono::seconds(seconds);
    }
    return environment;
}

int RunHeadless(const RunSetting& setting) {
    HeadlessMainLoop loop;
    HeadlessUserInterface ui;
    KORInstallerResultsWrapper reporter = MakeReporter(setting, ui);
    EngineEnvironment environment = BaseEnvironment(setting, loop, reporter);
    environment.userInterface = &ui;
    UpdateEngine engine(std::move(environment));
    loop.post([&engine] { engine.appLaunched(); });
    const int status = loop.run();
    if (!GetENVsilentFlag() || setting.dryRun)
        return status;
    // A silent run ends with its return code, so that a script can test it; one that ended
    // without a result says so in the file too.
    auto code = SilentReturnHandler::lastReturnCode();
    if (!code) {
        NSLevelledLog(0, "The run ended without a result; it counts as failed, with nothing "
                         "changed");
        code = SilentReturnCode::CancelledOrRolledBack;
        SilentReturnHandler::setReturnCode(*code, setting.paths);
    }
    return static_cast<int>(*code);
}

int RunTerminal(const RunSetting& setting) {
    HeadlessMainLoop loop;
    TerminalUserInterface ui;
    KORInstallerResultsWrapper reporter = MakeReporter(setting, ui);
    const StringTable* strings = setting.strings;
    auto text = [strings](const char* key) {
        return strings ? strings->localizedString(key) : std::string(key);
    };
    TerminalProgressView progressView(loop, ui);
    ProgressWindowController progress(progressView, loop, strings);
    TerminalRunningAppsWindow runningApps(ui, text("Terminal running apps message"), text("Retry"),
                                          text("Cancel"));
    InterruptToCancel interrupt(loop, progress);
    EngineEnvironment environment = BaseEnvironment(setting, loop, reporter);
    environment.userInterface = &ui;
    environment.progressController = &progress;
    environment.runningAppsController = &runningApps;
    UpdateEngine engine(std::move(environment));
    loop.post([&engine] { engine.appLaunched(); });
    return loop.run();
}

int RunQt(int argc, char** argv, const RunSetting& setting) {
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    QtMainLoop loop;
    QtUserInterface ui;
    KORInstallerResultsWrapper reporter = MakeReporter(setting, ui);
    QtProgressWindow progressWindow;
    ProgressWindowController progress(progressWindow, loop, setting.strings);
    progressWindow.setController(&progress);
    QtRunningAppsDialog runningApps(setting.strings);
    EngineEnvironment environment = BaseEnvironment(setting, loop, reporter);
    environment.userInterface = &ui;
    environment.progressController = &progress;
    environment.runningAppsController = &runningApps;
    UpdateEngine engine(std::move(environment));
    QTimer::singleShot(0, [&engine] { engine.appLaunched(); });
    return QApplication::exec();
}

constexpr const char* kPkexec = "/usr/bin/pkexec";
// Where the polkit package installs the patchers' launcher (set by the build).
constexpr const char* kPatchersLauncher = ORVEL_PATCHERS_LAUNCHER;

// This program's own path and its arguments.
std::vector<std::string> OwnCommandLine(int argc, char** argv) {
    char path[4096];
    const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path - 1);
    std::vector<std::string> line = {length > 0 ? std::string(path, static_cast<size_t>(length))
                                                : std::string(argv[0])};
    line.insert(line.end(), argv + 1, argv + argc);
    return line;
}

// The words quoted for a shell, for a command line to copy.
std::string ShellWords(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        const bool plain =
            !word.empty() &&
            word.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                   "0123456789/._-=+:,") == std::string::npos;
        std::string quoted = "'";
        for (const char c : word)
            quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
        text += (text.empty() ? "" : " ") + (plain ? word : quoted + "'");
    }
    return text;
}

// An alert in a window of its own, before anything else has run.
void TellInWindow(int argc, char** argv, const RunSetting& setting, const char* key) {
    QApplication application(argc, argv);
    QtUserInterface ui;
    const auto text = [&setting](const char* name) {
        return setting.strings ? setting.strings->localizedString(name) : std::string(name);
    };
    (void)ui.runAlertPanel(AlertStyle::Critical, text("Administrator needed title"), text(key),
                           text("OK"));
}

// Whether a LANGUAGE list names English ("en", "en_GB", ...).
bool ListsEnglish(const std::string& list) {
    size_t start = 0;
    while (start <= list.size()) {
        const size_t end = std::min(list.find(':', start), list.size());
        const std::string entry = list.substr(start, end - start);
        if (entry == "en" || entry.rfind("en_", 0) == 0 || entry.rfind("en.", 0) == 0 ||
            entry.rfind("en@", 0) == 0)
            return true;
        start = end + 1;
    }
    return false;
}

} // namespace

void PrepareMessageLocale() {
    // The catalogues are chosen by LANGUAGE, which gettext ignores under the "C" locale,
    // and a machine often lacks the locale its LANG names. C.UTF-8 always exists, so the
    // user's language (from LANG and friends) still picks its texts, English by default.
    const char* messages = std::setlocale(LC_MESSAGES, nullptr);
    if (!messages || std::strcmp(messages, "C") == 0 || std::strcmp(messages, "POSIX") == 0)
        std::setlocale(LC_MESSAGES, "C.UTF-8");
    const char* language = std::getenv("LANGUAGE");
    std::string list;
    if (language && *language) {
        list = language;
    } else {
        const std::string locale = UserLocale();
        list = locale + ":" + locale.substr(0, locale.find('_'));
    }
    // The tables are keyed by names, not English texts: a language without a table of its
    // own gets the English one, never the names.
    if (!ListsEnglish(list))
        list += ":en";
    ::setenv("LANGUAGE", list.c_str(), 1);
}

int RunPatcherApplication(int argc, char** argv, const CommandLine& line) {
    PrepareMessageLocale();
    const auto bundle = AppBundle::mainBundle();
    std::unique_ptr<StringTable> strings;
    if (bundle)
        strings = std::make_unique<StringTable>(bundle->localePath());
    // The one place that takes the machine's table: everything below is handed it.
    RunRecorder recorder;
    recorder.setOutputs(line.statusFd.value_or(-1), line.resultJson.value_or(""));
    RunSetting setting{
        PlatformPaths::defaults(), bundle, strings.get(), &recorder, {}, line.dryRun};
    const bool underUpdateManager =
        KORInstallerResultsWrapper(ReportingContext{}).runningUnderKOR();
    // A dry run asks nothing and shows no window.
    FrontEndKind kind = line.dryRun
                            ? FrontEndKind::Headless
                            : ChooseFrontEnd(GetENVsilentFlag(), underUpdateManager, HaveDisplay());
    if (kind == FrontEndKind::Qt) {
        // The windows library ends the process when it cannot open its display; ask first.
        if (auto problem = DisplayProblem()) {
            setting.notes.push_back("The display cannot be opened (" + *problem +
                                    "); the questions go to the terminal instead");
            kind = FrontEndKind::Terminal;
        }
    }
    switch (DecideElevation(::geteuid() == 0, kind, ::access(kPkexec, X_OK) == 0)) {
    case Elevation::NotNeeded:
        break;
    case Elevation::UseSudo:
        std::fprintf(stderr,
                     "PatcherApp: the update changes files that only root may change; nothing "
                     "was changed.\nStart it again as root:\n  sudo %s\n",
                     ShellWords(OwnCommandLine(argc, argv)).c_str());
        return 1;
    case Elevation::ThroughPkexec: {
        std::vector<std::string> arguments(argv + 1, argv + argc);
        const int elevated = RunAndWait(PkexecCommandLine(
            kPkexec, ElevationLauncher(kPatchersLauncher), OwnCommandLine(argc, argv).front(),
            arguments, [](const std::string& name) -> std::optional<std::string> {
                const char* value = std::getenv(name.c_str());
                if (!value)
                    return std::nullopt;
                return std::string(value);
            }));
        if (!ElevationWasRefused(elevated))
            return elevated;
        TellInWindow(argc, argv, setting, "Administrator refused message");
        return 1;
    }
    case Elevation::Unavailable:
        TellInWindow(argc, argv, setting, "Administrator unavailable message");
        return 1;
    }
    int status = 0;
    switch (kind) {
    case FrontEndKind::Qt:
        status = RunQt(argc, argv, setting);
        break;
    case FrontEndKind::Terminal:
        status = RunTerminal(setting);
        break;
    case FrontEndKind::Headless:
        status = RunHeadless(setting);
        break;
    }
    recorder.finish(SilentReturnCode::CancelledOrRolledBack, "The run ended without a result");
    (void)recorder.writeResult();
    return status;
}
