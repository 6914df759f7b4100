#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>

// A one-line progress bar for a terminal, redrawn in place with a carriage return:
//
//   Making patches  [######.........]   45%  120.3 MB of 267.0 MB  bin/libbig.so
//
// It is fitted to the terminal's width and redrawn at most every kRedrawInterval, except
// that a new label and a finished count are always shown. Nothing at all is written when
// the screen is not a terminal. Safe to call from several threads.
class TerminalProgress {
public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;

    // Where the bar goes.
    struct Screen {
        bool terminal = false;                       // nothing is written unless set
        std::function<int()> columns;                // the width now; 80 when 0 or unknown
        std::function<void(std::string_view)> write; // text as it goes to the terminal
    };

    static constexpr std::chrono::milliseconds kRedrawInterval{100};

    // Standard error: a terminal when isatty says so, its width from TIOCGWINSZ.
    static Screen standardError();

    explicit TerminalProgress(Screen screen, Clock now = &std::chrono::steady_clock::now);
    // Clears a line still shown.
    ~TerminalProgress();
    TerminalProgress(const TerminalProgress&) = delete;
    TerminalProgress& operator=(const TerminalProgress&) = delete;

    // Whether anything is drawn at all.
    bool enabled() const { return _screen.terminal; }

    // done of total bytes (total 0: not counted, the label alone), item the file at hand.
    void update(std::string_view label, uint64_t done, uint64_t total, std::string_view item);
    // Blanks the line and puts the cursor back at its start, so that what is written next
    // begins on a clean line.
    void clear();

    // The line for these numbers, at most columns - 1 characters (the last column is left
    // free, where some terminals wrap). The bar takes a fifth of the width (10 to 40
    // characters) and the item what is left. What does not fit goes in this order: the
    // item's start, the item, the amounts, the bar.
    static std::string line(std::string_view label, uint64_t done, uint64_t total,
                            std::string_view item, int columns);
    // A byte count as people read it: "512 B", "1.5 kB", "120.3 MB" (powers of 1000).
    static std::string bytes(uint64_t count);

private:
    void draw(const std::string& text);

    Screen _screen;
    Clock _now;
    std::mutex _mutex;
    std::string _shown; // the text on the line now; empty when blank
    std::string _label; // the label of the last update
    bool _finishShown = false;
    std::chrono::steady_clock::time_point _lastDraw{};
};
