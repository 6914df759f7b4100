#include "report/ProgressWindowController.h"

#include "base/StringTable.h"

#include "TestSupport.h"
#include "runtime/MainLoop.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>

#include <thread>

namespace {

class RecordingView : public ProgressView {
public:
    std::vector<std::string> calls;
    std::thread::id lastThread;
    std::function<void(int)> pendingSheet;
    std::string status;
    double maximum = -1;
    double value = -1;
    bool cancelVisible = true;

    void record(const std::string& call) {
        calls.push_back(call);
        lastThread = std::this_thread::get_id();
    }
    void setTitle(const std::string& t) override { record("title " + t); }
    void setStatusLine(const std::string& t) override {
        status = t;
        record("status " + t);
    }
    void setBarIndeterminate(bool b) override { record(b ? "indeterminate" : "determinate"); }
    void setBarRange(double, double max) override {
        maximum = max;
        record("range");
    }
    void setBarValue(double v) override {
        value = v;
        record("value");
    }
    void setCancelButtonTitle(const std::string& t) override { record("cancel title " + t); }
    void setCancelButtonVisible(bool v) override {
        cancelVisible = v;
        record(v ? "cancel shown" : "cancel hidden");
    }
    void setCancelButtonEnabled(bool e) override { record(e ? "enabled" : "disabled"); }
    void showWindow() override { record("show"); }
    void closeWindow() override { record("close"); }
    void beginCancelSheet(const std::string& title, const std::string& message,
                          const std::string& def, const std::string& alt,
                          std::function<void(int)> answered) override {
        record("sheet " + title + "|" + message + "|" + def + "|" + alt);
        pendingSheet = std::move(answered);
    }
};

TEST(ProgressWindowControllerTest, SetUpShowsProcessingAndHidesCancel) {
    HeadlessMainLoop loop;
    RecordingView view;
    ProgressWindowController controller(view, loop, nullptr);
    controller.awakeFromNib();
    EXPECT_EQ(view.status, "Processing");
    EXPECT_FALSE(view.cancelVisible);
    EXPECT_EQ(view.maximum, 0);
    EXPECT_NE(std::find(view.calls.begin(), view.calls.end(), "title ProgressWindowTitle"),
              view.calls.end());
    controller.setProperties(0);
    EXPECT_EQ(view.maximum, 0);
    EXPECT_TRUE(view.cancelVisible);
}

TEST(ProgressWindowControllerTest, ProgressShowsTheLastPathComponent) {
    HeadlessMainLoop loop;
    RecordingView view;
    ProgressWindowController controller(view, loop, nullptr);
    controller.setProperties(12);
    controller.setProgress(3, "/opt/Suite/Editor.app/Contents/Info.plist");
    EXPECT_EQ(view.status, "ProcessingInfo.plist");
    EXPECT_EQ(view.value, 3);
    EXPECT_EQ(view.maximum, 12);
    controller.setTextToDisplay("x");
    EXPECT_EQ(view.status, "Processingx");
}

TEST(ProgressWindowControllerTest, TheCountIsGroupedAndTheRollbackNamed) {
    HeadlessMainLoop loop;
    struct CountingView : RecordingView {
        std::string count;
        std::string heading;
        void setCount(const std::string& text) override { count = text; }
        void setHeading(const std::string& text) override { heading = text; }
    } view;
    TempDir dir;
    // A catalogue of the test's own for the texts that take arguments, in a language of its
    // own (gettext reads LANGUAGE only outside the "C" locale; C.UTF-8 is always there).
    const std::string po = dir.file("xx.po");
    WriteTextFile(po, "msgid \"\"\nmsgstr \"Content-Type: text/plain; charset=UTF-8\\n\"\n\n"
                      "msgid \"Progress count\"\nmsgstr \"%@ of %@\"\n\n"
                      "msgid \"Thousands separator\"\nmsgstr \",\"\n\n"
                      "msgid \"Progress heading\"\nmsgstr \"%@ %@ -> %@\"\n\n"
                      "msgid \"Processing\"\nmsgstr \"Processing: \"\n\n"
                      "msgid \"Undoing changes\"\nmsgstr \"Undoing changes: \"\n");
    WriteTextFile(dir.file("locale/xx/LC_MESSAGES/.keep"), "");
    ASSERT_EQ(
        RunProgram({"msgfmt", "-o", dir.file("locale/xx/LC_MESSAGES/OrvelProgressTest.mo"), po}),
        0);
    const std::string savedLanguage = EnvironmentValue("LANGUAGE");
    ::setenv("LANGUAGE", "xx", 1);
    std::setlocale(LC_ALL, "C.UTF-8");
    struct Restore {
        std::string language;
        ~Restore() {
            ::setenv("LANGUAGE", language.c_str(), 1);
            std::setlocale(LC_ALL, "C");
        }
    } restore{savedLanguage};
    const StringTable strings(dir.file("locale"), "OrvelProgressTest");
    ProgressWindowController controller(view, loop, &strings);
    controller.setProduct("Orvel Editor", "1.0", "2.0");
    EXPECT_EQ(view.heading, "Orvel Editor 1.0 -> 2.0");
    controller.setProperties(3001);
    controller.setProgress(554, "/opt/Suite/Editor.app/p0555.txt");
    EXPECT_EQ(view.status, "Processing: p0555.txt");
    EXPECT_EQ(view.count, "555 of 3,001");
    controller.setRollingBack();
    EXPECT_EQ(view.status, "Undoing changes: ");
    controller.setProgress(554, "/opt/Suite/Editor.app/p0555.txt");
    EXPECT_EQ(view.status, "Undoing changes: p0555.txt");
    EXPECT_EQ(view.count, "554 of 3,001");
}

TEST(ProgressWindowControllerTest, ContinueKeepsTheUpdateGoing) {
    HeadlessMainLoop loop;
    RecordingView view;
    ProgressWindowController controller(view, loop, nullptr);
    LogCapture log;
    controller.cancelButtonClicked();
    EXPECT_TRUE(controller.waitForCancelConfirmation());
    EXPECT_EQ(view.calls.back(), "sheet Cancel title|Cancel message|Continue|Cancel");
    ASSERT_TRUE(view.pendingSheet);
    view.pendingSheet(1);
    EXPECT_FALSE(controller.waitForCancelConfirmation());
    EXPECT_FALSE(controller.userCancelUpdate());
    EXPECT_TRUE(log.contains("Proceed with the update ..."));
}

TEST(ProgressWindowControllerTest, CancelIsRecordedForTheWorker) {
    HeadlessMainLoop loop;
    RecordingView view;
    ProgressWindowController controller(view, loop, nullptr);
    LogCapture log;
    controller.cancelButtonClicked();
    view.pendingSheet(0);
    EXPECT_FALSE(controller.waitForCancelConfirmation());
    EXPECT_TRUE(controller.userCancelUpdate());
    EXPECT_TRUE(log.contains("User wish to cancel the update."));
    // Once cancelled, a later "Continue" does not take it back.
    controller.cancelButtonClicked();
    view.pendingSheet(1);
    EXPECT_TRUE(controller.userCancelUpdate());
}

TEST(ProgressWindowControllerTest, WorkerCallsReachTheViewOnTheMainThreadInOrder) {
    HeadlessMainLoop loop;
    RecordingView view;
    ProgressWindowController controller(view, loop, nullptr);
    const auto mainThread = std::this_thread::get_id();
    std::thread worker([&] {
        controller.setProperties(5);
        for (int i = 0; i < 5; ++i)
            controller.setProgress(i, "/f" + std::to_string(i));
        controller.setCancelButtonEnabled(false);
        loop.post([&] { loop.terminate(0); });
    });
    loop.run();
    worker.join();
    EXPECT_EQ(view.lastThread, mainThread);
    EXPECT_EQ(view.value, 4);
    EXPECT_EQ(view.status, "Processingf4");
    EXPECT_EQ(view.calls.back(), "disabled");
}

} // namespace
