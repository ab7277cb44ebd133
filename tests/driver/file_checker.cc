// file_checker.cc: the checker as a command: file_checker FILE...
#include "checker.h"

#include <cstdio>

int main(int argc, char **argv)
{
    int failures = 0;
    for (int i = 1; i < argc; ++i) {
        const std::string wrong = check_file(argv[i]);
        printf("%s: %s\n", argv[i], wrong.empty() ? "sound" : wrong.c_str());
        failures += wrong.empty() ? 0 : 1;
    }
    return failures == 0 ? 0 : 1;
}
