#include "app/FrontEnd.h"

#include "app/CommandLine.h"
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

#include <QApplication>
#include <QTimer>

#include <charconv>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <memory>

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

// What every front end hands the engine besides its own windows: the machine's table, the
// patcher's bundle and its string tables.
struct RunSetting {
    const PlatformPaths& paths;
    const std::optional<AppBundle>& bundle;
    const StringTable* strings;
    RunRecorder* recorder;
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
    if (!GetENVsilentFlag())
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
    TerminalRunningAppsWindow runningApps(ui, text("RunningAppsMessage"), text("Retry"),
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

} // namespace

void PrepareMessageLocale() {
    // The catalogues are chosen by LANGUAGE, which gettext ignores under the "C" locale,
    // and a machine often lacks the locale its LANG names. C.UTF-8 always exists, so the
    // user's language (from LANG and friends) still picks its texts, English by default.
    const char* messages = std::setlocale(LC_MESSAGES, nullptr);
    if (!messages || std::strcmp(messages, "C") == 0 || std::strcmp(messages, "POSIX") == 0)
        std::setlocale(LC_MESSAGES, "C.UTF-8");
    const char* language = std::getenv("LANGUAGE");
    if (!language || !*language) {
        const std::string locale = UserLocale();
        const std::string list = locale + ":" + locale.substr(0, locale.find('_'));
        ::setenv("LANGUAGE", list.c_str(), 1);
    }
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
    const RunSetting setting{PlatformPaths::defaults(), bundle, strings.get(), &recorder};
    const bool underUpdateManager =
        KORInstallerResultsWrapper(ReportingContext{}).runningUnderKOR();
    int status = 0;
    switch (ChooseFrontEnd(GetENVsilentFlag(), underUpdateManager, HaveDisplay())) {
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
