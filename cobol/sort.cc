// SORT and MERGE with USING and GIVING: the runtime reads and writes these files with its own code, whoever keeps them.
#include "bridge.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <vector>

namespace {

// SORT-RETURN of the sorts under way, and whether one has failed already: what is sorted then is not all.
struct sort_state {
    int *sort_return = nullptr;
    bool failed = false;
};
std::map<const cob_file *, sort_state> sorts;

// The program goes on and asks SORT-RETURN, which is 16 where not all was sorted.
void fail(const cob_file *sort, const cob_file *file, const char *what)
{
    sort_state &state = sorts[sort];
    state.failed = true;
    if (state.sort_return != nullptr) *state.sort_return = 16;
    fprintf(stderr, "vfs_extfh: SORT: %s of %s failed with status %c%c\n", what,
            file->select_name != nullptr ? file->select_name : "a file", file->file_status[0], file->file_status[1]);
}

bool good(const cob_file *file)
{
    return file->file_status[0] == '0';
}

// 14 is no end: a record's number was longer than RELATIVE KEY.
bool at_end(const cob_file *file)
{
    return file->file_status[0] == '1' && file->file_status[1] == '0';
}

// Cut, or filled with blanks.
void copy_record(cob_field *to, size_t room, const cob_field *from)
{
    const size_t bytes = std::min(room, from->size);
    memcpy(to->data, from->data, bytes);
    memset(to->data + bytes, ' ', room - bytes);
}

int write_options(const cob_file *file)
{
    return file->organization == COB_ORG_LINE_SEQUENTIAL ? COB_WRITE_BEFORE | COB_WRITE_LINES | 1 : 0;
}

struct output_verbs {
    void (*open)(cob_file *);
    void (*write)(cob_file *);
    void (*close)(cob_file *);
};
constexpr output_verbs verbs_of_bridge{
    [](cob_file *file) { cob_extfh_open(vfs_extfh, file, COB_OPEN_OUTPUT, 0, nullptr); },
    [](cob_file *file) { cob_extfh_write(vfs_extfh, file, file->record, write_options(file), nullptr, 0); },
    [](cob_file *file) { cob_extfh_close(vfs_extfh, file, nullptr, COB_CLOSE_NORMAL, 0); }};
constexpr output_verbs verbs_of_runtime{
    [](cob_file *file) { cob_open(file, COB_OPEN_OUTPUT, 0, nullptr); },
    [](cob_file *file) { cob_write(file, file->record, write_options(file), nullptr, 0); },
    [](cob_file *file) { cob_close(file, nullptr, COB_CLOSE_NORMAL, 0); }};

} // namespace

EXPORTED void cob_file_sort_init(cob_file *sort, const unsigned int keys, const unsigned char *collating,
                                 void *sort_return, cob_field *status)
{
    NEXT(cob_file_sort_init);
    next(sort, keys, collating, sort_return, status);
    sorts[sort] = {.sort_return = static_cast<int *>(sort_return)};
}

EXPORTED void cob_file_sort_close(cob_file *sort)
{
    NEXT(cob_file_sort_close);
    next(sort);
    sorts.erase(sort);
}

// Files that are the runtime's go back to it in the calls that follow, as in any program.
EXPORTED void cob_file_sort_using(cob_file *sort, cob_file *input)
{
    NEXT(cob_file_sort_using);
    if (keeps_files_with_runtime(__builtin_return_address(0))) return next(sort, input);
    cob_extfh_open(vfs_extfh, input, COB_OPEN_INPUT, 0, nullptr);
    if (!good(input)) return fail(sort, input, "OPEN INPUT");
    for (;;) {
        cob_extfh_read_next(vfs_extfh, input, nullptr, COB_READ_NEXT);
        if (!good(input)) break;
        copy_record(sort->record, sort->record_max, input->record);
        if (sort->variable_record != nullptr) cob_set_int(sort->variable_record, static_cast<int>(input->record->size));
        cob_file_release(sort);
    }
    if (!at_end(input)) fail(sort, input, "READ");
    cob_extfh_close(vfs_extfh, input, nullptr, COB_CLOSE_NORMAL, 0);
}

EXPORTED void cob_file_sort_giving(cob_file *sort, const size_t count, ...)
{
    std::vector<cob_file *> outputs;
    va_list list;
    va_start(list, count);
    for (size_t i = 0; i < count; ++i) outputs.push_back(va_arg(list, cob_file *));
    va_end(list);
    // What is there already is worth more than a part of what was to replace it.
    if (sorts[sort].failed) return;
    const bool ours = !keeps_files_with_runtime(__builtin_return_address(0));
    const output_verbs &verbs = ours ? verbs_of_bridge : verbs_of_runtime;
    // A file that has failed gets nothing any more, and says so once.
    const auto went_well = [&](const cob_file *output, const char *what) {
        if (ours && !good(output)) fail(sort, output, what);
        return good(output);
    };
    std::erase_if(outputs, [&](cob_file *output) {
        verbs.open(output);
        return !went_well(output, "OPEN OUTPUT");
    });
    for (;;) {
        cob_file_return(sort);
        if (!good(sort)) break;
        std::erase_if(outputs, [&](cob_file *output) {
            copy_record(output->record, output->record_max, sort->record);
            if (output->variable_record != nullptr)
                cob_set_int(output->variable_record,
                            static_cast<int>(std::min(sort->record->size, output->record_max)));
            verbs.write(output);
            if (went_well(output, "WRITE")) return false;
            verbs.close(output);
            return true;
        });
    }
    for (cob_file *output : outputs) {
        verbs.close(output);
        went_well(output, "CLOSE");
    }
}
