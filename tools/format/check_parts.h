// Between the files of the check: what one step leaves for the next.
#pragma once

#include <vector>

#include "format/check.h"
#include "format/frames.h"
#include "format/offset_set.h"

struct check_state {
    check_state(file_image &bytes, const check_options &wishes, check_result &found)
        : image(bytes), options(wishes), result(found), facts(found.facts), report(found.report)
    {
    }

    file_image &image;
    const check_options &options;
    check_result &result;
    const file_facts &facts;
    check_report &report;
    uint64_t end = 0; // of what is walked: the header's end of file, or of the file when that is shorter

    // ---- what the walk over the items found
    offset_set records, relocated, free_slots, moved_targets; // slots; relocated: in flat files, not among the records
    offset_set holes;
    offset_set free_blocks{metadata_unit}, leaves{metadata_unit}, branches{metadata_unit}, lists{metadata_unit};
    uint64_t hole_bytes = 0;
    uint64_t moved = 0; // slots of type 9
    bool walk_whole = true;

    bool go_on(std::string_view what, uint64_t done, uint64_t total)
    {
        if (result.complete && options.progress && !options.progress(what, done, total)) result.complete = false;
        return result.complete;
    }
    template <typename... Arguments>
    void expect(finding_area area, uint64_t at, uint64_t found, uint64_t wanted, fmt::format_string<Arguments...> what,
                Arguments &&...arguments)
    {
        if (found == wanted) return;
        report.problem(area, at, "{}: {} stands here, {} is right",
                       fmt::format(what, std::forward<Arguments>(arguments)...), static_cast<int64_t>(found),
                       static_cast<int64_t>(wanted));
    }
    template <typename T> uint64_t header(field<T> at) const { return static_cast<uint64_t>(facts.get(at)); }
};

bool check_header(check_state &state); // false: there is nothing to go on with
void check_items(check_state &state);
void check_lists(check_state &state);
void check_trees(check_state &state);
