// checker.h: verifies the bytes of a closed file against everything that the format promises: vfsctl's check, which shares
// no code with the driver but the format's constants, and nothing left to note.
#ifndef TESTS_DRIVER_CHECKER_H
#define TESTS_DRIVER_CHECKER_H

#include <string>

// "" for a sound file that was closed, else lines that say what is wrong and where.
std::string check_file(const std::string &path);

// Whether the file says of itself that it was not closed (state word or boot word).
bool file_is_unclean(const std::string &path);

#endif
