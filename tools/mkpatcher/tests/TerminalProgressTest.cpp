// TerminalProgress: the bar's text for given numbers, how often it is redrawn, that the line
// is cleared at the end, and that nothing reaches a screen that is not a terminal.

#include "TerminalProgress.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>

namespace {

using namespace std::chrono_literals;

constexpr uint64_t kTotal = 267'000'000;
constexpr uint64_t kPartial = 120'300'000;

// A terminal that keeps what is written to it, of a width and with a clock the test sets.
struct FakeTerminal {
    std::string written;
    int columns = 80;
    bool terminal = true;
    std::chrono::steady_clock::time_point time{};

    std::unique_ptr<TerminalProgress> progress() {
        TerminalProgress::Screen screen;
        screen.terminal = terminal;
        screen.columns = [this] { return columns; };
        screen.write = [this](std::string_view text) { written += text; };
        return std::make_unique<TerminalProgress>(std::move(screen), [this] { return time; });
    }

    // How often the line was drawn or cleared.
    size_t returns() const {
        return static_cast<size_t>(std::count(written.begin(), written.end(), '\r'));
    }

    // The text of the last drawing, without the carriage return and the erasure after it.
    std::string lastLine() const {
        const size_t start = written.rfind('\r');
        if (start == std::string::npos)
            return {};
        const std::string line = written.substr(start + 1);
        return line.substr(0, line.rfind("\033[K"));
    }
};

TEST(TerminalProgressTest, LineShowsLabelBarPercentAmountsAndItem) {
    struct Case {
        const char* label;
        uint64_t done;
        uint64_t total;
        const char* item;
        int columns;
        const char* line;
    };
    const Case cases[] = {
        {"Comparing the trees", 0, kTotal, "bin/libbig.so", 100,
         "Comparing the trees  [...................]    0%       0 B of 267.0 MB  bin/libbig.so"},
        {"Making patches", kPartial, kTotal, "bin/libbig.so", 80,
         "Making patches  [######.........]   45%  120.3 MB of 267.0 MB  bin/libbig.so"},
        {"Making patches", kTotal, kTotal, "", 80,
         "Making patches  [###############]  100%  267.0 MB of 267.0 MB"},
        // One byte short is not done yet.
        {"Making patches", kTotal - 1, kTotal, "", 80,
         "Making patches  [##############.]   99%  267.0 MB of 267.0 MB"},
        // Narrower: the item goes first, then the amounts, then the bar.
        {"Making patches", kPartial, kTotal, "bin/libbig.so", 60,
         "Making patches  [####.......]   45%  120.3 MB of 267.0 MB"},
        {"Making patches", kPartial, kTotal, "bin/libbig.so", 40,
         "Making patches  [####......]   45%"},
        {"Making patches", kPartial, kTotal, "bin/libbig.so", 30, "Making patches   45%"},
        {"Making patches", kPartial, kTotal, "bin/libbig.so", 12, "Makin   45%"},
        {"Making patches", kPartial, kTotal, "bin/libbig.so", 4, " 45"},
        // Wider: the bar grows to 40 characters.
        {"Making patches", kTotal, kTotal, "", 300,
         "Making patches  [########################################]  100%  267.0 MB of 267.0 MB"},
        // Not counted: the label, and the item when there is one.
        {"Assembling the bundle", 0, 0, "", 80, "Assembling the bundle"},
        {"Assembling the bundle", 0, 0, "Payload.cpio.gz", 80,
         "Assembling the bundle  Payload.cpio.gz"},
        // No width known: 80 columns.
        {"Making patches", kTotal, kTotal, "", 0,
         "Making patches  [###############]  100%  267.0 MB of 267.0 MB"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.label) + " " + std::to_string(c.done) + " of " +
                     std::to_string(c.total) + " in " + std::to_string(c.columns));
        const std::string line =
            TerminalProgress::line(c.label, c.done, c.total, c.item, c.columns);
        EXPECT_EQ(line, c.line);
        EXPECT_LT(line.size(), static_cast<size_t>(c.columns > 0 ? c.columns : 80));
    }
}

TEST(TerminalProgressTest, LongItemsLoseTheirStart) {
    const std::string item =
        "Contents/Frameworks/Renderer.framework/Versions/A/Resources/shaders/compiled.bin";
    const std::string line = TerminalProgress::line("Making patches", 0, 1000, item, 80);
    // Of 79 columns, 20 are left for the item: "..." and its last whole names that fit.
    EXPECT_EQ(line, "Making patches  [...............]    0%     0 B of 1.0 kB  .../compiled.bin");
    EXPECT_EQ(
        TerminalProgress::line("Making patches", 0, 1000, item, 90),
        "Making patches  [.................]    0%     0 B of 1.0 kB  .../shaders/compiled.bin");
    // A name longer than the room is cut within.
    const std::string name = "Contents/" + std::string(40, 'x') + ".bin";
    EXPECT_EQ(TerminalProgress::line("Making patches", 0, 1000, name, 80),
              "Making patches  [...............]    0%     0 B of 1.0 kB  ..." +
                  name.substr(name.size() - 17));

    // Never in the middle of a character; control characters become '?'.
    std::string accented = "Resources/";
    for (int i = 0; i < 40; ++i)
        accented += "\xC3\xBC"; // ü
    for (const int columns : {79, 80}) {
        const std::string cut =
            TerminalProgress::line("Making patches", 0, 1000, accented, columns);
        const size_t dots = cut.rfind("...");
        ASSERT_NE(dots, std::string::npos) << cut;
        EXPECT_EQ(cut.substr(dots + 3, 2), "\xC3\xBC") << columns;
        EXPECT_LT(cut.size(), static_cast<size_t>(columns));
    }
    EXPECT_EQ(TerminalProgress::line("Making patches", 0, 1000, "a\nb\tc\x7f", 80),
              "Making patches  [...............]    0%     0 B of 1.0 kB  a?b?c?");
}

TEST(TerminalProgressTest, BytesAreShownInThousands) {
    const std::pair<uint64_t, const char*> cases[] = {
        {0, "0 B"},
        {999, "999 B"},
        {1000, "1.0 kB"},
        {1536, "1.5 kB"},
        {999'949, "999.9 kB"},
        {999'950, "1.0 MB"},
        {kPartial, "120.3 MB"},
        {5'000'000'000, "5.0 GB"},
        {UINT64_MAX, "18.4 EB"},
    };
    for (const auto& [count, text] : cases)
        EXPECT_EQ(TerminalProgress::bytes(count), text) << count;
}

TEST(TerminalProgressTest, RedrawsAtMostTenTimesASecondButShowsEachPhaseAndItsEnd) {
    FakeTerminal terminal;
    auto progress = terminal.progress();
    progress->update("Comparing the trees", 0, 1000, "a");
    EXPECT_EQ(terminal.returns(), 1u);
    EXPECT_EQ(terminal.lastLine().rfind("Comparing the trees  [", 0), 0u) << terminal.lastLine();

    // Within the interval nothing is drawn, however much happens.
    for (uint64_t done = 1; done < 500; ++done) {
        terminal.time += 198us;
        progress->update("Comparing the trees", done, 1000, "a");
    }
    EXPECT_EQ(terminal.returns(), 1u);
    terminal.time = std::chrono::steady_clock::time_point{} + TerminalProgress::kRedrawInterval;
    progress->update("Comparing the trees", 500, 1000, "b");
    EXPECT_EQ(terminal.returns(), 2u);
    EXPECT_NE(terminal.lastLine().find(" 50%"), std::string::npos) << terminal.lastLine();

    // The end of a count is shown at once, once.
    terminal.time += 10ms;
    progress->update("Comparing the trees", 1000, 1000, "c");
    EXPECT_EQ(terminal.returns(), 3u);
    EXPECT_NE(terminal.lastLine().find("100%"), std::string::npos);
    terminal.time += 10ms;
    progress->update("Comparing the trees", 1000, 1000, "d");
    EXPECT_EQ(terminal.returns(), 3u);

    // So is a new phase.
    terminal.time += 10ms;
    progress->update("Making patches", 0, 10, "");
    EXPECT_EQ(terminal.returns(), 4u);
    EXPECT_EQ(terminal.lastLine().rfind("Making patches  [", 0), 0u);

    // A line the same as the one shown is not written again.
    terminal.time += 1s;
    progress->update("Making patches", 0, 10, "");
    EXPECT_EQ(terminal.returns(), 4u);
}

TEST(TerminalProgressTest, LineIsClearedAtTheEnd) {
    FakeTerminal terminal;
    auto progress = terminal.progress();
    progress->clear(); // nothing shown: nothing to clear
    EXPECT_EQ(terminal.written, "");

    progress->update("Making patches", 5, 10, "x");
    progress->clear();
    EXPECT_EQ(terminal.written,
              "\r" + TerminalProgress::line("Making patches", 5, 10, "x", 80) + "\033[K\r\033[K");
    // The next phase starts on the clean line at once.
    progress->update("Assembling the bundle", 0, 0, "");
    EXPECT_EQ(terminal.lastLine(), "Assembling the bundle");
    // A line still shown when the bar goes is cleared too.
    progress.reset();
    EXPECT_EQ(terminal.written.substr(terminal.written.size() - 4), "\r\033[K");
}

TEST(TerminalProgressTest, FollowsTheTerminalsWidth) {
    FakeTerminal terminal;
    auto progress = terminal.progress();
    progress->update("Making patches", kPartial, kTotal, "bin/libbig.so");
    EXPECT_EQ(terminal.lastLine(),
              "Making patches  [######.........]   45%  120.3 MB of 267.0 MB  bin/libbig.so");
    terminal.columns = 40;
    terminal.time += 1s;
    progress->update("Making patches", kPartial + 1, kTotal, "bin/libbig.so");
    EXPECT_EQ(terminal.lastLine(), "Making patches  [####......]   45%");
}

TEST(TerminalProgressTest, NothingIsWrittenWhenNotATerminal) {
    FakeTerminal terminal;
    terminal.terminal = false;
    {
        auto progress = terminal.progress();
        EXPECT_FALSE(progress->enabled());
        for (uint64_t done = 0; done <= 10; ++done) {
            terminal.time += 1s;
            progress->update("Comparing the trees", done, 10, "a");
        }
        progress->update("Assembling the bundle", 0, 0, "");
        progress->clear();
        progress->update("Making patches", 1, 2, "b");
    }
    EXPECT_EQ(terminal.written, "");
}

} // namespace
