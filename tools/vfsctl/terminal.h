// What standard output is.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include <unistd.h>

// Colours are for terminals that have them, and for users who did not forbid them (NO_COLOR).
inline bool colours_on(std::FILE *stream)
{
    const char *forbidden = std::getenv("NO_COLOR"), *terminal = std::getenv("TERM");
    return (forbidden == nullptr || *forbidden == '\0') && terminal != nullptr &&
           terminal != std::string_view{"dumb"} && isatty(fileno(stream)) == 1;
}
