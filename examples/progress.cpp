#include "progress.h"

#include <algorithm>
#include <string>

#include <fmt/core.h>
#include <unistd.h>

namespace {

constexpr size_t BAR_WIDTH = 40;
constexpr size_t LOOK_EVERY = 64; // steps between two looks at the clock
constexpr auto REDRAW_AFTER = std::chrono::milliseconds(50);

} // namespace

Progress::Progress(const char* what, size_t total)
    : what_(what), total_(std::max<size_t>(total, 1)), bTerminal_(isatty(STDERR_FILENO) == 1)
{
    next_ = bTerminal_ ? LOOK_EVERY : (total_ + 3) / 4;
}

Progress::~Progress()
{
    if (bTerminal_)
        fmt::print(stderr, "\r\x1b[K");
}

void Progress::Step()
{
    if (++done_ < next_)
        return;
    if (!bTerminal_) {
        fmt::print(stderr, "  {}: {} of {}\n", what_, done_, total_);
        next_ = std::min(total_, done_ + (total_ + 3) / 4);
        if (done_ == total_)
            next_ = total_ + 1;
        return;
    }
    next_ = done_ + LOOK_EVERY;
    auto now = std::chrono::steady_clock::now();
    if (now - drawn_ >= REDRAW_AFTER) {
        drawn_ = now;
        Draw();
    }
}

void Progress::Draw()
{
    size_t filled = done_ * BAR_WIDTH / total_;
    fmt::print(
        stderr, "\r  {} [{}{}] {:3}%", what_, std::string(filled, '#'),
        std::string(BAR_WIDTH - filled, '.'), done_ * 100 / total_);
    fflush(stderr);
}
