// open_test.cc: which opens succeed, which fail and with what, what an open leaves behind, and how handles of one
// process meet. Settings must not change what a file answers.
#include "../grouping.h"
#include "checker.h"
#include "host.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <set>

namespace {

using namespace host;

class Open : public DriverTest {
protected:
    int error_of(const file_spec &spec)
    {
        file f;
        return f.open(spec) ? 0 : f.error();
    }

    file_spec plain(uint32_t flags = O_RDWR | O_CREAT)
    {
        return flat(path(), VFS_FORMAT_VARIABLE, 50).with_flags(flags);
    }

    void make(const file_spec &spec, std::initializer_list<const char *> records)
    {
        file f{spec.with_flags(O_RDWR | O_CREAT)};
        ASSERT_TRUE(f.ok()) << f.error();
        for (const char *each : records) EXPECT_GE(f.write(each).value, 0);
        ASSERT_EQ(f.close(), 0);
        ASSERT_EQ(check_file(spec.path), "");
    }

    const std::vector<key> keys{{.parts = {{0, 4}}}, {.parts = {{4, 2}}, .duplicates = true}};
};

TEST_F(Open, RefusedOpensLeaveNothingBehind)
{
    const std::string fifo = path("fifo"), directory = path("directory"), empty = path("empty"), text = path("text");
    mkfifo(fifo.c_str(), 0600);
    mkdir(directory.c_str(), 0700);
    spill(empty, "");
    spill(text, std::string(5000, 'x'));
    const auto at = [&](const std::string &name, uint32_t flags) {
        file_spec spec = plain(flags);
        spec.path = name;
        return spec;
    };
    file_spec no_tree = plain();
    no_tree.logical = VFS_ORG_INDEXED;
    no_tree.keys = keys;
    file_spec negative = plain();
    negative.max_length = -1;
    file_spec reversed_lengths = plain();
    reversed_lengths.min_length = 60;
    const struct {
        const char *name;
        file_spec spec;
        int error;
    } rows[] = {
        {"missing", at(path("missing"), O_RDWR), ENOENT},
        {"missing, to read", at(path("missing"), O_RDONLY), ENOENT},
        {"below a file", at(text + "/x", O_RDWR | O_CREAT), ENOTDIR},
        {"a directory", at(directory, O_RDWR), EISDIR},
        {"a pipe", at(fifo, O_RDWR), EBADF},
        {"/dev/null as tree",
         [&] {
             file_spec s = relative("/dev/null", VFS_FORMAT_VARIABLE, 10);
             s.flags = O_RDWR;
             return s;
         }(),
         EBADF},
        {"an empty file", at(empty, O_RDWR), EINVAL},
        {"an empty file, to read", at(empty, O_RDONLY), EINVAL},
        {"a file of something else", at(text, O_RDWR), EINVAL},
        {"a stream", plain().with_options(VFS_OPT_STREAM), EBADF},
        {"a socket", plain().with_options(VFS_OPT_SOCKET), EBADF},
        {"physical 1 with logical 3", no_tree, EINVAL},
        {"negative length", negative, EINVAL},
        {"lengths in the wrong order", reversed_lengths, EINVAL},
    };
    const size_t before = open_descriptors();
    for (const auto &row : rows) {
        EXPECT_EQ(error_of(row.spec), row.error) << row.name;
        EXPECT_EQ(open_descriptors(), before) << row.name;
        EXPECT_EQ(printed(), "") << row.name;
    }
    EXPECT_EQ(slurp(text), std::string(5000, 'x'));
    EXPECT_EQ(slurp(empty), "");
    errno = 0;
    vfs_open_block no_path{};
    EXPECT_EQ(ops().open(&no_path), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(Open, BadKeyDescriptionsAreRefusedBeforeAnythingIsMade)
{
    const auto opened_with = [&](const std::function<void(key_block &)> &spoil) {
        key_block description{keys};
        spoil(description);
        vfs_open_block block{};
        const std::string name = path();
        block.path = name.c_str();
        block.max_record_length = 50;
        block.open_flags = O_RDWR | O_CREAT;
        block.organization = block.logical_organization = VFS_ORG_INDEXED;
        block.access_mode = VFS_ACCESS_DYNAMIC;
        block.keys = description.get();
        errno = 0;
        vfs_file *handle = ops().open(&block);
        const int error = errno;
        if (handle != nullptr) ops().close(handle, nullptr);
        return handle != nullptr ? 0 : error;
    };
    EXPECT_EQ(opened_with([](key_block &k) { k.entry(0)->length = 0; }), EINVAL);
    EXPECT_EQ(opened_with([](key_block &k) { k.entry(0)->length = 5; }), EINVAL);
    EXPECT_EQ(opened_with([](key_block &k) { k.entry(1)->part_list = 4000; }), EINVAL);
    EXPECT_EQ(opened_with([](key_block &k) { k.entry(1)->part_list = -8; }), EINVAL);
    EXPECT_EQ(opened_with([](key_block &k) { k.entry(1)->part_count = INT64_MAX; }), EINVAL);
    EXPECT_EQ(opened_with([](key_block &k) { k.get()->primary_key = 2; }), EINVAL);
    EXPECT_EQ(opened_with([](key_block &k) { k.get()->primary_key = -1; }), EINVAL);
    EXPECT_EQ(opened_with([](key_block &k) { k.get()->count = 0; }), EINVAL);
    for (const int64_t size : {48, 17 << 20})
        EXPECT_EQ(opened_with([&](key_block &k) { k.get()->total_size = size; }), EINVAL);
    EXPECT_EQ(ops().access(path().c_str()), 0);
    // A leaf of fewer than four entries cannot be split.
    EXPECT_EQ(error_of(indexed(path(), {{.parts = {{0, 8152}}}}, 9000)), EINVAL);
    EXPECT_EQ(ops().access(path().c_str()), 0);
}

TEST_F(Open, KeyAreasThatDoNotFitAreRefusedBeforeAnythingIsMade)
{
    std::vector<key> many;
    for (int64_t k = 0; k < 4; ++k) many.push_back({.parts = {{k * 1000, 1000}}});
    const file_spec spec = indexed(path(), many, 5000);
    EXPECT_EQ(error_of(spec), EFBIG);
    EXPECT_EQ(printed(), "The file " + path() + " needs larger a metadata buffer size\n");
    EXPECT_EQ(ops().access(path().c_str()), 0);
}

TEST_F(Open, AnotherKeyDescriptionThanTheFilesIsRefused)
{
    make(indexed(path(), keys, 50), {"aaaabb", "ccccdd"});
    const auto with = [&](std::vector<key> other, uint32_t flags = O_RDWR) {
        return error_of(indexed(path(), std::move(other), 50).with_flags(flags));
    };
    EXPECT_EQ(with({keys[0]}), EINVAL);
    EXPECT_EQ(with({keys[0], keys[1], {.parts = {{6, 1}}}}), EINVAL);
    EXPECT_EQ(with({{.parts = {{0, 3}}}, keys[1]}), EINVAL);
    EXPECT_EQ(with({{.parts = {{1, 4}}}, keys[1]}), EINVAL);
    EXPECT_EQ(with({keys[0], {.parts = {{4, 2}}}}), EINVAL);
    EXPECT_EQ(with({keys[0]}, O_RDONLY), 0);
    EXPECT_EQ(with({}), 0); // none given: the file's own
    EXPECT_EQ(with(keys), 0);
    EXPECT_EQ(check_file(path()), "");
    variables.set("VFS_DEBUG", "1"); // then it is said what differs
    printed();
    EXPECT_EQ(with({keys[0]}), EINVAL);
    EXPECT_NE(printed().find("The file " + path() + " has 2 keys, primary key 0\n"), std::string::npos);
    EXPECT_EQ(with({keys[0], {.parts = {{4, 2}}}}), EINVAL);
    EXPECT_NE(printed().find("Key 1 differs from the one in the file " + path() + "\n"), std::string::npos);
}

TEST_F(Open, CreatingNeverWipesAndTruncatingDoes)
{
    make(plain(), {"one", "two"});
    EXPECT_EQ(file{plain(O_RDWR | O_CREAT)}.rest().size(), 2u);
    EXPECT_EQ(error_of(plain(O_RDWR | O_CREAT | O_EXCL)), EEXIST);
    EXPECT_EQ(file{plain(O_RDONLY)}.rest().size(), 2u);
    {
        file f{plain(O_RDWR | O_TRUNC)};
        EXPECT_EQ(f.rest().size(), 0u);
        EXPECT_EQ(f.write("new").value, 3);
        EXPECT_EQ(f.close(), 0);
    }
    EXPECT_EQ(check_file(path()), "");
    EXPECT_EQ(file{plain(O_RDONLY)}.rest(), std::vector<std::string>{"new"});
}

TEST_F(Open, ReadOnlyAndOutputOnlyOpensRefuseTheOtherHalf)
{
    make(plain(), {"one"});
    {
        file f{plain(O_RDONLY)};
        EXPECT_TRUE(f.write("x").failed(EROFS));
        EXPECT_TRUE(f.rewrite("x", first()).failed(EROFS));
        EXPECT_TRUE(f.erase(first()).failed(EROFS));
        EXPECT_TRUE(f.read(first()).found("one"));
    }
    file f{plain(O_WRONLY | O_APPEND)};
    ASSERT_TRUE(f.ok());
    EXPECT_TRUE(f.read(first()).failed(EROFS));
    EXPECT_TRUE(f.start(first()).failed(EROFS));
    EXPECT_EQ(f.write("two").value, 3);
    EXPECT_EQ(f.close(), 0);
    EXPECT_EQ(check_file(path()), "");
    EXPECT_EQ(file{plain(O_RDONLY)}.rest(), (std::vector<std::string>{"one", "two"}));
}

TEST_F(Open, NoIoHandlesServeInfoOnly)
{
    make(plain(), {"one"});
    file f{plain(O_RDWR).with_options(VFS_OPT_NO_IO)};
    ASSERT_TRUE(f.ok());
    EXPECT_TRUE(f.read(first()).failed(EBADF));
    EXPECT_TRUE(f.write("two").failed(EBADF));
    EXPECT_EQ(f.info().record_count, 1);
    EXPECT_EQ(f.flush(), 0);
    EXPECT_EQ(f.close(), 0);
    EXPECT_EQ(check_file(path()), "");
}

TEST_F(Open, AnEmptiedTreeFileIsMadeAnewAtTheNextUpdateOpen)
{
    const file_spec spec = indexed(path(), keys, 50);
    make(spec, {"aaaabb", "ccccdd"});
    {
        file f{spec};
        EXPECT_EQ(f.erase(by_key("aaaa")).value, 0);
        EXPECT_EQ(f.erase(by_key("cccc")).value, 0);
    }
    EXPECT_EQ(check_file(path()), "");
    const std::string before = slurp(path());
    EXPECT_EQ(file{spec.with_flags(O_RDONLY)}.rest().size(), 0u);
    EXPECT_EQ(slurp(path()), before);
    {
        const environment unlocked{"VFS_LOCK", "0"};
        EXPECT_EQ(file{spec.with_flags(O_RDWR)}.rest().size(), 0u);
    }
    EXPECT_EQ(printed(), "");
    {
        file f{spec.with_flags(O_RDWR)};
        EXPECT_EQ(printed(), "Re-initializing file(" + path() + ") for faster access!\n");
        EXPECT_EQ(f.info().empty_count, 0);
        const outcome added = f.write("eeeeff", by_record());
        EXPECT_EQ(added.value, 6);
        EXPECT_EQ(added.rrn, 0u);
    }
    EXPECT_EQ(check_file(path()), "");
    EXPECT_EQ(file{spec.with_flags(O_RDWR)}.rest(), std::vector<std::string>{"eeeeff"});
}

TEST_F(Open, AnEmptiedFileWhoseDescriptionIsDamagedStaysAsItIs)
{
    file_spec spec = relative(path(), VFS_FORMAT_VARIABLE, 50);
    spec.keys = keys;
    {
        file f{spec};
        EXPECT_EQ(f.write("one", by_rrn(0)).value, 3);
        EXPECT_EQ(f.erase(by_rrn(0)).value, 0);
    }
    constexpr uint64_t description_at = 336;
    poke(path(), description_at, uint64_t{1} << 20); // its length
    file f{spec.with_flags(O_RDWR)};
    ASSERT_TRUE(f.ok()) << f.error();
    EXPECT_EQ(f.info().empty_count, 1);
    EXPECT_EQ(printed(), "");
}

TEST_F(Open, AFileThatWasNotClosedIsRefusedAndNamed)
{
    make(plain(), {"one"});
    const std::string line = "File " + path() + " was not closed, use vfsctl check\n";
    for (const uint64_t at : {320, 328}) {
        poke(path(), at, 1);
        for (const uint32_t flags : {O_RDONLY, O_RDWR}) {
            EXPECT_EQ(error_of(plain(flags)), ENOEXEC) << at;
            EXPECT_EQ(printed(), line) << at;
        }
        EXPECT_EQ(peek(path(), at), 1u);
        {
            const environment mend{"VFS_UNCLEAN", "read"};
            EXPECT_EQ(error_of(plain(O_RDWR)), ENOEXEC);
            EXPECT_EQ(printed(), line);
            EXPECT_EQ(file{plain(O_RDONLY)}.rest(), std::vector<std::string>{"one"});
            EXPECT_EQ(printed(), line);
        }
        poke(path(), at, 0);
    }
    // A file shorter than its own end of file, and one with a record behind that end.
    const std::string good = slurp(path());
    spill(path(), good.substr(0, good.size() - 8));
    EXPECT_EQ(error_of(plain(O_RDWR)), ENOEXEC);
    EXPECT_EQ(printed(), line);
    spill(path(), good + good.substr(good.size() - 48));
    EXPECT_EQ(error_of(plain(O_RDWR)), ENOEXEC);
    EXPECT_EQ(printed(), line);
    EXPECT_EQ(file{plain(O_RDWR | O_TRUNC)}.rest().size(), 0u);
    EXPECT_EQ(check_file(path()), "");
}

TEST_F(Open, AnotherHandleOfTheProcessMeetsTheLocks)
{
    make(plain(), {"one"});
    {
        file holder{plain(O_RDWR)}; // the default: nobody else
        EXPECT_EQ(error_of(plain(O_RDWR)), ETXTBSY);
        printed();
        EXPECT_EQ(error_of(plain(O_RDONLY)), EAGAIN);
        EXPECT_NE(printed().find("Lock request for one other (pid -1):\n"), std::string::npos);
        // The refused opens took nothing away from the holder.
        EXPECT_EQ(holder.write("two").value, 3);
    }
    {
        file reader{plain(O_RDONLY)}, second{plain(O_RDONLY)};
        EXPECT_TRUE(reader.ok() && second.ok());
        EXPECT_EQ(second.rest().size(), 2u);
    }
    const environment shared{"VFS_LOCK", "4"};
    file a{plain(O_RDWR)}, b{plain(O_RDWR)};
    ASSERT_TRUE(a.ok() && b.ok());
    EXPECT_EQ(a.write("three").value, 5);
    EXPECT_EQ(b.write("four").value, 4);
    const vfs_lock_request hold = asking(VFS_WAIT_NEVER), skip = asking(VFS_WAIT_NEVER, 1, VFS_KIND_SKIP),
                           patient = asking(VFS_WAIT_RETRY, 1);
    EXPECT_TRUE(a.read(by_rrn(1), &hold).found("two"));
    EXPECT_TRUE(b.read(by_rrn(1), &patient).failed(EAGAIN));
    printed();
    EXPECT_TRUE(b.read(by_rrn(1), &hold).failed(EAGAIN));
    EXPECT_NE(printed().find("Lock request for me (pid "), std::string::npos);
    EXPECT_TRUE(b.run(operation::rewrite, by_rrn(1), "no", &hold).failed(EAGAIN));
    EXPECT_TRUE(b.read(by_rrn(0), &hold).found("one"));
    EXPECT_TRUE(b.read(next(), &skip).found("three"));
    printed();
    EXPECT_EQ(ops().unlock_all(a.handle()), 0);
    EXPECT_TRUE(b.read(by_rrn(1), &hold).found("two"));
    EXPECT_EQ(a.run(operation::unlock, current()).value, 0);
    EXPECT_EQ(a.close(), 0);
    EXPECT_EQ(b.rest(), (std::vector<std::string>{"three", "four"}));
    EXPECT_EQ(b.close(), 0);
    EXPECT_EQ(check_file(path()), "");
}

TEST_F(Open, LockAndUnlockFollowTheLockModeOfTheFile)
{
    make(plain(), {"one"});
    {
        const environment none{"VFS_LOCK", "0"};
        file f{plain(O_RDWR)};
        EXPECT_EQ(f.run(operation::lock, first()).value, 0);
        EXPECT_EQ(f.run(operation::unlock, next()).value, 0);
        EXPECT_EQ(ops().unlock_all(f.handle()), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    {
        file f{plain(O_RDWR)}; // the File lock is given up and taken again
        EXPECT_EQ(f.run(operation::unlock, next()).value, 0);
        EXPECT_EQ(f.run(operation::lock, first()).value, 0);
        EXPECT_EQ(f.write("two").value, 3);
        EXPECT_EQ(f.run(operation::unlock, next()).value, 0);
        EXPECT_EQ(f.write("three").value, 5);
        EXPECT_EQ(f.close(), 0);
        EXPECT_EQ(check_file(path()), "");
    }
    const environment records{"VFS_LOCK", "4"};
    file f{plain(O_RDWR)};
    EXPECT_EQ(f.run(operation::lock, by_rrn(0)).value, 0);
    EXPECT_TRUE(f.run(operation::lock, by_rrn(9)).failed(ESPIPE));
    EXPECT_EQ(f.run(operation::unlock, next()).value, 0);
    EXPECT_EQ(ops().unlock_all(f.handle()), 0);
    EXPECT_EQ(f.rest().size(), 3u);
}

TEST_F(Open, ASequentialProgramFindsItsFirstBlocksOnTheirWay)
{
    constexpr uint64_t block = 131072;
    const file_spec big = flat(path(), VFS_FORMAT_VARIABLE, 4000).with_access(VFS_ACCESS_SEQUENTIAL);
    {
        file f{big.with_flags(O_WRONLY | O_CREAT)};
        for (int n = 0; n < 300; ++n) ASSERT_EQ(f.write(std::string(4000, 'x')).value, 4000);
        ASSERT_EQ(f.close(), 0);
    }
    const uint64_t last = std::filesystem::file_size(path()) / block;
    variables.set("VFS_DEBUG", "1");
    for (const char *aio : {"0", "1"}) {
        variables.set("VFS_IO_AIO", aio);
        // What the Data cache holds at once after an open, by the dump that close prints: the block used last is first.
        const auto expect_blocks = [&](const file_spec &spec, const std::vector<uint64_t> &numbers) {
            file f{spec};
            printed();
            f.close();
            std::string text = printed();
            text.resize(text.find("Meta "));
            std::vector<uint64_t> found;
            for (std::smatch at; std::regex_search(text, at, std::regex(" #[0-9]+ .* [0-9]+@0x([0-9a-f]+)-"));
                 text = at.suffix())
                if (const uint64_t offset = std::stoull(at[1], nullptr, 16); offset != UINT64_MAX)
                    found.push_back(offset / block);
            EXPECT_EQ(found, numbers) << spec.flags << ' ' << spec.options << ' ' << aio;
        };
        expect_blocks(big.with_flags(O_RDONLY), {3, 2, 1, 0});
        expect_blocks(big.with_flags(O_RDWR), {3, 2, 1, 0});
        expect_blocks(big.with_flags(O_RDONLY).with_options(VFS_OPT_REVERSED), {last - 3, last - 2, last - 1, last});
        expect_blocks(big.with_flags(O_WRONLY | O_APPEND), {last});
        expect_blocks(big.with_flags(O_WRONLY), {});
        expect_blocks(big.with_flags(O_RDONLY).with_options(VFS_OPT_NO_PREREAD), {});
        expect_blocks(big.with_flags(O_RDONLY).with_access(VFS_ACCESS_DYNAMIC), {});
        variables.set("VFS_DATA_READAHEAD", "0");
        expect_blocks(big.with_flags(O_RDONLY), {});
        variables.set("VFS_DATA_READAHEAD", std::nullopt);
    }
    variables.set("VFS_IO_DIO", "1"); // who only writes past the page cache has one more block than are under way
    ASSERT_EQ(file{big.with_flags(O_WRONLY)}.close(), 0);
    EXPECT_NE(printed().find(" Data  0 0:5-5 @"), std::string::npos);
}

TEST_F(Open, DescriptorsBelowThreeAreNeverUsedForData)
{
    make(plain(), {"one"});
    const int kept = fcntl(0, F_DUPFD_CLOEXEC, 20);
    close(0);
    {
        file f{plain(O_RDWR)};
        EXPECT_EQ(fcntl(0, F_GETFD), -1);
        EXPECT_EQ(f.write("two").value, 3);
    }
    dup2(kept, 0);
    close(kept);
    EXPECT_EQ(check_file(path()), "");
}

// With VFS_DEBUG a session says how it was opened, how its trees stand and what it cost: all of it, but for addresses,
// times and the entries of leaves behind the first one, as session.golden has it.
class Debugging : public DriverTest {
protected:
    void TearDown() override
    {
        setlocale(LC_ALL, "C");
        DriverTest::TearDown();
    }

    std::string session()
    {
        variables.set("VFS_DEBUG", "1");
        for (const char *name : {"VFS_DATA_COUNT", "VFS_IO_DIO", "VFS_IO_THREAD", "VFS_IO_HASH", "VFS_IO_CACHE"})
            variables.set(name, {});
        variables.set("VFS_IO_AIO", "0"); // counters that do not depend on the system's queue
        file f{indexed(path(), {{.parts = {{0, 4}}}, {.parts = {{4, 2}, {8, 2}}, .duplicates = true}}, 100)};
        for (int n = 1; n <= 1200; ++n) EXPECT_EQ(f.write(numbered("%04ld", n) + "aa00bb", by_record()).value, 10);
        EXPECT_EQ(f.write("0002aa00bb", by_record()).error, EADDRINUSE);
        EXPECT_EQ(f.rewrite("9999", by_key("9999")).error, ESPIPE);
        EXPECT_EQ(f.erase(by_key("9999")).error, ESPIPE);
        EXPECT_EQ(f.run(operation::start, by_key("9999")).error, ESPIPE);
        EXPECT_EQ(f.close(), 0);
        std::string text = printed();
        for (const auto &[from, to] : {std::pair{"0x[0-9a-f]{9,13}(?![0-9a-f])", "ADDRESS"},
                                       {"[0-9]+\\.[0-9]+s", "TIME"},
                                       {"[0-9.]+[KMG]?i?Bps", "RATE"},
                                       {"file: /.*", "file: PATH"},
                                       {"-?nan", "NAN"},
                                       {".*Delay.*Elapsed: .*\n", ""}, // only when something took a tick
                                       {"   [1-9][0-9]*: 0x.*\n", ""}})
            text = std::regex_replace(text, std::regex{from}, to);
        return text;
    }

    static std::string golden()
    {
        std::ifstream in{VFS_GOLDEN "/session.golden"};
        return {std::istreambuf_iterator<char>{in}, {}};
    }
};

TEST_F(Debugging, SessionInTheCLocale)
{
    EXPECT_EQ(session(), golden());
}

TEST_F(Debugging, SessionInALocaleThatGroups)
{
    ASSERT_TRUE(group_thousands()) << "localedef, with the character maps of Debian's package `locales`, makes it";
    const std::string text = session();
    EXPECT_EQ(std::regex_replace(text, std::regex{"([0-9]),([0-9]{3})"}, "$1$2"), golden());
    std::set<std::string> grouped;
    const std::regex number{"[^\n0-9]*[0-9]+,[0-9]{3}"};
    for (std::sregex_iterator found{text.begin(), text.end(), number}, end; found != end; ++found)
        grouped.insert(found->str());
    EXPECT_EQ(grouped, (std::set<std::string>{" entries 1,200", ": entries 1,200", "Open to Close: #1,204",
                                              "Tree done... 1,200", "asn 1,201", "records 1,200", "tsn 2,400"}));
}

} // namespace
