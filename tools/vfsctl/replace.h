// The moment in which a new file takes the place of a data file that programs may have open or wait for.
// Knows the locks of the driver, the state word and who uses a file; must not know what is in either file.
#pragma once

#include <string>

#include "new_file.h"

std::string real_path(const std::string &path); // without symbolic links; throws tool_error when nothing is there

// Throws tool_error when it cannot be replaced for those who use it: a process has it open, or it has several names, of
// which the others would keep the old file.
void refuse_users(const std::string &path, const std::string &why);

// A program that waits to open the old file would go on in it when the name already leads to the new one, and what it
// wrote would be lost. So the old one is first marked as never closed: whoever gets it is refused, and comes again.
// The descriptor stays open: closing it would give up the locks that this process has on the file.
class farewell {
public:
    explicit farewell(const std::string &path); // of the file that goes
    farewell(const farewell &) = delete;
    farewell &operator=(const farewell &) = delete;

    // Marks the old file and publishes the new one. When that fails, the old one is as it was.
    void publish(new_file &fresh);

private:
    void put(uint64_t word) const;
    [[noreturn]] void fail() const;

    std::string path_;
    int descriptor_;
};

// Publishes a file that was made under another name. With `force` one that is there under its name is replaced, whatever
// it is, when nobody uses it; otherwise it is an error.
void publish_made(new_file &fresh, const std::string &path, bool force);
// Before the work: throws what can be foreseen, and returns the path under which the file is to be published.
std::string publishable_path(const std::string &path, bool force);
