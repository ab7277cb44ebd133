// host.cc: see host.h.
#include "host.h"

#include <dirent.h>
#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <ostream>
#include <regex>
#include <sstream>

extern "C" void __sanitizer_set_report_fd(void *descriptor) __attribute__((weak));

namespace host {

const vfs_driver *driver()
{
    static const vfs_driver *loaded = [] {
        void *library = dlopen(VFS_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr) {
            fprintf(stderr, "%s\n", dlerror());
            abort();
        }
        return reinterpret_cast<const vfs_driver *(*)()>(dlsym(library, "vfs"))();
    }();
    return loaded;
}

const vfs_ops &ops()
{
    return driver()->ops;
}

// ---- Descriptions ----------------------------------------------------------------------------------------------

int64_t key::length() const
{
    int64_t sum = 0;
    for (const key_part &part : parts) sum += part.length;
    return sum;
}

std::string key::of(std::string_view record) const
{
    std::string value;
    for (const key_part &part : parts) {
        std::string piece;
        if (static_cast<size_t>(part.offset) < record.size())
            piece = record.substr(static_cast<size_t>(part.offset), static_cast<size_t>(part.length));
        piece.resize(static_cast<size_t>(part.length), '\0');
        value += piece;
    }
    return value;
}

namespace {

// The values of the lowest and highest keys must fit between the key table and the end of the metadata region, whose
// size follows from the description. Long keys get a longer description, which moves the table behind a page's edge.
size_t padding(const std::vector<key> &keys, size_t bytes)
{
    size_t areas = 0;
    for (const key &each : keys) areas += 2 * ((static_cast<size_t>(each.length()) + 7) / 8 * 8);
    const auto table_end = [&](size_t length) { return (336 + length + 15) / 16 * 16 + 192 * keys.size(); };
    const size_t region = (table_end(bytes) + 4095) / 4096 * 4096;
    if (table_end(bytes) + areas < region - 8 || areas > 4000) return 0;
    size_t more = 0;
    while (table_end(bytes + more) <= region) more += 8;
    return more;
}

} // namespace

key_block::key_block(const std::vector<key> &keys, int64_t primary)
{
    size_t parts = 0;
    for (const key &each : keys) parts += each.parts.size();
    size_t bytes = sizeof(vfs_key_desc) + keys.size() * sizeof(vfs_key_desc_entry) + parts * sizeof(vfs_key_part);
    bytes += padding(keys, bytes);
    words_.assign(bytes / 8, 0);
    vfs_key_desc *head = get();
    *head = {.total_size = static_cast<int64_t>(bytes),
             .count = static_cast<int64_t>(keys.size()),
             .max_extent = 0,
             .primary_key = primary,
             .flags = 0};
    auto *part = reinterpret_cast<vfs_key_part *>(entry(keys.size()));
    for (size_t k = 0; k < keys.size(); ++k) {
        vfs_key_desc_entry *row = entry(k);
        row->length = keys[k].length();
        row->part_count = static_cast<int64_t>(keys[k].parts.size());
        row->part_list = reinterpret_cast<char *>(part) - reinterpret_cast<char *>(head);
        row->flags = static_cast<uint8_t>((static_cast<int64_t>(k) == primary ? VFS_KEY_PRIMARY : 0) |
                                          (keys[k].duplicates ? VFS_KEY_DUPLICATES : 0) |
                                          (keys[k].parts.size() > 1 ? VFS_KEY_MULTI_PART : 0));
        head->max_extent = std::max(head->max_extent, row->length);
        head->flags |= keys[k].duplicates ? 1 : 0;
        for (const key_part &each : keys[k].parts)
            *part++ = {.offset = each.offset, .length = each.length, .unused = 0};
    }
}

file_spec file_spec::with_flags(uint32_t open_flags) const
{
    file_spec copy = *this;
    copy.flags = open_flags;
    return copy;
}

file_spec file_spec::with_access(uint32_t mode) const
{
    file_spec copy = *this;
    copy.access = mode;
    return copy;
}

file_spec file_spec::with_options(uint64_t bits) const
{
    file_spec copy = *this;
    copy.options = bits;
    return copy;
}

file_spec flat(const std::string &path, uint32_t format, int64_t max_length)
{
    file_spec spec;
    spec.path = path;
    spec.format = format;
    spec.max_length = max_length;
    spec.min_length = format == VFS_FORMAT_FIXED ? max_length : 0;
    return spec;
}

file_spec relative(const std::string &path, uint32_t format, int64_t max_length)
{
    file_spec spec = flat(path, format, max_length);
    spec.organization = VFS_ORG_RELATIVE;
    spec.logical = VFS_ORG_RELATIVE;
    return spec;
}

file_spec indexed(const std::string &path, std::vector<key> keys, int64_t max_length)
{
    file_spec spec = flat(path, VFS_FORMAT_VARIABLE, max_length);
    spec.organization = VFS_ORG_INDEXED;
    spec.logical = VFS_ORG_INDEXED;
    spec.keys = std::move(keys);
    return spec;
}

// ---- Operations ------------------------------------------------------------------------------------------------

const char *name_of(operation which)
{
    static const char *const names[] = {"read", "write", "rewrite", "erase", "start", "position", "lock", "unlock"};
    return names[static_cast<size_t>(which)];
}

place next()
{
    return {.mode = VFS_POS_NEXT, .key = {}};
}
place prev()
{
    return {.mode = VFS_POS_PREV, .key = {}};
}
place first(int64_t key_number)
{
    return {.mode = VFS_POS_FIRST, .number = key_number, .key = {}};
}
place last(int64_t key_number)
{
    return {.mode = VFS_POS_LAST, .number = key_number, .key = {}};
}
place end()
{
    return {.mode = VFS_POS_END, .key = {}};
}
place current()
{
    return {.mode = VFS_POS_CURRENT, .key = {}};
}

place by_rrn(int64_t rrn, int32_t relation)
{
    return {.mode = VFS_POS_RRN, .relation = relation, .number = rrn, .key = {}};
}

place by_key(const std::string &key, int64_t key_number, int32_t relation)
{
    return {.mode = VFS_POS_KEY,
            .relation = relation,
            .number = key_number,
            .length = static_cast<int64_t>(key.size()),
            .key = key};
}

place by_record(int64_t key_number)
{
    return {.mode = VFS_POS_KEY, .number = key_number, .length = 0, .key = {}};
}
place at_offset(int64_t offset)
{
    return {.mode = VFS_POS_OFFSET, .number = offset, .key = {}};
}

std::ostream &operator<<(std::ostream &out, const outcome &what)
{
    out << "value " << what.value << " errno " << what.error << " (" << strerror(what.error) << ") rrn "
        << static_cast<int64_t>(what.rrn) << " offset " << static_cast<int64_t>(what.offset) << " duplicate "
        << what.duplicate << " bytes[" << what.bytes.size() << "] ";
    for (const char c : what.bytes.substr(0, 24)) out << (isprint(static_cast<unsigned char>(c)) ? c : '.');
    return out;
}

namespace {

vfs_record_operation slot_of(operation which)
{
    const vfs_ops &table = ops();
    const vfs_record_operation slots[] = {table.read,  table.write,    table.rewrite, table.delete_record,
                                          table.start, table.position, table.lock,    table.unlock};
    return slots[static_cast<size_t>(which)];
}

int64_t call(vfs_file *handle, operation which, const place &where, vfs_record *record, vfs_status *status,
             const vfs_lock_request *lock)
{
    const vfs_record_operation slot = slot_of(which);
    const bool related = which == operation::start;
    const void *key = where.key ? where.key->data() : nullptr;
    errno = 0;
    switch (where.mode) {
    case VFS_POS_FIRST:
    case VFS_POS_LAST:
    case VFS_POS_OFFSET: return slot(handle, record, nullptr, status, lock, where.mode, where.number);
    case VFS_POS_RRN:
        if (related) return slot(handle, record, nullptr, status, lock, where.mode, where.relation, where.number);
        return slot(handle, record, nullptr, status, lock, where.mode, where.number);
    case VFS_POS_KEY:
        if (related)
            return slot(handle, record, nullptr, status, lock, where.mode, where.relation, key, where.length,
                        where.number);
        return slot(handle, record, nullptr, status, lock, where.mode, key, where.length, where.number);
    default: return slot(handle, record, nullptr, status, lock, where.mode);
    }
}

} // namespace

file::~file()
{
    if (handle_ != nullptr) close();
}

bool file::open(const file_spec &spec)
{
    const key_block keys{spec.keys, spec.primary};
    vfs_open_block block{};
    block.stamp = 0x1122334455667788;
    block.min_record_length = spec.min_length;
    block.max_record_length = spec.max_length;
    block.options = spec.options;
    block.logical_name = spec.logical_name;
    block.path = spec.path.c_str();
    block.lock_defaults = spec.locks ? &*spec.locks : nullptr;
    block.keys = spec.keys.empty() ? nullptr : keys.get();
    block.open_flags = spec.flags;
    block.organization = spec.organization;
    block.logical_organization = spec.logical;
    block.access_mode = spec.access;
    block.record_format = spec.format;
    errno = 0;
    handle_ = ops().open(&block);
    error_ = errno;
    return handle_ != nullptr;
}

outcome file::run(operation which, const place &where, std::string_view record, const vfs_lock_request *lock)
{
    outcome result;
    vfs_status status{};
    // An area of exactly its length, so that a sanitizer sees a byte too many.
    const size_t room = which == operation::read ? std::max(area, record.size()) : record.size();
    const std::unique_ptr<char[]> bytes{new char[room]};
    memset(bytes.get(), 0xaa, room);
    std::copy(record.begin(), record.end(), bytes.get());
    vfs_record descriptor{.length = room, .bytes = bytes.get()};
    result.value = call(handle_, which, where, &descriptor, &status, lock);
    result.error = errno;
    if (result.value >= 0 && result.error != ESPIPE) result.error = 0;
    if (which == operation::read && result.value >= 0)
        result.bytes.assign(bytes.get(), std::min(room, static_cast<size_t>(result.value)));
    result.offset = status.record_offset;
    result.rrn = status.rrn;
    result.duplicate = status.duplicate == 1;
    result.key = status.key;
    return result;
}

vfs_open_block file::info()
{
    vfs_open_block block{};
    EXPECT_EQ(ops().info(handle_, &block), 0) << strerror(errno);
    return block;
}

int file::close()
{
    errno = 0;
    const int result = ops().close(handle_, &closed_);
    handle_ = nullptr;
    return result == 0 ? 0 : (errno == 0 ? -1 : errno);
}

std::vector<std::string> file::rest(bool forward)
{
    std::vector<std::string> records;
    for (;;) {
        outcome got = read(forward ? next() : prev());
        if (got.value < 0 || got.ended()) {
            EXPECT_TRUE(got.ended()) << got;
            return records;
        }
        records.push_back(std::move(got.bytes));
        if (records.size() > 10'000'000) {
            ADD_FAILURE() << "a scan that does not end";
            return records;
        }
    }
}

// ---- Surroundings ----------------------------------------------------------------------------------------------

size_t open_descriptors()
{
    size_t count = 0;
    DIR *directory = opendir("/proc/self/fd");
    while (readdir(directory) != nullptr) ++count;
    closedir(directory);
    return count - 3; // ".", ".." and the directory itself
}

std::string slurp(const std::string &path)
{
    std::ifstream in{path, std::ios::binary};
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void spill(const std::string &path, std::string_view bytes)
{
    std::ofstream{path, std::ios::binary | std::ios::trunc}.write(bytes.data(),
                                                                  static_cast<std::streamsize>(bytes.size()));
}

void poke(const std::string &path, uint64_t offset, std::string_view bytes)
{
    const int descriptor = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(pwrite(descriptor, bytes.data(), bytes.size(), static_cast<off_t>(offset)),
              static_cast<ssize_t>(bytes.size()));
    ::close(descriptor);
}

void poke(const std::string &path, uint64_t offset, uint64_t value)
{
    poke(path, offset, std::string_view{reinterpret_cast<const char *>(&value), sizeof value});
}

uint64_t peek(const std::string &path, uint64_t offset)
{
    uint64_t value = 0;
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(pread(descriptor, &value, sizeof value, static_cast<off_t>(offset)), static_cast<ssize_t>(sizeof value));
    ::close(descriptor);
    return value;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
uint64_t number_from(const char *variable, uint64_t otherwise)
{
    const char *text = getenv(variable);
    return text == nullptr || *text == '\0' ? otherwise : std::strtoull(text, nullptr, 10);
}

std::string numbered(const char *format, int64_t number)
{
    char text[64];
    snprintf(text, sizeof text, format, number);
    return text;
}
#pragma GCC diagnostic pop

environment::~environment()
{
    for (const auto &[name, value] : saved_) value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
}

void environment::set(const std::string &name, const std::optional<std::string> &value)
{
    const char *old = getenv(name.c_str());
    saved_.try_emplace(name, old ? std::optional<std::string>{old} : std::nullopt);
    value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
}

namespace {

// Standard error goes to a file of its own for the length of the process; what a dying process has printed there
// is shown on the real one.
struct caught_errors {
    int real = -1;
    int caught = -1;
    off_t taken = 0;
};

caught_errors &errors_of_process()
{
    static caught_errors state;
    return state;
}

void show_caught()
{
    const caught_errors &state = errors_of_process();
    char bytes[4096];
    off_t at = state.taken;
    for (ssize_t n = 0; (n = pread(state.caught, bytes, sizeof bytes, at)) > 0; at += n)
        if (write(state.real, bytes, static_cast<size_t>(n)) < 0) return;
}

void on_abort(int signal_number)
{
    show_caught();
    signal(signal_number, SIG_DFL);
    raise(signal_number);
}

void catch_errors()
{
    caught_errors &state = errors_of_process();
    if (state.real >= 0) return;
    fflush(stderr);
    state.real = fcntl(2, F_DUPFD_CLOEXEC, 10);
    state.caught = memfd_create("standard error", MFD_CLOEXEC);
    dup3(state.caught, 2, 0);
    signal(SIGABRT, on_abort);
    if (__sanitizer_set_report_fd)
        __sanitizer_set_report_fd(reinterpret_cast<void *>(static_cast<intptr_t>(state.real)));
}

void on_alarm(int)
{
    show_caught();
    static const char text[] = "watchdog: the driver did not come back\n";
    if (write(errors_of_process().real, text, sizeof text - 1) < 0) _exit(3);
    signal(SIGABRT, SIG_DFL);
    abort();
}

const char *const driver_variables[] = {"VFS_DEBUG",     "VFS_IO_MMAP",    "VFS_IO_AIO",           "VFS_IO_DIO",
                                        "VFS_IO_THREAD", "VFS_IO_CACHE",   "VFS_IO_HASH",          "VFS_DATA_COUNT",
                                        "VFS_DATA_SIZE", "VFS_CACHE_SIZE", "VFS_DATA_WRITEBEHIND", "VFS_DATA_READAHEAD",
                                        "VFS_LOCK",      "VFS_SYNC",       "VFS_UNCLEAN",          "VFS_DEBUG_LOCK"};

} // namespace

DriverTest::DriverTest()
{
    for (const char *name : driver_variables) variables.set(name, std::nullopt);
    // All of a test under other settings, for example VFS_TEST_SETTINGS="VFS_IO_DIO=1 VFS_DATA_COUNT=2".
    std::istringstream under{getenv("VFS_TEST_SETTINGS") != nullptr ? getenv("VFS_TEST_SETTINGS") : ""};
    for (std::string setting; under >> setting;)
        variables.set(setting.substr(0, setting.find('=')), setting.substr(setting.find('=') + 1));
    catch_errors();
    driver();
    std::string pattern = std::filesystem::temp_directory_path() / "vfs_test_XXXXXX";
    directory_ = mkdtemp(pattern.data());
    printed();
    descriptors_ = open_descriptors();
}

DriverTest::~DriverTest()
{
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

void DriverTest::TearDown()
{
    EXPECT_EQ(printed(), "");
    EXPECT_EQ(open_descriptors(), descriptors_);
}

std::string DriverTest::printed()
{
    fflush(stderr);
    caught_errors &state = errors_of_process();
    std::string text;
    char bytes[4096];
    for (ssize_t n = 0; (n = pread(state.caught, bytes, sizeof bytes, state.taken)) > 0; state.taken += n)
        text.append(bytes, static_cast<size_t>(n));
    static const std::regex ordinary{
        R"((seq update -?\d+|re-reading current item -?\d+ browse [01] tsn -?\d+ vs -?\d+|loosing hole @0x[0-9a-f]+ len=\d+|record moved from 0x[0-9a-f]+ to 0x[0-9a-f]+|new len @0x[0-9a-f]+ \d+ \d+))"};
    std::istringstream in{text};
    std::string kept;
    for (std::string line; std::getline(in, line);)
        if (!std::regex_match(line, ordinary)) kept += line + "\n";
    return kept;
}

watchdog::watchdog(unsigned seconds)
{
    catch_errors();
    signal(SIGALRM, on_alarm);
    alarm(seconds);
}

watchdog::~watchdog()
{
    alarm(0);
}

} // namespace host
