// vfsctl doctor: what of a machine and of its settings hurts the driver, tried out in the folder where files are to be.
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string_view>

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/magic.h>
#include <sys/resource.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include "commands.h"
#include "driver.h"
#include "errors.h"
#include "json.h"
#include "output.h"

namespace {

struct doctor_options {
    std::string folder = ".";
    bool json = false;
};

struct setting {
    std::string_view name, unset, meaning;
};

// Those of docs/operations.md; a test compares them.
constexpr setting settings[] = {
    {"VFS_LOCK", "2",
     "sharing: 0 unprotected, 1 or 2 one writer or several readers, 3 blocks, 4 records, else the program's"},
    {"VFS_SHARE", "unset", "above 1: an open that waits says so"},
    {"VFS_DEBUG_LOCK", "unset", "set: every lock is traced to standard error"},
    {"VFS_CACHE_SIZE", "unset", "memory for the caches of one open, in bytes or with K, M, G"},
    {"VFS_DATA_COUNT", "4", "buffers for data"},
    {"VFS_DATA_SIZE", "128", "KiB of a block of data"},
    {"VFS_DATA_READAHEAD", "count - 1", "blocks read ahead"},
    {"VFS_DATA_WRITEBEHIND", "count - 1", "whether full blocks are written while the program goes on"},
    {"VFS_SYNC", "unset", "1: every change is on the disk when its operation returns"},
    {"VFS_IO_MMAP", "on", "0: unlocked files are not mapped into memory"},
    {"VFS_IO_AIO", "unset", "0: no transfers of their own; else always through the kernel's queue"},
    {"VFS_IO_THREAD", "off", "1: a server thread for each buffer"},
    {"VFS_IO_DIO", "off", "1: past the system's page cache"},
    {"VFS_IO_CACHE", "on", "0: no hints to the system about pages"},
    {"VFS_IO_HASH", "on", "0: blocks are found by a list"},
    {"VFS_UNCLEAN", "unset", "read: files that were not closed can be read"},
    {"VFS_DEBUG", "unset", "set: a diagnosis of each open and close"},
    {"VFS_NO_FORCE_FS", "unset", "set: the routing driver keeps the driver that a name selects"},
    {"VFS_LIBRARY", "unset", "vfsctl: the driver to load"},
    {"VFS_EXTFH_TRACE", "unset", "set: the COBOL bridge prints a line for each call"},
};

class examination {
public:
    explicit examination(const doctor_options &options) : options_(options) {}
    int run();

private:
    void good(const std::string &what, const std::string &found) { add("good", what, found, {}); }
    void bad(const std::string &what, const std::string &found, const std::string &advice)
    {
        ++troubles_;
        add("attention", what, found, advice);
    }
    void add(const char *verdict, const std::string &what, const std::string &found, const std::string &advice);
    void open_files();
    void queues();
    void file_size_limit();
    void file_system();
    void byte_range_locks(int descriptor);
    void preallocation(int descriptor);
    void direct_transfers(const std::string &path);
    void library();
    void settings_in_force();

    const doctor_options &options_;
    json_value report_ = json_value::array(), settings_ = json_value::array();
    unsigned troubles_ = 0;
};

void examination::add(const char *verdict, const std::string &what, const std::string &found, const std::string &advice)
{
    json_value row{{"verdict", verdict}, {"what", what}, {"found", found}};
    if (!advice.empty()) row["advice"] = advice;
    report_.push_back(row);
}

uint64_t number_in(const char *path)
{
    std::ifstream file{path};
    uint64_t value = 0;
    file >> value;
    return value;
}

void examination::open_files()
{
    constexpr rlim_t enough = 1024; // a program with some hundred files, each with up to three descriptors
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const std::string found = limit.rlim_cur == RLIM_INFINITY ? "no limit" : std::to_string(limit.rlim_cur);
    if (limit.rlim_cur >= enough)
        good("open files of a process", found);
    else
        bad("open files of a process", found, "an open file takes up to three descriptors; raise 'ulimit -n' to 1024");
}

void examination::queues()
{
    const uint64_t most = number_in("/proc/sys/fs/aio-max-nr"), used = number_in("/proc/sys/fs/aio-nr");
    const std::string found = fmt::format("{} of {} in use", used, most);
    if (used < most / 10 * 9)
        good("requests of the kernel's asynchronous queues", found);
    else
        bad("requests of the kernel's asynchronous queues", found,
            "VFS_IO_AIO falls back to transfers that wait; raise fs.aio-max-nr with sysctl");
    rlimit locks{};
    getrlimit(RLIMIT_LOCKS, &locks);
    if (locks.rlim_cur == RLIM_INFINITY)
        good("byte-range locks of a process", "no limit of the system; 256 record locks for each file");
    else
        bad("byte-range locks of a process", std::to_string(locks.rlim_cur), "raise 'ulimit -x' to unlimited");
}

void examination::file_size_limit()
{
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    if (limit.rlim_cur == RLIM_INFINITY)
        good("size of a file", "no limit");
    else
        bad("size of a file", fmt::format("at most {} bytes", limit.rlim_cur),
            "a file that reaches it refuses further records; raise 'ulimit -f' to unlimited");
}

// Another process has to see the lock: some network file systems grant locks that only this machine, or nobody, knows of.
void examination::byte_range_locks(int descriptor)
{
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0x3200000000; // where the driver has one too
    lock.l_len = 1;
    const char *what = "byte-range locks";
    if (fcntl(descriptor, F_SETLK, &lock) == -1) {
        bad(what, std::strerror(errno), "programs cannot share files here; VFS_LOCK=0 works for one program at a time");
        return;
    }
    const pid_t child = fork();
    if (child == 0) {
        const bool seen = fcntl(descriptor, F_GETLK, &lock) == 0 && lock.l_type == F_WRLCK;
        _exit(seen ? 0 : 1);
    }
    int status = 1;
    if (child != -1) waitpid(child, &status, 0);
    if (status == 0)
        good(what, "granted, and seen by another process");
    else
        bad(what, "granted, but another process does not see them",
            "programs that share files here lose records; move them to another file system");
}

void examination::preallocation(int descriptor)
{
    const char *what = "space allocated ahead";
    if (fallocate(descriptor, FALLOC_FL_KEEP_SIZE, 0, 1 << 20) == 0)
        good(what, "works");
    else
        bad(what, std::strerror(errno), "files work, but grow in small pieces: loads are slower and more scattered");
}

void examination::direct_transfers(const std::string &path)
{
    const int direct = open(path.c_str(), O_RDWR | O_DIRECT | O_CLOEXEC);
    if (direct == -1) {
        add("note", "direct transfers", std::strerror(errno), "VFS_IO_DIO=1 cannot be used here");
        return;
    }
    close(direct);
    good("direct transfers", "work");
}

void examination::file_system()
{
    struct statfs facts {};
    if (statfs(options_.folder.c_str(), &facts) == -1)
        throw tool_error(failure_message(options_.folder, "cannot be looked at", errno, std::strerror(errno)));
    const double free = static_cast<double>(facts.f_bavail) * static_cast<double>(facts.f_bsize);
    const double share =
        facts.f_blocks == 0 ? 1 : static_cast<double>(facts.f_bavail) / static_cast<double>(facts.f_blocks);
    const std::string found = fmt::format("{:.1f} GiB, {:.0f} % of the file system", free / (1 << 30), share * 100);
    if (share < 0.05)
        bad("free space", found, "a load that runs out of it stops; make room");
    else
        good("free space", found);
    if (facts.f_type == NFS_SUPER_MAGIC || facts.f_type == SMB_SUPER_MAGIC)
        bad("kind of file system", "a network file system",
            "locks depend on the server, and a program that dies may leave them there for a while; prefer a local "
            "disk");

    std::string name = options_.folder + "/vfsctl-doctor.XXXXXX";
    const int descriptor = mkostemp(name.data(), O_CLOEXEC);
    if (descriptor == -1) {
        bad("a file in the folder", std::strerror(errno), "files cannot be made here; check its permissions");
        return;
    }
    byte_range_locks(descriptor);
    preallocation(descriptor);
    direct_transfers(name);
    close(descriptor);
    unlink(name.c_str());
}

void examination::library()
{
    try {
        good("driver", fmt::format("{} from {}", driver().name, driver_path()));
    } catch (const tool_error &error) {
        bad("driver", error.what(), "");
    }
}

void examination::settings_in_force()
{
    for (const setting &row : settings) {
        const char *value = std::getenv(std::string{row.name}.c_str());
        const bool set = value != nullptr && *value != '\0';
        settings_.push_back({{"name", row.name},
                             {"value", set ? json_value(value) : json_value(nullptr)},
                             {"default", row.unset},
                             {"meaning", row.meaning}});
    }
    for (char **entry = environ; *entry != nullptr; ++entry) {
        const std::string_view text{*entry};
        const std::string_view name = text.substr(0, text.find('='));
        const bool known =
            std::any_of(std::begin(settings), std::end(settings), [&](const setting &row) { return row.name == name; });
        if (name.starts_with("VFS_") && !known)
            bad("setting", std::string{name}, "the driver knows no such setting; is it misspelt?");
    }
}

int examination::run()
{
    library();
    open_files();
    queues();
    file_size_limit();
    file_system();
    settings_in_force();
    if (options_.json) {
        put_json({{"folder", options_.folder}, {"checks", report_}, {"settings", settings_}, {"attention", troubles_}});
        return troubles_ == 0 ? exit_good : exit_failed;
    }
    for (const json_value &row : report_) {
        fmt::print("{:<10} {}: {}\n", row["verdict"].get<std::string>(), row["what"].get<std::string>(),
                   row["found"].get<std::string>());
        if (row.contains("advice")) fmt::print("{:<10}   {}\n", "", row["advice"].get<std::string>());
    }
    fmt::print("settings:\n");
    for (const json_value &row : settings_)
        fmt::print("  {:<21} {:<10} {}\n", row["name"].get<std::string>(),
                   row["value"].is_null() ? fmt::format("({})", row["default"].get<std::string>())
                                          : row["value"].get<std::string>(),
                   row["meaning"].get<std::string>());
    fmt::print("{}\n", troubles_ == 0 ? "nothing needs attention"
                                      : fmt::format("{} thing{} need{} attention", troubles_, troubles_ == 1 ? "" : "s",
                                                    troubles_ == 1 ? "s" : ""));
    return troubles_ == 0 ? exit_good : exit_failed;
}

} // namespace

command_body declare_doctor(CLI::App &command)
{
    auto options = std::make_shared<doctor_options>();
    command.add_option("folder", options->folder, "Where files are to be (default: here)");
    command.add_flag("--json", options->json, "Print JSON");
    return [options] { return examination{*options}.run(); };
}
