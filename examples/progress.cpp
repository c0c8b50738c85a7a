#include "progress.h"

#include <algorithm>
#include <string>

#include <fmt/core.h>
#include <unistd.h>

namespace {

constexpr size_t BAR_WIDTH = 40;
constexpr size_t LOOK_EVERY = 64; // steps between two looks at the clock
constexpr auto REDRAW_AFTER = std::chrono::milliseconds(50);
constexpr auto NEXT_LINE_AFTER = std::chrono::seconds(10);

} // namespace

Progress::Progress(const char* what, size_t total)
    : what_(what), total_(std::max<size_t>(total, 1)), bTerminal_(isatty(STDERR_FILENO) == 1)
{
}

Progress::~Progress()
{
    if (bTerminal_)
        fmt::print(stderr, "\r\x1b[K");
}

void Progress::Step()
{
    if (++done_ % LOOK_EVERY != 0)
        return;
    auto now = std::chrono::steady_clock::now();
    if (bTerminal_ ? now - shown_ < REDRAW_AFTER : now - shown_ < NEXT_LINE_AFTER)
        return;
    shown_ = now;
    Show();
}

void Progress::Show()
{
    size_t percent = done_ * 100 / total_;
    if (!bTerminal_) {
        fmt::print(stderr, "  {}: {} of {}, {} %\n", what_, done_, total_, percent);
        return;
    }
    size_t filled = std::min(done_, total_) * BAR_WIDTH / total_;
    fmt::print(
        stderr, "\r  {} [{}{}] {:3} %", what_, std::string(filled, '#'),
        std::string(BAR_WIDTH - filled, '.'), percent);
    fflush(stderr);
}
