// The Qt windows, driven headless under the offscreen platform.

#include "TestSupport.h"
#include "report/ProgressWindowController.h"
#include "ui/QtMainLoop.h"
#include "ui/QtProgressWindow.h"
#include "ui/QtRunningAppsDialog.h"
#include "ui/QtUserInterface.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QGuiApplication>
#include <QLabel>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QScreen>
#include <QTextEdit>
#include <QTimer>
#include <QtTest/QTest>

#include <cstdlib>
#include <thread>

namespace {

class QtEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
            qputenv("QT_QPA_PLATFORM", "offscreen");
        static int argc = 1;
        static char name[] = "ui_tests";
        static char* argv[] = {name, nullptr};
        _app = new QApplication(argc, argv);
    }
    void TearDown() override { delete _app; }

private:
    QApplication* _app = nullptr;
};

[[maybe_unused]] const auto* const kEnvironment =
    ::testing::AddGlobalTestEnvironment(new QtEnvironment);

// Clicks the button with the given text in the message box once it is shown.
void ClickInMessageBoxLater(const QString& buttonText, const char* objectName = nullptr) {
    QTimer::singleShot(0, [buttonText, objectName] {
        for (QWidget* widget : QApplication::topLevelWidgets()) {
            auto* box = qobject_cast<QMessageBox*>(widget);
            if (!box)
                continue;
            for (QWidget* child : box->findChildren<QWidget*>()) {
                if (objectName && box->objectName() != objectName)
                    continue;
                auto* button = qobject_cast<QPushButton*>(child);
                if (button && button->text() == buttonText) {
                    QTest::mouseClick(button, Qt::LeftButton);
                    return;
                }
            }
        }
        ADD_FAILURE() << "no message box with " << buttonText.toStdString();
    });
}

QMessageBox* FindSheet(QWidget* parent) {
    return parent->findChild<QMessageBox*>("CancelSheet");
}

TEST(QtWindowsTest, ProgressWindowShowsFileAndValue) {
    QtMainLoop loop;
    QtProgressWindow window;
    ProgressWindowController controller(window, loop, nullptr);
    window.setController(&controller);
    controller.awakeFromNib();
    EXPECT_EQ(window.windowTitle(), "ProgressWindowTitle");
    EXPECT_EQ(window.statusLabel()->text(), "Processing");
    EXPECT_FALSE(window.cancelButton()->isVisibleTo(&window));
    controller.showWindow();
    controller.setProperties(10);
    EXPECT_TRUE(window.cancelButton()->isVisible());
    controller.setProgress(3, "/opt/Suite/Editor.app/Contents/Info.plist");
    EXPECT_EQ(window.statusLabel()->text(), "ProcessingInfo.plist");
    EXPECT_EQ(window.progressBar()->maximum(), 10);
    EXPECT_EQ(window.progressBar()->value(), 3);
    controller.setCancelButtonEnabled(false);
    EXPECT_FALSE(window.cancelButton()->isEnabled());
    controller.close();
    EXPECT_FALSE(window.isVisible());
}

TEST(QtWindowsTest, ProgressWindowNamesTheProductTheCountAndTheRollback) {
    QtMainLoop loop;
    QtProgressWindow window;
    ProgressWindowController controller(window, loop, nullptr);
    window.setController(&controller);
    controller.awakeFromNib();
    controller.setProduct("Orvel Editor", "1.0", "2.0");
    EXPECT_EQ(window.headingLabel()->text(), "Progress heading");
    controller.showWindow();
    controller.setProperties(3001);
    controller.setProgress(554, "/opt/Suite/Editor.app/p0555.txt");
    EXPECT_EQ(window.countLabel()->text(), "Progress count");
    controller.setRollingBack();
    EXPECT_EQ(window.statusLabel()->text(), "Undoing changes");
    EXPECT_FALSE(window.cancelButton()->isEnabled());
    // Centred on the screen.
    const QRect screen = QGuiApplication::primaryScreen()->availableGeometry();
    EXPECT_LE(std::abs(window.frameGeometry().center().x() - screen.center().x()), 20);
    EXPECT_LE(std::abs(window.frameGeometry().center().y() - screen.center().y()), 20);
    controller.close();
    EXPECT_FALSE(window.isVisible());
}

TEST(QtWindowsTest, ClosingTheProgressWindowAsksTheCancelQuestion) {
    QtMainLoop loop;
    QtProgressWindow window;
    ProgressWindowController controller(window, loop, nullptr);
    window.setController(&controller);
    controller.awakeFromNib();
    controller.showWindow();
    controller.setProperties(4);
    EXPECT_FALSE(window.close()); // as the window manager's close button does
    EXPECT_TRUE(window.isVisible());
    EXPECT_TRUE(controller.waitForCancelConfirmation());
    QMessageBox* sheet = FindSheet(&window);
    ASSERT_NE(sheet, nullptr);
    QTest::mouseClick(sheet->defaultButton(), Qt::LeftButton);
    EXPECT_FALSE(controller.userCancelUpdate());
    // While nothing can be cancelled, closing does nothing at all.
    controller.setRollingBack();
    EXPECT_FALSE(window.close());
    EXPECT_TRUE(window.isVisible());
    EXPECT_FALSE(controller.waitForCancelConfirmation());
    controller.close();
    EXPECT_FALSE(window.isVisible());
}

TEST(QtWindowsTest, EmptyTotalLeavesAnEmptyBar) {
    QtMainLoop loop;
    QtProgressWindow window;
    ProgressWindowController controller(window, loop, nullptr);
    controller.setProperties(0);
    EXPECT_EQ(window.progressBar()->value(), 0);
    EXPECT_GT(window.progressBar()->maximum(), 0); // not the busy indicator
}

TEST(QtWindowsTest, CancelAskedAndConfirmed) {
    QtMainLoop loop;
    QtProgressWindow window;
    ProgressWindowController controller(window, loop, nullptr);
    window.setController(&controller);
    controller.awakeFromNib();
    controller.showWindow();
    controller.setProperties(4);
    QTest::mouseClick(window.cancelButton(), Qt::LeftButton);
    EXPECT_TRUE(controller.waitForCancelConfirmation());
    QMessageBox* sheet = FindSheet(&window);
    ASSERT_NE(sheet, nullptr);
    EXPECT_EQ(sheet->windowModality(), Qt::WindowModal);
    EXPECT_EQ(sheet->text(), "Cancel title");
    EXPECT_EQ(sheet->informativeText(), "Cancel message");
    QPushButton* cancel = nullptr;
    for (auto* button : sheet->findChildren<QPushButton*>())
        if (button->text() == "Cancel")
            cancel = button;
    ASSERT_NE(cancel, nullptr);
    QTest::mouseClick(cancel, Qt::LeftButton);
    EXPECT_FALSE(controller.waitForCancelConfirmation());
    EXPECT_TRUE(controller.userCancelUpdate());
}

TEST(QtWindowsTest, CancelAskedThenContinue) {
    QtMainLoop loop;
    QtProgressWindow window;
    ProgressWindowController controller(window, loop, nullptr);
    window.setController(&controller);
    controller.awakeFromNib();
    controller.showWindow();
    controller.setProperties(4);
    QTest::mouseClick(window.cancelButton(), Qt::LeftButton);
    QMessageBox* sheet = FindSheet(&window);
    ASSERT_NE(sheet, nullptr);
    QTest::mouseClick(sheet->defaultButton(), Qt::LeftButton);
    EXPECT_FALSE(controller.waitForCancelConfirmation());
    EXPECT_FALSE(controller.userCancelUpdate());
}

TEST(QtWindowsTest, RunningAppsDialogRetryAndCancel) {
    QtRunningAppsDialog dialog(nullptr);
    EXPECT_EQ(dialog.headingText()->text(), "RunningAppsMessage");
    EXPECT_EQ(dialog.retryButton()->text(), "Retry");
    dialog.resetRunningApplications("Orvel Editor\nOrvel Viewer\n");
    EXPECT_EQ(dialog.textView()->toPlainText(), "Orvel Editor\nOrvel Viewer\n");
    EXPECT_EQ(dialog.getUserAction(), 0);
    QTimer::singleShot(0, [&] { QTest::mouseClick(dialog.retryButton(), Qt::LeftButton); });
    dialog.runModal();
    EXPECT_EQ(dialog.getUserAction(), 1);
    dialog.resetRunningApplications("Orvel Editor\n");
    EXPECT_EQ(dialog.getUserAction(), 0);
    QTimer::singleShot(0, [&] { QTest::mouseClick(dialog.cancelButton(), Qt::LeftButton); });
    dialog.runModal();
    EXPECT_EQ(dialog.getUserAction(), 2);
}

TEST(QtWindowsTest, AlertAnswersByButton) {
    QtUserInterface ui;
    ClickInMessageBoxLater("Continue");
    EXPECT_EQ(ui.runAlertPanel(AlertStyle::Informational, "Update Welcome Title", "Welcome",
                               "Continue", "Cancel"),
              kAlertDefaultReturn);
    ClickInMessageBoxLater("Cancel");
    EXPECT_EQ(ui.runAlertPanel(AlertStyle::Informational, "Update Welcome Title", "Welcome",
                               "Continue", "Cancel"),
              kAlertAlternateReturn);
    ClickInMessageBoxLater("Finish");
    EXPECT_EQ(ui.runAlertPanel(AlertStyle::Critical, "t", "m", "Finish"), kAlertDefaultReturn);
}

TEST(QtWindowsTest, MainLoopRunsWorkerTasksOnTheGuiThread) {
    QtMainLoop loop;
    const auto guiThread = std::this_thread::get_id();
    std::thread::id ranOn;
    std::thread worker([&] {
        EXPECT_FALSE(loop.isMainThread());
        loop.runOnMainThreadAndWait([&] { ranOn = std::this_thread::get_id(); });
        loop.terminate(5);
    });
    EXPECT_TRUE(loop.isMainThread());
    const int code = QApplication::exec();
    worker.join();
    EXPECT_EQ(code, 5);
    EXPECT_EQ(ranOn, guiThread);
}

} // namespace
