// vfsctl watch: the counters of a file, how it grows and who locks it, once a second. It reads the header as it stands in
// the file and takes no lock, so that it is in nobody's way.
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <optional>
#include <thread>

#include <fcntl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "commands.h"
#include "errors.h"
#include "json.h"
#include "output.h"
#include "progress.h"
#include "store/format.h"
#include "system_view.h"

namespace {

struct watch_options {
    std::string file;
    double interval = 1;
    uint64_t count = UINT64_MAX;
    bool json = false;
};

struct sample {
    std::chrono::steady_clock::time_point at;
    uint64_t records = 0, deleted = 0, moved = 0, pad = 0, end = 0, bytes = 0, held = 0, waited_for = 0, users = 0;
    bool in_memory = false; // a program keeps newer counters to itself
};

using header_bytes = std::array<std::byte, header_variable_part>;

// A program writes the header in one piece, but not always at one moment: what is read twice alike is whole.
header_bytes read_header(const std::string &path, int descriptor)
{
    header_bytes first{}, second{};
    for (int attempt = 0; attempt < 100; ++attempt) {
        for (header_bytes *into : {&first, &second}) {
            const ssize_t got = pread(descriptor, into->data(), into->size(), 0);
            if (got == -1) throw tool_error(failure_message(path, "cannot be read", errno, std::strerror(errno)));
            if (static_cast<size_t>(got) < into->size())
                throw tool_error(path + ": it has no header: this is no file of the driver, or one that is being made");
        }
        if (first == second) break;
    }
    if (image_get(second, header_format_stamp) != format_stamp)
        throw tool_error(path + ": this is no file of the driver");
    return second;
}

sample take_sample(const std::string &path)
{
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor == -1) throw tool_error(failure_message(path, "cannot open it", errno, std::strerror(errno)));
    const std::unique_ptr<const int, void (*)(const int *)> closer{&descriptor, [](const int *d) { close(*d); }};
    const header_bytes header = read_header(path, descriptor);
    sample now{.at = std::chrono::steady_clock::now()};
    now.records = image_get(header, header_records);
    now.deleted = image_get(header, header_deleted);
    now.moved = image_get(header, header_moved);
    now.pad = image_get(header, header_pad_bytes);
    now.end = image_get(header, header_end_of_file);
    now.in_memory = image_get(header, header_state_word) == state_unflushed;
    struct stat facts {};
    if (fstat(descriptor, &facts) == 0) now.bytes = static_cast<uint64_t>(facts.st_size);
    for (const system_lock &lock : locks_on(path)) ++(lock.waits ? now.waited_for : now.held);
    for (const file_user &user : users_of(path)) now.users += user.process != getpid() ? 1 : 0;
    return now;
}

double rate(uint64_t before, uint64_t now, double seconds)
{
    return (static_cast<double>(now) - static_cast<double>(before)) / seconds;
}

std::string line_of(const sample &now, const std::optional<sample> &before)
{
    std::string growth;
    if (before) {
        const double seconds = std::chrono::duration<double>(now.at - before->at).count();
        growth = fmt::format(" ({:+.0f} a second), ", rate(before->records, now.records, seconds));
        growth += fmt::format("{} bytes ({:+.0f} a second)", now.bytes, rate(before->bytes, now.bytes, seconds));
    } else {
        growth = fmt::format(", {} bytes", now.bytes);
    }
    return fmt::format("{:%H:%M:%S} {} records{}, {} deleted, {} moved, open in {}, {} locks, {} waited for{}",
                       fmt::localtime(std::chrono::system_clock::now()), now.records, growth, now.deleted, now.moved,
                       now.users, now.held, now.waited_for,
                       now.in_memory ? ", as of the last flush of its program" : "");
}

json_value facts_of(const watch_options &options, const sample &now)
{
    return {{"file", options.file},
            {"time", fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(std::chrono::system_clock::now()))},
            {"records", now.records},
            {"deleted", now.deleted},
            {"moved", now.moved},
            {"pad_bytes", now.pad},
            {"bytes", now.bytes},
            {"users", now.users},
            {"locks_held", now.held},
            {"locks_waited_for", now.waited_for},
            {"as_of_last_flush", now.in_memory}};
}

void draw(const std::string &file, const sample &now, const std::optional<sample> &before, const sample &first)
{
    const double seconds = before ? std::chrono::duration<double>(now.at - before->at).count() : 1;
    const auto row = [](const char *name, uint64_t value, double growth) {
        fmt::print("  {:<12}{:>16}  {:>+12.0f} a second\033[K\n", name, value, growth);
    };
    const sample &old = before ? *before : now;
    fmt::print("\033[H{}  {:%H:%M:%S}{}\033[K\n", file, fmt::localtime(std::chrono::system_clock::now()),
               now.in_memory ? "  (counters as of the last flush of the program that has it)" : "");
    row("records", now.records, rate(old.records, now.records, seconds));
    row("deleted", now.deleted, rate(old.deleted, now.deleted, seconds));
    row("moved", now.moved, rate(old.moved, now.moved, seconds));
    row("pad bytes", now.pad, rate(old.pad, now.pad, seconds));
    row("bytes", now.bytes, rate(old.bytes, now.bytes, seconds));
    fmt::print("  since {:.0f} s: {:+} records, {:+} bytes\033[K\n",
               std::chrono::duration<double>(now.at - first.at).count(),
               static_cast<int64_t>(now.records - first.records), static_cast<int64_t>(now.bytes - first.bytes));
    fmt::print("  open in {} processes, {} locks held, {} waited for\033[K\n\033[J", now.users, now.held,
               now.waited_for);
    std::fflush(stdout);
}

// The terminal shows another page while it lives.
class screen {
public:
    screen() { fmt::print("\033[?1049h\033[?25l\033[2J"); }
    ~screen()
    {
        std::fputs("\033[?25h\033[?1049l", stdout);
        std::fflush(stdout);
    }
    screen(const screen &) = delete;
    screen &operator=(const screen &) = delete;
};

int watch(const watch_options &options)
{
    if (options.interval < 0.05) throw usage_error("watch: the interval is at least 0.05 seconds");
    watch_for_interruption();
    const bool terminal = isatty(STDOUT_FILENO) == 1 && !options.json;
    std::optional<sample> before;
    const sample first = take_sample(options.file); // what cannot be watched is told before the page changes
    std::optional<screen> page;
    if (terminal) page.emplace();
    for (uint64_t n = 0; n < options.count && !interrupted(); ++n) {
        if (n > 0) std::this_thread::sleep_for(std::chrono::duration<double>(options.interval));
        if (interrupted()) break;
        const sample now = n == 0 ? first : take_sample(options.file);
        if (terminal) {
            draw(options.file, now, before, first);
        } else {
            if (options.json)
                put_json_line(facts_of(options, now));
            else
                put_out(line_of(now, before) + "\n");
            if (std::fflush(stdout) != 0) throw tool_error("standard output cannot be written");
        }
        before = now;
    }
    return exit_good; // to stop it is the way to end it
}

} // namespace

command_body declare_watch(CLI::App &command)
{
    auto options = std::make_shared<watch_options>();
    command.add_option("file", options->file, "The file")->required();
    command.add_option("--interval", options->interval, "Seconds between two looks (default: 1)");
    command.add_option("--count", options->count, "Look so many times (default: until it is interrupted)");
    command.add_flag("--json", options->json, "Print JSON, an object for each look");
    return [options] { return watch(*options); };
}
