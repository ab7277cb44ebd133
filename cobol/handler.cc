// The entry point: which verb a call is, and one line about it when VFS_EXTFH_TRACE is set.
#include "bridge.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iterator>

running_call running;

namespace {

using verb = file_status (*)(control_block *fcd, open_file *file);

enum class group : uint8_t { opens, closes, reads, writes, changes, other };

// What a verb answers for a file that is not open.
file_status not_open(group kind)
{
    switch (kind) {
    case group::closes: return status_of(42);
    case group::reads: return status_of(47);
    case group::writes: return status_of(48);
    case group::changes: return status_of(49);
    default: return {};
    }
}

template <open_mode mode> file_status opens(control_block *fcd, open_file *file)
{
    if (file != nullptr) return status_of(41);
    const file_status status = file_open(fcd, mode);
    if (fcd->handle() != nullptr) fcd->set_open_mode(static_cast<uint8_t>(mode));
    return status;
}

template <int how> file_status closes_how(control_block *fcd, open_file *file)
{
    const file_status status = file_close(fcd, file, how);
    fcd->set_open_mode(OPEN_NOT_OPEN);
    return status;
}

file_status closes(control_block *fcd, open_file *file)
{
    const file_status status = file_close(fcd, file, static_cast<int>(fcd->options()));
    fcd->set_open_mode(OPEN_NOT_OPEN);
    return status;
}

template <direction way> file_status steps(control_block *fcd, open_file *file)
{
    return read_step(fcd, file, way);
}

template <int32_t relation> file_status starts(control_block *fcd, open_file *file)
{
    file->read_done = false;
    return start(fcd, file, relation);
}

template <bool first> file_status starts_at_edge(control_block *fcd, open_file *file)
{
    file->read_done = false;
    return start_at_edge(fcd, file, first);
}

// The forms of READ that name their lock in the opcode instead of the options.
template <uint32_t option, verb read> file_status locked(control_block *fcd, open_file *file)
{
    put_big_endian(fcd->raw()->opt, 4, option);
    return read(fcd, file);
}

file_status unlocks(control_block *, open_file *file)
{
    return unlock(file);
}
template <bool flush> file_status ends_transaction(control_block *, open_file *)
{
    return unlock_everything(flush);
}
file_status flushes(control_block *, open_file *file)
{
    return file->handle == nullptr || ops().flush(file->handle) == 0 ? file_status{} : status_of(30);
}
file_status deletes_file(control_block *fcd, open_file *file)
{
    if (file != nullptr) return status_of(41);
    const std::optional<std::string> path = path_of_name(name_in_program(*fcd));
    if (!path) return status_of(31);
    if (file_was_locked(*path, fcd->record())) return status_of(38);
    return ops().unlink(path->c_str()) == 0 ? file_status{} : status_of_error(errno, asked::open, fcd->kind());
}
file_status nothing(control_block *, open_file *)
{
    return {};
}

struct opcode_row {
    uint16_t code;
    const char *name;
    group kind;
    verb run;
};

constexpr verb next = steps<direction::next>, previous = steps<direction::previous>;
constexpr opcode_row opcodes[] = {
    {0xFA00, "OPEN INPUT", group::opens, opens<open_mode::input>},
    {0xFA01, "OPEN OUTPUT", group::opens, opens<open_mode::output>},
    {0xFA02, "OPEN I-O", group::opens, opens<open_mode::io>},
    {0xFA03, "OPEN EXTEND", group::opens, opens<open_mode::extend>},
    {0xFA04, "OPEN INPUT NO REWIND", group::opens, opens<open_mode::input>},
    {0xFA05, "OPEN OUTPUT NO REWIND", group::opens, opens<open_mode::output>},
    {0xFA08, "OPEN INPUT REVERSED", group::opens, opens<open_mode::input>},
    {0xFA80, "CLOSE", group::closes, closes},
    {0xFA81, "CLOSE LOCK", group::closes, closes_how<COB_CLOSE_LOCK>},
    {0xFA82, "CLOSE NO REWIND", group::closes, closes_how<COB_CLOSE_NO_REWIND>},
    {0xFA83, "CLOSE NO REWIND", group::closes, closes_how<COB_CLOSE_NO_REWIND>},
    {0xFA84, "CLOSE REEL", group::closes, closes_how<COB_CLOSE_UNIT>},
    {0xFA85, "CLOSE REEL FOR REMOVAL", group::closes, closes_how<COB_CLOSE_UNIT_REMOVAL>},
    {0xFA86, "CLOSE REEL NO REWIND", group::closes, closes_how<COB_CLOSE_UNIT>},
    {0xFAF5, "READ NEXT", group::reads, next},
    {0xFAF9, "READ PREVIOUS", group::reads, previous},
    {0xFAF6, "READ", group::reads, read_keyed},
    {0xFA8D, "READ NEXT NO LOCK", group::reads, locked<COB_READ_NO_LOCK, next>},
    {0xFAD8, "READ NEXT LOCK", group::reads, locked<COB_READ_LOCK, next>},
    {0xFAD9, "READ NEXT KEPT LOCK", group::reads, locked<COB_READ_LOCK | COB_READ_KEPT_LOCK, next>},
    {0xFA8C, "READ PREVIOUS NO LOCK", group::reads, locked<COB_READ_NO_LOCK, previous>},
    {0xFADE, "READ PREVIOUS LOCK", group::reads, locked<COB_READ_LOCK, previous>},
    {0xFADF, "READ PREVIOUS KEPT LOCK", group::reads, locked<COB_READ_LOCK | COB_READ_KEPT_LOCK, previous>},
    {0xFA8E, "READ NO LOCK", group::reads, locked<COB_READ_NO_LOCK, read_keyed>},
    {0xFADA, "READ LOCK", group::reads, locked<COB_READ_LOCK, read_keyed>},
    {0xFADB, "READ KEPT LOCK", group::reads, locked<COB_READ_LOCK | COB_READ_KEPT_LOCK, read_keyed>},
    {0xFAF3, "WRITE", group::writes, write_record},
    {0xFAF4, "REWRITE", group::changes, rewrite_record},
    {0xFAF7, "DELETE", group::changes, delete_record},
    {0xFAE8, "START =", group::reads, starts<VFS_EQUAL>},
    {0xFAEB, "START >=", group::reads, starts<VFS_GREATER_EQUAL>},
    {0xFAEA, "START >", group::reads, starts<VFS_GREATER>},
    {0xFAFF, "START <=", group::reads, starts<VFS_LESS_EQUAL>},
    {0xFAFE, "START <", group::reads, starts<VFS_LESS>},
    {0xFAED, "START FIRST", group::reads, starts_at_edge<true>},
    {0xFAEC, "START LAST", group::reads, starts_at_edge<false>},
    {0xFA0E, "UNLOCK", group::other, unlocks},
    {0x000F, "UNLOCK", group::other, unlocks},
    {0xFADC, "COMMIT", group::other, ends_transaction<true>},
    {0xFADD, "ROLLBACK", group::other, ends_transaction<false>},
    {0xFAF8, "DELETE FILE", group::opens, deletes_file},
    {0x000C, "FLUSH", group::other, flushes},
    {0x0006, "FILE INFORMATION", group::opens, nothing},
};

void answer(control_block *fcd, const char *verb_name, file_status status)
{
    fcd->set_status(status.first, status.second);
    running.status = status;
    if (is_tracing()) trace(verb_name, name_in_program(*fcd), status);
}

void serve(unsigned char *opcode, FCD3 *raw)
{
    control_block fcd{raw};
    const auto code = static_cast<uint16_t>(big_endian(opcode, 2));
    const auto *row =
        std::find_if(std::begin(opcodes), std::end(opcodes), [&](const opcode_row &each) { return each.code == code; });
    if (!fcd.known_version() || row == std::end(opcodes)) {
        fcd.set_status('9', '\xA1');
        if (is_tracing()) trace("unknown call", name_in_program(fcd), {'9', '?'});
        return;
    }
    if (!fcd.is_record_file() || (row->kind == group::opens && is_of_runtime(fcd))) {
        // Called without our wrappers: the runtime's own handling through its own entry.
        EXTFH(opcode, raw);
        if (is_tracing())
            trace(row->name, name_in_program(fcd),
                  {static_cast<char>(raw->fileStatus[0]), static_cast<char>(raw->fileStatus[1])});
        return;
    }
    open_file *file = file_of(fcd);
    if (file != nullptr) {
        fcd.set_handle(file);
        file->block = raw;
    }
    const bool needs_file = row->kind != group::opens;
    const file_status status = file == nullptr && needs_file ? not_open(row->kind) : row->run(&fcd, file);
    answer(&fcd, row->name, status);
}

} // namespace

bool is_tracing()
{
    static const char *const value = getenv("VFS_EXTFH_TRACE");
    return value != nullptr && *value != '\0';
}

void trace(const char *verb, const std::string &name, file_status status)
{
    fprintf(stderr, "vfs_extfh: %s %s %c%c\n", verb, name.c_str(), status.first, status.second);
}

// The caller is C: what memory runs out for is a status.
extern "C" __attribute__((visibility("default"))) int vfs_extfh(unsigned char *opcode, FCD3 *fcd)
{
    try {
        serve(opcode, fcd);
    } catch (const std::exception &) {
        running.status = status_of(30);
        control_block{fcd}.set_status('3', '0');
    }
    return 0;
}
