// vfsctl check: what the check of the format found, as lines for people and as an exit status.
#include <cstring>
#include <memory>
#include <vector>

#include <fmt/format.h>

#include "commands.h"
#include "errors.h"
#include "format/check.h"
#include "format/clear.h"
#include "hold.h"
#include "json.h"
#include "output.h"
#include "progress.h"

namespace {

struct check_command {
    std::string file;
    uint64_t limit = 40;
    bool clear = false;
    bool fast = false;
    bool json = false;
};

std::string process_text(pid_t holder)
{
    return holder > 0 ? fmt::format("process {}", holder) : std::string{"another program"};
}

std::string kind_of(const file_facts &facts)
{
    if (facts.indexed) return fmt::format("indexed, {} key{}", facts.keys.size(), facts.keys.size() == 1 ? "" : "s");
    return facts.logical == 2 ? "relative" : "sequential";
}

// What is said of a file behind its findings, and the exit status that goes with it.
struct verdict {
    int status = check_sound;
    std::vector<std::string> says;
};

void print_findings(const std::string &file, const check_report &report)
{
    const auto rest = [&](uint64_t all, size_t shown, const char *what) {
        if (all > shown) fmt::print("{}: and {} more {}\n", file, all - shown, what);
    };
    for (const finding &each : report.problems()) fmt::print("{}: {}\n", file, each.line());
    rest(report.problem_count(), report.problems().size(), "problems");
    for (const std::string &line : report.notes()) fmt::print("{}: note: {}\n", file, line);
    rest(report.note_count(), report.notes().size(), "notes");
}

void print_json(const check_command &options, const check_result &found, const verdict &said)
{
    json_value problems = json_value::array();
    for (const finding &each : found.report.problems())
        problems.push_back({{"area", finding_area_name(each.area)}, {"offset", each.offset}, {"text", each.text}});
    const json_value all{{"file", options.file},
                         {"status", said.status},
                         {"sound", found.sound()},
                         {"fast", options.fast},
                         {"kind", kind_of(found.facts)},
                         {"records", found.records},
                         {"problem_count", found.report.problem_count()},
                         {"problems", problems},
                         {"notes", found.report.notes()},
                         {"says", said.says}};
    put_json(all);
}

// What a sound file's words say.
verdict session_verdict(const check_result &found)
{
    switch (found.words.state) {
    case session_state::closed: return {};
    case session_state::finished_changes:
        return {check_sound, {"not closed by a program that changed it; every finished change is in it"}};
    case session_state::pending_redo:
        return {
            check_sound,
            {fmt::format("a change is pending at 0x{:x} whose program did not finish it; checked as it will be, the "
                         "next open finishes it",
                         found.words.state_word)}};
    default: break;
    }
    const bool stopped = found.words.state == session_state::other_boot;
    verdict said{check_damaged,
                 {stopped ? "was not closed before the machine stopped"
                          : "was not closed: changes since its last flush may be missing"}};
    said.says.push_back(
        found.behind.items != 0
            ? fmt::format("{} items with {} records stand behind its end, from 0x{:x} on: 'vfsctl rebuild' finds them",
                          found.behind.items, found.behind.records, found.behind.first)
            : "'vfsctl check --clear' marks it as closed, so that programs can open it again");
    return said;
}

verdict clear(const check_command &options, const held_file &held, const check_result &found)
{
    if (found.words.state_word == 0 && found.words.boot_word == 0) return {};
    if (const std::string reason = reason_not_to_clear(found); !reason.empty())
        return {check_damaged, {"not cleared: " + reason + "; 'vfsctl rebuild' makes a new file of what is there"}};
    if (const int error = clear_words(held.descriptor(), found); error != 0)
        throw tool_error(failure_message(options.file, "cannot be cleared", error, std::strerror(error)));
    return {check_cleared, {"cleared, it counts as closed"}};
}

verdict judge(const check_command &options, const held_file &held, const check_result &found, uint64_t size)
{
    if (!found.sound())
        return {
            check_damaged,
            {fmt::format("damaged, {} problem{}; 'vfsctl rebuild {} --to NEW' makes a new file of what is there",
                         found.report.problem_count(), found.report.problem_count() == 1 ? "" : "s", options.file)}};
    std::vector<std::string> says;
    if (!options.fast && size > found.facts.end && found.behind.items == 0)
        says.push_back(
            fmt::format("note: {} bytes behind the end of file; the next program that changes the file alone "
                        "cuts them off",
                        size - found.facts.end));
    says.push_back(options.fast ? fmt::format("header and trees are sound, {}, {} records, which were not looked at",
                                              kind_of(found.facts), found.records)
                                : fmt::format("sound, {}, {} records", kind_of(found.facts), found.records));
    verdict said = options.clear ? clear(options, held, found) : session_verdict(found);
    said.says.insert(said.says.begin(), says.begin(), says.end());
    return said;
}

int check(const check_command &options)
{
    if (options.fast && options.clear)
        throw usage_error("--fast does not look at all of the file, which --clear wants: leave one of them out");
    watch_for_interruption();
    const held_file held{options.file, options.clear ? hold_kind::write : hold_kind::read};
    if (!held.locked() && options.clear)
        throw tool_error(
            fmt::format("{}: in use by {}; nothing was changed", options.file, process_text(held.holder())));
    if (!held.locked())
        fmt::print(options.json ? stderr : stdout, "{}: in use by {}: what follows may be the state of a moment\n",
                   options.file, process_text(held.holder()));
    file_image image{held.descriptor()};
    staged_progress progress;
    const check_result found =
        check_image(image, {.line_limit = options.limit,
                            .fast = options.fast,
                            .threads = all_processors(),
                            .progress = [&](std::string_view what, uint64_t done, uint64_t total) {
                                progress.show(what, done, total);
                                return !interrupted();
                            }});
    progress.finish();
    if (!found.complete) throw interruption(options.file + ": interrupted; it was not checked to its end");
    const verdict said = judge(options, held, found, image.size());
    if (options.json) {
        print_json(options, found, said);
        return said.status;
    }
    print_findings(options.file, found.report);
    for (const std::string &line : said.says) fmt::print("{}: {}\n", options.file, line);
    return said.status;
}

// An error is one of this command's statuses, not of the others'.
int check_or_say_why(const check_command &options)
{
    try {
        return check(options);
    } catch (const interruption &) {
        throw;
    } catch (const usage_error &error) {
        fmt::print(stderr, "vfsctl: {}\n", error.what());
        return check_usage;
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
    command.add_flag("--fast", options->fast, "Look at header and trees alone, not at records and free space");
    command.add_flag("--json", options->json, "Print JSON");
    command.add_option("--limit", options->limit, "Show at most so many problems (default: 40)");
    return [options] { return check_or_say_why(*options); };
}
