#include "app/TerminalFrontEnd.h"
#include "app/FrontEnd.h"

#include "TestSupport.h"
#include "runtime/MainLoop.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <thread>
#include <unistd.h>

namespace {

// A pseudo-terminal: what the test writes to the master side, the code reads as typed
// input on the terminal side.
class PseudoTerminal {
public:
    PseudoTerminal() {
        _master = ::posix_openpt(O_RDWR | O_NOCTTY);
        EXPECT_GE(_master, 0);
        EXPECT_EQ(::grantpt(_master), 0);
        EXPECT_EQ(::unlockpt(_master), 0);
        _terminal = std::fopen(::ptsname(_master), "r+");
        EXPECT_NE(_terminal, nullptr);
    }
    ~PseudoTerminal() {
        if (_terminal)
            std::fclose(_terminal);
        ::close(_master);
    }
    void type(const std::string& text) {
        ASSERT_EQ(::write(_master, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    std::FILE* terminal() const { return _terminal; }

private:
    int _master = -1;
    std::FILE* _terminal = nullptr;
};

class OutputFile {
public:
    OutputFile() : _file(std::fopen(_dir.file("out").c_str(), "w+")) {}
    ~OutputFile() { std::fclose(_file); }
    std::FILE* get() const { return _file; }
    std::string text() const {
        std::fflush(_file);
        return ReadTextFile(_dir.file("out"));
    }

private:
    TempDir _dir;
    std::FILE* _file;
};

TEST(FrontEndTest, ChoiceOfFrontEnd) {
    EXPECT_EQ(ChooseFrontEnd(true, false, true), FrontEndKind::Headless);
    EXPECT_EQ(ChooseFrontEnd(false, true, true), FrontEndKind::Headless);
    EXPECT_EQ(ChooseFrontEnd(true, true, false), FrontEndKind::Headless);
    EXPECT_EQ(ChooseFrontEnd(false, false, true), FrontEndKind::Qt);
    EXPECT_EQ(ChooseFrontEnd(false, false, false), FrontEndKind::Terminal);
}

TEST(TerminalUserInterfaceTest, WithoutATerminalTheDefaultButtonAnswers) {
    OutputFile out;
    TempDir dir;
    WriteTextFile(dir.file("in"), "2\n");
    std::FILE* in = std::fopen(dir.file("in").c_str(), "r");
    TerminalUserInterface ui(in, out.get());
    EXPECT_EQ(ui.runAlertPanel(AlertStyle::Informational, "Software Update", "Update Suite?",
                               "Continue", "Cancel"),
              kAlertDefaultReturn);
    std::fclose(in);
    EXPECT_NE(out.text().find("Software Update\nUpdate Suite?\n[Continue]"), std::string::npos);
}

TEST(TerminalUserInterfaceTest, AnswersTypedOnTheTerminal) {
    PseudoTerminal pty;
    OutputFile out;
    TerminalUserInterface ui(pty.terminal(), out.get());
    pty.type("2\n");
    EXPECT_EQ(ui.runAlertPanel(AlertStyle::Informational, "t", "m", "Continue", "Cancel"),
              kAlertAlternateReturn);
    pty.type("cancel\n");
    EXPECT_EQ(ui.runAlertPanel(AlertStyle::Informational, "t", "m", "Continue", "Cancel"),
              kAlertAlternateReturn);
    pty.type("7\n\n");
    EXPECT_EQ(ui.runAlertPanel(AlertStyle::Informational, "t", "m", "Continue", "Cancel"),
              kAlertDefaultReturn);
    EXPECT_NE(out.text().find("  1) Continue  [Enter or 1]\n  2) Cancel  [2, Ctrl-C]\n> "),
              std::string::npos)
        << out.text();
}

TEST(TerminalUserInterfaceTest, TheEndOfInputAnswersWithCancelFromThenOn) {
    PseudoTerminal pty;
    OutputFile out;
    TerminalUserInterface ui(pty.terminal(), out.get());
    pty.type("\x04"); // Ctrl-D at the start of a line
    EXPECT_EQ(ui.runAlertPanel(AlertStyle::Informational, "t", "m", "Continue", "Cancel"),
              kAlertAlternateReturn);
    EXPECT_FALSE(ui.answersCanCome());
    EXPECT_EQ(ui.runAlertPanel(AlertStyle::Informational, "t", "m", "Retry", "Cancel"),
              kAlertAlternateReturn);
    EXPECT_NE(out.text().find("[Cancel: the input has ended]"), std::string::npos) << out.text();
}

TEST(TerminalUserInterfaceTest, CtrlCAtAQuestionAnswersWithCancel) {
    PseudoTerminal pty;
    OutputFile out;
    TerminalUserInterface ui(pty.terminal(), out.get());
    // SIGINT would end the test program but for the question's own handling of it.
    std::thread interrupter([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        ::kill(::getpid(), SIGINT);
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ui.runAlertPanel(AlertStyle::Informational, "t", "m", "Continue", "Cancel"),
              kAlertAlternateReturn);
    interrupter.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_NE(out.text().find("^C\n[Cancel]"), std::string::npos) << out.text();
    // The next question is asked as usual.
    EXPECT_TRUE(ui.answersCanCome());
    pty.type("\n");
    EXPECT_EQ(ui.runAlertPanel(AlertStyle::Informational, "t", "m", "Continue", "Cancel"),
              kAlertDefaultReturn);
}

TEST(TerminalProgressViewTest, WithoutATerminalPrintsALineEveryTenth) {
    HeadlessMainLoop loop;
    OutputFile out;
    TerminalUserInterface ui(stdin, out.get());
    TerminalProgressView view(loop, ui, out.get());
    ProgressWindowController controller(view, loop, nullptr);
    controller.awakeFromNib();
    controller.showWindow();
    controller.setProperties(20);
    for (int i = 0; i < 20; ++i)
        controller.setProgress(i, "/opt/App.app/file" + std::to_string(i));
    controller.setProgress(20, "/opt/App.app/last");
    controller.close();
    const std::string text = out.text();
    EXPECT_NE(text.find("  0% Processing\n"), std::string::npos);
    EXPECT_NE(text.find(" 50% Processingfile10\n"), std::string::npos);
    EXPECT_NE(text.find("100% Processinglast\n"), std::string::npos);
    EXPECT_EQ(text.find(" 55%"), std::string::npos);
}

TEST(InterruptToCancelTest, CtrlCAsksAndCancels) {
    HeadlessMainLoop loop;
    PseudoTerminal pty;
    OutputFile out;
    TerminalUserInterface ui(pty.terminal(), out.get());
    TerminalProgressView view(loop, ui, out.get());
    ProgressWindowController controller(view, loop, nullptr);
    InterruptToCancel interrupt(loop, controller);
    pty.type("2\n"); // the answer to the cancel question: Cancel
    std::thread watcher([&] {
        ::kill(::getpid(), SIGINT);
        for (int i = 0; i < 500 && !controller.userCancelUpdate(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        loop.post([&] { loop.terminate(0); });
    });
    loop.run();
    watcher.join();
    EXPECT_TRUE(controller.userCancelUpdate());
    EXPECT_FALSE(controller.waitForCancelConfirmation());
    EXPECT_NE(out.text().find("Cancel title\nCancel message"), std::string::npos);
}

TEST(TerminalRunningAppsWindowTest, RetryOrCancel) {
    PseudoTerminal pty;
    OutputFile out;
    TerminalUserInterface ui(pty.terminal(), out.get());
    TerminalRunningAppsWindow window(ui, "Quit these:", "Retry", "Cancel");
    window.resetRunningApplications("Orvel Editor\n");
    EXPECT_EQ(window.getUserAction(), 0);
    pty.type("1\n");
    window.runModal();
    EXPECT_EQ(window.getUserAction(), 1);
    pty.type("2\n");
    window.runModal();
    EXPECT_EQ(window.getUserAction(), 2);
    EXPECT_NE(out.text().find("Quit these:\nOrvel Editor\n"), std::string::npos);
    // The end of input: Cancel, not Retry for ever.
    pty.type("\x04");
    window.runModal();
    EXPECT_EQ(window.getUserAction(), 2);
    window.runModal();
    EXPECT_EQ(window.getUserAction(), 2);
}

TEST(TerminalRunningAppsWindowTest, WithoutATerminalItCancelsAtOnce) {
    OutputFile out;
    TempDir dir;
    WriteTextFile(dir.file("in"), "\n\n\n");
    std::FILE* in = std::fopen(dir.file("in").c_str(), "r");
    TerminalUserInterface ui(in, out.get());
    TerminalRunningAppsWindow window(ui, "Quit these:", "Retry", "Cancel");
    window.resetRunningApplications("Orvel Editor\n");
    window.runModal();
    std::fclose(in);
    EXPECT_EQ(window.getUserAction(), 2);
    EXPECT_NE(out.text().find("[Cancel: nobody can answer on standard input]"), std::string::npos)
        << out.text();
}

} // namespace
