// Reads /proc.
#include "system_view.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "errors.h"

namespace {

struct stat facts_of(const std::string &path)
{
    struct stat facts {};
    if (stat(path.c_str(), &facts) == -1)
        throw tool_error(failure_message(path, "cannot be looked at", errno, std::strerror(errno)));
    return facts;
}

// "1: POSIX  ADVISORY  WRITE 4711 08:02:131 0 EOF", "1: -> POSIX ..." for one that waits
bool parse_lock(const std::string &line, const std::string &file, system_lock *lock)
{
    std::istringstream words{line};
    std::string number, kind, advisory, type, device_and_inode, last;
    words >> number >> kind;
    lock->waits = kind == "->";
    if (lock->waits) words >> kind;
    words >> advisory >> type >> lock->process >> device_and_inode >> lock->first >> last;
    if (!words || (kind != "POSIX" && kind != "OFDLCK") || device_and_inode != file) return false;
    lock->write = type == "WRITE";
    lock->last = UINT64_MAX;
    if (last != "EOF") std::from_chars(last.data(), last.data() + last.size(), lock->last);
    return true;
}

bool can_write(pid_t process, const std::string &descriptor)
{
    std::ifstream info{fmt::format("/proc/{}/fdinfo/{}", process, descriptor)};
    for (std::string line; std::getline(info, line);)
        if (line.starts_with("flags:")) return (std::stoul(line.substr(6), nullptr, 8) & O_ACCMODE) != O_RDONLY;
    return false;
}

} // namespace

std::vector<system_lock> locks_on(const std::string &path)
{
    const struct stat facts = facts_of(path);
    const std::string file = fmt::format("{:02x}:{:02x}:{}", major(facts.st_dev), minor(facts.st_dev), facts.st_ino);
    std::ifstream table{"/proc/locks"};
    if (!table) throw tool_error(failure_message("/proc/locks", "cannot be read", errno, std::strerror(errno)));
    std::vector<system_lock> locks;
    for (std::string line; std::getline(table, line);) {
        system_lock lock;
        if (parse_lock(line, file, &lock)) locks.push_back(lock);
    }
    std::stable_sort(locks.begin(), locks.end(), [](const system_lock &left, const system_lock &right) {
        return std::pair{left.waits, left.first} < std::pair{right.waits, right.first};
    });
    return locks;
}

std::vector<file_user> users_of(const std::string &path)
{
    namespace fs = std::filesystem;
    const struct stat facts = facts_of(path);
    std::vector<file_user> users;
    std::error_code ignored; // a process that ends meanwhile, or belongs to somebody else
    for (const fs::directory_entry &entry : fs::directory_iterator{"/proc", ignored}) {
        const std::string name = entry.path().filename();
        file_user user;
        if (std::from_chars(name.data(), name.data() + name.size(), user.process).ec != std::errc{}) continue;
        bool uses = false;
        for (const fs::directory_entry &link : fs::directory_iterator{entry.path() / "fd", ignored}) {
            struct stat target {};
            if (stat(link.path().c_str(), &target) == -1 || target.st_dev != facts.st_dev ||
                target.st_ino != facts.st_ino)
                continue;
            uses = true;
            user.writes = user.writes || can_write(user.process, link.path().filename());
        }
        if (uses) users.push_back(user);
    }
    return users;
}

std::string process_name(pid_t process)
{
    std::ifstream file{fmt::format("/proc/{}/comm", process)};
    std::string name;
    return std::getline(file, name) ? name : "?";
}
