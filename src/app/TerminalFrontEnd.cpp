#include "app/TerminalFrontEnd.h"

#include "runtime/MainLoop.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <thread>
#include <unistd.h>

namespace {

bool IsTerminal(std::FILE* file) {
    return file && ::isatty(::fileno(file)) == 1;
}

// Set by SIGINT while a question waits for its answer.
volatile std::sig_atomic_t gQuestionInterrupted = 0;

void OnQuestionInterrupt(int) {
    gQuestionInterrupted = 1;
}

// Ctrl-C answers the question being asked, for as long as this lives.
class QuestionInterrupts {
public:
    QuestionInterrupts() {
        gQuestionInterrupted = 0;
        struct sigaction action {};
        action.sa_handler = OnQuestionInterrupt;
        sigemptyset(&action.sa_mask);
        ::sigaction(SIGINT, &action, &_previous);
    }
    ~QuestionInterrupts() { ::sigaction(SIGINT, &_previous, nullptr); }
    QuestionInterrupts(const QuestionInterrupts&) = delete;
    QuestionInterrupts& operator=(const QuestionInterrupts&) = delete;

private:
    struct sigaction _previous {};
};

enum class Read { Line, EndOfInput, Interrupted };

// One line typed on the terminal, read straight from its descriptor so that waiting can
// end with Ctrl-C.
Read ReadLine(std::FILE* input, std::string& line) {
    line.clear();
    const int fd = ::fileno(input);
    for (;;) {
        if (gQuestionInterrupted)
            return Read::Interrupted;
        pollfd wait{fd, POLLIN, 0};
        const int ready = ::poll(&wait, 1, 100);
        if (ready < 0 && errno != EINTR)
            return Read::EndOfInput;
        if (ready <= 0)
            continue;
        char c = 0;
        const ssize_t got = ::read(fd, &c, 1);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return line.empty() ? Read::EndOfInput : Read::Line;
        if (c == '\n')
            break;
        if (c != '\r')
            line += c;
    }
    return Read::Line;
}

} // namespace

TerminalUserInterface::TerminalUserInterface(std::FILE* input, std::FILE* output)
    : _input(input), _output(output) {}

int TerminalUserInterface::runAlertPanel(AlertStyle style, const std::string& title,
                                         const std::string& message,
                                         const std::string& defaultButton,
                                         const std::string& alternateButton,
                                         const std::string& otherButton) {
    const char* mark = style == AlertStyle::Critical  ? "!! "
                       : style == AlertStyle::Warning ? "! "
                                                      : "";
    std::fprintf(_output, "\n%s%s\n%s\n", mark, title.c_str(), message.c_str());
    struct Choice {
        const std::string* text;
        int result;
    };
    std::vector<Choice> choices = {{&defaultButton, kAlertDefaultReturn}};
    if (!alternateButton.empty())
        choices.push_back({&alternateButton, kAlertAlternateReturn});
    if (!otherButton.empty())
        choices.push_back({&otherButton, kAlertOtherReturn});

    // The cancel answer: the alternate button when there is one.
    const Choice& cancel = choices.size() > 1 ? choices[1] : choices[0];
    if (choices.size() == 1 || !IsTerminal(_input)) {
        std::fprintf(_output, "[%s]\n", defaultButton.c_str());
        std::fflush(_output);
        return kAlertDefaultReturn;
    }
    if (_endOfInput) {
        std::fprintf(_output, "[%s: the input has ended]\n", cancel.text->c_str());
        std::fflush(_output);
        return cancel.result;
    }
    QuestionInterrupts interrupts;
    for (;;) {
        for (size_t i = 0; i < choices.size(); ++i) {
            std::string keys = i == 0 ? "Enter or 1" : std::to_string(i + 1);
            if (&choices[i] == &cancel)
                keys += ", Ctrl-C";
            std::fprintf(_output, "  %zu) %s  [%s]\n", i + 1, choices[i].text->c_str(),
                         keys.c_str());
        }
        std::fprintf(_output, "> ");
        std::fflush(_output);
        std::string answer;
        const Read read = ReadLine(_input, answer);
        if (read != Read::Line) {
            _endOfInput = read == Read::EndOfInput;
            std::fprintf(_output, "%s\n[%s]\n", read == Read::Interrupted ? "^C" : "",
                         cancel.text->c_str());
            std::fflush(_output);
            return cancel.result;
        }
        if (answer.empty())
            return kAlertDefaultReturn;
        const unsigned long picked = std::strtoul(answer.c_str(), nullptr, 10);
        if (picked >= 1 && picked <= choices.size())
            return choices[picked - 1].result;
        for (const auto& choice : choices) {
            if (::strncasecmp(answer.c_str(), choice.text->c_str(), answer.size()) == 0)
                return choice.result;
        }
    }
}

bool TerminalUserInterface::answersCanCome() const {
    return IsTerminal(_input) && !_endOfInput;
}

void TerminalUserInterface::tell(const std::string& title, const std::string& message,
                                 const std::string& note) {
    std::fprintf(_output, "\n! %s\n%s\n[%s]\n", title.c_str(), message.c_str(), note.c_str());
    std::fflush(_output);
}

TerminalProgressView::TerminalProgressView(MainLoop& loop, UserInterface& questions,
                                           std::FILE* output)
    : _loop(loop), _questions(questions), _output(output), _isTerminal(IsTerminal(output)) {}

void TerminalProgressView::setTitle(const std::string& title) {
    if (_shown)
        std::fprintf(_output, "%s\n", title.c_str());
}

void TerminalProgressView::setStatusLine(const std::string& text) {
    _status = text;
    draw();
}

void TerminalProgressView::setBarRange(double, double maximum) {
    _maximum = maximum;
    draw();
}

void TerminalProgressView::setBarValue(double value) {
    _value = value;
    draw();
}

void TerminalProgressView::showWindow() {
    _shown = true;
    draw();
}

void TerminalProgressView::closeWindow() {
    if (_shown && _isTerminal)
        std::fprintf(_output, "\n");
    _shown = false;
    std::fflush(_output);
}

void TerminalProgressView::draw() {
    if (!_shown)
        return;
    const int percent = _maximum > 0 ? static_cast<int>(100.0 * _value / _maximum) : 0;
    if (_isTerminal) {
        constexpr int kWidth = 30;
        const int filled = percent * kWidth / 100;
        std::string status = _status.size() > 40 ? _status.substr(0, 37) + "..." : _status;
        std::fprintf(_output, "\r[%s%s] %3d%% %-40s", std::string(filled, '#').c_str(),
                     std::string(kWidth - filled, ' ').c_str(), percent, status.c_str());
    } else if (percent / 10 != _lastPercentPrinted / 10) {
        // Not a terminal: a line every tenth of the way.
        std::fprintf(_output, "%3d%% %s\n", percent, _status.c_str());
        _lastPercentPrinted = percent;
    }
    std::fflush(_output);
}

void TerminalProgressView::beginCancelSheet(const std::string& title, const std::string& message,
                                            const std::string& defaultButton,
                                            const std::string& alternateButton,
                                            std::function<void(int answer)> answered) {
    // Asked from the loop, after the call that opened it has returned, like a sheet.
    _loop.post([this, title, message, defaultButton, alternateButton, answered] {
        const int answer = _questions.runAlertPanel(AlertStyle::Warning, title, message,
                                                    defaultButton, alternateButton);
        answered(answer == kAlertDefaultReturn ? 1 : 0);
    });
}

TerminalRunningAppsWindow::TerminalRunningAppsWindow(TerminalUserInterface& questions,
                                                     std::string heading, std::string retry,
                                                     std::string cancel)
    : _questions(questions), _heading(std::move(heading)), _retry(std::move(retry)),
      _cancel(std::move(cancel)) {}

void TerminalRunningAppsWindow::resetRunningApplications(const std::string& names) {
    _names = names;
    _userAction = 0;
}

void TerminalRunningAppsWindow::runModal() {
    if (!_questions.answersCanCome()) {
        _questions.tell(_heading, _names, _cancel + ": nobody can answer on standard input");
        _userAction = 2;
        return;
    }
    const int answer =
        _questions.runAlertPanel(AlertStyle::Warning, _heading, _names, _retry, _cancel);
    _userAction = answer == kAlertDefaultReturn ? 1 : 2;
}

// Signal handlers may only write to a pipe; a thread turns the byte into a cancel click on
// the main loop.
struct InterruptToCancel::State {
    MainLoop& loop;
    ProgressWindowController& controller;
    int pipe[2] = {-1, -1};
    std::thread watcher;
    struct sigaction previous {};
    State(MainLoop& l, ProgressWindowController& c) : loop(l), controller(c) {}
};

namespace {
std::atomic<int> gInterruptPipe{-1};

void OnInterrupt(int) {
    const int fd = gInterruptPipe.load();
    if (fd >= 0) {
        const char byte = 1;
        (void)!::write(fd, &byte, 1);
    }
}
} // namespace

InterruptToCancel::InterruptToCancel(MainLoop& loop, ProgressWindowController& controller)
    : _state(std::make_unique<State>(loop, controller)) {
    if (::pipe2(_state->pipe, O_CLOEXEC) != 0)
        return;
    gInterruptPipe = _state->pipe[1];
    struct sigaction action {};
    action.sa_handler = OnInterrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGINT, &action, &_state->previous);
    State* state = _state.get();
    state->watcher = std::thread([state] {
        for (;;) {
            char byte = 0;
            const ssize_t n = ::read(state->pipe[0], &byte, 1);
            if (n <= 0 || byte == 0)
                return; // closed, or told to stop
            state->loop.post([state] {
                if (!state->controller.waitForCancelConfirmation() &&
                    !state->controller.userCancelUpdate())
                    state->controller.cancelButtonClicked();
            });
        }
    });
}

InterruptToCancel::~InterruptToCancel() {
    if (_state->pipe[1] >= 0) {
        ::sigaction(SIGINT, &_state->previous, nullptr);
        gInterruptPipe = -1;
        const char stop = 0;
        (void)!::write(_state->pipe[1], &stop, 1);
        if (_state->watcher.joinable())
            _state->watcher.join();
        ::close(_state->pipe[0]);
        ::close(_state->pipe[1]);
    }
}
