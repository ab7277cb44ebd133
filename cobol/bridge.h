// What the parts of the bridge share: an open file as the bridge keeps it, the call under way, and the verbs.
#pragma once

#include "fcd.h"

#include <vfs.h>

#include <optional>
#include <string>

#include <dlfcn.h>

// A function that stands in front of the runtime's one of the same name, and in it: the runtime's.
#define EXPORTED extern "C" __attribute__((visibility("default")))
#define NEXT(name) static const auto next = reinterpret_cast<decltype(&(name))>(dlsym(RTLD_NEXT, #name))

// Two characters, as the program sees them.
struct file_status {
    char first = '0', second = '0';

    bool good() const { return first == '0'; }
};
constexpr bool operator==(file_status left, file_status right)
{
    return left.first == right.first && left.second == right.second;
}
constexpr file_status status_of(int code)
{
    return {static_cast<char>('0' + code / 10), static_cast<char>('0' + code % 10)};
}

// Where the next READ goes on, as the program sees it: what is looked up for other reasons must not change it.
enum class place_kind : uint8_t { none, read, started };

struct open_file {
    vfs_file *handle = nullptr; // null: an optional file that is not there, or an empty one opened for input
    std::string path, name;     // name: as the program says it
    const void *record_area = nullptr;
    FCD3 *block = nullptr;           // that points to this file; null while CLOSE REEL keeps it without one
    const cob_file *owner = nullptr; // null when the runtime called without our wrappers
    open_mode mode = open_mode::input;
    organization kind = organization::sequential;
    ::access access = ::access::sequential;
    size_t minimum = 0, maximum = 0;
    bool fixed = false;
    std::vector<key_shape> keys;

    // ---- locks
    bool shared = false; // record locks
    bool automatic = false, manual = false;

    // ---- what the verbs before have left
    bool read_done = false; // the last verb was a successful READ
    bool at_end = false, at_begin = false, lost = false;
    bool written = false;    // at least one record since OPEN
    bool kept_open = false;  // CLOSE REEL: the control block is gone, the file is not
    size_t length_read = 0;  // of the record last read
    std::string key_read;    // its primary key
    std::string record_read; // the record itself when it may be replaced and has alternate keys, else empty
    std::string key_written; // sequential access: the last primary key written; at EXTEND the highest in the file
    size_t reference = 0;    // key of reference
    place_kind place = place_kind::none;
    std::string place_value; // of the key of reference: read, or what START was given
    int32_t place_relation = 0;
    std::string key; // scratch

    ~open_file();
};

// The verb under way when it came through a wrapper.
struct running_call {
    cob_file *file = nullptr;
    int sharing = 0;         // of OPEN
    int written_length = -1; // RECORD VARYING DEPENDING ON at WRITE and REWRITE; -1: the record item's size
    file_status status = {}; // of the call
    size_t length = 0;       // of the record read; set when `read`
    bool read = false;
    bool locked = false; // OPEN: this SELECT was closed WITH LOCK
};
extern running_call running; // of the one thread that runs the program

// ---- names.cc
// nullopt: there is no name.
std::optional<std::string> path_of_name(std::string_view name);
std::string name_in_program(const control_block &fcd);

// ---- status.cc
enum class asked { open, output_open, making, sequential_read, keyed_read, write, rewrite, other };
file_status status_of_error(int error, asked what, organization kind);

// ---- open.cc, close.cc
file_status file_open(control_block *fcd, open_mode mode);
file_status file_close(control_block *fcd, open_file *file, int how); // how: COB_CLOSE_...
open_file *file_of(const control_block &fcd);                         // null: it is not open
open_file *file_of(const cob_file *owner);
bool file_was_locked(const std::string &path, const void *record_area);
void remember(open_file *file);
void forget(open_file *file); // closes it, whatever its state
void forget_file(const cob_file *owner);
void forget_all();
file_status unlock(open_file *file);
file_status unlock_everything(bool flush); // 30 when a flush failed, which standard error tells
// Closes a file in which nothing is yet: the runtime is going to make it anew. False: it is not such a file.
bool give_back_unwritten(open_file *file);
// Whether the runtime keeps this file itself: a device, a pipe, a name that is no regular file.
bool is_of_runtime(const control_block &fcd);

// ---- verbs.cc, start.cc
enum class direction { next, previous };
file_status read_step(control_block *fcd, open_file *file, direction way);
file_status read_keyed(control_block *fcd, open_file *file);
file_status write_record(control_block *fcd, open_file *file);
file_status rewrite_record(control_block *fcd, open_file *file);
file_status delete_record(control_block *fcd, open_file *file);
file_status start(control_block *fcd, open_file *file, int32_t relation);
file_status start_at_edge(control_block *fcd, open_file *file, bool first);

vfs_record area_of(const control_block &fcd, const open_file &file);
vfs_lock_request lock_for_read(const open_file &file, uint32_t options);

// ---- handler.cc
bool is_tracing(); // VFS_EXTFH_TRACE has a value
void trace(const char *verb, const std::string &name, file_status status);

// ---- caller.cc
bool keeps_files_with_runtime(const void *code); // the program that this code is part of, compiled without the handler

// ---- alternates.cc
struct alternate_check {
    file_status status =
        {};             // 22 when another record has the value of a unique key with suppressed values, 23 when there is
                        // none to replace, what the look-up met, or:
    bool exact = false; // 00 or 02 are the answer, not what the driver tells of duplicates
};
// Before a record is written, or replaces the one with its primary key. The program's place stays.
alternate_check check_alternates(open_file *file, const char *record, bool replaces);

inline const vfs_ops &ops()
{
    return vfs()->ops;
}

extern "C" int vfs_extfh(unsigned char *opcode, FCD3 *fcd);
