// rebuild_test.cc: what comes back. Of sound files all, in the same orders; of damaged ones every record that the damage
// does not touch; of killed programs every record that a flush covered; and what cannot be kept is in the side file. The
// old file is never changed, and every new file is sound.
#include "tool_fixture.h"

#include "store/format.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <set>

namespace {

using namespace host;

class Rebuild : public ToolTest {
protected:
    run_result rebuild(const std::string &more = "")
    {
        unlink(path("new").c_str());
        unlink(path("new.rejects").c_str());
        const std::string before = beginning(path());
        struct stat then {
        }, now{};
        stat(path().c_str(), &then);
        const run_result result = vfsctl("rebuild " + path() + " --to " + path("new") + " " + more);
        stat(path().c_str(), &now);
        EXPECT_TRUE(beginning(path()) == before && then.st_size == now.st_size) << "the old file is only read";
        EXPECT_TRUE(then.st_mtim.tv_sec == now.st_mtim.tv_sec && then.st_mtim.tv_nsec == now.st_mtim.tv_nsec);
        if (result.status == 0 || result.says("what was rejected")) {
            EXPECT_EQ(check_file(path("new")), "") << result;
            EXPECT_TRUE(check(path("new")).sound()) << result;
            EXPECT_EQ(access(path("new.rejects").c_str(), F_OK) == 0, result.status == 1) << result;
        }
        return result;
    }

    // A killed program leaves up to a gigabyte of space behind what it wrote.
    static std::string beginning(const std::string &name)
    {
        std::string bytes(16 << 20, '\0');
        const int descriptor = open(name.c_str(), O_RDONLY | O_CLOEXEC);
        bytes.resize(static_cast<size_t>(std::max<ssize_t>(pread(descriptor, bytes.data(), bytes.size(), 0), 0)));
        close(descriptor);
        return bytes;
    }

    // Every record in the order of a key, with its number where it has one to keep.
    static std::vector<std::string> scan(const std::string &name, int64_t key, bool numbers)
    {
        spec any;
        any.path = name;
        any.flags = O_RDONLY;
        const uint64_t physical = peek(name, header_physical_organization.offset) & 0xffffffff;
        any.organization = physical == 1 ? VFS_ORG_SEQUENTIAL : VFS_ORG_INDEXED;
        any.logical = static_cast<uint32_t>(peek(name, header_logical_organization.offset));
        any.format = static_cast<uint32_t>(peek(name, header_record_format.offset));
        file f{any};
        EXPECT_TRUE(f.ok()) << strerror(f.error());
        std::vector<std::string> records;
        if (!f.ok()) return records;
        outcome got = f.read(first(key));
        for (; got.value >= 0 && !got.ended(); got = f.read(next()))
            records.push_back(numbers ? numbered("%ld ", static_cast<int64_t>(got.rrn)) + got.bytes : got.bytes);
        EXPECT_TRUE(got.ended()) << got;
        EXPECT_EQ(f.close(), 0);
        return records;
    }
    std::set<std::string> records_of(const std::string &name) const
    {
        const std::vector<std::string> all = scan(name, 0, false);
        return {all.begin(), all.end()};
    }
    std::string rejects() const { return slurp(path("new.rejects")); }

    watchdog guard{230};
};

TEST_F(Rebuild, SoundFilesComeBackWholeInEveryOrder)
{
    for (const shape &each : shapes()) {
        make(each);
        const run_result result = rebuild();
        EXPECT_EQ(result.status, 0) << each.name << result;
        const bool keyed = peek(path(), header_logical_organization.offset) % 256 == VFS_ORG_INDEXED;
        const int64_t keys = keyed ? static_cast<int64_t>(peek(path(), header_variable_part + 8)) : 1;
        for (int64_t k = 0; k < keys; ++k)
            EXPECT_EQ(scan(path("new"), k, !keyed), scan(path(), k, !keyed)) << each.name << ", key " << k;
        for (const field<uint64_t> same : {header_records, header_minimum_record, header_maximum_record})
            EXPECT_EQ(peek(path("new"), same.offset), peek(path(), same.offset)) << each.name;
    }
}

TEST_F(Rebuild, EqualKeysKeepTheOrderOfTheirArrival)
{
    file f{indexed()};
    for (int64_t n = 0; n < 600; ++n) ASSERT_GT(f.write(text(n * 101 % 600, 40), by_record()).value, 0);
    for (int64_t n = 0; n < 600; n += 9) { // red ones that go behind those that are blue already
        std::string record = text(n, 40);
        record.replace(8, 4, "blue");
        ASSERT_GT(f.rewrite(record, by_record()).value, 0);
    }
    ASSERT_EQ(f.close(), 0);
    EXPECT_EQ(rebuild().status, 0);
    EXPECT_EQ(scan(path("new"), 1, false), scan(path(), 1, false));
}

TEST_F(Rebuild, SmashedTreesAndCountersLoseNoRecord)
{
    make_indexed();
    const std::string good = slurp(path());
    const std::vector<std::string> by_key = scan(path(), 0, false), by_last = scan(path(), 2, false);
    const uint64_t table = peek(path(), header_key_table.offset);
    const auto expect_all = [&](const char *what) {
        EXPECT_FALSE(check(path()).sound()) << what;
        const run_result result = rebuild();
        EXPECT_EQ(result.status, 0) << what << result;
        EXPECT_EQ(scan(path("new"), 0, false), by_key) << what;
        EXPECT_EQ(scan(path("new"), 2, false), by_last) << what;
    };
    poke(path(), table + key_entry_root.offset, uint64_t{0});
    expect_all("root");
    spill(path(), good);
    for (uint64_t k = 0; k < 3; ++k) // the frame stays, nothing else
        poke(path(), peek(path(), table + k * key_entry_bytes + key_entry_root.offset) + 24,
             std::string(32000, '\x5a'));
    expect_all("nodes");
    spill(path(), good);
    for (uint64_t at = header_records.offset; at < header_flags.offset; at += 8) poke(path(), at, UINT64_MAX / 3);
    for (uint64_t at = header_deleted.offset; at < header_state_word.offset; at += 8) poke(path(), at, UINT64_MAX / 3);
    expect_all("counters");
    spill(path(), good);
    poke(path(), header_end_of_file.offset, good.size() / 2 / 8 * 8);
    expect_all("end of file");
}

TEST_F(Rebuild, TableOfKeysMayLieBehindTheRegion)
{
    std::vector<host::key> keys;
    for (int64_t k = 0; k < 24; ++k) keys.push_back({.parts = {{k, 8}}, .duplicates = k != 0});
    host::file f{host::indexed(path(), keys, 100)};
    for (const int64_t n : {3, 1, 2}) ASSERT_GT(f.write(text(n, 90), host::by_record()).value, 0);
    ASSERT_EQ(f.close(), 0);
    const std::vector<std::string> by_key = scan(path(), 0, false);
    ASSERT_GT(peek(path(), header_metadata_size.offset), 4096U);
    poke(path(), header_metadata_size.offset, uint64_t{4096});
    EXPECT_FALSE(check(path()).sound());
    EXPECT_EQ(vfsctl("stats " + path()).status, 0);
    const run_result result = rebuild();
    EXPECT_EQ(result.status, 1) << result; // the table's rest is no item
    EXPECT_EQ(scan(path("new"), 0, false), by_key);
}

TEST_F(Rebuild, SmashedMiddleCostsOnlyWhatItCovers)
{
    for (const shape &each : shapes()) {
        if (std::string{each.name} == "empty indexed") continue;
        make(each);
        const bool keyed = std::string{each.name} == "indexed";
        const std::vector<std::string> all = scan(path(), 0, !keyed);
        const std::string good = slurp(path());
        const std::string &middle = all[all.size() / 2];
        const uint64_t from = good.find(keyed ? middle : middle.substr(middle.find(' ') + 1), 4096) + 10, bytes = 3000;
        ASSERT_LT(from, good.size());
        poke(path(), from, std::string(bytes, '\xa5'));
        const run_result result = rebuild();
        EXPECT_EQ(result.status, 1) << each.name << result;
        const std::vector<std::string> kept = scan(path("new"), 0, !keyed);
        size_t untouched = 0;
        for (const std::string &record : all) {
            const std::string data = keyed ? record : record.substr(record.find(' ') + 1);
            const size_t at = good.find(data, 4096), end = at + data.size();
            const bool touched = at < from + bytes + slot_head_bytes && end + 16 > from;
            untouched += touched ? 0 : 1;
            if (!touched) {
                EXPECT_EQ(std::count(kept.begin(), kept.end(), record), 1) << each.name << " " << record.substr(0, 20);
            }
        }
        EXPECT_GT(untouched, 0U);
        EXPECT_LT(kept.size(), all.size()) << each.name;
        EXPECT_NE(rejects().find("\"reason\":\"no item\""), std::string::npos) << each.name;
        EXPECT_NE(rejects().find("a5a5a5a5"), std::string::npos) << each.name;
    }
}

TEST_F(Rebuild, SlotWithItsLengthDamagedIsKnownByItsEnd)
{
    make_flat();
    const std::vector<std::string> all = scan(path(), 0, true);
    const uint64_t second = 4096 + peek(path(), 4096);
    poke(path(), second, uint64_t{0x1234});
    EXPECT_EQ(rebuild().status, 0);
    EXPECT_EQ(scan(path("new"), 0, true), all);
}

TEST_F(Rebuild, InterruptedPaddingEndsWhereTheRecordDoes)
{
    make_indexed();
    const std::set<std::string> all = records_of(path());
    const uint64_t leaf = peek(path(), peek(path(), header_key_table.offset) + key_entry_first_leaf.offset);
    const uint64_t slot = peek(path(), leaf + node_head_bytes + 8 * 200);
    ASSERT_EQ(peek(path(), slot), slot_bytes(260));
    poke(path(), slot, slot_bytes(260) + 64); // the new length is there, the new end is not
    EXPECT_EQ(rebuild().status, 0);
    EXPECT_EQ(records_of(path("new")), all);
}

TEST_F(Rebuild, OfTwoSlotsWithOneNumberTheMovedOneWins)
{
    make_indexed();
    const uint64_t leaf = peek(path(), peek(path(), header_key_table.offset) + key_entry_first_leaf.offset);
    const uint64_t older = peek(path(), leaf + node_head_bytes + 8 * 300),
                   newer = peek(path(), leaf + node_head_bytes + 8 * 301);
    const std::string loser = slurp(path()).substr(older + 32, 260), winner = slurp(path()).substr(newer + 32, 260);
    poke(path(), newer + 16, std::string(1, '\7'));
    poke(path(), newer + 24, peek(path(), older + 24));
    const size_t count = records_of(path()).size();
    const run_result result = rebuild();
    EXPECT_EQ(result.status, 1) << result;
    EXPECT_TRUE(result.says(numbered("%ld records kept, 1 places rejected", static_cast<int64_t>(count) - 1)))
        << result;
    const std::set<std::string> kept = records_of(path("new"));
    EXPECT_TRUE(kept.contains(winner));
    EXPECT_FALSE(kept.contains(loser));
    std::string hex;
    for (const char c : loser) hex += numbered("%02lx", static_cast<unsigned char>(c));
    EXPECT_NE(rejects().find("\"hex\":\"" + hex + "\""), std::string::npos) << rejects();
    EXPECT_NE(rejects().find(numbered("\"offset\":%ld,\"length\":260", static_cast<int64_t>(older) + 32)),
              std::string::npos);
}

TEST_F(Rebuild, RecordWhoseKeyIsTakenIsRejectedWhole)
{
    make_indexed();
    const uint64_t leaf = peek(path(), peek(path(), header_key_table.offset) + key_entry_first_leaf.offset);
    const uint64_t first_slot = peek(path(), leaf + node_head_bytes),
                   second_slot = peek(path(), leaf + node_head_bytes + 8);
    poke(path(), second_slot + 32, slurp(path()).substr(first_slot + 32, 12));
    const run_result result = rebuild();
    EXPECT_EQ(result.status, 1) << result;
    EXPECT_TRUE(result.says("379 records kept, 1 places rejected")) << result;
    EXPECT_NE(rejects().find("there already"), std::string::npos);
}

TEST_F(Rebuild, LostHeaderIsReplacedByOptions)
{
    make_indexed();
    const std::vector<std::string> all = scan(path(), 1, false);
    poke(path(), 0, std::string(600, '\xee'));
    const run_result lost = rebuild();
    EXPECT_EQ(lost.status, 1) << lost;
    EXPECT_TRUE(lost.says("--organization")) << lost;
    EXPECT_EQ(access(path("new").c_str(), F_OK), -1);
    EXPECT_EQ(access(path("new.rejects").c_str(), F_OK), -1);
    const run_result result = rebuild("--key 0:8 --key 8:4,dup --max 300");
    EXPECT_EQ(result.status, 0) << result;
    EXPECT_EQ(records_of(path("new")), std::set<std::string>(all.begin(), all.end()));

    unlink(path().c_str());
    make_indexed();
    poke(path(), header_variable_part + 40, uint64_t{99999}); // the first key's length
    const run_result keys = rebuild();
    EXPECT_EQ(keys.status, 1) << keys;
    EXPECT_TRUE(keys.says("key 0 is said to have 99999 bytes")) << keys;
    EXPECT_EQ(rebuild("--key 0:8 --key 8:4,dup").status, 0);
    EXPECT_EQ(scan(path("new"), 0, false).size(), all.size());

    unlink(path().c_str());
    make_fixed();
    const std::vector<std::string> fixed = scan(path(), 0, true);
    poke(path(), 0, std::string(600, '\xee'));
    EXPECT_EQ(rebuild("--organization sequential --fixed 50").status, 0);
    EXPECT_EQ(scan(path("new"), 0, true), fixed);
}

TEST_F(Rebuild, NothingIsOverwritten)
{
    make_flat();
    spill(path("new"), "precious");
    EXPECT_EQ(vfsctl("rebuild " + path() + " --to " + path("new")).status, 1);
    EXPECT_EQ(slurp(path("new")), "precious");
    unlink(path("new").c_str());
    spill(path("new.rejects"), "precious");
    EXPECT_EQ(vfsctl("rebuild " + path() + " --to " + path("new")).status, 1);
    EXPECT_EQ(slurp(path("new.rejects")), "precious");
    EXPECT_EQ(access(path("new").c_str(), F_OK), -1);
    EXPECT_EQ(vfsctl("rebuild " + path() + " --to " + path()).status, 1);
}

// ---- Random damage ---------------------------------------------------------------------------------------------

TEST_F(Rebuild, RandomDamageEndsInANewFileOrAReason)
{
    for (const shape &each : shapes()) {
        make(each);
        const std::string good = slurp(path());
        for (unsigned seed = 0; seed < 8; ++seed) {
            std::mt19937_64 random{seed + 1000};
            std::string bytes = good;
            for (unsigned n = 0; n < 20; ++n) {
                const uint64_t at = random() % (n % 2 == 0 ? 1024 : bytes.size() - 8) / 8 * 8;
                const uint64_t value = n % 4 == 0 ? random() : random() % bytes.size() / 8 * 8;
                if (seed % 2 == 0 || at > 512) memcpy(bytes.data() + at, &value, 8);
            }
            spill(path(), bytes);
            const run_result result = rebuild();
            EXPECT_TRUE(result.status == 0 || result.status == 1) << each.name << seed << result;
            EXPECT_FALSE(result.says("Sanitizer")) << result;
            EXPECT_FALSE(result.says("does not pass the check")) << result;
        }
    }
}

} // namespace
