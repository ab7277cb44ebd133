// See checker.h.
#include "checker.h"

#include "format/check.h"

#include <fcntl.h>
#include <unistd.h>

std::string check_file(const std::string &path)
{
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor == -1) return "cannot be opened";
    file_image image{descriptor};
    const check_result found = check_image(image, {.line_limit = 20, .progress = {}});
    close(descriptor);
    std::string wrong;
    for (const finding &each : found.report.problems()) wrong += each.line() + "\n";
    for (const std::string &note : found.report.notes()) wrong += "noted: " + note + "\n";
    if (found.words.state != session_state::closed) wrong += "it says of itself that it was not closed\n";
    if (wrong.empty() && found.facts.end != image.size()) wrong = "there are bytes behind the end of file\n";
    return wrong;
}

bool file_is_unclean(const std::string &path)
{
    uint64_t words[2] = {};
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const bool read = pread(descriptor, words, sizeof words, 320) == static_cast<ssize_t>(sizeof words);
    close(descriptor);
    return read && (words[0] != 0 || words[1] != 0);
}
