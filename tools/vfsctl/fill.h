// Writes records of an input into a file of the driver, which is there or is made: what load and undump have in common.
// Knows the driver and inputs; must not know the options of a command.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <vfs.h>

#include "input.h"

struct fill_request {
    std::string file;
    bool make = false;             // a new file, of the shape that follows
    std::vector<std::string> keys; // as on the command line
    uint32_t organization = VFS_ORG_INDEXED;
    uint64_t fixed = 0; // all records have this length; 0: they differ
    uint64_t min = 0;
    uint64_t max = 0;    // 0: the longest record of the input
    bool pad = false;    // short records are padded with blanks to the end of the last key
    bool sort = false;   // in the order of the primary key
    bool force = false;  // an existing file is made anew
    bool json = false;   // what was done is said as JSON
    std::string rejects; // where refused rows go; empty: standard error
};

// Says what it did on standard output. Returns an exit_status.
int fill(const fill_request &request, record_input &input);
