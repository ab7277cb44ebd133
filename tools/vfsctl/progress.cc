// Draws at most ten times a second.
#include "progress.h"

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

} // namespace

progress::progress(std::string label, uint64_t total)
    : label_(std::move(label)), total_(total), next_look_(256), terminal_(isatty(STDERR_FILENO) == 1),
      last_draw_(std::chrono::steady_clock::now())
{
    if (!terminal_) next_look_ = UINT64_MAX;
}

progress::~progress()
{
    if (drawn_) std::fputs("\r\033[K", stderr);
}

void progress::draw()
{
    next_look_ = done_ + 256;
    const auto now = std::chrono::steady_clock::now();
    if (now - last_draw_ < std::chrono::milliseconds{100}) return;
    last_draw_ = now;
    drawn_ = true;
    if (total_ == 0) {
        fmt::print(stderr, "\r{} {}\033[K", label_, done_);
        return;
    }
    const std::string numbers = fmt::format(" {}/{} {:3}%", done_, total_, done_ * 100 / total_);
    const size_t taken = label_.size() + numbers.size() + 4;
    const size_t width = terminal_width() > taken + 10 ? terminal_width() - taken : 10;
    const size_t filled = static_cast<size_t>(width * done_ / total_);
    fmt::print(stderr, "\r{} [{}{}]{}", label_, std::string(filled, '#'), std::string(width - filled, ' '), numbers);
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
