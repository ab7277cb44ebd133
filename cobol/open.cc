// OPEN: which file, with which locks, and whether the file is what the program says it is.
#include "bridge.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// What the program asks of a file before it is looked at.
struct wanted_file {
    open_mode mode;
    bool exclusive, manual, automatic, several;
};

enum class presence : uint8_t { missing, there, unknown }; // unknown: the driver's open is going to say why

presence look_for(const std::string &path, struct stat *facts)
{
    if (stat(path.c_str(), facts) == 0) return presence::there;
    return errno == ENOENT || errno == ENOTDIR ? presence::missing : presence::unknown;
}

wanted_file wanted(const control_block &fcd, open_mode mode)
{
    wanted_file file{.mode = mode, .exclusive = false, .manual = false, .automatic = false, .several = false};
    unsigned clauses = 0;
    if (running.file != nullptr) {
        clauses = running.file->lock_mode | static_cast<unsigned>(running.sharing);
        file.exclusive = (clauses & COB_FILE_EXCLUSIVE) != 0;
        file.manual = (clauses & COB_LOCK_MANUAL) != 0;
        file.automatic = (clauses & COB_LOCK_AUTOMATIC) != 0;
        file.several = (clauses & COB_LOCK_MULTIPLE) != 0;
    } else {
        file.exclusive = (fcd.lock_mode() & FCD_LOCK_EXCL_LOCK) != 0;
        file.manual = (fcd.lock_mode() & FCD_LOCK_MANU_LOCK) != 0;
        file.automatic = (fcd.lock_mode() & FCD_LOCK_AUTO_LOCK) != 0;
    }
    if (mode == open_mode::output || mode == open_mode::extend) file.exclusive = true;
    return file;
}

vfs_lock_request lock_request(const wanted_file &file)
{
    vfs_lock_request request{};
    request.wait_mode = VFS_WAIT_NEVER;
    const bool shares = !file.exclusive && (file.manual || file.automatic);
    if (shares) {
        request.share_mode = VFS_SHARE_ALL;
        request.lock_mode = VFS_LOCK_RECORD;
        request.lock_flags = file.several ? VFS_LOCK_SEVERAL : 0;
        return request;
    }
    const bool readers_only = !file.exclusive && file.mode == open_mode::input;
    request.share_mode = readers_only ? VFS_SHARE_READ : VFS_SHARE_NONE;
    request.lock_mode = VFS_LOCK_FILE;
    return request;
}

uint32_t flags_for(const wanted_file &file, const open_file &opened, bool makes)
{
    const std::string &path = opened.path;
    const bool reads_too = std::any_of(opened.keys.begin(), opened.keys.end(), [](const key_shape &key) {
        return key.sparse; // other values are looked up before a record is written
    });
    uint32_t flags = O_RDWR;
    switch (file.mode) {
    case open_mode::input:
        // Read locks alone would let other readers in.
        flags = file.exclusive && access(path.c_str(), W_OK) == 0 ? O_RDWR : O_RDONLY;
        break;
    case open_mode::output: flags = (reads_too ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC; break;
    case open_mode::io: break;
    case open_mode::extend:
        if (opened.kind == organization::sequential) flags = O_WRONLY | O_APPEND;
        break;
    }
    return makes ? flags | O_CREAT : flags;
}

// The host's block of key descriptions, as one piece of memory.
class key_block {
public:
    explicit key_block(const std::vector<key_shape> &keys)
    {
        size_t parts = 0;
        for (const key_shape &key : keys) parts += key.parts.size();
        const size_t bytes =
            sizeof(vfs_key_desc) + keys.size() * sizeof(vfs_key_desc_entry) + parts * sizeof(vfs_key_part);
        words_.resize(bytes / sizeof(int64_t));
        auto *head = reinterpret_cast<vfs_key_desc *>(words_.data());
        auto *entry = reinterpret_cast<vfs_key_desc_entry *>(head + 1);
        auto *part = reinterpret_cast<vfs_key_part *>(entry + keys.size());
        *head = {.total_size = static_cast<int64_t>(bytes),
                 .count = static_cast<int64_t>(keys.size()),
                 .max_extent = 0,
                 .primary_key = 0,
                 .flags = 0};
        for (size_t k = 0; k < keys.size(); ++k, ++entry) {
            const key_shape &key = keys[k];
            const bool duplicates = key.duplicates || key.sparse; // suppressed values are all alike
            entry->length = static_cast<int64_t>(key.length);
            entry->part_count = static_cast<int64_t>(key.parts.size());
            entry->part_list = reinterpret_cast<char *>(part) - reinterpret_cast<char *>(head);
            entry->flags =
                static_cast<uint8_t>((k == 0 ? VFS_KEY_PRIMARY : 0) | (duplicates && k != 0 ? VFS_KEY_DUPLICATES : 0) |
                                     (key.parts.size() > 1 ? VFS_KEY_MULTI_PART : 0));
            for (const key_part &each : key.parts)
                *part++ = {static_cast<int64_t>(each.offset), static_cast<int64_t>(each.length), 0};
            head->max_extent = std::max(head->max_extent, entry->length);
            if (duplicates && k != 0) head->flags = 1;
        }
    }
    const vfs_key_desc *get() const { return reinterpret_cast<const vfs_key_desc *>(words_.data()); }

private:
    std::vector<int64_t> words_;
};

// A setting for the time of one open, unless the user has made it; null: none.
class setting_for_open {
public:
    setting_for_open(const char *name, const char *value) : name_(name)
    {
        const char *now = getenv(name);
        set_ = value != nullptr && (now == nullptr || *now == '\0');
        if (set_) setenv(name, value, 1);
    }
    ~setting_for_open()
    {
        if (set_) unsetenv(name_);
    }
    setting_for_open(const setting_for_open &) = delete;
    setting_for_open &operator=(const setting_for_open &) = delete;

private:
    const char *name_;
    bool set_;
};

uint32_t driver_organization(organization kind)
{
    if (kind == organization::sequential) return VFS_ORG_SEQUENTIAL;
    return kind == organization::relative ? VFS_ORG_RELATIVE : VFS_ORG_INDEXED;
}

bool open_with_driver(const wanted_file &wanted, bool makes, open_file *file)
{
    const key_block keys{file->keys};
    const vfs_lock_request locks = lock_request(wanted);
    vfs_open_block block{};
    block.path = file->path.c_str();
    block.logical_name = file->name.c_str();
    block.min_record_length = static_cast<int64_t>(file->minimum);
    block.max_record_length = static_cast<int64_t>(file->maximum);
    block.lock_defaults = &locks;
    block.keys = file->kind == organization::indexed ? keys.get() : nullptr;
    block.open_flags = flags_for(wanted, *file, makes);
    block.organization = block.logical_organization = driver_organization(file->kind);
    block.access_mode = file->access == access::sequential ? VFS_ACCESS_SEQUENTIAL
                        : file->access == access::random   ? VFS_ACCESS_RANDOM
                                                           : VFS_ACCESS_DYNAMIC;
    block.record_format = file->fixed ? VFS_FORMAT_FIXED : VFS_FORMAT_VARIABLE;
    const setting_for_open clauses_decide{"VFS_LOCK", "9"};
    // Programs of this kind read their files by key all over the place.
    // A file of the program's own is a batch's; those who share one are many.
    const char *memory = locks.lock_mode == VFS_LOCK_RECORD ? "16M" : "64M";
    const setting_for_open budget{"VFS_CACHE_SIZE", getenv("VFS_DATA_COUNT") == nullptr ? memory : nullptr};
    file->handle = ops().open(&block);
    file->shared = locks.lock_mode == VFS_LOCK_RECORD;
    return file->handle != nullptr;
}

// Empty when the file is what the program describes.
std::string difference(const open_file &file)
{
    vfs_open_block now{};
    if (ops().info(file.handle, &now) != 0) return "it cannot say what it is";
    if (now.logical_organization != driver_organization(file.kind)) return "it has another organization";
    if ((now.record_format == VFS_FORMAT_FIXED) != file.fixed)
        return file.fixed ? "its records have several lengths" : "its records have one length";
    const auto said = [](const char *what, int64_t in_file, size_t in_program) {
        return std::string{what} + " record has " + std::to_string(in_file) + " bytes, in the program " +
               std::to_string(in_program);
    };
    if (now.max_record_length != static_cast<int64_t>(file.maximum))
        return said("its longest", now.max_record_length, file.maximum);
    if (now.min_record_length != static_cast<int64_t>(file.minimum))
        return said("its shortest", now.min_record_length, file.minimum);
    return {};
}

void say(const open_file &file, const std::string &what)
{
    fprintf(stderr, "%s (%s): %s\n", file.name.c_str(), file.path.c_str(), what.c_str());
}

// EXTEND of an indexed file goes on behind its highest key.
file_status note_highest_key(open_file *file)
{
    std::string area(file->maximum, '\0');
    vfs_record record{.length = area.size(), .bytes = area.data()};
    const int64_t length = ops().read(file->handle, &record, nullptr, nullptr, nullptr, VFS_POS_LAST, int64_t{0});
    if (length == -1 && errno != ESPIPE) return status_of_error(errno, asked::open, file->kind);
    if (length > 0) file->keys[0].take(area.data(), &file->key_written);
    return {};
}

file_status refused(const open_file &file, int error, bool makes)
{
    const asked what = makes ? asked::making : file.mode == open_mode::output ? asked::output_open : asked::open;
    if ((error == EINVAL || error == EFBIG) && (makes || file.mode == open_mode::output)) {
        say(file, "its keys or its record lengths are more than a file of the driver can have");
        return status_of(30);
    }
    if (error == EINVAL)
        say(file,
            "it is no file of the driver, or its keys are others than the program's; 'vfsctl info' says what it is");
    if ((error == ENOENT || error == ENOTDIR) && makes) return status_of(file.mode == open_mode::output ? 30 : 35);
    return status_of_error(error, what, file.kind);
}

} // namespace

bool is_of_runtime(const control_block &fcd)
{
    if (!fcd.is_record_file()) return true;
    const std::optional<std::string> path = path_of_name(name_in_program(fcd));
    struct stat facts {};
    return path && look_for(*path, &facts) == presence::there && !S_ISREG(facts.st_mode) && !S_ISDIR(facts.st_mode);
}

file_status file_open(control_block *fcd, open_mode mode)
{
    auto file = std::make_unique<open_file>();
    file->name = name_in_program(*fcd);
    const std::optional<std::string> path = path_of_name(file->name);
    if (!path) return status_of(31);
    file->path = *path;
    file->record_area = fcd->record();
    file->owner = running.file;
    if (running.file != nullptr ? running.locked : file_was_locked(file->path, file->record_area)) return status_of(38);
    file->mode = mode;
    file->kind = fcd->kind();
    file->access = fcd->access_mode();
    file->minimum = fcd->minimum();
    file->maximum = fcd->maximum();
    file->fixed = fcd->fixed();
    file->keys = fcd->keys();
    if (file->kind == organization::indexed && file->keys.empty()) return status_of(30);
    if (running.file != nullptr && running.file->record != nullptr) {
        // A key of one part arrives without its place.
        for (size_t k = 0; k < file->keys.size() && k < running.file->nkeys; ++k) {
            const cob_file_key &said = running.file->keys[k];
            if (said.count_components == 1 && file->keys[k].parts.size() == 1)
                file->keys[k].parts[0].offset =
                    static_cast<size_t>(said.component[0]->data - running.file->record->data);
        }
    }

    struct stat facts {};
    const presence seen = look_for(file->path, &facts);
    if (seen == presence::there && S_ISDIR(facts.st_mode)) return status_of(37);
    const bool optional_missing = fcd->optional() && seen == presence::missing;
    const bool empty = seen == presence::there && facts.st_size == 0;
    const wanted_file how = wanted(*fcd, mode);
    file->manual = how.manual;
    file->automatic = how.automatic;
    file_status status{};
    if (mode == open_mode::input && (optional_missing || empty)) {
        if (optional_missing) status = status_of(5);
    } else {
        const bool makes = mode != open_mode::input && mode != open_mode::output && (optional_missing || empty);
        if (!open_with_driver(how, makes, file.get())) {
            if (errno == ENOENT && seen == presence::there) return file_open(fcd, mode); // it has just gone
            return refused(*file, errno, makes);
        }
        if (mode != open_mode::output && !makes) {
            if (const std::string other = difference(*file); !other.empty()) {
                say(*file, other);
                return status_of(39);
            }
        }
        if (mode == open_mode::extend && file->kind == organization::indexed)
            if (const file_status looked = note_highest_key(file.get()); !looked.good()) return looked;
        if (optional_missing && mode != open_mode::output) status = status_of(5);
    }
    file->block = fcd->raw();
    remember(file.get());
    fcd->set_handle(file.release());
    return status;
}
