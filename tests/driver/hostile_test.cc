// hostile_test.cc: files that lie. A sound file is spoiled one field at a time (header, key table, nodes, list blocks,
// holes, slots), then opened, scanned, read and written. Nothing may crash, hang or reach beyond its memory; what is
// refused is refused with EINVAL or ENOEXEC. Each round runs in a child, so that a death names its field.
#include "host.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <set>

namespace {

using namespace host;

// ESTALE and EFBIG may be said where numbers move under a handle or leave the range of files.
bool is_honest(int error)
{
    static const std::set<int> honest{0,      EINVAL, ENOEXEC, ESPIPE, EADDRINUSE, EFBIG,
                                      ESTALE, EEXIST, ERANGE,  ENOSPC, ENOMEM};
    return honest.contains(error);
}

class Hostile : public DriverTest {
protected:
    Hostile() { spec_ = indexed(path(), {{.parts = {{0, 8}}}, {.parts = {{8, 300}}, .duplicates = true}}, 400); }

    std::string record(int64_t n, size_t length = 320) const
    {
        std::string bytes = numbered("%08ld", n) + std::string(300, static_cast<char>('a' + n % 3));
        bytes.resize(length, '.');
        return bytes;
    }

    // A tree of two levels, free index blocks, listed slots, a relocated record and a hole.
    void make_indexed()
    {
        file f{spec_};
        for (int64_t n = 0; n < 420; ++n) ASSERT_GT(f.write(record(n * 37 % 420), by_record()).value, 0);
        for (int64_t n = 100; n < 260; ++n) ASSERT_EQ(f.erase(by_key(record(n).substr(0, 8))).value, 0);
        ASSERT_GT(f.rewrite(record(5, 399), by_record()).value, 0);
        ASSERT_EQ(f.close(), 0);
        good_ = slurp(path());
    }

    void make_flat()
    {
        spec_ = flat(path(), VFS_FORMAT_VARIABLE, 100);
        file f{spec_};
        for (int64_t n = 0; n < 12; ++n) ASSERT_GT(f.write(record(n, 30)).value, 0);
        ASSERT_EQ(f.erase(by_rrn(4)).value, 0);
        ASSERT_GT(f.rewrite(record(6, 90), by_rrn(6)).value, 0);
        ASSERT_EQ(f.close(), 0);
        good_ = slurp(path());
    }

    static int note(int worst, int error) { return is_honest(error) ? worst : error; }

    // Everything a host might do; the first dishonest error, or 0.
    int use_the_file()
    {
        file f;
        int worst = 0;
        if (!f.open(spec_.with_flags(O_RDWR))) return note(0, f.error());
        const auto keep = [&](const outcome &got) {
            worst = worst != 0 ? worst : note(0, got.value < 0 ? got.error : 0);
        };
        const auto scan = [&](bool forward) {
            for (int i = 0; i < 2000; ++i) {
                const outcome got = f.read(forward ? next() : prev());
                keep(got);
                if (got.value < 0 || got.ended()) break;
            }
        };
        const int64_t keys = spec_.logical == VFS_ORG_INDEXED ? 2 : 1;
        for (int64_t k = 0; k < keys; ++k) {
            keep(f.read(first(k)));
            scan(true);
            keep(f.read(last(k)));
            scan(false);
        }
        const bool by_keys = keys == 2;
        for (const int64_t n : {0, 4, 5, 6, 7, 99, 150, 261, 400, 5000}) {
            keep(f.read(by_keys ? by_key(record(n).substr(0, 8)) : by_rrn(n)));
            keep(
                f.start(by_keys ? by_key(record(n).substr(0, 8), 0, VFS_GREATER_EQUAL) : by_rrn(n, VFS_GREATER_EQUAL)));
        }
        for (const int64_t n : {120, 5001, 130})
            keep(f.write(record(n, 200 + static_cast<size_t>(n % 100)), by_keys ? by_record() : end()));
        keep(f.rewrite(record(7, 399), by_keys ? by_record() : by_rrn(7)));
        keep(f.erase(by_keys ? by_key(record(8).substr(0, 8)) : by_rrn(8)));
        keep(f.rewrite(record(9, 398), by_keys ? by_record() : by_rrn(6)));
        f.flush();
        worst = worst != 0 ? worst : note(0, f.close());
        return worst;
    }

    // One spoiled word, in a child. "" when the driver took it well.
    std::string endure(uint64_t offset, uint64_t value, size_t bytes)
    {
        spill(path(), good_);
        poke(path(), offset, std::string_view{reinterpret_cast<const char *>(&value), bytes});
        const pid_t child = fork();
        if (child == 0) {
            signal(SIGABRT, SIG_DFL);
            signal(SIGALRM, SIG_DFL);
            alarm(20);
            const rlimit size{.rlim_cur = 1 << 30, .rlim_max = 1 << 30};
            setrlimit(RLIMIT_FSIZE, &size);
            _exit(use_the_file());
        }
        int status = 0;
        waitpid(child, &status, 0);
        std::string wrong;
        if (WIFSIGNALED(status))
            wrong = "died of signal " + std::to_string(WTERMSIG(status));
        else if (WEXITSTATUS(status) != 0)
            wrong = "failed with " + std::string{strerror(WEXITSTATUS(status))};
        std::string text = printed();
        if (!wrong.empty()) wrong += "\n" + text.substr(text.size() - std::min<size_t>(text.size(), 600));
        return wrong;
    }

    void spoil(const char *what, uint64_t from, uint64_t to, uint64_t step = 8)
    {
        uint64_t word = 0;
        for (uint64_t at = from; at < to && failures_ < 12; at += step) {
            memcpy(&word, good_.data() + at, sizeof word);
            const std::set<uint64_t> values{0,        UINT64_MAX,          word + 1,          word - 1,
                                            word + 8, word + 32768,        uint64_t{1} << 62, INT64_MAX - 7,
                                            40,       at & ~uint64_t{4095}};
            for (const uint64_t value : values) {
                if (value == word || failures_ >= 12) continue;
                const std::string wrong = endure(at, value, sizeof value);
                if (!wrong.empty()) ++failures_;
                EXPECT_EQ(wrong, "") << what << ": 0x" << std::hex << value << " at 0x" << at;
            }
        }
    }

    void spoil_byte(const char *what, uint64_t at)
    {
        for (const uint64_t value : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 255}) {
            if (static_cast<uint8_t>(good_[at]) == value || failures_ >= 12) continue;
            const std::string wrong = endure(at, value, 1);
            if (!wrong.empty()) ++failures_;
            EXPECT_EQ(wrong, "") << what << ": byte " << value << " at 0x" << std::hex << at;
        }
    }

    // Offsets of the items of one type, in order.
    std::vector<uint64_t> items(uint8_t type) const
    {
        std::vector<uint64_t> found;
        for (uint64_t at = word(0); at + 32 < good_.size() && word(at) >= 32; at += word(at))
            if (static_cast<uint8_t>(good_[at + 16]) == type) found.push_back(at);
        return found;
    }

    uint64_t word(uint64_t at) const
    {
        uint64_t value = 0;
        memcpy(&value, good_.data() + at, sizeof value);
        return value;
    }

    watchdog guard{230};
    file_spec spec_;
    std::string good_;
    int failures_ = 0;
};

TEST_F(Hostile, HeadersThatLieAreRefusedOrHarmless)
{
    make_indexed();
    spoil("header", 0, 336);
    spoil_byte("header type", 16);
    spoil_byte("organization", 224);
}

TEST_F(Hostile, KeyTablesThatLieAreRefusedOrHarmless)
{
    make_indexed();
    const uint64_t table = word(96);
    spoil("key description", 336, 336 + word(336));
    spoil("key entry", table + 192, table + 384);
}

TEST_F(Hostile, NodesThatLieAreRefusedOrHarmless)
{
    make_indexed();
    const uint64_t entry = word(96) + 192; // of the alternate key
    const uint64_t root = word(entry + 128), first_leaf = word(entry + 136);
    const uint64_t second_leaf = word(first_leaf + 56);
    ASSERT_EQ(static_cast<uint8_t>(good_[root + 16]), 3);
    for (const uint64_t node : {root, second_leaf}) {
        spoil("node", node, node + 144);
        spoil_byte("node type", node + 16);
    }
    const uint64_t addresses = second_leaf + 120;
    // Circles: a leaf whose right neighbour is itself or an earlier one, a branch that leads back up.
    for (const uint64_t at :
         {second_leaf + 56, second_leaf + 48, second_leaf + 40, root + 120, root + 128, addresses}) {
        for (const uint64_t value : {root, first_leaf, second_leaf, word(entry + 144), word(128)}) {
            if (value != word(at)) {
                EXPECT_EQ(endure(at, value, 8), "") << "link to 0x" << std::hex << value << " at 0x" << at;
            }
        }
    }
}

TEST_F(Hostile, ListsAndSlotsThatLieAreRefusedOrHarmless)
{
    make_indexed();
    const std::vector<uint64_t> lists = items(5), blocks = items(2), deleted = items(1), live = items(8),
                                relocated = items(7);
    ASSERT_FALSE(lists.empty() || deleted.empty() || live.empty() || relocated.empty());
    spoil("list of free slots", lists[0], lists[0] + 64);
    spoil("offsets of free slots", lists[0] + 48 + 8 * (word(lists[0] + 32) - 1),
          lists[0] + 48 + 8 * word(lists[0] + 32));
    spoil("lengths of free slots", lists[0] + word(lists[0] + 40), lists[0] + word(lists[0] + 40) + 16);
    if (!blocks.empty()) spoil("free index block", blocks[0], blocks[0] + 24);
    for (const uint64_t slot : {deleted[0], deleted.back(), live[0], live.back(), relocated[0]}) {
        spoil("slot", slot, slot + 32);
        spoil("trailer", slot + word(slot) - 8, slot + word(slot));
        spoil_byte("slot type", slot + 16);
    }
}

TEST_F(Hostile, FlatFilesThatLieAreRefusedOrHarmless)
{
    make_flat();
    spoil("header", 0, 336);
    for (const uint8_t type : std::initializer_list<uint8_t>{1, 8, 7, 9})
        for (const uint64_t slot : items(type)) {
            if (type == 8 && slot != items(8)[2] && slot != items(8).back()) continue;
            spoil("slot", slot, slot + 32);
            spoil("trailer", slot + word(slot) - 8, slot + word(slot));
            spoil_byte("slot type", slot + 16);
        }
}

TEST_F(Hostile, TruncatedAndRandomFilesAreRefused)
{
    make_indexed();
    const std::string good = good_;
    for (const size_t size : {size_t{1}, size_t{100}, size_t{335}, size_t{4095}, size_t{4096}, size_t{8192},
                              good.size() / 2, good.size() - 1}) {
        good_ = good.substr(0, size);
        EXPECT_EQ(endure(0, word(0), 1), "") << size;
    }
    srandom(9);
    for (int round = 0; round < 60; ++round) {
        good_ = good;
        for (int i = 0; i < 40; ++i) {
            const size_t at = static_cast<size_t>(random()) % (i % 2 == 0 ? 1024 : good_.size());
            good_[at] = static_cast<char>(random());
        }
        EXPECT_EQ(endure(24, word(24) & 0xff, 1), "") << round;
    }
}

} // namespace
