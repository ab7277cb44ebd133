// See check.h: the steps in their order. Each later one relies on what an earlier one found, so that damage of the header
// ends the check, while damage of the items, lists or one tree is looked at to its end.
#include "format/check.h"

#include <cstring>

#include "format/check_parts.h"

namespace {

void describe_session(check_result &result)
{
    check_report &report = result.report;
    switch (result.words.state) {
    case session_state::bad_redo:
        report.problem(finding_area::header, header_state_word.offset,
                       "a change is said to be pending at 0x{:x}, but {}", result.words.state_word,
                       result.words.redo.fault);
        break;
    case session_state::closed:
        if (result.behind.items != 0)
            report.problem(
                finding_area::header, header_end_of_file.offset,
                "{} items with {} records stand behind the end of file 0x{:x}, at 0x{:x}: they were appended "
                "and are not found; vfsctl rebuild finds them",
                result.behind.items, result.behind.records, result.facts.end, result.behind.first);
        break;
    default: break;
    }
}

} // namespace

bool check_result::trees_sound() const
{
    return complete && walked && facts.keys_known && report.count(finding_area::items) == 0 &&
           report.count(finding_area::records) == 0 && report.count(finding_area::trees) == 0;
}

check_result check_image(file_image &image, const check_options &options)
{
    check_result result{options.line_limit};
    result.words = read_session(image);
    if (result.words.redo.fault.empty())
        for (const redo_range &range : result.words.redo.ranges)
            image.replace_inverted(range.offset, range.length, range.source);
    result.facts = read_facts(image);
    check_state state{image, options, result};
    const bool readable = check_header(state);
    if (readable && !options.fast) result.behind = find_behind(image, result.facts.end, result.words);
    if (result.facts.identified) describe_session(result);
    if (readable && options.fast) {
        result.records = state.header(header_records);
        check_trees(state);
    } else if (readable) {
        const bool sound = check_side_by_side(state);
        if (!sound && result.complete) check_items(state);
        if (result.complete && state.walk_whole) check_lists(state);
        if (result.complete && !sound) check_trees(state);
        result.walked = true;
    }
    if (image.storage_error() != 0)
        result.report.problem(finding_area::items, 0, "the storage failed while the file was read: {}",
                              std::strerror(image.storage_error()));
    return result;
}
