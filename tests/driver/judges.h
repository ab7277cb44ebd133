// judges.h: two judges of a closed file that know nothing of each other, the tests' own checker and the check of vfsctl.
#ifndef TESTS_DRIVER_JUDGES_H
#define TESTS_DRIVER_JUDGES_H

#include <string>

// What the check of vfsctl finds in a file that the checker takes for sound; "" when it agrees, and for other files.
std::string judges_differ(const std::string &path);

#endif
