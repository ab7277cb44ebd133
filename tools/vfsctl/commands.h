// The commands: each declares its options and returns what runs once they are read.
#pragma once

#include <functional>

#include <CLI/CLI.hpp>

using command_body = std::function<int()>; // returns an exit_status, throws tool_error

command_body declare_create(CLI::App &command);
command_body declare_load(CLI::App &command);
command_body declare_dump(CLI::App &command);
command_body declare_undump(CLI::App &command);
command_body declare_get(CLI::App &command);
command_body declare_scan(CLI::App &command);
command_body declare_put(CLI::App &command);
command_body declare_delete(CLI::App &command);
command_body declare_info(CLI::App &command);
command_body declare_check(CLI::App &command);
command_body declare_rebuild(CLI::App &command);
command_body declare_compact(CLI::App &command);
command_body declare_backup(CLI::App &command);
command_body declare_diff(CLI::App &command);
command_body declare_locks(CLI::App &command);
command_body declare_watch(CLI::App &command);
command_body declare_doctor(CLI::App &command);
command_body declare_stats(CLI::App &command);
command_body declare_map(CLI::App &command);
command_body declare_completion(CLI::App &command);
