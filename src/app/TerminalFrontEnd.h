#pragma once

#include "report/ProgressWindowController.h"
#include "report/RunningApplicationHandler.h"
#include "report/UserInterface.h"

#include <cstdio>
#include <memory>
#include <string>

class MainLoop;

// The front end of a run with a user but without a display (over ssh, say): questions
// and alerts on the terminal, answered on standard input when it is a terminal (the
// default button otherwise), and a progress line. The log keeps standard error, so all of
// this goes to standard output.
//
// Enter takes the default answer, a number or the start of a button's text another one.
// Ctrl-C at a question answers with its cancel button (the alternate one, the only one
// when there is no other); so does the end of input (Ctrl-D), after which every later
// question takes its cancel answer too.
class TerminalUserInterface final : public UserInterface {
public:
    explicit TerminalUserInterface(std::FILE* input = stdin, std::FILE* output = stdout);
    int runAlertPanel(AlertStyle style, const std::string& title, const std::string& message,
                      const std::string& defaultButton, const std::string& alternateButton = {},
                      const std::string& otherButton = {}) override;

    // Whether a person can still answer: standard input is a terminal that has not ended.
    bool answersCanCome() const;
    // Prints what a question would say, for a question nobody can answer.
    void tell(const std::string& title, const std::string& message, const std::string& note);

private:
    std::FILE* _input;
    std::FILE* _output;
    bool _endOfInput = false;
};

class TerminalProgressView final : public ProgressView {
public:
    TerminalProgressView(MainLoop& loop, UserInterface& questions, std::FILE* output = stdout);

    void setTitle(const std::string& title) override;
    void setStatusLine(const std::string& text) override;
    void setBarIndeterminate(bool) override {}
    void setBarRange(double minimum, double maximum) override;
    void setBarValue(double value) override;
    void setCancelButtonTitle(const std::string&) override {}
    void setCancelButtonVisible(bool) override {}
    void setCancelButtonEnabled(bool enabled) override { _cancelEnabled = enabled; }
    void showWindow() override;
    void closeWindow() override;
    void beginCancelSheet(const std::string& title, const std::string& message,
                          const std::string& defaultButton, const std::string& alternateButton,
                          std::function<void(int answer)> answered) override;

    bool cancelEnabled() const { return _cancelEnabled; }

private:
    void draw();

    MainLoop& _loop;
    UserInterface& _questions;
    std::FILE* _output;
    bool _isTerminal;
    bool _shown = false;
    bool _cancelEnabled = true;
    std::string _status;
    double _maximum = 0;
    double _value = 0;
    int _lastPercentPrinted = -10;
};

class TerminalRunningAppsWindow final : public RunningAppsWindowController {
public:
    // Asks again after every Retry, so it is asked only while answersCanCome(): without a
    // person to answer, it ends with Cancel at once instead of for ever.
    explicit TerminalRunningAppsWindow(TerminalUserInterface& questions, std::string heading,
                                       std::string retry, std::string cancel);

    void resetRunningApplications(const std::string& names) override;
    void runModal() override;
    int getUserAction() const override { return _userAction; }

private:
    TerminalUserInterface& _questions;
    std::string _heading;
    std::string _retry;
    std::string _cancel;
    std::string _names;
    int _userAction = 0;
};

// Ctrl-C during the run asks the cancel question through the progress controller. Only
// one watcher exists at a time; it restores the previous SIGINT handling when destroyed.
class InterruptToCancel {
public:
    InterruptToCancel(MainLoop& loop, ProgressWindowController& controller);
    ~InterruptToCancel();
    InterruptToCancel(const InterruptToCancel&) = delete;
    InterruptToCancel& operator=(const InterruptToCancel&) = delete;

private:
    struct State;
    std::unique_ptr<State> _state;
};
