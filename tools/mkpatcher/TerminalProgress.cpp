#include "TerminalProgress.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr int kDefaultColumns = 80;
constexpr size_t kMinBar = 10;
constexpr size_t kMaxBar = 40;
constexpr size_t kMinItem = 8;
constexpr std::string_view kEllipsis = "...";
// Back to the line's start; erase from the cursor to the line's end.
constexpr std::string_view kReturn = "\r";
constexpr std::string_view kEraseToEnd = "\033[K";

// Whole percent, rounded down: 100 only when all is done.
int Percent(uint64_t done, uint64_t total) {
    if (done >= total)
        return 100;
    const auto share = static_cast<long double>(done) / static_cast<long double>(total);
    return std::min(static_cast<int>(share * 100), 99);
}

std::string Bar(uint64_t done, uint64_t total, size_t width) {
    size_t filled = width;
    if (done < total) {
        const auto share = static_cast<long double>(done) / static_cast<long double>(total);
        filled = std::min(static_cast<size_t>(share * static_cast<long double>(width)), width - 1);
    }
    return std::string(filled, '#') + std::string(width - filled, '.');
}

// The item in at most room characters, on one line: control characters become '?', and a
// long item loses its start (its end names the file), at a folder separator when one is
// left, never in the middle of a UTF-8 sequence.
std::string FitItem(std::string_view item, size_t room) {
    std::string text(item);
    for (char& c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f)
            c = '?';
    }
    if (text.size() <= room)
        return text;
    if (room <= kEllipsis.size())
        return std::string(kEllipsis.substr(0, room));
    size_t start = text.size() - (room - kEllipsis.size());
    while (start < text.size() && (static_cast<unsigned char>(text[start]) & 0xC0) == 0x80)
        ++start;
    // Whole names where they fit: ".../MacOS/Editor" rather than "...ts/MacOS/Editor".
    const size_t separator = text.find('/', start);
    if (separator != std::string::npos && separator + 1 < text.size())
        start = separator;
    return std::string(kEllipsis) + text.substr(start);
}

} // namespace

TerminalProgress::Screen TerminalProgress::standardError() {
    Screen screen;
    screen.terminal = ::isatty(STDERR_FILENO) == 1;
    screen.columns = [] {
        struct winsize size {};
        return ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 ? static_cast<int>(size.ws_col) : 0;
    };
    screen.write = [](std::string_view text) {
        std::fwrite(text.data(), 1, text.size(), stderr);
        std::fflush(stderr);
    };
    return screen;
}

TerminalProgress::TerminalProgress(Screen screen, Clock now)
    : _screen(std::move(screen)), _now(std::move(now)) {}

TerminalProgress::~TerminalProgress() {
    clear();
}

void TerminalProgress::update(std::string_view label, uint64_t done, uint64_t total,
                              std::string_view item) {
    if (!_screen.terminal)
        return;
    const std::lock_guard lock(_mutex);
    const auto now = _now();
    const bool newLabel = _shown.empty() || label != _label;
    const bool finished = total > 0 && done >= total;
    if (!newLabel && !(finished && !_finishShown) && now - _lastDraw < kRedrawInterval)
        return;
    if (newLabel) {
        _label = label;
        _finishShown = false;
    }
    _finishShown = _finishShown || finished;
    _lastDraw = now;
    const int columns = _screen.columns ? _screen.columns() : 0;
    draw(line(label, done, total, item, columns));
}

void TerminalProgress::clear() {
    if (!_screen.terminal)
        return;
    const std::lock_guard lock(_mutex);
    if (!_shown.empty())
        _screen.write(std::string(kReturn) + std::string(kEraseToEnd));
    _shown.clear();
    _label.clear();
    _finishShown = false;
}

void TerminalProgress::draw(const std::string& text) {
    if (text == _shown)
        return;
    _screen.write(std::string(kReturn) + text + std::string(kEraseToEnd));
    _shown = text;
}

std::string TerminalProgress::line(std::string_view label, uint64_t done, uint64_t total,
                                   std::string_view item, int columns) {
    const size_t usable =
        static_cast<size_t>(std::max(columns > 0 ? columns : kDefaultColumns, 2) - 1);
    const std::string head(label);
    if (total == 0) {
        std::string text = head;
        if (!item.empty() && usable >= head.size() + 2 + kMinItem)
            text += "  " + FitItem(item, usable - head.size() - 2);
        return text.substr(0, usable);
    }

    std::string percent = std::to_string(Percent(done, total)) + "%";
    percent.insert(0, 4 - percent.size(), ' ');
    auto withBar = [&](size_t width, const std::string& after) {
        return head + "  [" + Bar(done, total, width) + "]  " + percent + after;
    };
    // The bar's width follows the terminal's alone, so that it stays put while the item and
    // the amounts change; the count done is padded to the total's width for the same reason.
    const size_t preferred = std::clamp(usable / 5, kMinBar, kMaxBar);
    const size_t fixed = head.size() + 6 + 4; // "  [", "]  " and the percent
    std::string amounts = bytes(done);
    const std::string all = bytes(total);
    amounts = "  " + std::string(all.size() - std::min(all.size(), amounts.size()), ' ') + amounts +
              " of " + all;
    if (usable >= fixed + kMinBar + amounts.size()) {
        std::string text = withBar(std::min(preferred, usable - fixed - amounts.size()), amounts);
        if (!item.empty() && usable >= text.size() + 2 + kMinItem)
            text += "  " + FitItem(item, usable - text.size() - 2);
        return text;
    }
    if (usable >= fixed + kMinBar)
        return withBar(std::min(preferred, usable - fixed), "");
    // No room for a bar: the label and the percent, or what fits of the percent.
    const std::string tail = "  " + percent;
    if (usable > tail.size())
        return head.substr(0, usable - tail.size()) + tail;
    return percent.substr(0, usable);
}

std::string TerminalProgress::bytes(uint64_t count) {
    if (count < 1000)
        return std::to_string(count) + " B";
    static constexpr const char* kUnits[] = {"kB", "MB", "GB", "TB", "PB", "EB"};
    auto value = static_cast<double>(count) / 1000;
    size_t unit = 0;
    // 999.95 would be shown as "1000.0": the next unit reads better.
    while (value >= 999.95 && unit + 1 < std::size(kUnits)) {
        value /= 1000;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
    return text;
}
