// Draws at most ten times a second.
#include "progress.h"

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>

#include <sys/ioctl.h>
#include <unistd.h>

#include <fmt/format.h>

namespace {

volatile std::sig_atomic_t stop_requested = 0;

void request_stop(int)
{
    stop_requested = 1;
}

unsigned terminal_width()
{
    winsize size{};
    return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80U;
}

// "12.3k", so that it stays short.
std::string short_number(double value)
{
    constexpr const char *units[] = {"", "k", "M", "G", "T"};
    size_t unit = 0;
    for (; value >= 1000 && unit + 1 < std::size(units); ++unit) value /= 1000;
    return unit == 0 ? fmt::format("{:.0f}", value) : fmt::format("{:.3g}{}", value, units[unit]);
}

std::string clock_text(double seconds)
{
    const auto whole = std::llround(seconds);
    if (whole >= 3600) return fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
    return fmt::format("{}:{:02}", whole / 60, whole % 60);
}

} // namespace

progress::progress(std::string label, uint64_t total)
    : label_(std::move(label)), total_(total), next_look_(256), terminal_(isatty(STDERR_FILENO) == 1),
      began_(std::chrono::steady_clock::now()), last_draw_(began_)
{
    if (!terminal_) next_look_ = UINT64_MAX;
}

progress::~progress()
{
    if (drawn_) std::fputs("\r\033[K", stderr);
}

std::string progress::numbers(double seconds) const
{
    const double rate = seconds > 0 ? static_cast<double>(done_) / seconds : 0;
    if (total_ == 0) return fmt::format(" {}, {}/s", done_, short_number(rate));
    const uint64_t done = std::min(done_, total_); // a damaged file may count wrong
    std::string text = fmt::format(" {}/{} {:3.0f}%", short_number(static_cast<double>(done)),
                                   short_number(static_cast<double>(total_)),
                                   100.0 * static_cast<double>(done) / static_cast<double>(total_));
    if (rate > 0)
        text +=
            fmt::format(", {}/s, {} left", short_number(rate), clock_text(static_cast<double>(total_ - done) / rate));
    return text;
}

void progress::draw()
{
    next_look_ = done_ + 256;
    const auto now = std::chrono::steady_clock::now();
    if (now - last_draw_ < std::chrono::milliseconds{100}) return;
    last_draw_ = now;
    drawn_ = true;
    const std::string text = numbers(std::chrono::duration<double>(now - began_).count());
    if (total_ == 0) {
        fmt::print(stderr, "\r{}{}\033[K", label_, text);
        return;
    }
    const size_t taken = label_.size() + text.size() + 4;
    const size_t width = terminal_width() > taken + 10 ? terminal_width() - taken : 10;
    const double part = static_cast<double>(std::min(done_, total_)) / static_cast<double>(total_);
    const auto filled = static_cast<size_t>(static_cast<double>(width) * part);
    fmt::print(stderr, "\r{} [{}{}]{}\033[K", label_, std::string(filled, '#'), std::string(width - filled, ' '), text);
}

void staged_progress::show(std::string_view what, uint64_t done, uint64_t total)
{
    if (bar_ == nullptr || what_ != what) {
        bar_.reset(); // it clears its line before the next one draws
        what_ = what;
        bar_ = std::make_unique<progress>(what_, total);
    }
    bar_->reach(done);
}

void watch_for_interruption()
{
    struct sigaction action {};
    action.sa_handler = request_stop;
    action.sa_flags = static_cast<int>(SA_RESETHAND); // a second signal takes its usual course
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool interrupted()
{
    return stop_requested != 0;
}
