// check_test.cc: what the check finds and what it does not. Files of every shape are sound; damage of each kind is found at
// its offset; random damage never makes the check crash, hang, or call sound what the driver cannot serve. The program's exit statuses and what --clear writes are those of its manual page.
#include "tool_fixture.h"

#include "../fuzz/byte_mutator.h"
#include "format/words.h"
#include "store/format.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <optional>

namespace {

using namespace host;

class Check : public ToolTest {
protected:
    uint64_t first_leaf(uint64_t key) const { return sound_file{slurp(path())}.leaf(key); }

    // A file without fault, and where its parts are.
    struct sound_file {
        std::string bytes;

        uint64_t word(uint64_t offset) const
        {
            return load_u64(reinterpret_cast<const std::byte *>(bytes.data()) + offset);
        }
        uint64_t key_entry(uint64_t key) const { return word(header_key_table.offset) + key * key_entry_bytes; }
        uint64_t leaf(uint64_t key) const { return word(key_entry(key) + key_entry_first_leaf.offset); }
        uint64_t root(uint64_t key) const { return word(key_entry(key) + key_entry_root.offset); }
        // Key 0: where an entry of its first leaf leads.
        uint64_t record(uint64_t entry) const { return word(leaf(0) + node_head_bytes + 8 * entry); }
        uint64_t second_item() const { return 4096 + word(4096); }
        uint64_t moved_item() const
        {
            uint64_t at = 4096;
            while (bytes.at(at + frame_type.offset) != item_moved) at += word(at);
            return at;
        }
    };
    // The word at `offset` becomes `value`, and that is found `at` where its consequence is.
    struct planted {
        uint64_t offset, value;
        std::optional<uint64_t> at{};
    };
    enum kind { indexed_file, flat_file, fixed_file };
    struct damage {
        kind file;
        std::function<planted(const sound_file &)> plant;
        const char *says;
    };
    static std::vector<damage> kinds_of_damage();

    watchdog guard{230};
};

TEST_F(Check, FilesOfEveryShapeAreSound)
{
    for (const shape &each : shapes()) {
        make(each);
        const check_result found = check(path());
        EXPECT_TRUE(found.sound() && found.report.note_count() == 0) << each.name << "\n" << lines(found);
        EXPECT_EQ(pieces > 3, !found.facts.flat) << each.name << " in " << pieces;
        const run_result run = vfsctl("check " + path());
        EXPECT_EQ(run.status, 0) << each.name << run;
        EXPECT_TRUE(run.says("sound")) << each.name << run;
    }
    unlink(path().c_str());
    make_flat();
    EXPECT_EQ(check(path()).records, 396U);
}

std::vector<Check::damage> Check::kinds_of_damage()
{
    using f = const sound_file &;
    const auto raised = [](auto field, uint64_t by = 8) {
        return [=](f file) { return planted{field.offset, file.word(field.offset) + by}; };
    };
    const auto set = [](uint64_t offset, uint64_t value) { return [=](f) { return planted{offset, value}; }; };
    const auto in_key = [](auto field, uint64_t value) { // of the second key
        return [=](f file) { return planted{file.key_entry(1) + field.offset, value}; };
    };
    const auto in_leaf = [](auto field, uint64_t value) { // the first one of key 0
        return [=](f file) { return planted{file.leaf(0) + field.offset, value}; };
    };
    const auto to_leaf = [](auto field) { return [=](f file) { return planted{field.offset, file.leaf(0)}; }; };
    const auto neighbour = [](auto field) {
        return [=](f file) { return planted{file.leaf(0) + field.offset, file.leaf(0)}; };
    };
    const auto entry = [](f file, uint64_t n) { return file.leaf(0) + node_head_bytes + 8 * n; };
    const auto second_value = [](f file) { return file.leaf(0) + node_geometry_of(8).leaf_key_array + 8; };
    const uint64_t link = slot_data_length.offset;
    return {
        // the header
        {indexed_file, raised(header_records), "number of records"},
        {indexed_file, raised(header_deleted), "number of free slots"},
        {indexed_file, raised(header_moved), "number of moved"},
        {indexed_file, raised(header_holes), "number of holes"},
        {indexed_file, raised(header_free_index_blocks), "free index blocks"},
        {indexed_file, raised(header_free_slot_blocks), "free-slot lists"},
        {indexed_file, raised(header_header_length), "header length"},
        {indexed_file, raised(header_allocation_point), "allocation point"},
        {indexed_file, raised(header_index_block_size), "index block size"},
        {indexed_file, raised(header_minimum_slot), "minimum slot"},
        {indexed_file, raised(header_key_table), "key table"},
        {indexed_file, set(header_highest_rrn.offset, 3), "highest record number"},
        {indexed_file, set(24, 0), "no file of this driver"},
        {indexed_file, set(32, 0x04030201), "other byte order"},
        {indexed_file, set(0, 12288 * 4096), "metadata region"},
        {indexed_file, to_leaf(header_free_index_list), "overwrite"},
        {indexed_file, to_leaf(header_free_slot_list), "leads to"},
        {indexed_file,
         [](f) {
             return planted{header_variable_part + 8, 77, header_key_description.offset};
         },
         "77 keys"},
        {indexed_file, in_key(key_entry_depth, 65), "65 levels"},
        {indexed_file, in_key(key_entry_root, 4104), "expected at 0x1008"},
        {indexed_file, in_key(key_entry_leaves, 3), "its leaves"},
        {indexed_file, in_key(key_entry_leaf_capacity, 3), "capacity"},
        {flat_file, raised(header_records, 1), "number of records"},
        {flat_file, raised(header_deleted, 1), "number of deleted records"},
        {flat_file, raised(header_moved, 1), "number of moved records"},
        {flat_file, raised(header_highest_rrn, 1), "highest record number"},
        {flat_file, raised(header_holes, 1), "a file without index"},
        // trees
        {indexed_file, in_leaf(node_ent, 2000), "2000 entries"},
        {indexed_file, neighbour(node_right), "right neighbour"},
        {indexed_file, neighbour(node_left), "left neighbour"},
        {indexed_file, in_leaf(node_parent, 8), "parent"},
        {indexed_file,
         [=](f file) {
             return planted{entry(file, 0), 4096};
         },
         "where no record is"},
        {indexed_file,
         [=](f file) {
             return planted{entry(file, 2), file.record(3), entry(file, 3)};
         },
         "a second entry leads"},
        {indexed_file,
         [=](f file) {
             return planted{entry(file, 2), file.record(3), file.record(2)};
         },
         "no entry leads to this record"},
        {indexed_file,
         [=](f file) {
             return planted{second_value(file), 0};
         },
         "lower than the one before"},
        {indexed_file,
         [=](f file) {
             return planted{second_value(file), 0, entry(file, 1)};
         },
         "another value"},
        {indexed_file,
         [](f file) {
             return planted{file.root(2) + node_head_bytes, file.root(2)};
         },
         "a leaf is expected"},
        {indexed_file,
         [](f file) {
             return planted{file.root(2) + node_head_bytes + 8, file.leaf(2)};
         },
         "a second time"},
        {indexed_file,
         [](f file) {
             const node_geometry at = node_geometry_of(246);
             return planted{file.root(2) + at.branch_key_array + at.width, UINT64_MAX,
                            file.word(file.root(2) + node_head_bytes + 8)};
         },
         "higher key"},
        // items
        {indexed_file,
         [](f file) {
             return planted{file.record(2), 24};
         },
         "no item begins here"},
        {indexed_file,
         [](f file) {
             return planted{file.record(2) + file.word(file.record(2)) - 8, 16};
         },
         "ends with length"},
        {indexed_file,
         [](f file) {
             return planted{file.record(2) + 8, 5000, file.record(2)};
         },
         "5000 bytes in a slot"},
        {indexed_file,
         [](f file) {
             return planted{file.record(2) + 8, 100, file.record(2) + 32 + 100};
         },
         "behind it not all are zero"},
        {indexed_file,
         [](f file) {
             const uint64_t one = file.record(2), other = file.record(3);
             return planted{one + slot_rrn.offset, file.word(other + slot_rrn.offset), std::max(one, other)};
         },
         "a second record with number"},
        {indexed_file,
         [](f file) {
             return planted{file.word(header_free_slot_list.offset) + free_slots_head_bytes, file.record(2)};
         },
         "which it is not"},
        {indexed_file,
         [](f file) {
             const uint64_t hole = file.word(header_first_hole.offset);
             return planted{hole + 8, hole};
         },
         "leads back"},
        {flat_file,
         [](f file) {
             return planted{file.second_item() + slot_rrn.offset, 9};
         },
         "in the order of the file"},
        {flat_file,
         [=](f file) {
             return planted{file.moved_item() + link, 4096};
         },
         "is said to have moved to 0x1000"},
        {flat_file,
         [=](f file) {
             return planted{file.moved_item() + link, 4096, file.word(file.moved_item() + link)};
         },
         "no slot leads to this record"},
        {fixed_file,
         [=](f file) {
             return planted{file.second_item() + link, 5000, file.second_item()};
         },
         "5000 bytes in a slot"},
        {fixed_file,
         [](f file) {
             return planted{file.second_item() + slot_rrn.offset, 2};
         },
         "it is 1"},
    };
}

TEST_F(Check, EveryKindOfDamageIsFoundWhereItIs)
{
    std::map<kind, sound_file> sound;
    for (const kind file : {indexed_file, flat_file, fixed_file}) {
        unlink(path().c_str());
        file == indexed_file ? make_indexed() : file == flat_file ? make_flat() : make_fixed();
        sound[file].bytes = slurp(path());
    }
    ASSERT_NE(sound[indexed_file].leaf(2), sound[indexed_file].root(2)) << "the third key has two levels";
    ASSERT_NE(sound[indexed_file].word(header_first_hole.offset), 0U);
    for (const damage &each : kinds_of_damage()) {
        const planted what = each.plant(sound[each.file]);
        spill(path(), sound[each.file].bytes);
        poke(path(), what.offset, what.value);
        const check_result found = check(path());
        EXPECT_FALSE(found.sound()) << each.says;
        const uint64_t at = what.at.value_or(what.offset);
        const auto &problems = found.report.problems();
        EXPECT_TRUE(std::any_of(
            problems.begin(), problems.end(),
            [&](const finding &seen) { return seen.offset == at && seen.text.find(each.says) != std::string::npos; }))
            << std::hex << at << ": " << each.says << "\n"
            << lines(found);
    }
    const std::string &whole = sound[indexed_file].bytes;
    spill(path(), whole.substr(0, whole.size() - 4096));
    EXPECT_NE(lines(check(path())).find("cut off: 4096 bytes"), std::string::npos);
}

TEST_F(Check, TreesThatWereNotLookedAtAreNotSound)
{
    make_indexed();
    EXPECT_TRUE(check(path()).trees_sound());
    poke(path(), 0, uint64_t{1} << 22); // where the items begin is not known
    EXPECT_FALSE(check(path()).trees_sound());
    const run_result rebuilt = vfsctl("rebuild " + path() + " --to " + path("new"));
    EXPECT_TRUE(rebuilt.says("380 records kept")) << rebuilt;
}

// ---- The words -------------------------------------------------------------------------------------------------

TEST_F(Check, EmptiedTreesAreSound)
{
    file f{indexed()}; // the second key has 4 bytes in room for 8
    ASSERT_GT(f.write(text(1, 20), by_record()).value, 0);
    ASSERT_EQ(f.erase(by_key(text(1, 8))).value, 0);
    ASSERT_EQ(f.close(), 0);
    EXPECT_EQ(lines(check(path())), "");
}

TEST_F(Check, UnclosedFilesThatAreSoundCanBeCleared)
{
    make_indexed();
    const std::string good = slurp(path());
    struct words {
        uint64_t state, boot;
        int status, cleared;
        const char *says;
    };
    for (const words &each : {words{0, boot_word_now(), 0, 1, "every finished change"},
                              words{0, 1234567, 4, 1, "before the machine stopped"},
                              words{1, boot_word_now(), 4, 1, "was not closed"}, words{0, 0, 0, 0, "sound"}}) {
        spill(path(), good);
        poke(path(), header_state_word.offset, each.state);
        poke(path(), header_boot_word.offset, each.boot);
        const run_result seen = vfsctl("check " + path());
        EXPECT_EQ(seen.status, each.status) << seen;
        EXPECT_TRUE(seen.says(each.says)) << seen;
        EXPECT_NE(slurp(path()) == good, each.boot != 0) << "without --clear nothing is written";
        EXPECT_EQ(vfsctl("check --clear " + path()).status, each.cleared) << each.says;
        EXPECT_EQ(slurp(path()), good) << each.says;
    }
}

TEST_F(Check, WhatStandsBehindTheEndIsNotThrownAway)
{
    make_flat();
    const uint64_t end = peek(path(), header_end_of_file.offset), slot = 4096;
    const std::string whole = slurp(path()), record = whole.substr(slot, peek(path(), slot));
    spill(path(), whole + record + std::string(5000, '\0') + record);
    const run_result closed = vfsctl("check " + path());
    EXPECT_EQ(closed.status, 4) << closed;
    EXPECT_TRUE(closed.says("1 items with 1 records stand behind")) << closed;

    poke(path(), header_state_word.offset, 1);
    poke(path(), header_boot_word.offset, boot_word_now());
    const run_result unclosed = vfsctl("check --clear " + path());
    EXPECT_EQ(unclosed.status, 4) << unclosed;
    EXPECT_TRUE(unclosed.says("2 items with 2 records stand behind")) << unclosed;
    EXPECT_TRUE(file_is_unclean(path()));

    // What a killed sharer left there was never told to be done.
    poke(path(), header_state_word.offset, uint64_t{0});
    EXPECT_EQ(vfsctl("check " + path()).status, 0);
    EXPECT_EQ(vfsctl("check --clear " + path()).status, 1);
    EXPECT_EQ(slurp(path()).size(), end);
    EXPECT_EQ(check_file(path()), "");
}

TEST_F(Check, StatusesForWhatCannotBeChecked)
{
    EXPECT_EQ(vfsctl("check " + path("missing")).status, 8);
    EXPECT_EQ(vfsctl("check /").status, 8);
    EXPECT_EQ(vfsctl("check").status, 16);
    EXPECT_EQ(vfsctl("check --frobnicate " + path()).status, 16);
    spill(path(), "");
    EXPECT_EQ(vfsctl("check " + path()).status, 4);
    spill(path(), std::string(100000, 'x'));
    EXPECT_EQ(vfsctl("check " + path()).status, 4);
}

TEST_F(Check, FileInUseIsNamedWithItsHolder)
{
    make_indexed();
    const int descriptor = open(path().c_str(), O_RDWR | O_CLOEXEC);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    ASSERT_EQ(fcntl(descriptor, F_SETLK, &lock), 0);
    const std::string holder = numbered("process %ld", getpid());
    const run_result seen = vfsctl("check " + path());
    EXPECT_EQ(seen.status, 0) << seen;
    EXPECT_TRUE(seen.says("in use by " + holder)) << seen;
    const run_result refused = vfsctl("check --clear " + path());
    EXPECT_EQ(refused.status, 8) << refused;
    EXPECT_TRUE(refused.says(holder)) << refused;
    EXPECT_EQ(vfsctl("rebuild " + path() + " --to " + path("new")).status, 1);
    EXPECT_EQ(access(path("new").c_str(), F_OK), -1);
    close(descriptor);
}

TEST_F(Check, LinesAreBoundedAndTheRestIsCounted)
{
    make_indexed();
    std::string bytes = slurp(path());
    const uint64_t leaf = first_leaf(0);
    for (uint64_t i = 0; i < 200; ++i) bytes[leaf + node_head_bytes + 8 * i] ^= 1;
    spill(path(), bytes);
    const run_result seen = vfsctl("check --limit 5 " + path());
    EXPECT_EQ(seen.status, 4);
    EXPECT_LE(std::count(seen.text.begin(), seen.text.end(), '\n'), 7) << seen;
    EXPECT_TRUE(seen.says("more problems")) << seen;
}

// ---- Pending changes -------------------------------------------------------------------------------------------

// Word by word, as the format has it: four lanes, folded at the end.
uint64_t sum_of(std::string area)
{
    area.resize((area.size() + 7) / 8 * 8, '\0');
    uint64_t lanes[4] = {0xcbf29ce484222325, 0xcbf29ce484222325, 0xcbf29ce484222325, 0xcbf29ce484222325};
    for (size_t i = 0; i < area.size() / 8; ++i) {
        uint64_t word = 0;
        if (i != 3) memcpy(&word, area.data() + 8 * i, 8);
        lanes[i % 4] = (lanes[i % 4] ^ word) * 0x100000001b3;
    }
    uint64_t sum = 0xcbf29ce484222325;
    for (const uint64_t lane : lanes) sum = (sum ^ lane) * 0x100000001b3;
    return sum ^ sum >> 32;
}

std::string as_bytes(uint64_t value)
{
    return {reinterpret_cast<const char *>(&value), sizeof value};
}

// A file between commit and replay: `before` with the pages in which `after` differs standing behind its end.
std::string committed(std::string before, std::string after)
{
    const uint64_t at = round_up(std::max(before.size(), after.size()), 4096);
    memcpy(after.data() + header_state_word.offset, &at, 8);
    std::string list, bytes;
    uint64_t count = 0;
    for (uint64_t page = 0; page < after.size(); page += 512) {
        const std::string piece = after.substr(page, 512);
        if (page < before.size() && before.substr(page, 512) == piece) continue;
        list += as_bytes(page) + as_bytes(piece.size());
        for (const char each : piece) bytes += static_cast<char>(~each);
        ++count;
    }
    std::string area =
        "VFSREDO1" + as_bytes(count) + as_bytes(32 + list.size() + bytes.size()) + as_bytes(0) + list + bytes;
    const uint64_t sum = sum_of(area);
    memcpy(area.data() + 24, &sum, 8);
    before.resize(at, '\0');
    memcpy(before.data() + header_state_word.offset, &at, 8);
    return before + area;
}

TEST_F(Check, PendingChangeIsCheckedAsItWillBe)
{
    make_indexed();
    const std::string before = slurp(path());
    spec changed = indexed();
    changed.keys.push_back({.parts = {{2, 6}, {8, 240}}});
    file f{changed.with_flags(O_RDWR)};
    ASSERT_GT(f.write(text(105, 250), by_record()).value, 0);
    ASSERT_EQ(f.erase(by_key(text(7, 8))).value, 0);
    ASSERT_EQ(f.close(), 0);
    const std::string after = slurp(path());
    ASSERT_EQ(check_file(path()), "");

    const std::string pending = committed(before, after);
    spill(path(), pending);
    const run_result seen = vfsctl("check " + path());
    EXPECT_EQ(seen.status, 0) << seen;
    EXPECT_TRUE(seen.says("a change is pending")) << seen;
    EXPECT_EQ(slurp(path()), pending);
    const run_result rebuilt = vfsctl("rebuild " + path() + " --to " + path("new"));
    EXPECT_EQ(rebuilt.status, 0) << rebuilt;
    EXPECT_TRUE(rebuilt.says("380 records kept")) << rebuilt;
    const run_result cleared = vfsctl("check --clear " + path());
    EXPECT_EQ(cleared.status, 1) << cleared;
    EXPECT_TRUE(slurp(path()) == after) << "the change is in, the words are 0, and nothing stands behind the end";

    // Half of the change in place already, as a killed program leaves it: doing it again completes it.
    std::string half = pending;
    half.replace(0, before.size() / 2, after, 0, before.size() / 2);
    spill(path(), half);
    poke(path(), header_state_word.offset, round_up(std::max(before.size(), after.size()), 4096));
    EXPECT_EQ(vfsctl("check --clear " + path()).status, 1);
    EXPECT_TRUE(slurp(path()) == after);

    std::string torn = pending;
    torn.back() ^= 1;
    spill(path(), torn);
    const run_result refused = vfsctl("check --clear " + path());
    EXPECT_EQ(refused.status, 4) << refused;
    EXPECT_TRUE(refused.says("checksum")) << refused;
    EXPECT_TRUE(slurp(path()) == torn);
}

// ---- Random damage ---------------------------------------------------------------------------------------------

// What the check calls sound the driver serves: every record, by every key.
TEST_F(Check, RandomDamageIsNeverCalledSound)
{
    for (const shape &each : shapes()) {
        make(each);
        const std::string good = slurp(path());
        unsigned damaged = 0, served = 0;
        for (unsigned seed = 0; seed < 150; ++seed) {
            std::string bytes = good;
            seed_byte_changes(seed);
            auto *data = reinterpret_cast<uint8_t *>(bytes.data());
            bytes.resize(LLVMFuzzerCustomMutator(data, bytes.size(), bytes.size(), seed));
            spill(path(), bytes);
            const check_result found = check(path());
            damaged += found.sound() ? 0 : 1;
            if (!check_file(path()).empty()) continue;
            host::file f;
            spec any = indexed(); // with the keys that the file itself describes
            any.keys.clear();
            any.organization = any.logical = found.facts.indexed ? VFS_ORG_INDEXED
                                             : found.facts.flat  ? VFS_ORG_SEQUENTIAL
                                                                 : VFS_ORG_RELATIVE;
            ASSERT_TRUE(f.open(any.with_flags(O_RDONLY))) << each.name << ", seed " << seed << " " << printed();
            for (int64_t key = 0; key < std::max<int64_t>(1, static_cast<int64_t>(found.facts.keys.size())); ++key) {
                const uint64_t head = f.read(host::first(key)).value > 0 ? 1 : 0;
                EXPECT_EQ(head + f.rest().size(), found.records) << each.name << ", seed " << seed << ", key " << key;
            }
            ++served;
        }
        EXPECT_GT(damaged, 50U) << each.name;
        EXPECT_GT(served, 5U) << each.name;
        printed();
    }
}

} // namespace
