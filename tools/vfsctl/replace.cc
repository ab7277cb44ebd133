// See replace.h.
#include "replace.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "errors.h"
#include "format/facts.h"
#include "hold.h"
#include "store/format.h"
#include "system_view.h"

std::string real_path(const std::string &path)
{
    const std::unique_ptr<char, decltype(&std::free)> found{realpath(path.c_str(), nullptr), &std::free};
    if (found == nullptr) throw tool_error(failure_message(path, "cannot open it", errno, std::strerror(errno)));
    return found.get();
}

// Programs that share a file hold no lock on it between two operations, but would find it replaced.
void refuse_users(const std::string &path, const std::string &why)
{
    struct stat facts {};
    if (stat(path.c_str(), &facts) == 0 && facts.st_nlink > 1)
        throw tool_error(
            fmt::format("{}: it has {} names (hard links), and the others would keep the old file; make one "
                        "of them a copy first",
                        path, facts.st_nlink));
    for (const file_user &user : users_of(path))
        throw tool_error(
            fmt::format("{}: process {} ({}) has it open; {}", path, user.process, process_name(user.process), why));
}

farewell::farewell(const std::string &path) : path_(path), descriptor_(open(path.c_str(), O_RDWR | O_CLOEXEC))
{
    if (descriptor_ == -1) fail();
}

void farewell::publish(new_file &fresh)
{
    uint64_t before = 0;
    if (pread(descriptor_, &before, sizeof before, header_state_word.offset) != sizeof before) fail();
    put(state_unflushed);
    try {
        fresh.publish(replacing::yes);
    } catch (...) {
        put(before);
        throw;
    }
}

void farewell::put(uint64_t word) const
{
    if (pwrite(descriptor_, &word, sizeof word, header_state_word.offset) != sizeof word) fail();
}

void farewell::fail() const
{
    throw tool_error(failure_message(path_, "cannot be marked", errno, std::strerror(errno)));
}

std::string publishable_path(const std::string &path, bool force)
{
    if (access(path.c_str(), F_OK) != 0) return path;
    if (!force) throw tool_error(failure_message(path, "cannot be made", EEXIST, std::strerror(EEXIST)));
    refuse_users(real_path(path), "nothing was changed");
    return real_path(path);
}

void publish_made(new_file &fresh, const std::string &path, bool force)
{
    if (!force || access(path.c_str(), F_OK) != 0) {
        fresh.publish(replacing::no);
        return;
    }
    refuse_users(path, "it was not replaced");
    farewell old_file{path};
    const held_file held{path, hold_kind::write};
    if (!held.locked())
        throw tool_error(fmt::format("{}: in use by process {}; it was not replaced", path, held.holder()));
    fresh.take_attributes_of(path);
    file_image image{held.descriptor()};
    if (read_facts(image).identified)
        old_file.publish(fresh);
    else
        fresh.publish(replacing::yes);
}
