// A data file held against all programs that use the driver, by the lock on the whole file that they take too.
// Knows that lock and the open file; must not know what is in it. Throws tool_error.
#pragma once

#include <string>

#include <sys/types.h>

enum class hold_kind {
    read,  // others may read it, nobody may change it; they wait
    write, // nobody else may use it
};

class held_file {
public:
    // Opens the file and tries to lock it, for about a second: what sharers hold for one operation is over by then.
    held_file(const std::string &path, hold_kind kind);
    ~held_file();
    held_file(const held_file &) = delete;
    held_file &operator=(const held_file &) = delete;

    int descriptor() const { return descriptor_; }
    bool locked() const { return locked_; }
    pid_t holder() const { return holder_; } // of a lock in the way; 0 when it is not known

private:
    bool try_lock(short type);

    int descriptor_ = -1;
    bool locked_ = false;
    pid_t holder_ = 0;
};
