// vfsctl: makes, fills, searches and changes indexed files through the driver, as any other host would.
#include <cstdio>
#include <exception>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "commands.h"
#include "errors.h"

namespace {

struct command {
    const char *name;
    const char *summary;
    command_body (*declare)(CLI::App &);
};

constexpr command commands[] = {
    {"create", "Make an empty indexed file", declare_create},
    {"load", "Add records from CSV, JSON, lines or fixed-length bytes; makes the file when keys are given",
     declare_load},
    {"dump", "Write all records as text that the tools of Berkeley DB and LMDB load", declare_dump},
    {"undump", "Add the records of such a text", declare_undump},
    {"get", "Show the records with a key value", declare_get},
    {"scan", "Show or count records in key order", declare_scan},
    {"put", "Add a record, or replace the one with its primary key", declare_put},
    {"delete", "Remove the record with a key value", declare_delete},
    {"info", "Show what a file is: keys, records, lengths", declare_info},
    {"stats", "Show what a file is made of: sizes, fill of its trees, duplicates, waste", declare_stats},
    {"map", "Draw what stands where in a file, as a page for a browser or for a terminal", declare_map},
    {"diff", "Compare two files record by record", declare_diff},
    {"compact", "Write a file anew without deleted records and padding", declare_compact},
    {"backup", "Copy a file while other programs use it", declare_backup},
    {"locks", "Show who has a file open, who holds which lock on it and who waits", declare_locks},
    {"watch", "Watch the counters, the growth and the locks of a file", declare_watch},
    {"doctor", "Look for what of the machine and its settings hurts the driver", declare_doctor},
    {"check", "Check all of a file, also one that the driver refuses", declare_check},
    {"rebuild", "Make a new file of the records of a damaged one", declare_rebuild},
    {"completion", "Write the script with which a shell completes this command line", declare_completion},
};

constexpr const char *footer = R"(
Keys: offset:length, parts joined by '+', ',dup' when several records may share a value; the first is the primary key:
  --key 0:12 --key 12:30,dup --key 60:4+70:2,dup
Layouts (CSV): --layout "code:9,name:auto,address:*"; with a layout a key may also name a column: --key code
Exit status: 0 done; 1 failed, nothing found, or something was refused; 2 wrong usage; 130 interrupted.
Of diff: 0 the same, 1 different, 2 failed.
Of check: 0 sound, 1 cleared, 4 damaged or not closed, 8 could not be checked, 16 wrong usage.
The settings of the driver (VFS_LOCK, VFS_CACHE_SIZE, ...) hold here too: docs/operations.md lists them.)";

constexpr const char *version_text = "vfsctl " VFSCTL_VERSION;

int run(int argc, char **argv)
{
    CLI::App app{"Works with the indexed files of the driver libvfs_psx_64r.so.", "vfsctl"};
    app.footer(footer);
    app.require_subcommand(1);
    app.set_version_flag("-V,--version", version_text, "Print the version and exit");
    std::vector<std::pair<CLI::App *, command_body>> bodies;
    for (const command &row : commands) {
        CLI::App *sub = app.add_subcommand(row.name, row.summary);
        sub->set_version_flag("-V,--version", version_text, "Print the version and exit");
        bodies.emplace_back(sub, row.declare(*sub));
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        const int failed = app.got_subcommand("check") ? static_cast<int>(check_usage) : static_cast<int>(exit_usage);
        return app.exit(error) == 0 ? exit_good : failed;
    }
    for (const auto &[sub, body] : bodies)
        if (sub->parsed()) return body();
    return exit_failed;
}

} // namespace

int main(int argc, char **argv)
{
    try {
        const int status = run(argc, argv);
        if (std::fflush(stdout) != 0) throw tool_error("standard output cannot be written");
        return status;
    } catch (const interruption &stopped) {
        std::fflush(stdout);
        fmt::print(stderr, "vfsctl: {}\n", stopped.what());
        return exit_interrupted;
    } catch (const usage_error &error) {
        fmt::print(stderr, "vfsctl: {}\n", error.what());
        return exit_usage;
    } catch (const std::exception &error) {
        std::fflush(stdout);
        fmt::print(stderr, "vfsctl: {}\n", error.what());
        return exit_failed;
    }
}
