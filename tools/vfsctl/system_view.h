// What the system knows of a file's users: the locks on it from /proc/locks, and the processes that have it open.
// Knows /proc; must not know what the locks stand for.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

struct system_lock {
    pid_t process = 0; // -1: an open file description holds it, which no process alone owns
    bool write = false;
    bool waits = false; // it is asked for, and not yet had
    uint64_t first = 0;
    uint64_t last = 0; // UINT64_MAX: to the end of all offsets
};

// In the order of their offsets, those that wait behind those that are held. Throws tool_error.
std::vector<system_lock> locks_on(const std::string &path);

struct file_user {
    pid_t process = 0;
    bool writes = false; // one of its descriptors can
};

// As far as they can be seen: of other users' processes only the administrator sees the files.
std::vector<file_user> users_of(const std::string &path);

std::string process_name(pid_t process); // "?" when it is not known
