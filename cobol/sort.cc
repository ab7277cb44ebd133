// SORT and MERGE with USING and GIVING: the runtime reads and writes these files with its own code, whoever keeps them.
#include "bridge.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <vector>

#define EXPORTED extern "C" __attribute__((visibility("default")))

namespace {

bool good(const cob_file *file)
{
    return file->file_status[0] == '0';
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

} // namespace

// Files that are the runtime's go back to it in the calls that follow, as in any program.
EXPORTED void cob_file_sort_using(cob_file *sort, cob_file *input)
{
    cob_extfh_open(vfs_extfh, input, COB_OPEN_INPUT, 0, nullptr);
    if (!good(input)) return;
    for (;;) {
        cob_extfh_read_next(vfs_extfh, input, nullptr, COB_READ_NEXT);
        if (!good(input)) break;
        copy_record(sort->record, sort->record_max, input->record);
        if (sort->variable_record != nullptr) cob_set_int(sort->variable_record, static_cast<int>(input->record->size));
        cob_file_release(sort);
    }
    cob_extfh_close(vfs_extfh, input, nullptr, COB_CLOSE_NORMAL, 0);
}

EXPORTED void cob_file_sort_giving(cob_file *sort, const size_t count, ...)
{
    std::vector<cob_file *> outputs;
    va_list list;
    va_start(list, count);
    for (size_t i = 0; i < count; ++i) outputs.push_back(va_arg(list, cob_file *));
    va_end(list);
    for (cob_file *output : outputs) cob_extfh_open(vfs_extfh, output, COB_OPEN_OUTPUT, 0, nullptr);
    std::erase_if(outputs, [](const cob_file *output) { return !good(output); });
    for (;;) {
        cob_file_return(sort);
        if (!good(sort)) break;
        for (cob_file *output : outputs) {
            copy_record(output->record, output->record_max, sort->record);
            if (output->variable_record != nullptr)
                cob_set_int(output->variable_record,
                            static_cast<int>(std::min(sort->record->size, output->record_max)));
            cob_extfh_write(vfs_extfh, output, output->record, write_options(output), nullptr, 0);
        }
    }
    for (cob_file *output : outputs) cob_extfh_close(vfs_extfh, output, nullptr, COB_CLOSE_NORMAL, 0);
}
