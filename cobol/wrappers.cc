// What a compiled program calls of the runtime for its files. Standing in front of the runtime's functions of the same
// names, these keep the program's own file record at hand while the handler runs, and put right afterwards what the
// runtime leaves undone. Functions for other handlers go through untouched. Without them, when the runtime's library
// is found first, the handler works with the control block alone.
#include "bridge.h"

#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

namespace {

using handler = int (*)(unsigned char *opcode, FCD3 *fcd);

// Files that the runtime keeps itself, for as long as they are open.
std::vector<const cob_file *> given_back;

// One line about a verb that the runtime has carried out.
void trace_given_back(const char *verb, const cob_file *file)
{
    if (!is_tracing()) return;
    const char *name = file->select_name != nullptr ? file->select_name : "";
    trace(verb, std::string{name} + ", kept by the runtime,",
          {static_cast<char>(file->file_status[0]), static_cast<char>(file->file_status[1])});
}

bool is_given_back(const cob_file *file)
{
    return std::find(given_back.begin(), given_back.end(), file) != given_back.end();
}

// The program's file stands in `running` for the time of one call of the runtime.
class call_under_way {
public:
    explicit call_under_way(cob_file *file, int sharing = 0) : before_(std::exchange(running, {}))
    {
        running.file = file;
        running.sharing = sharing;
        running.locked = file->open_mode == COB_OPEN_LOCKED;
    }
    ~call_under_way() { running = before_; }
    call_under_way(const call_under_way &) = delete;
    call_under_way &operator=(const call_under_way &) = delete;

private:
    running_call before_;
};

bool is_regular_business(const cob_file *file)
{
    const bool record_file = file->organization == COB_ORG_SEQUENTIAL || file->organization == COB_ORG_RELATIVE ||
                             file->organization == COB_ORG_INDEXED;
    return record_file && file->flag_line_adv == 0 && !COB_FILE_SPECIAL(file);
}

// A name that is there and no regular file.
bool names_a_device(cob_file *file)
{
    FCD3 blank{};
    blank.fcdVer = FCD_VER_64Bit;
    blank.fileOrg = ORG_SEQ;
    const call_under_way call{file};
    return is_of_runtime(control_block{&blank});
}

// READ: the length of the record, to RECORD VARYING and to the record itself.
void tell_length(cob_file *file)
{
    if (!running.status.good() || !running.read) return;
    const size_t length = std::min(running.length, file->record_max);
    if (file->variable_record != nullptr) cob_set_int(file->variable_record, static_cast<int>(length));
    if (file->record != nullptr) file->record->size = length;
}

void note_length_to_write(const cob_file *file)
{
    if (file->variable_record != nullptr) running.written_length = cob_get_int(file->variable_record);
}

} // namespace

EXPORTED void cob_extfh_open(handler call, cob_file *file, const int mode, const int sharing, cob_field *status)
{
    NEXT(cob_extfh_open);
    if (call != vfs_extfh) return next(call, file, mode, sharing, status);
    if (!is_given_back(file) && (!is_regular_business(file) || (file_of(file) == nullptr && names_a_device(file))))
        given_back.push_back(file);
    if (is_given_back(file)) {
        cob_open(file, mode, sharing, status);
        trace_given_back("OPEN", file);
        if (file->open_mode == COB_OPEN_CLOSED || file->open_mode == COB_OPEN_LOCKED) // the next name may be another's
            std::erase(given_back, file);
        return;
    }
    const call_under_way context{file, sharing};
    const unsigned char mode_before = file->open_mode;
    next(call, file, mode, sharing, status);
    if (!running.status.good()) file->open_mode = mode_before; // else DELETE FILE takes it for open
}

EXPORTED void cob_extfh_close(handler call, cob_file *file, cob_field *status, const int option, const int remove)
{
    NEXT(cob_extfh_close);
    if (call != vfs_extfh) return next(call, file, status, option, remove);
    if (is_given_back(file)) {
        cob_close(file, status, option, remove);
        trace_given_back("CLOSE", file);
        if (option < COB_CLOSE_UNIT) std::erase(given_back, file);
        return;
    }
    const call_under_way context{file};
    next(call, file, status, option, remove);
    if (running.status.good() && option < COB_CLOSE_UNIT)
        file->open_mode = option == COB_CLOSE_LOCK ? COB_OPEN_LOCKED : COB_OPEN_CLOSED;
}

EXPORTED void cob_extfh_read(handler call, cob_file *file, cob_field *key, cob_field *status, const int options)
{
    NEXT(cob_extfh_read);
    if (call != vfs_extfh) return next(call, file, key, status, options);
    if (is_given_back(file)) {
        cob_read(file, key, status, options);
        return trace_given_back("READ", file);
    }
    const call_under_way context{file};
    next(call, file, key, status, options);
    tell_length(file);
}

EXPORTED void cob_extfh_read_next(handler call, cob_file *file, cob_field *status, const int options)
{
    NEXT(cob_extfh_read_next);
    if (call != vfs_extfh) return next(call, file, status, options);
    if (is_given_back(file)) {
        cob_read_next(file, status, options);
        return trace_given_back("READ NEXT", file);
    }
    const call_under_way context{file};
    next(call, file, status, options);
    tell_length(file);
}

EXPORTED void cob_extfh_start(handler call, cob_file *file, const int relation, cob_field *key, cob_field *size,
                              cob_field *status)
{
    NEXT(cob_extfh_start);
    if (call != vfs_extfh) return next(call, file, relation, key, size, status);
    if (is_given_back(file)) {
        cob_start(file, relation, key, size, status);
        return trace_given_back("START", file);
    }
    const call_under_way context{file};
    next(call, file, relation, key, size, status);
}

EXPORTED void cob_extfh_write(handler call, cob_file *file, cob_field *record, const int options, cob_field *status,
                              const unsigned int end_of_page)
{
    NEXT(cob_extfh_write);
    if (call != vfs_extfh) return next(call, file, record, options, status, end_of_page);
    if (is_given_back(file)) {
        cob_write(file, record, options, status, end_of_page);
        return trace_given_back("WRITE", file);
    }
    // The first WRITE shows that this is a file for a printer.
    open_file *ours = (options & (COB_WRITE_AFTER | COB_WRITE_BEFORE)) != 0 ? file_of(file) : nullptr;
    if (ours != nullptr && give_back_unwritten(ours)) {
        given_back.push_back(file);
        file->open_mode = COB_OPEN_CLOSED;
        cob_open(file, COB_OPEN_OUTPUT, 0, status);
        return cob_write(file, record, options, status, end_of_page);
    }
    const call_under_way context{file};
    note_length_to_write(file);
    next(call, file, record, options, status, end_of_page);
}

EXPORTED void cob_extfh_rewrite(handler call, cob_file *file, cob_field *record, const int options, cob_field *status)
{
    NEXT(cob_extfh_rewrite);
    if (call != vfs_extfh) return next(call, file, record, options, status);
    if (is_given_back(file)) {
        cob_rewrite(file, record, options, status);
        return trace_given_back("REWRITE", file);
    }
    const call_under_way context{file};
    note_length_to_write(file);
    next(call, file, record, options, status);
}

EXPORTED void cob_extfh_delete(handler call, cob_file *file, cob_field *status)
{
    NEXT(cob_extfh_delete);
    if (call != vfs_extfh) return next(call, file, status);
    if (is_given_back(file)) {
        cob_delete(file, status);
        return trace_given_back("DELETE", file);
    }
    const call_under_way context{file};
    next(call, file, status);
}

// These never reach a handler.

EXPORTED void cob_unlock_file(cob_file *file, cob_field *status)
{
    NEXT(cob_unlock_file);
    if (open_file *ours = file_of(file); ours != nullptr) (void)unlock(ours);
    next(file, status);
}

EXPORTED void cob_commit()
{
    NEXT(cob_commit);
    (void)unlock_everything(true); // the verb has no status: standard error tells
    next();
}

EXPORTED void cob_rollback()
{
    NEXT(cob_rollback);
    (void)unlock_everything(false);
    next();
}

EXPORTED void cob_delete_file(cob_file *file, cob_field *status)
{
    NEXT(cob_delete_file);
    errno = 0; // the runtime makes a status of what an earlier call has left
    next(file, status);
}

// CANCEL closes what the program has left open, past the handler.
EXPORTED void cob_close(cob_file *file, cob_field *status, const int option, const int remove)
{
    NEXT(cob_close);
    if (file_of(file) == nullptr) return next(file, status, option, remove);
    forget_file(file);
    file->open_mode = COB_OPEN_CLOSED;
}

// CANCEL gives the file records of a program back.
EXPORTED void cob_file_free(cob_file **file, cob_file_key **keys)
{
    NEXT(cob_file_free);
    if (file != nullptr && *file != nullptr) {
        forget_file(*file);
        std::erase(given_back, *file);
    }
    next(file, keys);
}
