// vfsctl check: what the check of the format found, as lines for people and as an exit status.
#include <cstring>
#include <memory>

#include <fmt/format.h>

#include "commands.h"
#include "errors.h"
#include "format/check.h"
#include "format/clear.h"
#include "hold.h"
#include "progress.h"

namespace {

struct check_command {
    std::string file;
    uint64_t limit = 40;
    bool clear = false;
};

std::string process_text(pid_t holder)
{
    return holder > 0 ? fmt::format("process {}", holder) : std::string{"another program"};
}

void print_findings(const std::string &file, const check_report &report)
{
    const auto rest = [&](uint64_t all, size_t shown, const char *what) {
        if (all > shown) fmt::print("{}: and {} more {}\n", file, all - shown, what);
    };
    for (const std::string &line : report.problems()) fmt::print("{}: {}\n", file, line);
    rest(report.problem_count(), report.problems().size(), "problems");
    for (const std::string &line : report.notes()) fmt::print("{}: note: {}\n", file, line);
    rest(report.note_count(), report.notes().size(), "notes");
}

void print_bytes_behind(const std::string &file, const check_result &found, uint64_t size)
{
    if (size <= found.facts.end || found.behind.items != 0) return;
    fmt::print(
        "{}: note: {} bytes behind the end of file; the next program that changes the file alone cuts them off\n", file,
        size - found.facts.end);
}

std::string kind_of(const file_facts &facts)
{
    if (facts.indexed) return fmt::format("indexed, {} key{}", facts.keys.size(), facts.keys.size() == 1 ? "" : "s");
    return facts.logical == 2 ? "relative" : "sequential";
}

// What a sound file's words say: an exit status, after the line for people.
int tell_session(const std::string &file, const check_result &found)
{
    const char *advice = "'vfsctl check --clear' marks it as closed, so that programs can open it again";
    switch (found.words.state) {
    case session_state::closed: return check_sound;
    case session_state::finished_changes:
        fmt::print("{}: not closed by a program that changed it; every finished change is in it\n", file);
        return check_sound;
    case session_state::pending_redo:
        fmt::print("{}: a change is pending at 0x{:x} whose program did not finish it; checked as it will be, the next "
                   "open finishes it\n",
                   file, found.words.state_word);
        return check_sound;
    case session_state::other_boot: fmt::print("{}: was not closed before the machine stopped\n", file); break;
    default: fmt::print("{}: was not closed: changes since its last flush may be missing\n", file); break;
    }
    if (found.behind.items != 0)
        fmt::print("{}: {} items with {} records stand behind its end, from 0x{:x} on: 'vfsctl rebuild' finds them\n",
                   file, found.behind.items, found.behind.records, found.behind.first);
    else
        fmt::print("{}: {}\n", file, advice);
    return check_damaged;
}

int clear(const check_command &options, const held_file &held, const check_result &found)
{
    if (found.words.state_word == 0 && found.words.boot_word == 0) return check_sound;
    if (const std::string reason = reason_not_to_clear(found); !reason.empty()) {
        fmt::print("{}: not cleared: {}; 'vfsctl rebuild' makes a new file of what is there\n", options.file, reason);
        return check_damaged;
    }
    if (const int error = clear_words(held.descriptor(), found); error != 0)
        throw tool_error(failure_message(options.file, "cannot be cleared", error, std::strerror(error)));
    fmt::print("{}: cleared, it counts as closed\n", options.file);
    return check_cleared;
}

int check(const check_command &options)
{
    watch_for_interruption();
    const held_file held{options.file, options.clear ? hold_kind::write : hold_kind::read};
    if (!held.locked() && options.clear)
        throw tool_error(
            fmt::format("{}: in use by {}; nothing was changed", options.file, process_text(held.holder())));
    if (!held.locked())
        fmt::print("{}: in use by {}: what follows may be the state of a moment\n", options.file,
                   process_text(held.holder()));
    file_image image{held.descriptor()};
    staged_progress progress;
    const check_result found = check_image(
        image, {.line_limit = options.limit, .progress = [&](std::string_view what, uint64_t done, uint64_t total) {
                    progress.show(what, done, total);
                    return !interrupted();
                }});
    progress.finish();
    if (!found.complete) throw interruption(options.file + ": interrupted; it was not checked to its end");
    print_findings(options.file, found.report);
    if (!found.sound()) {
        fmt::print("{}: damaged, {} problem{}; 'vfsctl rebuild {} --to NEW' makes a new file of what is there\n",
                   options.file, found.report.problem_count(), found.report.problem_count() == 1 ? "" : "s",
                   options.file);
        return check_damaged;
    }
    print_bytes_behind(options.file, found, image.size());
    fmt::print("{}: sound, {}, {} records\n", options.file, kind_of(found.facts), found.records);
    return options.clear ? clear(options, held, found) : tell_session(options.file, found);
}

// An error is one of this command's statuses, not of the others'.
int check_or_say_why(const check_command &options)
{
    try {
        return check(options);
    } catch (const interruption &) {
        throw;
    } catch (const tool_error &error) {
        std::fflush(stdout);
        fmt::print(stderr, "vfsctl: {}\n", error.what());
        return check_not_run;
    }
}

} // namespace

command_body declare_check(CLI::App &command)
{
    auto options = std::make_shared<check_command>();
    command.add_option("file", options->file, "The file")->required();
    command.add_flag("--clear", options->clear, "Mark a sound file as closed when its last program did not close it");
    command.add_option("--limit", options->limit, "Show at most so many problems (default: 40)");
    return [options] { return check_or_say_why(*options); };
}
