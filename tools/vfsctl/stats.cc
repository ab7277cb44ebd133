// vfsctl stats: what a file is made of, how full its trees are, and what of it is waste.
#include <memory>

#include <fmt/format.h>

#include "commands.h"
#include "errors.h"
#include "json.h"
#include "output.h"
#include "survey_report.h"

namespace {

struct stats_options {
    std::string file;
    bool json = false;
};

void print_for_people(const json_value &facts)
{
    const auto number = [&](const char *name) { return facts[name].get<uint64_t>(); };
    const uint64_t size = number("bytes");
    fmt::print("{}: {}, {} records of {} to {} bytes\n", facts["file"].get<std::string>(), size_text(size),
               number("records"), number("shortest"), number("longest"));
    fmt::print("  {:<16}{:>12}{:>18}{:>8}\n", "", "items", "bytes", "%");
    for (const auto &[name, kind] : facts["items"].items())
        if (kind["items"].get<uint64_t>() > 0)
            fmt::print("  {:<16}{:>12}{:>18}{:>8.1f}\n", name, kind["items"].get<uint64_t>(),
                       kind["bytes"].get<uint64_t>(), percent(kind["bytes"].get<uint64_t>(), size));
    fmt::print("  records: {} bytes of data, {} of frames, {} of padding\n", number("record_bytes"),
               number("frame_bytes"), number("pad_bytes"));
    fmt::print("  unused: {} bytes, {:.1f} % of the file; record numbers up to {} were given\n", number("unused_bytes"),
               percent(number("unused_bytes"), size), number("highest_number"));
    print_trees(facts["trees"]);
}

int stats(const stats_options &options)
{
    const file_survey found = survey_of(options.file, [](file_image &) { return survey_options{}; });
    if (!found.facts.identified)
        throw tool_error(options.file +
                         ": this is no file of the driver, or its header is damaged: 'vfsctl check' says more");
    const json_value facts = survey_facts(options.file, found);
    if (options.json)
        put_json(facts);
    else
        print_for_people(facts);
    return exit_good;
}

} // namespace

command_body declare_stats(CLI::App &command)
{
    auto options = std::make_shared<stats_options>();
    command.add_option("file", options->file, "The file")->required();
    command.add_flag("--json", options->json, "Print JSON");
    return [options] { return stats(*options); };
}
