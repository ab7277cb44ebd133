// resolve_test.cc: which driver serves a name and what the real name is, asked of this driver and of the routing one.
// Siblings of the routing driver are loaded first, so that it finds them wherever they lie.
#include "host.h"

#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace host;

struct answer {
    std::string driver; // its name, "" for none
    std::string name;
    int error;
};

class Resolve : public DriverTest {
protected:
    static void SetUpTestSuite()
    {
        for (const char *sibling : {SIBLING_VFS, SIBLING_API, SIBLING_STRANGER})
            ASSERT_NE(dlopen(sibling, RTLD_NOW), nullptr) << dlerror();
    }

    void SetUp() override
    {
        for (const char *name : {"KELP_TK_RVX_SERVER", "CUSTOMER", "dd_CUSTOMER", "DD_CUSTOMER", "VFS_NO_FORCE_FS"})
            variables.set(name, std::nullopt);
        variables.set("HOME", "/home/operator");
        variables.set("DATA_DIR", "/srv/data");
        variables.set("TWO_WORDS", "one two");
    }

    static const vfs_driver *routing()
    {
        static void *library = dlopen(ROUTING_LIBRARY, RTLD_NOW);
        return library == nullptr ? nullptr : reinterpret_cast<const vfs_driver *(*)()>(dlsym(library, "vfs"))();
    }

    static answer ask(const vfs_driver *of, const char *name, const char *type = nullptr,
                      const char *assigned = nullptr)
    {
        const char *resolved = "";
        const vfs_driver *driver = of->ops.resolve(type, assigned, name, &resolved);
        const int error = errno;
        return {driver == nullptr ? "" : driver->name, resolved, error};
    }

    std::string make(const std::string &name, const std::string &bytes)
    {
        spill(path(name), bytes);
        return path(name);
    }
    static std::string head_of(const char *tag, size_t at)
    {
        std::string bytes(64, '\0');
        bytes.replace(at, strlen(tag), tag);
        return bytes;
    }
};

struct name_row {
    const char *written, *resolved;
};

// As users write them. None of these files exists, so that the name alone decides.
const name_row names[] = {
    {"customer.dat", "customer.dat"},
    {"/var/data/customer.dat", "/var/data/customer.dat"},
    {"sales-2024.dat", "sales-2024.dat"},
    {"cust-2024.dat", "cust-2024.dat"},
    {"abc-def", "abc-def"},
    {"a-b", "a-b"},
    {"-leading", "-leading"},
    {"psx-", "psx-"},
    {"psx", "psx"},
    {"psx-/data/file.dat", "/data/file.dat"},
    {"PSX-/data/file.dat", "/data/file.dat"},
    {"Kfm-/data/file.dat", "/data/file.dat"},
    {"kfm-relative.dat", "relative.dat"},
    {"lsq-/tmp/none/report.txt", "/tmp/none/report.txt"},
    {"rsd-x", "x"},
    {"wbn-/data/b", "/data/b"},
    {"stdio-/data/s", "/data/s"},
    {"brix-/data/b", "/data/b"},
    {"olup-/data/o", "/data/o"},
    {"rdq-/.:/rdq/queue", "/.:/rdq/queue"},
    {"psx-sales-2024.dat", "sales-2024.dat"},
    {"psxfile-a", "psxfile-a"},
    {"vfspsx-/data/file", "/data/file"},
    {"~/orders", "/home/operator/orders"},
    {"psx-~/orders", "/home/operator/orders"},
    {"$DATA_DIR/orders", "/srv/data/orders"},
    {"${DATA_DIR}/orders", "/srv/data/orders"},
    {"kfm-$DATA_DIR/orders", "/srv/data/orders"},
    {"$(hostname)/orders", "$(hostname)/orders"},
    {"$TWO_WORDS", "$TWO_WORDS"},
    {"$NOT_SET_ANYWHERE", "$NOT_SET_ANYWHERE"},
    {"price$", "price$"},
    {"with space.dat", "with space.dat"},
    {"/.:/kelp/rvx/server1/custfile", "/.:/kelp/rvx/server1/custfile"},
    {"/.:/rdq/queue", "/.:/rdq/queue"},
    {"rvx-/.:/kelp/rvx/server1/custfile", "/.:/kelp/rvx/server1/custfile"},
};

} // namespace

TEST_F(Resolve, NamesAsUsersWriteThem)
{
    for (const name_row &row : names) {
        const answer got = ask(driver(), row.written);
        EXPECT_EQ(got.driver, "vfs_psx") << row.written;
        EXPECT_EQ(got.name, row.resolved) << row.written;
        EXPECT_EQ(got.error, 0) << row.written;
    }
}

TEST_F(Resolve, NameThatIsMissingOrTooLongIsRefused)
{
    EXPECT_EQ(ask(driver(), nullptr).error, EINVAL);
    EXPECT_EQ(ask(driver(), "").error, EINVAL);
    EXPECT_EQ(ask(driver(), nullptr, "psx", "CUSTOMER").error, EINVAL) << "no such variable";
    const std::string endless(5000, 'n');
    EXPECT_EQ(ask(driver(), endless.c_str()).error, ENAMETOOLONG);
    EXPECT_EQ(ask(driver(), endless.c_str()).driver, "");
    variables.set("KELP_TK_RVX_SERVER", endless.substr(0, 4000));
    EXPECT_EQ(ask(driver(), ("rvx-" + endless.substr(0, 200)).c_str()).error, ENAMETOOLONG);
    variables.set("KELP_TK_RVX_SERVER", std::nullopt);
}

TEST_F(Resolve, ResolvedNameMayBeResolvedAgain)
{
    const char *name = nullptr;
    ASSERT_NE(ops().resolve(nullptr, nullptr, "psx-~/orders", &name), nullptr);
    ASSERT_NE(ops().resolve(nullptr, nullptr, name, &name), nullptr);
    EXPECT_STREQ(name, "/home/operator/orders");
    EXPECT_NE(ops().resolve(nullptr, nullptr, name, nullptr), nullptr);
}

TEST_F(Resolve, ShortServerNameNeedsItsServer)
{
    const answer refused = ask(driver(), "rvx-custfile");
    EXPECT_EQ(refused.driver, "");
    EXPECT_EQ(printed(), "RVX shortname usage requires setting:\n`export KELP_TK_RVX_SERVER=/.:/kelp/rvx/<server>`\n");
    variables.set("KELP_TK_RVX_SERVER", "/.:/kelp/rvx/server1");
    EXPECT_EQ(ask(driver(), "rvx-custfile").name, "/.:/kelp/rvx/server1/custfile");
    variables.set("KELP_TK_RVX_SERVER", "/srv/rvx");
    EXPECT_EQ(ask(driver(), "/srv/rvx/custfile").name, "/srv/rvx/custfile") << "complete already";
}

TEST_F(Resolve, AssignmentVariablesAreAskedInOrder)
{
    variables.set("DD_CUSTOMER", "kfm-/third");
    EXPECT_EQ(ask(driver(), nullptr, nullptr, "CUSTOMER").name, "/third");
    variables.set("DD_CUSTOMER", std::nullopt);
    variables.set("dd_CUSTOMER", "kfm-/no/such/x");
    EXPECT_EQ(ask(driver(), "plain", nullptr, "CUSTOMER").name, "/no/such/x");
    EXPECT_EQ(ask(routing(), "plain", nullptr, "CUSTOMER").driver, "vfs_kfm");
    variables.set("CUSTOMER", "/without/module");
    EXPECT_EQ(ask(driver(), "plain", nullptr, "CUSTOMER").name, "/no/such/x") << "the next one names a module";
    variables.set("CUSTOMER", "psx-/first");
    EXPECT_EQ(ask(driver(), "plain", nullptr, "CUSTOMER").name, "/first");
    EXPECT_EQ(ask(driver(), "psx-/named", nullptr, "CUSTOMER").name, "/named") << "a module in the name comes first";
}

TEST_F(Resolve, ThisDriverAnswersForItselfWhateverTheFileHolds)
{
    const std::string empty = make("empty", "");
    EXPECT_EQ(ask(driver(), ("psx-" + empty).c_str()).driver, "vfs_psx");
    EXPECT_EQ(ask(driver(), ("kfm-" + empty).c_str()).driver, "vfs_psx");
    EXPECT_EQ(ask(driver(), ("psx-" + empty + "/under").c_str()).error, ENOTDIR);
}

TEST_F(Resolve, RoutingGoesByWhatTheFileHolds)
{
    const std::string ours = make("ours", head_of("vfs", 24)), keyed = make("keyed", head_of("KFM", 8));
    const std::string plain = make("plain", "just bytes"), empty = make("empty", "");
    const struct {
        std::string name;
        const char *type, *driver;
        int error;
    } rows[] = {
        {ours, nullptr, "vfs_psx", 0},
        {keyed, nullptr, "vfs_kfm", 0},
        {"psx-" + ours, nullptr, "vfs_psx", 0},
        {"psx-" + keyed, nullptr, "vfs_kfm", EBADF}, // the file is of another kind: a warning
        {"kfm-" + ours, nullptr, "vfs_psx", EBADF},
        {"brix-" + keyed, nullptr, "vfs_kfm", 0},
        {"psx-" + empty, nullptr, "vfs_kfm", EBADF},
        {"brix-" + empty, nullptr, "vfs_kfm", EBADF},
        {empty, "psx", "vfs_psx", 0},
        {"psx-" + path("new"), nullptr, "vfs_kfm", 0}, // new files of this kind are made by that driver
        {"brix-" + path("new"), nullptr, "vfs_kfm", 0},
        {path("new"), "psx", "vfs_psx", 0},
        {path("new"), "KFM", "vfs_kfm", 0},
        {path("new"), nullptr, "", ERANGE},
        {path("new"), "nonsense", "", ERANGE},
        {path(), nullptr, "", ERANGE}, // a folder is the C library's: no driver
    };
    mkdir(path().c_str(), 0700);
    for (const auto &row : rows) {
        const answer got = ask(routing(), row.name.c_str(), row.type);
        EXPECT_EQ(got.driver, row.driver) << row.name;
        EXPECT_EQ(got.error, row.error) << row.name;
    }
    rmdir(path().c_str());
    EXPECT_EQ(printed(), "");
}

TEST_F(Resolve, LibraryThatIsMissingOrStrangeIsRefused)
{
    const std::string plain = make("plain", "just bytes and more of them, enough for a head");
    EXPECT_EQ(ask(routing(), plain.c_str()).error, ERANGE);
    EXPECT_EQ(printed(),
              "dlopen(libvfs_rsd_64r.so) = libvfs_rsd_64r.so: cannot open shared object file: No such file or "
              "directory\n");
    EXPECT_EQ(ask(routing(), "lsq-/no/such/file").error, ERANGE) << "speaks through vfs_api";
    EXPECT_EQ(printed(), "dlsym(vfs_api) = \n");
    EXPECT_EQ(ask(routing(), "olup-/no/such/file").error, ERANGE) << "its name does not begin as a driver's";
    EXPECT_EQ(printed(), "");
    EXPECT_EQ(ask(routing(), "wbn-/no/such/file").error, ERANGE) << "its own library, whatever the module";
    EXPECT_NE(printed().find("dlopen(libvfs_wbn_64r.so) = "), std::string::npos);
    EXPECT_EQ(ask(routing(), "stdio-/no/such/file").error, ERANGE);
}

TEST_F(Resolve, NewFileStaysWithItsModuleWhenAskedTo)
{
    // Read once per process, so that it takes a process that has not read it.
    if (getenv("RESOLVE_TEST_INNER") == nullptr) {
        const std::string command = "RESOLVE_TEST_INNER=1 /proc/" + std::to_string(getpid()) +
                                    "/exe --gtest_filter=Resolve.NewFileStaysWithItsModuleWhenAskedTo >/dev/null";
        EXPECT_EQ(system(command.c_str()), 0);
        return;
    }
    variables.set("VFS_NO_FORCE_FS", "1");
    EXPECT_EQ(ask(routing(), ("psx-" + path("new")).c_str()).driver, "vfs_psx");
    EXPECT_EQ(ask(routing(), ("kfm-" + path("new")).c_str()).driver, "vfs_kfm");
    EXPECT_EQ(ask(routing(), ("brix-" + path("new")).c_str()).driver, "vfs_kfm") << "that one is not kept";
}

TEST_F(Resolve, LooksAtAnOpenFileWithoutCostingItsLocks)
{
    file f{indexed(path(), {{.parts = {{0, 8}}}}, 100)};
    EXPECT_EQ(ask(routing(), path().c_str()).driver, "vfs_psx");
    const pid_t child = fork();
    if (child == 0) {
        const int descriptor = open(path().c_str(), O_RDWR);
        struct flock lock {
            .l_type = F_WRLCK, .l_whence = SEEK_SET, .l_start = 0, .l_len = 0, .l_pid = 0
        };
        _exit(fcntl(descriptor, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0) << "the file is locked as before";
    EXPECT_EQ(f.close(), 0);
}

TEST_F(Resolve, RoutingDriverServesNoFile)
{
    const vfs_driver *driver = routing();
    ASSERT_NE(driver, nullptr);
    EXPECT_EQ(std::string{driver->name}, "vfs_gen");
    EXPECT_EQ(driver->size, 200U);
    const vfs_ops &slots = driver->ops;
    const auto refused = [](int64_t result) {
        const bool right = result == -1 && errno == ENOSYS;
        errno = 0;
        return right;
    };
    EXPECT_TRUE(refused(slots.access("/")));
    EXPECT_TRUE(refused(slots.rename("a", "b")));
    EXPECT_EQ(slots.slot_3, nullptr);
    EXPECT_TRUE(refused(slots.unlink("/")));
    vfs_open_block block{};
    EXPECT_EQ(slots.open(&block), nullptr);
    EXPECT_TRUE(refused(-1));
    EXPECT_TRUE(refused(slots.info(nullptr, nullptr)));
    EXPECT_TRUE(refused(slots.flush(nullptr)));
    EXPECT_TRUE(refused(slots.close(nullptr, nullptr)));
    EXPECT_TRUE(refused(slots.at_end(nullptr)));
    for (const vfs_record_operation operation : {slots.read, slots.write, slots.rewrite, slots.delete_record,
                                                 slots.start, slots.position, slots.lock, slots.unlock})
        EXPECT_TRUE(refused(operation(nullptr, nullptr, nullptr, nullptr, nullptr, 0)));
    EXPECT_TRUE(refused(slots.unlock_all(nullptr)));
    EXPECT_EQ(slots.error_text(nullptr, 0, nullptr, 1), nullptr);
    EXPECT_TRUE(refused(-1));
}
