// check_test.cc: what the check finds and what it does not. Files of every shape are sound to both judges; damage of each
// kind is found at its offset; random damage never makes the check crash, hang, or call sound what the other judge
// refuses. The program's exit statuses and what --clear writes are those of its manual page.
#include "tool_fixture.h"

#include "format/words.h"
#include "store/format.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <random>

namespace {

using namespace host;

class Check : public ToolTest {
protected:
    uint64_t table() const { return peek(path(), header_key_table.offset); }
    uint64_t key_word(uint64_t key, field<uint64_t> at) const
    {
        return peek(path(), table() + key * key_entry_bytes + at.offset);
    }
    uint64_t first_leaf(uint64_t key) const { return key_word(key, key_entry_first_leaf); }
    // Offset of the record in an entry of a first leaf.
    uint64_t record_of(uint64_t key, uint64_t entry) const
    {
        return peek(path(), first_leaf(key) + node_head_bytes + 8 * entry);
    }

    // A sound file with the given word instead of its own: the check must say so at `at`, and the other judge agree.
    void expect_found(const std::string &good, uint64_t offset, uint64_t value, uint64_t at, const std::string &says)
    {
        spill(path(), good);
        poke(path(), offset, value);
        const check_result found = check(path());
        EXPECT_FALSE(found.sound()) << says;
        EXPECT_NE(check_file(path()), "") << says;
        const auto &problems = found.report.problems();
        EXPECT_TRUE(std::any_of(
            problems.begin(), problems.end(),
            [&](const finding &each) { return each.offset == at && each.text.find(says) != std::string::npos; }))
            << std::hex << at << ": " << says << "\n"
            << lines(found);
    }

    watchdog guard{230};
};

TEST_F(Check, FilesOfEveryShapeAreSoundToBothJudges)
{
    for (const shape &each : shapes()) {
        make(each);
        const check_result found = check(path());
        EXPECT_TRUE(found.sound() && found.report.note_count() == 0) << each.name << "\n" << lines(found);
        EXPECT_EQ(check_file(path()), "") << each.name;
        const run_result run = vfsctl("check " + path());
        EXPECT_EQ(run.status, 0) << each.name << run;
        EXPECT_TRUE(run.says("sound")) << each.name << run;
    }
    unlink(path().c_str());
    make_flat();
    EXPECT_EQ(check(path()).records, 396U);
}

TEST_F(Check, DamagedHeaderFieldsAreFoundWhereTheyAre)
{
    make_indexed();
    const std::string good = slurp(path());
    const uint64_t entry = table() + key_entry_bytes; // of the second key
    const auto word = [&](uint64_t offset) {
        return load_u64(reinterpret_cast<const std::byte *>(good.data()) + offset);
    };
    const auto wrong = [&](auto at, const std::string &says) {
        expect_found(good, at.offset, word(at.offset) + 8, at.offset, says);
    };
    wrong(header_records, "number of records");
    wrong(header_deleted, "number of free slots");
    wrong(header_moved, "number of moved");
    wrong(header_holes, "number of holes");
    wrong(header_free_index_blocks, "free index blocks");
    wrong(header_free_slot_blocks, "free-slot lists");
    wrong(header_header_length, "header length");
    wrong(header_allocation_point, "allocation point");
    wrong(header_index_block_size, "index block size");
    wrong(header_minimum_slot, "minimum slot");
    wrong(header_key_table, "key table");
    expect_found(good, header_highest_rrn.offset, 3, header_highest_rrn.offset, "highest record number");
    expect_found(good, 24, 0, 24, "no file of this driver");
    expect_found(good, 32, 0x04030201, 32, "other byte order");
    expect_found(good, 0, 12288 * 4096, 0, "metadata region");
    expect_found(good, header_free_index_list.offset, first_leaf(0), header_free_index_list.offset, "overwrite");
    expect_found(good, header_free_slot_list.offset, first_leaf(0), header_free_slot_list.offset, "leads to");
    expect_found(good, header_variable_part + 8, 77, header_key_description.offset, "77 keys");
    expect_found(good, entry + key_entry_depth.offset, 65, entry + key_entry_depth.offset, "65 levels");
    expect_found(good, entry + key_entry_root.offset, 4104, entry + key_entry_root.offset, "expected at 0x1008");
    expect_found(good, entry + key_entry_leaves.offset, 3, entry + key_entry_leaves.offset, "its leaves");
    expect_found(good, entry + key_entry_leaf_capacity.offset, 3, entry + key_entry_leaf_capacity.offset, "capacity");
}

TEST_F(Check, DamagedTreesAreFoundWhereTheyAre)
{
    make_indexed();
    const std::string good = slurp(path());
    const uint64_t leaf = first_leaf(0), record = record_of(0, 2), other = record_of(0, 3);
    const uint64_t keys = leaf + node_geometry_of(8).leaf_key_array;
    expect_found(good, leaf + node_head_bytes, 4096, leaf + node_head_bytes, "where no record is");
    expect_found(good, leaf + node_head_bytes + 16, other, leaf + node_head_bytes + 24, "a second entry leads");
    expect_found(good, leaf + node_head_bytes + 16, other, record, "no entry leads to this record");
    expect_found(good, keys + 8, 0, keys + 8, "lower than the one before");
    expect_found(good, keys + 8, 0, leaf + node_head_bytes + 8, "another value");
    expect_found(good, leaf + node_ent.offset, 2000, leaf + node_ent.offset, "2000 entries");
    expect_found(good, leaf + node_right.offset, leaf, leaf + node_right.offset, "right neighbour");
    expect_found(good, leaf + node_left.offset, leaf, leaf + node_left.offset, "left neighbour");
    expect_found(good, leaf + node_parent.offset, 8, leaf + node_parent.offset, "parent");
    const uint64_t long_leaf = first_leaf(2), root = key_word(2, key_entry_root);
    ASSERT_NE(long_leaf, root) << "the third key has two levels";
    expect_found(good, root + node_head_bytes, root, root + node_head_bytes, "a leaf is expected");
    expect_found(good, root + node_head_bytes + 8, long_leaf, root + node_head_bytes + 8, "a second time");
    spill(path(), good);
    const uint64_t separator = root + node_geometry_of(246).branch_key_array + node_geometry_of(246).width;
    expect_found(good, separator, UINT64_MAX, peek(path(), root + node_head_bytes + 8), "higher key");
}

TEST_F(Check, DamagedItemsAreFoundWhereTheyAre)
{
    make_indexed();
    const std::string good = slurp(path());
    const uint64_t record = record_of(0, 2), bytes = peek(path(), record);
    expect_found(good, record, 24, record, "no item begins here");
    expect_found(good, record + bytes - 8, 16, record + bytes - 8, "ends with length");
    expect_found(good, record + 8, 5000, record, "5000 bytes in a slot");
    expect_found(good, record + 8, 100, record + 32 + 100, "behind it not all are zero");
    expect_found(good, record + 24, peek(path(), record_of(0, 3) + 24), std::max(record, record_of(0, 3)),
                 "a second record with number");
    const uint64_t list = peek(path(), header_free_slot_list.offset);
    expect_found(good, list + free_slots_head_bytes, record, list + free_slots_head_bytes, "which it is not");
    const uint64_t hole = peek(path(), header_first_hole.offset);
    ASSERT_NE(hole, 0U);
    expect_found(good, hole + 8, hole, hole + 8, "leads back");

    spill(path(), good.substr(0, good.size() - 4096));
    EXPECT_NE(lines(check(path())).find("cut off: 4096 bytes"), std::string::npos);

    unlink(path().c_str());
    make_flat();
    const std::string flat_file = slurp(path());
    const uint64_t second = 4096 + peek(path(), 4096);
    expect_found(flat_file, second + 24, 9, second + 24, "in the order of the file");
    const auto wrong = [&](auto at, const std::string &says) {
        spill(path(), flat_file);
        expect_found(flat_file, at.offset, peek(path(), at.offset) + 1, at.offset, says);
    };
    wrong(header_records, "number of records");
    wrong(header_deleted, "number of deleted records");
    wrong(header_moved, "number of moved records");
    wrong(header_highest_rrn, "highest record number");
    wrong(header_holes, "a file without index");
    spill(path(), flat_file);
    std::vector<uint64_t> moved;
    for (uint64_t at = 4096; at < flat_file.size(); at += peek(path(), at))
        if (flat_file[at + frame_type.offset] == item_moved) moved.push_back(at);
    ASSERT_EQ(moved.size(), 2U);
    const uint64_t link = slot_data_length.offset, target = peek(path(), moved[0] + link);
    expect_found(flat_file, moved[0] + link, 4096, moved[0] + link, "is said to have moved to 0x1000");
    expect_found(flat_file, moved[0] + link, 4096, target, "no slot leads to this record");

    unlink(path().c_str());
    make_fixed();
    const std::string fixed_file = slurp(path());
    const uint64_t first = 4096 + peek(path(), 4096); // the one before it is free
    expect_found(fixed_file, first + link, 5000, first, "5000 bytes in a slot");
    expect_found(fixed_file, first + slot_rrn.offset, 2, first + slot_rrn.offset, "it is 1");
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

std::string damaged(std::string bytes, std::mt19937_64 &random)
{
    const auto up_to = [&](uint64_t limit) { return random() % limit; };
    const auto interesting = [&] { // where structures begin, or anywhere
        const uint64_t anywhere = up_to(bytes.size());
        return up_to(3) == 0   ? up_to(std::min<uint64_t>(bytes.size(), 1500))
               : up_to(2) == 0 ? anywhere / 8 * 8
                               : anywhere;
    };
    for (uint64_t n = 1 + up_to(3); n > 0 && !bytes.empty(); --n) {
        const uint64_t at = interesting();
        switch (up_to(6)) {
        case 0: bytes[at] = static_cast<char>(bytes[at] ^ (1 << up_to(8))); break;
        case 1: bytes[at] = static_cast<char>(random()); break;
        case 2: { // a word that means something elsewhere
            const uint64_t value = up_to(2) == 0 ? up_to(bytes.size()) / 8 * 8 : up_to(2) == 0 ? random() : up_to(10);
            memcpy(bytes.data() + at, &value, std::min<uint64_t>(8, bytes.size() - at));
            break;
        }
        case 3:
            std::fill_n(bytes.begin() + static_cast<ptrdiff_t>(at), std::min<uint64_t>(4096, bytes.size() - at), '\0');
            break;
        case 4: { // a block of the file stands where another one was
            const uint64_t from = up_to(bytes.size()),
                           count = std::min({up_to(40000), bytes.size() - at, bytes.size() - from});
            memmove(bytes.data() + at, bytes.data() + from, count);
            break;
        }
        default: bytes.resize(bytes.size() - up_to(std::min<uint64_t>(bytes.size(), 5000))); break;
        }
    }
    return bytes;
}

TEST_F(Check, RandomDamageIsNeverCalledSound)
{
    for (const shape &each : shapes()) {
        make(each);
        const std::string good = slurp(path());
        unsigned found_damaged = 0;
        for (unsigned seed = 0; seed < 150; ++seed) {
            std::mt19937_64 random{seed};
            spill(path(), damaged(good, random));
            const check_result found = check(path());
            const std::string judged = check_file(path());
            found_damaged += found.sound() ? 0 : 1;
            if (found.sound() && found.report.note_count() == 0 && found.words.state == session_state::closed &&
                slurp(path()).size() == found.facts.end) {
                EXPECT_EQ(judged, "") << each.name << ", seed " << seed;
            }
            // The other judge does not look at the primary key's number.
            const bool only_here = lines(found).find("the primary one number") != std::string::npos;
            EXPECT_TRUE(!judged.empty() || found.sound() || only_here) << each.name << ", seed " << seed << "\n"
                                                                       << lines(found);
        }
        EXPECT_GT(found_damaged, 75U) << each.name;
    }
}

} // namespace
