// session_test.cc: what a session leaves in the file besides its records: the words that say whether it is whole, and
// the checks that keep one handle from making the file anew under another.
#include "checker.h"
#include "host.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace {

using namespace host;

class Session : public DriverTest {
protected:
    file_spec spec(uint32_t flags = O_RDWR) { return indexed(path(), keys, 100).with_flags(flags); }

    void make(int records)
    {
        file f{spec(O_RDWR | O_CREAT)};
        ASSERT_TRUE(f.ok()) << f.error();
        for (int n = 0; n < records; ++n) EXPECT_GE(f.write(record(n), by_record()).value, 0);
        ASSERT_EQ(f.close(), 0);
        ASSERT_EQ(check_file(path()), "");
    }

    static std::string record(int n) { return numbered("%04ld", n) + numbered("%02ld", n % 7) + "text"; }

    int error_of(const file_spec &what)
    {
        file f;
        return f.open(what) ? 0 : f.error();
    }

    const std::vector<key> keys{{.parts = {{0, 4}}}, {.parts = {{4, 2}}, .duplicates = true}};
};

TEST_F(Session, AFileIsMarkedFromItsCreationToItsClose)
{
    file f{spec(O_RDWR | O_CREAT)};
    EXPECT_EQ(peek(path(), state_at), 0u);
    EXPECT_NE(peek(path(), boot_at), 0u);
    EXPECT_GE(f.write(record(1), by_record()).value, 0);
    EXPECT_EQ(peek(path(), state_at), 1u);
    EXPECT_EQ(f.flush(), 0);
    EXPECT_EQ(peek(path(), state_at), 0u);
    EXPECT_EQ(f.close(), 0);
    EXPECT_EQ(peek(path(), boot_at), 0u);
    EXPECT_EQ(check_file(path()), "");
}

TEST_F(Session, AFirstOperationThatFailsLeavesNoMark)
{
    make(3);
    for (const char *lock : {"0", "2", "4"}) {
        variables.set("VFS_LOCK", lock);
        file f{spec()};
        EXPECT_EQ(f.write(record(1), by_record()).value, -1);
        EXPECT_EQ(f.close(), 0) << lock;
        EXPECT_EQ(peek(path(), state_at), 0u) << lock;
        EXPECT_EQ(peek(path(), boot_at), 0u) << lock;
    }
    EXPECT_EQ(check_file(path()), "");
}

TEST_F(Session, NoFileIsMadeAnewUnderAnotherHandle)
{
    make(3);
    {
        file f{spec()};
        for (int n = 0; n < 3; ++n) EXPECT_EQ(f.erase(by_record(), record(n)).value, 0);
        EXPECT_EQ(f.close(), 0);
    }
    printed();
    variables.set("VFS_LOCK", "0");
    file reader{spec(O_RDONLY)};
    ASSERT_TRUE(reader.ok());
    variables.set("VFS_LOCK", std::nullopt);
    file writer{spec()};
    ASSERT_TRUE(writer.ok()) << writer.error();
    EXPECT_EQ(printed().find("Re-initializing"), std::string::npos);
    EXPECT_EQ(writer.close(), 0);
    EXPECT_EQ(reader.close(), 0);
    file alone{spec()};
    EXPECT_NE(printed().find("Re-initializing"), std::string::npos);
    EXPECT_EQ(alone.close(), 0);
    EXPECT_EQ(check_file(path()), "");
}

TEST_F(Session, AnotherWriterWithoutLocksIsMetByTheNextChangeThatIsSynced)
{
    make(3);
    variables.set("VFS_LOCK", "0");
    variables.set("VFS_SYNC", "1");
    variables.set("VFS_IO_MMAP", "0"); // what goes through a mapping is in the file before anybody looks
    file a{spec()};
    EXPECT_GE(a.write(record(10), by_record()).value, 0);
    file b{spec()};
    printed(); // the warning of two writers
    EXPECT_TRUE(b.read(by_key("0010")).found(record(10)));
    EXPECT_GE(b.write(record(11), by_record()).value, 0);
    EXPECT_TRUE(a.write(record(12), by_record()).failed(ESTALE));
    EXPECT_EQ(a.close(), ESTALE);
    EXPECT_EQ(b.close(), 0);
    EXPECT_EQ(file{spec(O_RDONLY)}.rest(), (std::vector{record(0), record(1), record(2), record(10), record(11)}));
}

TEST_F(Session, TruncatingWithoutLocksIsRefusedWhileOthersHoldThem)
{
    make(3);
    file holder{spec()};
    const std::string before = slurp(path());
    variables.set("VFS_LOCK", "0");
    EXPECT_EQ(error_of(spec(O_RDWR | O_TRUNC)), EAGAIN);
    EXPECT_EQ(slurp(path()), before);
    printed(); // the warning of two writers
    EXPECT_EQ(holder.close(), 0);
    EXPECT_EQ(check_file(path()), "");
}

TEST_F(Session, KeyTablesAreCheckedAgainstEachOther)
{
    make(3);
    const std::string sound = slurp(path());
    const uint64_t table = peek(path(), table_at), end = peek(path(), table_end_at);
    const auto refused = [&](uint64_t at, uint64_t value) {
        poke(path(), at, value);
        EXPECT_EQ(error_of(spec()), EINVAL) << at;
        spill(path(), sound);
    };
    refused(table + 192 + 112, table + peek(path(), table + 112) - (table + 192)); // key 1 low area = key 0 low area
    refused(table + 120, peek(path(), table + 112));                               // high area = low area
    refused(table + 112, end - table - 8);                                         // in the key table
    refused(table_end_at, end + 192);
    refused(table_end_at, table - 192);
    EXPECT_EQ(error_of(spec()), 0);
}

TEST_F(Session, DirectTransfersReachTheWordsOfTheHeader)
{
    variables.set("VFS_IO_DIO", "1");
    for (const uint32_t flags : {0, O_DIRECT}) {
        make(5);
        for (const char *lock : {"0", "2"}) {
            variables.set("VFS_LOCK", lock);
            file f{spec(O_RDWR | flags)};
            ASSERT_TRUE(f.ok()) << f.error();
            EXPECT_GE(f.write(record(100 + *lock), by_record()).value, 0);
            EXPECT_EQ(f.flush(), 0);
            EXPECT_EQ(f.close(), 0);
            EXPECT_EQ(check_file(path()), "");
        }
        unlink(path().c_str());
        variables.set("VFS_LOCK", std::nullopt);
        variables.set("VFS_IO_DIO", "0"); // the host's own O_DIRECT next, which the driver leaves out
    }
}

TEST_F(Session, AForkedChildFreesItsHandleAndTouchesNothing)
{
    make(3);
    file f{spec()};
    EXPECT_GE(f.write(record(10), by_record()).value, 0);
    const pid_t child = fork();
    if (child == 0) _exit(f.close());
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_GE(f.write(record(11), by_record()).value, 0);
    EXPECT_EQ(f.close(), 0);
    EXPECT_EQ(check_file(path()), "");
}

TEST_F(Session, DevicesAreForOutput)
{
    file_spec device = flat("/dev/null", VFS_FORMAT_VARIABLE, 50).with_access(VFS_ACCESS_SEQUENTIAL);
    EXPECT_EQ(error_of(device.with_flags(O_RDWR)), EBADF);
    EXPECT_EQ(error_of(device.with_flags(O_RDONLY)), EBADF);
    file f{device.with_flags(O_WRONLY)};
    ASSERT_TRUE(f.ok()) << f.error();
    EXPECT_GE(f.write("record").value, 0);
    EXPECT_EQ(f.flush(), 0);
    EXPECT_EQ(f.close(), 0);
}

// A pipe has no place for a header. It is looked at no further than it takes to know that.
TEST_F(Session, PipesAreRefused)
{
    ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
    file_spec pipe = flat(path(), VFS_FORMAT_VARIABLE, 50).with_access(VFS_ACCESS_SEQUENTIAL);
    EXPECT_EQ(error_of(pipe.with_flags(O_RDONLY)), EBADF);
    variables.set("VFS_LOCK", "0");
    for (const uint32_t flags : {O_RDONLY, O_WRONLY, O_RDWR}) EXPECT_EQ(error_of(pipe.with_flags(flags)), EBADF);
    EXPECT_EQ(error_of(indexed(path(), {{.parts = {{0, 8}}}}, 50).with_flags(O_RDWR)), EBADF);
    unlink(path().c_str());
    spill(path(), ""); // nor has a stream, whatever it lies in
    EXPECT_EQ(error_of(pipe.with_flags(O_RDWR).with_options(VFS_OPT_STREAM)), EBADF);
}

} // namespace
