// A locale with nothing but groups of three digits, for tests of texts in which numbers may be grouped. May call the C
// library and localedef only.
#pragma once

#include <clocale>
#include <cstdlib>
#include <fstream>
#include <string>

#include <unistd.h>

// False without localedef or its character maps. The caller goes back by setlocale(LC_ALL, "C").
inline bool group_thousands()
{
    const std::string name = "grouping_" + std::to_string(getpid()); // no dot: what follows one is a codeset
    const std::string folder = "/tmp/" + name;
    std::ofstream{folder + ".def"} << "LC_NUMERIC\ndecimal_point \".\"\nthousands_sep \",\"\ngrouping 3;3\n"
                                      "END LC_NUMERIC\n";
    (void)!system(("localedef -c -i " + folder + ".def " + folder + " >/dev/null 2>&1").c_str());
    setenv("LOCPATH", "/tmp", 1);
    const bool set = setlocale(LC_NUMERIC, name.c_str()) != nullptr;
    unsetenv("LOCPATH");
    (void)!system(("rm -rf " + folder + " " + folder + ".def").c_str());
    return set;
}
