// engine_test.cc: one job under every engine that the settings choose, with few buffers and many, with and without hash
// tables and hints. Whatever carries the bytes, they are the same. VFS_TEST_ALL=1 runs every combination; without it
// each engine runs with each number of buffers.
#include "checker.h"
#include "host.h"

#include <cerrno>
#include <random>

namespace {

using namespace host;

struct engine_row {
    const char *name;
    std::map<std::string, std::string> settings;
    bool unlocked = false; // mapping is for files without locks
};

const engine_row engines[] = {
    {"positioned", {{"VFS_IO_AIO", "0"}}},
    {"unset", {}},
    {"queue", {{"VFS_IO_AIO", "1"}}},
    {"threads", {{"VFS_IO_AIO", "0"}, {"VFS_IO_THREAD", "1"}}},
    {"threads with queue", {{"VFS_IO_AIO", "1"}, {"VFS_IO_THREAD", "1"}}},
    {"direct", {{"VFS_IO_DIO", "1"}}},
    {"direct, positioned", {{"VFS_IO_DIO", "1"}, {"VFS_IO_AIO", "0"}}},
    {"direct, threads", {{"VFS_IO_DIO", "1"}, {"VFS_IO_AIO", "0"}, {"VFS_IO_THREAD", "1"}}},
    {"direct, threads with queue", {{"VFS_IO_DIO", "1"}, {"VFS_IO_THREAD", "1"}}},
    {"mapping", {{"VFS_IO_MMAP", "1"}}, true},
    {"unlocked, positioned", {{"VFS_IO_MMAP", "0"}, {"VFS_IO_AIO", "0"}}, true},
};
const char *const buffer_counts[] = {"1", "2", "", "40"};

class Engines : public DriverTest, public testing::WithParamInterface<const char *> {
protected:
    file_spec spec() const
    {
        const std::string kind = GetParam();
        if (kind == "Flat") return flat(path(), VFS_FORMAT_VARIABLE, 3000);
        if (kind == "Relative") return relative(path(), VFS_FORMAT_VARIABLE, 3000);
        return indexed(path(), {{.parts = {{0, 8}}}, {.parts = {{8, 4}}, .duplicates = true}}, 3000);
    }

    // Long enough to be whole blocks of 128 KiB in number, of all lengths.
    static std::string record(int n, size_t round = 0)
    {
        std::string bytes = numbered("%08ld", n) + numbered("%04ld", n % 7);
        bytes.resize(200 + static_cast<size_t>(n) * 37 % 2700,
                     static_cast<char>('a' + (static_cast<size_t>(n) + round) % 26));
        return bytes;
    }

    place at(int n) const { return std::string{GetParam()} == "Indexed" ? by_record() : by_rrn(n); }

    void load()
    {
        file f{spec().with_access(VFS_ACCESS_SEQUENTIAL).with_flags(O_RDWR | O_CREAT | O_TRUNC)};
        for (int n = 0; n < count; ++n)
            ASSERT_GE(f.write(record(n), std::string{GetParam()} == "Flat" ? end() : at(n)).value, 0) << n;
        ASSERT_EQ(f.close(), 0);
    }

    // Changes in place, records that move, go and come, and a flush in between.
    void change()
    {
        file f{spec().with_flags(O_RDWR)};
        std::mt19937 random{7};
        for (int step = 0; step < 150; ++step) {
            const auto n = static_cast<int>(random() % count);
            std::string bytes = record(n, 1 + static_cast<size_t>(step) % 3);
            if (step % 5 == 0) bytes.resize(bytes.size() / 8 * 8 + 40 > 2990 ? 2990 : bytes.size() + 40, 'z');
            const outcome got = f.rewrite(bytes, at(n));
            ASSERT_TRUE(got.value >= 0 || got.error == ESPIPE) << got.error;
            if (step % 11 == 0 && std::string{GetParam()} != "Flat") {
                ASSERT_GE(
                    f.erase(std::string{GetParam()} == "Indexed" ? by_key(numbered("%08ld", n)) : by_rrn(n)).value, -1);
            }
            if (step == 75) {
                ASSERT_EQ(f.flush(), 0);
            }
        }
        ASSERT_EQ(f.close(), 0);
    }

    // Every record, forward and backward: a sum over all bytes.
    uint64_t scan(bool forward)
    {
        file f{spec().with_access(VFS_ACCESS_SEQUENTIAL).with_flags(O_RDONLY)};
        uint64_t sum = 0;
        if (!forward) {
            EXPECT_GE(f.run(operation::start, last()).value, 0);
        }
        for (;;) {
            const outcome got = f.read(forward ? next() : prev());
            EXPECT_GE(got.value, 0);
            if (got.value <= 0) break;
            for (const char byte : got.bytes) sum += static_cast<unsigned char>(byte);
        }
        EXPECT_EQ(f.close(), 0);
        return sum;
    }

    struct result {
        std::string bytes;
        uint64_t sum = 0;
    };
    result job()
    {
        ops().unlink(path().c_str());
        load();
        change();
        const uint64_t forward = scan(true);
        EXPECT_EQ(scan(false), forward);
        EXPECT_EQ(check_file(path()), "");
        return {slurp(path()), forward};
    }

    static constexpr int count = 700;
};

INSTANTIATE_TEST_SUITE_P(All, Engines, testing::Values("Flat", "Relative", "Indexed"),
                         [](const auto &chosen) { return std::string{chosen.param}; });

} // namespace

TEST_P(Engines, WriteTheSameBytes)
{
    const bool all = getenv("VFS_TEST_ALL") != nullptr;
    const watchdog guard{600};
    std::optional<result> expected;
    int number = 0;
    for (const engine_row &engine : engines)
        for (const char *buffers : buffer_counts)
            for (const char *hashing : {"1", "0"})
                for (const char *caching : {"1", "0"}) {
                    const int turn = number++ % 4; // each of the four in turn
                    const int which = (*hashing == '0' ? 1 : 0) + (*caching == '0' ? 2 : 0);
                    if (!all && which != (turn + number / 4) % 4) continue;
                    environment settings;
                    for (const auto &[name, value] : engine.settings) settings.set(name, value);
                    settings.set("VFS_IO_HASH", hashing);
                    settings.set("VFS_IO_CACHE", caching);
                    if (*buffers != '\0') settings.set("VFS_DATA_COUNT", buffers);
                    if (engine.unlocked) settings.set("VFS_LOCK", "0");
                    const result got = job();
                    if (HasFatalFailure()) return;
                    if (!expected) expected = got;
                    EXPECT_EQ(got.sum, expected->sum) << engine.name << ", buffers " << buffers;
                    EXPECT_TRUE(got.bytes == expected->bytes)
                        << engine.name << ", buffers " << buffers << ", hashing " << hashing << ", caching " << caching;
                    if (HasFailure()) return;
                }
}

// As the counters of a session say: but for the first, every block was on its way before it was needed. Slots of 128 and
// 4096 bytes end where blocks do, others nearly always cross.
TEST_F(DriverTest, SequentialReadingIsAheadWhereverRecordsEnd)
{
    const watchdog guard{60};
    variables.set("VFS_IO_AIO", "1");
    for (const int64_t length : {88, 100, 4056})
        for (const bool has_keys : {false, true})
            for (const bool forward : {true, false}) {
                const std::string what =
                    std::to_string(length) + (has_keys ? " indexed" : " flat") + (forward ? " forward" : " backward");
                unlink(path().c_str());
                const file_spec made =
                    has_keys ? indexed(path(), {{.parts = {{0, 8}}}}, length) : flat(path(), VFS_FORMAT_FIXED, length);
                file written(made.with_access(VFS_ACCESS_SEQUENTIAL));
                const int64_t records = (int64_t{1} << 20) / (length + 40);
                for (int64_t n = 0; n < records; ++n) {
                    std::string record = numbered("%08ld", n);
                    record.resize(static_cast<size_t>(length), '.');
                    ASSERT_GT(written.write(record, has_keys ? by_record() : end()).value, 0) << what;
                }
                ASSERT_EQ(written.close(), 0);
                printed();
                variables.set("VFS_DEBUG", "1");
                file read(made.with_access(VFS_ACCESS_SEQUENTIAL).with_flags(O_RDONLY));
                int64_t met = 0;
                for (outcome got = read.read(forward ? first() : last()); !got.ended() && got.value >= 0;
                     got = read.read(forward ? next() : prev()))
                    ++met;
                EXPECT_EQ(met, records) << what;
                EXPECT_EQ(read.close(), 0);
                variables.set("VFS_DEBUG", std::nullopt);
                const std::string text = printed();
                const size_t data = text.rfind(" Data "), counter = text.find("prefetch=", data);
                ASSERT_NE(counter, std::string::npos) << text;
                EXPECT_GE(std::stoi(text.substr(counter + 9)), (1 << 20) / 131072 - 2) << what << "\n" << text;
            }
}
