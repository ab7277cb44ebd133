// The driver as this tool uses it: the library loaded once, and an open indexed file as an object.
// Knows only <vfs.h>; must not know the command line. Failures are tool_error with the driver's own text.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <vfs.h>

// Loads the library on the first call: $VFS_LIBRARY, beside the program, ../lib of the program, the loader's path.
const vfs_driver &driver();
const std::string &driver_path(); // from where it was loaded
bool file_exists(const std::string &path);

struct open_request {
    std::string path;
    int flags = 0;                      // O_RDONLY, or O_RDWR with O_CREAT, O_EXCL, O_TRUNC
    bool sequential = false;            // records come in ascending order of the primary key
    const vfs_key_desc *keys = nullptr; // borrowed until open returns; null: the file's own
    int64_t min_record_length = 0;
    int64_t max_record_length = 0;
    bool fixed_length = false;
    uint32_t organization = VFS_ORG_INDEXED; // of the file on the disk
    uint32_t logical = VFS_ORG_INDEXED;      // to the program
    int64_t block_size = 0;
    bool exclusive = false;   // nobody else may have it open
    bool only_writes = false; // no record is going to be read
};

// What became of one record operation that may be refused without harm.
enum class outcome { done, not_found, refused };

class record_file {
public:
    explicit record_file(const open_request &request); // throws tool_error
    ~record_file();                                    // closes; errors of close are lost here, call close()
    record_file(const record_file &) = delete;
    record_file &operator=(const record_file &) = delete;

    vfs_open_block info();
    // The record at a mode without key: VFS_POS_NEXT, VFS_POS_PREV (no key number), VFS_POS_FIRST, VFS_POS_LAST.
    // Empty at the end. The bytes live until the next call.
    std::optional<std::string_view> read(int32_t mode, int64_t key_number = 0);
    bool start(int32_t relation, std::string_view key, int64_t key_number); // false: no such record
    // done, or refused with the error in last_error(); anything else throws. Keys come from the record.
    outcome write(std::string_view record);
    outcome write_at(int64_t rrn, std::string_view record);                 // files without keys
    outcome append(std::string_view record);                                // files without keys
    outcome rewrite(std::string_view record, std::string_view primary_key); // or not_found
    outcome remove(std::string_view key, int64_t key_number);               // or not_found
    uint64_t rrn() const { return status_.rrn; }                            // of the record read last, from 0
    int last_error() const { return last_error_; }
    std::string error_text(int error) const;
    void close(); // throws when what was written may not be in the file

private:
    int64_t read_into_area(int32_t mode, int64_t key_number);
    outcome settle(int64_t result, const char *what);
    [[noreturn]] void fail(const char *what, int error) const;

    std::string path_;
    std::string area_; // receives records; grows when one is longer
    vfs_file *handle_ = nullptr;
    vfs_status status_{};
    int last_error_ = 0;
};
