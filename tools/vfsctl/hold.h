// A data file held against the programs that use the driver, by the locks that they take too.
// Knows those locks and the open file; must not know what is in it. Throws tool_error.
#pragma once

#include <string>

#include <sys/types.h>

enum class hold_kind {
    read,  // nobody changes it: who shares the file waits with the next operation; record locks are not in the way
    write, // nobody else uses it, by the lock on the whole file
};

class held_file {
public:
    // Opens the file and tries to lock it: for a second when a program has it for itself, for ten when another lock is
    // in the way, since what sharers hold for one operation is soon over.
    held_file(const std::string &path, hold_kind kind);
    ~held_file();
    held_file(const held_file &) = delete;
    held_file &operator=(const held_file &) = delete;

    int descriptor() const { return descriptor_; }
    bool locked() const { return locked_; }
    pid_t holder() const { return holder_; } // of a lock in the way; 0 when it is not known

private:
    bool lock_range(short type, off_t start, off_t length);

    int descriptor_ = -1;
    bool locked_ = false;
    pid_t holder_ = 0;
};
