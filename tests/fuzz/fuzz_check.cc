// Whatever a file says, the check, the survey and the search for records come to an end inside their memory. A file that
// the check calls sound has trees that lead to all of its records. By several threads the check finds the same.
#include "scratch.h"

#include <cstdint>
#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

#include "format/check.h"
#include "format/salvage.h"
#include "format/survey.h"

namespace {

bool same(const check_report &left, const check_report &right)
{
    const auto texts = [](const check_report &of) {
        std::vector<std::string> all = of.notes();
        for (const finding &each : of.problems()) all.push_back(each.line());
        return all;
    };
    return left.problem_count() == right.problem_count() && left.note_count() == right.note_count() &&
           texts(left) == texts(right);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string &path = put_scratch(data, size);
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    {
        file_image image{descriptor};
        const check_result fast = check_image(image, {.fast = true, .progress = {}});
        file_image again{descriptor};
        const check_result found = check_image(again, {.progress = {}});
        if (found.sound() && !fast.sound()) std::abort();
        file_image in_pieces{descriptor};
        const check_result side_by_side = check_image(in_pieces, {.threads = 2, .piece_bytes = 8192, .progress = {}});
        if (side_by_side.records != found.records || !same(side_by_side.report, found.report)) std::abort();
        if (found.trees_sound() && found.facts.indexed) {
            uint64_t reached = 0;
            each_in_tree(again, found.facts, found.facts.keys[found.facts.primary], [&](uint64_t) {
                ++reached;
                return true;
            });
            if (reached != found.records) std::abort();
        }
        file_image bytes{descriptor};
        survey_file(bytes);
        (void)salvage_records(bytes, found.facts, found.words,
                              {.reject = [](const rejected_bytes &) {}, .progress = {}});
    }
    close(descriptor);
    remove_scratch();
    return 0;
}
