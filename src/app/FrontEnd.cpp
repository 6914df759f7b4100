#include "app/FrontEnd.h"

#include "app/TerminalFrontEnd.h"
#include "base/AppBundle.h"
#include "base/StringTable.h"
#include "run/Environment.h"
#include "run/KORInstallerResultsWrapper.h"
#include "run/MainLoop.h"
#include "run/ProgressWindowController.h"
#include "run/UpdateEngine.h"
#include "run/UserInterface.h"
#include "ui/QtMainLoop.h"
#include "ui/QtProgressWindow.h"
#include "ui/QtRunningAppsDialog.h"
#include "ui/QtUserInterface.h"

#include <QApplication>
#include <QTimer>

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

EngineEnvironment BaseEnvironment(MainLoop& loop, const std::optional<AppBundle>& bundle,
                                  const StringTable* strings) {
    EngineEnvironment environment;
    environment.loop = &loop;
    environment.bundle = bundle;
    environment.strings = strings;
    return environment;
}

void SetReporting(UserInterface* ui, const StringTable* strings) {
    ReportingContext context = KORInstallerResultsWrapper::context();
    context.userInterface = ui;
    context.strings = strings;
    KORInstallerResultsWrapper::setContext(context);
}

int RunHeadless(const std::optional<AppBundle>& bundle, const StringTable* strings) {
    HeadlessMainLoop loop;
    HeadlessUserInterface ui;
    SetReporting(&ui, strings);
    EngineEnvironment environment = BaseEnvironment(loop, bundle, strings);
    environment.userInterface = &ui;
    UpdateEngine engine(std::move(environment));
    loop.post([&engine] { engine.appLaunched(); });
    return loop.run();
}

int RunTerminal(const std::optional<AppBundle>& bundle, const StringTable* strings) {
    HeadlessMainLoop loop;
    TerminalUserInterface ui;
    SetReporting(&ui, strings);
    auto text = [strings](const char* key) {
        return strings ? strings->localizedString(key) : std::string(key);
    };
    TerminalProgressView progressView(loop, ui);
    ProgressWindowController progress(progressView, loop, strings);
    TerminalRunningAppsWindow runningApps(ui, text("RunningAppsMessage"), text("Retry"),
                                          text("Cancel"));
    InterruptToCancel interrupt(loop, progress);
    EngineEnvironment environment = BaseEnvironment(loop, bundle, strings);
    environment.userInterface = &ui;
    environment.progressController = &progress;
    environment.runningAppsController = &runningApps;
    UpdateEngine engine(std::move(environment));
    loop.post([&engine] { engine.appLaunched(); });
    return loop.run();
}

int RunQt(int argc, char** argv, const std::optional<AppBundle>& bundle,
          const StringTable* strings) {
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    QtMainLoop loop;
    QtUserInterface ui;
    SetReporting(&ui, strings);
    QtProgressWindow progressWindow;
    ProgressWindowController progress(progressWindow, loop, strings);
    progressWindow.setController(&progress);
    QtRunningAppsDialog runningApps(strings);
    EngineEnvironment environment = BaseEnvironment(loop, bundle, strings);
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

int RunPatcherApplication(int argc, char** argv) {
    PrepareMessageLocale();
    const auto bundle = AppBundle::mainBundle();
    std::unique_ptr<StringTable> strings;
    if (bundle)
        strings = std::make_unique<StringTable>(bundle->localePath());
    switch (ChooseFrontEnd(GetENVsilentFlag(), KORInstallerResultsWrapper::runningUnderKOR(),
                           HaveDisplay())) {
    case FrontEndKind::Qt:
        return RunQt(argc, argv, bundle, strings.get());
    case FrontEndKind::Terminal:
        return RunTerminal(bundle, strings.get());
    case FrontEndKind::Headless:
        break;
    }
    return RunHeadless(bundle, strings.get());
}
