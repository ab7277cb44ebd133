// What goes wrong in the tool, as exceptions: the message names the file, what happened and what to do.
// May call nothing of the driver; must not know how a command was given.
#pragma once

#include <stdexcept>
#include <string>

// Exit statuses of the tool.
enum exit_status {
    exit_good = 0,
    exit_failed = 1,                  // the command could not be done
    exit_nothing_found = exit_failed, // a key or range that names no record
    exit_refused_rows = exit_failed,  // done, but some rows of the input were refused and reported
    exit_different = 1,               // diff: the files differ
    exit_usage = 2,                   // the command line or a description in it makes no sense
    exit_interrupted = 130,           // stopped by the user; the file was closed in order
};

// Those of the command check, as of fsck(8).
enum check_status {
    check_sound = 0,
    check_cleared = 1, // sound, and now marked as closed
    check_damaged = 4, // damage, or a file that was not closed, is left
    check_not_run = 8, // the file could not be read, or not be had alone for --clear
    check_usage = 16,
};

// The command cannot be carried out as given, or the world does not allow it.
class tool_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// What was typed cannot be meant: a status of its own.
class usage_error : public tool_error {
public:
    using tool_error::tool_error;
};

// The user stopped the command; what was open has been closed in order.
class interruption : public tool_error {
public:
    using tool_error::tool_error;
};

// What an operator can do about an error number of the driver; empty when there is nothing to add.
std::string hint_for(int error);

// "FILE: what: text of the driver\n  hint" as one message.
std::string failure_message(const std::string &path, const std::string &what, int error, const std::string &text);
