// host.h: a small host. It loads the built library and wraps what every test needs: descriptions of files and keys,
// record operations that return all they hand back, a scratch directory, the environment, and standard error.
// It may use include/vfs.h and the standard library; it knows nothing of the driver's inside.
#ifndef TESTS_DRIVER_HOST_H
#define TESTS_DRIVER_HOST_H

#include <vfs.h>

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace host {

// The library, loaded at the first call.
const vfs_driver *driver();
const vfs_ops &ops();

// ---- Descriptions ----------------------------------------------------------------------------------------------

struct key_part {
    int64_t offset;
    int64_t length;
};

struct key {
    std::vector<key_part> parts;
    bool duplicates = false;

    int64_t length() const;
    // The value that a record gives this key: its parts end to end, zeros where the record ends too early.
    std::string of(std::string_view record) const;
};

// The host's key description block.
class key_block {
public:
    key_block(const std::vector<key> &keys, int64_t primary = 0);
    const vfs_key_desc *get() const { return reinterpret_cast<const vfs_key_desc *>(words_.data()); }
    vfs_key_desc *get() { return reinterpret_cast<vfs_key_desc *>(words_.data()); }
    vfs_key_desc_entry *entry(size_t number) { return reinterpret_cast<vfs_key_desc_entry *>(get() + 1) + number; }

private:
    std::vector<int64_t> words_;
};

// How a file is opened, and what an operation asks for.
constexpr vfs_lock_request locks_of(uint32_t lock_mode, uint32_t wait_mode = VFS_WAIT_NEVER)
{
    return {lock_mode == VFS_LOCK_FILE ? VFS_SHARE_NONE : VFS_SHARE_ALL, lock_mode, 0, 0, 0, wait_mode, 0, 0};
}
constexpr vfs_lock_request asking(uint32_t wait_mode, uint32_t hold = 1, uint32_t kind = 0)
{
    return {0, 0, 0, hold, kind, wait_mode, 0, 0};
}

// What a test asks of open; the block that the driver sees is made from it.
struct file_spec {
    std::string path;
    uint32_t organization = VFS_ORG_SEQUENTIAL;
    uint32_t logical = VFS_ORG_SEQUENTIAL;
    uint32_t access = VFS_ACCESS_DYNAMIC;
    uint32_t format = VFS_FORMAT_VARIABLE;
    uint32_t flags = O_RDWR | O_CREAT;
    int64_t min_length = 0;
    int64_t max_length = 100;
    uint64_t options = 0;
    std::vector<key> keys;
    int64_t primary = 0;
    std::optional<vfs_lock_request> locks;
    const char *logical_name = nullptr;

    file_spec with_flags(uint32_t open_flags) const;
    file_spec with_access(uint32_t mode) const;
    file_spec with_options(uint64_t bits) const;
};

file_spec flat(const std::string &path, uint32_t format, int64_t max_length);
file_spec relative(const std::string &path, uint32_t format, int64_t max_length);
file_spec indexed(const std::string &path, std::vector<key> keys, int64_t max_length);

// ---- Operations ------------------------------------------------------------------------------------------------

enum class operation { read, write, rewrite, erase, start, position, lock, unlock };
const char *name_of(operation which);

// A position mode with its further arguments.
struct place {
    int32_t mode = VFS_POS_NEXT;
    int32_t relation = VFS_EQUAL;
    int64_t number = 0;             // key number, rrn or offset, as the mode wants
    int64_t length = 0;             // of the key
    std::optional<std::string> key; // none: taken from the record
};

place next();
place prev();
place first(int64_t key_number = 0);
place last(int64_t key_number = 0);
place end();
place current();
place by_rrn(int64_t rrn, int32_t relation = VFS_EQUAL);
place by_key(const std::string &key, int64_t key_number = 0, int32_t relation = VFS_EQUAL);
place by_record(int64_t key_number = 0); // the key comes from the record area
place at_offset(int64_t offset);

// All that an operation handed back.
struct outcome {
    int64_t value = 0;
    int error = 0;     // errno after it
    std::string bytes; // read: what arrived in the area
    uint64_t offset = 0;
    uint64_t rrn = 0;
    bool duplicate = false;
    const void *key = nullptr;

    bool found(std::string_view expected) const { return value >= 0 && error == 0 && bytes == expected; }
    bool failed(int expected) const { return value == -1 && error == expected; }
    bool ended() const { return value == 0 && error == ESPIPE; }
};
std::ostream &operator<<(std::ostream &out, const outcome &what);

// An open file. Closing is explicit where its result matters; the destructor closes what is left.
class file {
public:
    file() = default;
    explicit file(const file_spec &spec) { open(spec); }
    ~file();
    file(const file &) = delete;
    file &operator=(const file &) = delete;

    bool open(const file_spec &spec); // false: error() says why
    bool ok() const { return handle_ != nullptr; }
    int error() const { return error_; }
    vfs_file *handle() const { return handle_; }

    outcome run(operation which, const place &where, std::string_view record = {},
                const vfs_lock_request *lock = nullptr);
    outcome read(const place &where, const vfs_lock_request *lock = nullptr)
    {
        return run(operation::read, where, {}, lock);
    }
    outcome write(std::string_view record, const place &where = end()) { return run(operation::write, where, record); }
    outcome rewrite(std::string_view record, const place &where = current())
    {
        return run(operation::rewrite, where, record);
    }
    outcome erase(const place &where = current(), std::string_view record = {})
    {
        return run(operation::erase, where, record);
    }
    outcome start(const place &where) { return run(operation::start, where); }
    outcome position(const place &where) { return run(operation::position, where); }

    bool at_end() const { return ops().at_end(handle_) == 1; }
    int flush() { return ops().flush(handle_); }
    vfs_open_block info();
    int close();                                             // 0, or the error that close reported
    const vfs_open_block &closed() const { return closed_; } // what close handed back

    size_t area = 4096; // bytes of the area that reads offer

    // Every record from where the position stands, forward or backward, until the end.
    std::vector<std::string> rest(bool forward = true);

private:
    vfs_file *handle_ = nullptr;
    int error_ = 0;
    vfs_open_block closed_{};
    std::string buffer_;
};

// ---- Surroundings ----------------------------------------------------------------------------------------------

size_t open_descriptors();
std::string slurp(const std::string &path);
void spill(const std::string &path, std::string_view bytes);
// Places in the header of a file.
constexpr uint64_t tsn_at = 40, dsn_at = 48, table_at = 96, table_end_at = 104, end_of_file_at = 136, state_at = 320,
                   boot_at = 328;
void poke(const std::string &path, uint64_t offset, std::string_view bytes);
void poke(const std::string &path, uint64_t offset, uint64_t value);
uint64_t peek(const std::string &path, uint64_t offset);
std::string numbered(const char *format, int64_t number);       // snprintf with one %ld
uint64_t number_from(const char *variable, uint64_t otherwise); // of the environment: unset or empty is otherwise

// Sets a variable for the life of the guard and puts the old value back.
class environment {
public:
    environment() = default;
    environment(const std::string &name, const std::optional<std::string> &value) { set(name, value); }
    ~environment();
    environment(const environment &) = delete;
    environment &operator=(const environment &) = delete;
    void set(const std::string &name, const std::optional<std::string> &value);

private:
    std::map<std::string, std::optional<std::string>> saved_;
};

// A scratch directory, a clean VFS_ environment, standard error caught, descriptors counted. At the end nothing that
// the test did not take may have been printed, and no descriptor may have been lost.
class DriverTest : public ::testing::Test {
protected:
    DriverTest();
    ~DriverTest() override;
    void TearDown() override;

    std::string path(const std::string &name = "file") const { return directory_ + "/" + name; }
    // What was printed since the last call, without the lines that the index prints in ordinary work.
    std::string printed();

    environment variables;

private:
    std::string directory_;
    size_t descriptors_;
};

// Fails the process with a message when a test hangs in the driver.
class watchdog {
public:
    explicit watchdog(unsigned seconds);
    ~watchdog();
};

} // namespace host

#endif
