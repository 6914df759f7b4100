#include "report/KORInstallerResultsWrapper.h"

#include "TestSupport.h"
#include "report/UserInterface.h"

#include <gtest/gtest.h>

#include <cstring>
#include <plist/plist.h>

namespace {

// A results library whose answers each test scripts: the update manager is outside the
// patcher, so its side of the exchange is played here.
struct ScriptedManager {
    std::optional<std::string> clientPath;
    std::vector<uint32_t> lengthsAsked;
    std::vector<std::pair<int, std::optional<std::string>>> results;
};
ScriptedManager gManager;

int ScriptedGetClientAppPath(uint32_t* length, char* buffer) {
    gManager.lengthsAsked.push_back(*length);
    if (!gManager.clientPath) {
        *length = 0;
        return 0;
    }
    const auto& path = *gManager.clientPath;
    if (*length < path.size() + 1) {
        *length = static_cast<uint32_t>(path.size());
        return 0;
    }
    std::memcpy(buffer, path.c_str(), path.size() + 1);
    return 1;
}

int ScriptedSetInstallerResults(int32_t code, const char* message) {
    gManager.results.emplace_back(code,
                                  message ? std::optional<std::string>(message) : std::nullopt);
    return 1;
}

struct Panel {
    AlertStyle style;
    std::string title, message, button;
};

class RecordingUserInterface : public UserInterface {
public:
    int answer = kAlertDefaultReturn;
    std::vector<Panel> panels;
    int runAlertPanel(AlertStyle style, const std::string& title, const std::string& message,
                      const std::string& defaultButton, const std::string&,
                      const std::string&) override {
        panels.push_back({style, title, message, defaultButton});
        return answer;
    }
};

class KORInstallerResultsWrapperTest : public ::testing::Test {
protected:
    void SetUp() override { gManager = ScriptedManager{}; }

    ReportingContext ScriptedContext() {
        ReportingContext context;
        context.library.getClientAppPath = &ScriptedGetClientAppPath;
        context.library.setInstallerResults = &ScriptedSetInstallerResults;
        context.userInterface = &ui;
        context.installerDataPath = dir.file("Install/OrvelUpdaterInstallerData.plist");
        return context;
    }

    void WriteInstallerData(const std::string& appId) {
        plist_t dict = plist_new_dict();
        plist_dict_set_item(dict, "KOR_APP_ID", plist_new_string(appId.c_str()));
        char* xml = nullptr;
        uint32_t length = 0;
        plist_to_xml(dict, &xml, &length);
        plist_free(dict);
        WriteTextFile(dir.file("Install/OrvelUpdaterInstallerData.plist"),
                      std::string(xml, length));
        std::free(xml);
    }

    TempDir dir;
    RecordingUserInterface ui;
    KORInstallerResultsWrapper reporter{ScriptedContext()};
};

TEST_F(KORInstallerResultsWrapperTest, BufferGrowsOnceForALongPath) {
    gManager.clientPath = "/opt/" + std::string(1495, 'x');
    ASSERT_EQ(gManager.clientPath->size(), 1500u);
    LogCapture log;
    EXPECT_EQ(reporter.clientAppPath(), gManager.clientPath);
    EXPECT_EQ(gManager.lengthsAsked, (std::vector<uint32_t>{1024, 1501}));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"length != 0", " 1 == korResult"}));
}

TEST_F(KORInstallerResultsWrapperTest, ShortPathNeedsOneCall) {
    gManager.clientPath = "/opt/Orvel/Suite/Editor.app";
    EXPECT_EQ(reporter.clientAppPath(), "/opt/Orvel/Suite/Editor.app");
    EXPECT_EQ(gManager.lengthsAsked.size(), 1u);
    EXPECT_TRUE(reporter.runningUnderKOR());
}

TEST_F(KORInstallerResultsWrapperTest, WithoutTheUpdateManagerEveryReportShowsAPanel) {
    EXPECT_FALSE(reporter.runningUnderKOR());
    LogCapture log;
    reporter.reportAlreadyUpToDate("Suite is up to date");
    reporter.reportUpToDate("Updated 100%%");
    reporter.reportUpdateFailed("disk error");
    reporter.reportUpdateCancelled();
    reporter.reportUpdateFailedTryAgain("Editor, Viewer");
    EXPECT_TRUE(gManager.results.empty());
    ASSERT_EQ(ui.panels.size(), 5u);
    EXPECT_EQ(ui.panels[0].style, AlertStyle::Informational);
    EXPECT_EQ(ui.panels[0].title, "UpToDate Title");
    EXPECT_EQ(ui.panels[0].message, "Suite is up to date");
    EXPECT_EQ(ui.panels[0].button, "Finish");
    EXPECT_EQ(ui.panels[1].message, "Updated 100%");
    EXPECT_EQ(ui.panels[2].style, AlertStyle::Critical);
    EXPECT_EQ(ui.panels[2].title, "Installing the patch title");
    // Without a string table the key itself is the format, and has no "%@" to fill.
    EXPECT_EQ(ui.panels[2].message, "Update failed message");
    EXPECT_EQ(ui.panels[3].title, "Update cancelled title");
    EXPECT_EQ(ui.panels[3].message, "Update cancelled message");
    EXPECT_EQ(ui.panels[4].title, "Update cancelled title");
    const std::vector<std::string> expected = {
        "_reportAlreadyUpToDate",     "_reportUpToDate",
        "_reportUpdateFailed",        "UpdateEngine:_reportUpdateCancelled",
        "User cancelled the update.", "User cancelled the update."};
    EXPECT_EQ(log.lines(), expected);
}

TEST_F(KORInstallerResultsWrapperTest, UnderTheUpdateManagerReportsSendCodes) {
    gManager.clientPath = "/opt/Orvel/Suite/Editor.app";
    LogCapture log;
    reporter.reportAlreadyUpToDate("x");
    reporter.reportUpToDate("y");
    reporter.reportUpdateFailed("the failure");
    reporter.reportUpdateCancelled();
    reporter.reportUpdateFailedTryAgain("Editor");
    EXPECT_TRUE(ui.panels.empty());
    using R = std::pair<int, std::optional<std::string>>;
    const std::vector<R> expected = {R{0, std::nullopt}, R{0, std::nullopt}, R{4, "the failure"},
                                     R{2, "Update cancelled message"},
                                     R{2, "KOR_reportUpdateFailedTryAgain"}};
    EXPECT_EQ(gManager.results, expected);
    EXPECT_TRUE(log.contains("User cancelled installation. Notifying KOR."));
}

TEST_F(KORInstallerResultsWrapperTest, UnexpectedPanelAnswerIsLogged) {
    ui.answer = kAlertAlternateReturn;
    LogCapture log;
    reporter.reportUpdateFailed("x");
    EXPECT_TRUE(log.contains("Unexpected up to date alert result (0)"));
}

TEST_F(KORInstallerResultsWrapperTest, TestKORIDComparesWithTheInstallerData) {
    EXPECT_TRUE(reporter.testKORID(std::nullopt));
    EXPECT_FALSE(reporter.testKORID(std::string("APP-1"))); // no file yet
    WriteInstallerData("APP-1");
    LogCapture log;
    EXPECT_TRUE(reporter.testKORID(std::string("APP-1")));
    EXPECT_FALSE(reporter.testKORID(std::string("app-1")));
    const auto lines = log.lines();
    EXPECT_EQ(lines.front(), "KORInstallerResultsWrapper:testKORID: KORId = APP-1");
    EXPECT_TRUE(log.contains("InstallerDataKORId = APP-1"));
    EXPECT_TRUE(log.contains("compare result = 0"));
    EXPECT_TRUE(log.contains("KORInstallerResultsWrapper:testKORID: returning result = 1"));
    EXPECT_TRUE(log.contains("KORInstallerResultsWrapper:testKORID: returning result = 0"));
}

TEST_F(KORInstallerResultsWrapperTest, ClientAppPathWithIdentifier) {
    gManager.clientPath = "/opt/App.app";
    WriteInstallerData("APP-1");
    EXPECT_EQ(reporter.clientAppPath(std::string("APP-1")), "/opt/App.app");
    LogCapture log;
    EXPECT_FALSE(reporter.clientAppPath(std::string("OTHER")));
    EXPECT_TRUE(log.contains("KORInstallerResultsWrapper:clientAppPath returning NULL"));
    EXPECT_TRUE(reporter.runningUnderKOR(std::string("APP-1")));
    EXPECT_TRUE(reporter.cleanup());
    EXPECT_TRUE(reporter.cleanup(std::string("APP-1")));
    EXPECT_FALSE(reporter.cleanup(std::string("OTHER")));
}

} // namespace
