// checker.cc: see checker.h. The file is mapped once; every access is bounded by its size, every walk by the number of
// items. First the items are walked from the metadata region to the end of file, then each structure (lists, chain,
// trees) is compared with the items that were found.
#include "checker.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <map>
#include <set>
#include <span>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace {

constexpr uint64_t none = UINT64_MAX;
constexpr uint64_t node_bytes = 32768;

enum item_type : uint8_t {
    deleted_slot = 1,
    free_block = 2,
    branch = 3,
    leaf = 4,
    slot_list = 5,
    hole = 6,
    relocated = 7,
    live = 8,
    moved = 9
};

uint64_t round_up(uint64_t value, uint64_t unit)
{
    return (value + unit - 1) / unit * unit;
}

struct part {
    uint64_t offset, length;
};

struct key_facts {
    uint64_t number, entry; // entry: offset of its row in the key table
    uint64_t length, width;
    bool duplicates;
    std::vector<part> parts; // none: the key is the record number
    uint64_t leaf_capacity, branch_capacity;
};

struct item {
    uint64_t offset, length, second; // second: the word behind the length
    uint8_t type;
    uint64_t rrn;
};

class checker {
public:
    checker(const uint8_t *bytes, uint64_t size) : bytes_(bytes), size_(size) {}
    std::string run();

private:
    // ---- access
    bool has(uint64_t at, uint64_t count) const { return at <= size_ && count <= size_ - at; }
    template <typename T> T get(uint64_t at) const
    {
        T value{};
        if (has(at, sizeof value)) memcpy(&value, bytes_ + at, sizeof value);
        return value;
    }
    uint64_t word(uint64_t at) const { return get<uint64_t>(at); }
    std::string_view view(uint64_t at, uint64_t count) const
    {
        return has(at, count) ? std::string_view{reinterpret_cast<const char *>(bytes_ + at), count}
                              : std::string_view{};
    }
    uint64_t nonzero_in(uint64_t from, uint64_t to) const; // offset of the first byte that is not zero, or none
    void zeros(uint64_t from, uint64_t to, const char *what);
    void equal(uint64_t at, uint64_t expected, const char *what);
    void complain(const char *format, ...) __attribute__((format(printf, 2, 3)));
    bool full() const { return lines_ >= 20; }
    const item *find(uint64_t offset) const;

    // ---- steps
    bool header();
    void key_description();
    void key_table();
    void items();
    void slot(const item &it);
    void counters();
    void flat_slots();
    void free_blocks();
    void free_slots();
    void holes();
    void tree(const key_facts &key);
    bool node(const key_facts &key, uint64_t at, bool is_leaf, uint64_t parent, uint64_t left, uint64_t right);
    void leaf_entries(const key_facts &key, uint64_t at, std::string &previous, std::set<uint64_t> &reached);
    std::string record_key(const key_facts &key, const item &record) const;
    int compare(const key_facts &key, std::string_view a, std::string_view b) const;

    const uint8_t *bytes_;
    uint64_t size_;
    std::string text_;
    int lines_ = 0;

    uint64_t metadata_ = 0, data_start_ = 0, end_ = 0;
    bool flat_ = false, fixed_ = false;
    std::vector<key_facts> keys_;
    std::vector<item> items_;
    std::unordered_map<uint64_t, size_t> at_;
    std::set<uint64_t> nodes_used_; // every node that some tree reaches
};

void checker::complain(const char *format, ...)
{
    if (full()) return;
    char line[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    text_ += (text_.empty() ? "" : "\n") + std::string{line};
    ++lines_;
}

uint64_t checker::nonzero_in(uint64_t from, uint64_t to) const
{
    for (; from < to && from < size_; ++from)
        if (bytes_[from] != 0) return from;
    return none;
}

void checker::zeros(uint64_t from, uint64_t to, const char *what)
{
    const uint64_t at = nonzero_in(from, to);
    if (at != none) complain("%s: byte 0x%lx is 0x%02x, not zero", what, at, bytes_[at]);
}

void checker::equal(uint64_t at, uint64_t expected, const char *what)
{
    const uint64_t found = word(at);
    if (found != expected)
        complain("%s: at 0x%lx stands %ld, expected %ld", what, at, static_cast<long>(found),
                 static_cast<long>(expected));
}

const item *checker::find(uint64_t offset) const
{
    const auto found = at_.find(offset);
    return found == at_.end() ? nullptr : &items_[found->second];
}

// ---- Metadata region -------------------------------------------------------------------------------------------

bool checker::header()
{
    metadata_ = word(0);
    if (metadata_ < 4096 || metadata_ % 4096 != 0 || metadata_ > size_) {
        complain("metadata size %lu", metadata_);
        return false;
    }
    equal(8, 328, "header length");
    if (get<uint8_t>(16) != 2) complain("item type of the header is %d", get<uint8_t>(16));
    zeros(17, 24, "header, reserved");
    if (view(24, 4) != std::string_view{"vfs\0", 4}) complain("tag");
    if (get<uint32_t>(28) != 0x20210520) complain("format stamp");
    if (get<uint32_t>(32) != 0x01020304) complain("byte-order mark");
    zeros(36, 40, "header, reserved");
    if (static_cast<int64_t>(word(40)) < 0) complain("tsn is negative");
    if (get<uint8_t>(80) > 1) complain("header flags 0x%x", get<uint8_t>(80));
    zeros(81, 88, "header, reserved");
    equal(120, metadata_ - 8, "allocation limit");
    equal(metadata_ - 8, metadata_, "trailer of the metadata region");
    data_start_ = word(128);
    end_ = word(136);
    if (data_start_ < metadata_ || data_start_ % 4096 != 0) complain("data start 0x%lx", data_start_);
    if (end_ < data_start_) complain("end of file 0x%lx below data start 0x%lx", end_, data_start_);
    if (end_ != size_) complain("end of file 0x%lx, size of the file 0x%lx", end_, size_);
    equal(144, 0, "allocated size");
    if (word(112) > word(120) || word(152) != word(120) - word(112))
        complain("allocation point 0x%lx, unused %lu", word(112), word(152));
    equal(160, 131072, "data block size");
    equal(168, node_bytes, "index block size");
    equal(176, 4, "index blocks per extension");
    const uint32_t physical = get<uint32_t>(224);
    if (physical != 1 && physical != 3) complain("physical organization %u", physical);
    flat_ = physical == 1;
    fixed_ = get<uint32_t>(232) == 3;
    const uint64_t largest = round_up(word(216), 8) + 40;
    equal(192, fixed_ ? largest : round_up(word(208), 8) + 40, "minimum slot");
    if (word(200) < largest) complain("maximum slot %lu below %lu", word(200), largest);
    zeros(236, 240, "header, reserved");
    equal(320, 0, "state word");
    equal(328, 0, "boot word");
    return true;
}

void checker::key_description()
{
    const uint64_t at = word(88);
    if (at != 0 && at != 336) complain("key description offset %lu", at);
    const uint64_t bytes = at == 0 ? 0 : word(at);
    const uint64_t table = round_up(336 + bytes, 16);
    uint64_t count = flat_ ? 0 : 1;
    const bool indexed = !flat_ && get<uint32_t>(228) == 3;
    if (indexed && at == 0) return complain("an indexed file without key description");
    if (indexed) count = word(at + 8);
    if (bytes > metadata_ || count > metadata_ / 192)
        return complain("key description of %lu bytes, %lu keys", bytes, count);
    equal(96, flat_ ? 0 : table, "key table offset");
    if (!flat_) equal(104, table + count * 192, "key table end");
    if (metadata_ != round_up(table + count * 192, 4096))
        complain("metadata size %lu for a key table of %lu keys at %lu", metadata_, count, table);
    for (uint64_t k = 0; k < count && !full(); ++k) {
        key_facts key{.number = k,
                      .entry = table + k * 192,
                      .length = 8,
                      .width = 8,
                      .duplicates = false,
                      .parts = {},
                      .leaf_capacity = 0,
                      .branch_capacity = 0};
        if (indexed) {
            const uint64_t row = at + 40 + 32 * k;
            key.length = word(row);
            key.duplicates = (get<uint8_t>(row + 24) & 2) != 0;
            const uint64_t list = word(row + 16), parts = word(row + 8);
            uint64_t sum = 0;
            for (uint64_t j = 0; j < parts && j < 4096 && list < bytes; ++j) {
                key.parts.push_back({word(at + list + 24 * j), word(at + list + 24 * j + 8)});
                sum += key.parts.back().length;
            }
            if (key.length == 0 || key.length > 32640 / 4 || sum != key.length)
                return complain("key %lu: length %lu, parts %lu", k, key.length, sum);
        }
        key.width = round_up(key.length, 8);
        key.leaf_capacity = 32640 / (key.width + 16);
        key.branch_capacity = 32640 / (key.width + 8);
        keys_.push_back(key);
    }
}

void checker::key_table()
{
    uint64_t area = word(104);
    for (const key_facts &key : keys_) {
        const uint64_t at = key.entry;
        const uint64_t expected[] = {at, key.number, key.length};
        for (uint64_t i = 0; i < 3; ++i) equal(at + 8 * i, expected[i], "key entry");
        const uint64_t geometry[] = {
            120 + 8 * key.leaf_capacity,   key.width, key.branch_capacity,  key.branch_capacity / 2,
            120 + 8 * key.branch_capacity, key.width, key.leaf_capacity,    key.leaf_capacity / 2,
            120 + 16 * key.leaf_capacity,  area - at, area + key.width - at};
        for (uint64_t i = 0; i < 11; ++i) equal(at + 40 + 8 * i, geometry[i], "key entry geometry");
        if ((get<uint8_t>(at + 184) & 1) != (key.duplicates ? 1 : 0)) complain("key %lu: duplicates flag", key.number);
        if (get<uint8_t>(at + 184) > 3) complain("key %lu: flags 0x%x", key.number, get<uint8_t>(at + 184));
        zeros(at + 185, at + 192, "key entry, reserved");
        area += 2 * key.width;
    }
    if (!flat_) equal(112, area, "allocation point");
    if (area > metadata_ - 8) complain("key value areas beyond the metadata region");
    if (!flat_) zeros(area, metadata_ - 8, "unused metadata");
}

// ---- Items -----------------------------------------------------------------------------------------------------

void checker::items()
{
    for (uint64_t at = metadata_; at < end_ && !full();) {
        const item it{.offset = at,
                      .length = word(at),
                      .second = word(at + 8),
                      .type = get<uint8_t>(at + 16),
                      .rrn = word(at + 24)};
        const bool block = it.type >= free_block && it.type <= slot_list;
        const uint64_t least = it.type == hole ? 32 : 40;
        if (it.type < 1 || it.type > 9 || it.length % 8 != 0 || it.length < least || it.length > end_ - at ||
            (block && it.length != node_bytes))
            return complain("item at 0x%lx: type %d, length %lu; the walk ends here", at, it.type, it.length);
        equal(at + it.length - 8, it.length, "trailer");
        zeros(at + 17, at + 24, "item, reserved");
        if (at < data_start_ && !block) complain("item of type %d at 0x%lx, below data start", it.type, at);
        if (flat_ && (block || it.type == hole)) complain("item of type %d at 0x%lx in a flat file", it.type, at);
        if (block && at % 4096 != 0) complain("index block at 0x%lx is not aligned", at);
        if (!block && it.type != hole) slot(it);
        at_[at] = items_.size();
        items_.push_back(it);
        at += it.length;
    }
}

void checker::slot(const item &it)
{
    if (it.type == moved) {
        if (!flat_) complain("moved slot at 0x%lx in a tree file", it.offset);
        return;
    }
    if (it.second > it.length - 40)
        return complain("slot at 0x%lx: %lu bytes in a slot of %lu", it.offset, it.second, it.length);
    if (it.type == live || it.type == relocated)
        zeros(it.offset + 32 + it.second, it.offset + it.length - 8, "zero fill");
    if (it.type == relocated && flat_ && fixed_)
        complain("relocated record at 0x%lx in a flat file of fixed length", it.offset);
    if (fixed_ && flat_ && it.length != word(200))
        complain("slot at 0x%lx: length %lu in a flat file of fixed length", it.offset, it.length);
    if (it.length > word(200) && (it.type == live || it.type == relocated) && round_up(it.second, 8) + 40 > word(200))
        complain("record at 0x%lx needs more than the maximum slot %lu", it.offset, word(200));
}

// Records, moved and deleted slots, and the numbers of the records.
void checker::counters()
{
    uint64_t records = 0, moved_slots = 0, highest = none;
    std::set<uint64_t> numbers;
    for (const item &it : items_) {
        const bool record = it.type == live || (it.type == relocated && !flat_) || it.type == moved;
        const bool slot_item = record || it.type == relocated || it.type == deleted_slot;
        if (slot_item && (flat_ || record) && (highest == none || it.rrn > highest)) highest = it.rrn;
        records += record ? 1 : 0;
        moved_slots += it.type == moved ? 1 : 0;
        if (record && !numbers.insert(it.rrn).second)
            complain("record number %ld occurs twice, again at 0x%lx", static_cast<long>(it.rrn), it.offset);
    }
    equal(64, records, "records");
    equal(248, moved_slots, "moved");
    if (flat_)
        equal(72, highest, "highest rrn");
    else if (highest != none && (word(72) == none || word(72) < highest))
        complain("highest rrn %ld, but a record has %lu", static_cast<long>(word(72)), highest);
}

// Flat files: the numbers of the home slots ascend, a moved slot and its relocated record name each other. A deleted
// slot whose number does not ascend once held a relocated record.
void checker::flat_slots()
{
    uint64_t expected = 0, deleted = 0;
    std::map<uint64_t, uint64_t> targets;
    for (const item &it : items_) {
        if (it.type == moved) {
            const item *target = find(it.second);
            if (target == nullptr || target->type != relocated || target->rrn != it.rrn)
                complain("moved slot at 0x%lx leads to 0x%lx", it.offset, it.second);
            if (!targets.emplace(it.second, it.offset).second) complain("two moved slots lead to 0x%lx", it.second);
        }
        if (it.type == relocated || (it.type == deleted_slot && it.rrn < expected)) continue;
        if (it.rrn != expected)
            complain("home slot at 0x%lx has number %ld, expected %lu", it.offset, static_cast<long>(it.rrn), expected);
        expected = it.rrn + 1;
        deleted += it.type == deleted_slot ? 1 : 0;
        if (fixed_ && it.offset != data_start_ + it.rrn * word(200)) complain("record %lu at 0x%lx", it.rrn, it.offset);
    }
    for (const item &it : items_)
        if (it.type == relocated && !targets.contains(it.offset))
            complain("no moved slot leads to the record at 0x%lx", it.offset);
    equal(240, deleted, "deleted");
    for (const uint64_t at : std::initializer_list<uint64_t>{256, 264, 272, 280, 288, 296, 304, 312})
        equal(at, 0, "free space of a flat file");
}

// ---- Lists -----------------------------------------------------------------------------------------------------

void checker::free_blocks()
{
    std::set<uint64_t> listed;
    for (uint64_t at = word(280); at != 0; at = word(at + 8)) {
        const item *it = find(at);
        if (it == nullptr || it->type != free_block)
            return complain("free index list leads to 0x%lx, which is no free block", at);
        if (!listed.insert(at).second) return complain("free index list runs in a circle at 0x%lx", at);
    }
    equal(272, listed.size(), "free index blocks");
    for (const item &it : items_)
        if (it.type == free_block && !listed.contains(it.offset)) complain("index block at 0x%lx is lost", it.offset);
}

void checker::free_slots()
{
    const uint64_t capacity = fixed_ ? (node_bytes - 56) / 8 : (node_bytes - 56) / 16;
    std::set<uint64_t> blocks, listed;
    for (uint64_t at = word(296); at != 0; at = word(at + 8)) {
        const item *block = find(at);
        if (block == nullptr || block->type != slot_list)
            return complain("free-slot list leads to 0x%lx, which is no list block", at);
        if (!blocks.insert(at).second) return complain("free-slot list runs in a circle at 0x%lx", at);
        equal(at + 24, capacity, "capacity of a free-slot block");
        if (!fixed_) equal(at + 40, 48 + 8 * capacity, "length array of a free-slot block");
        const uint64_t count = word(at + 32);
        if (count > capacity) return complain("free-slot block at 0x%lx lists %lu slots", at, count);
        for (uint64_t i = 0, before = 0; i < count; ++i) {
            const uint64_t offset = word(at + 48 + 8 * i);
            const item *it = find(offset);
            if (it == nullptr || it->type != deleted_slot) {
                complain("free-slot block at 0x%lx, entry %lu: 0x%lx is no deleted slot", at, i, offset);
                continue;
            }
            if (!listed.insert(offset).second) complain("slot at 0x%lx is listed twice", offset);
            if (fixed_) continue;
            const uint64_t length = word(at + 48 + 8 * capacity + 8 * i);
            // Padding may have lengthened a slot after it was listed.
            if (length > it->length || length < 40)
                complain("slot at 0x%lx is listed with %lu bytes, has %lu", offset, length, it->length);
            if (length < before) complain("free-slot block at 0x%lx: lengths do not ascend at entry %lu", at, i);
            before = length;
        }
    }
    equal(288, blocks.size(), "free-slot blocks");
    equal(240, listed.size(), "deleted");
    for (const item &it : items_) {
        if (it.type == slot_list && !blocks.contains(it.offset))
            complain("free-slot block at 0x%lx is lost", it.offset);
        if (it.type == deleted_slot && !listed.contains(it.offset))
            complain("deleted slot at 0x%lx is not listed", it.offset);
    }
}

void checker::holes()
{
    std::set<uint64_t> chained;
    uint64_t final_hole = 0, dropped = 0;
    for (uint64_t at = word(304); at != 0; at = word(at + 8)) {
        const item *it = find(at);
        if (it == nullptr || it->type != hole) return complain("hole chain leads to 0x%lx, which is no hole", at);
        if (!chained.insert(at).second) return complain("hole chain runs in a circle at 0x%lx", at);
        final_hole = at;
    }
    equal(256, chained.size(), "holes");
    equal(312, final_hole, "last hole");
    for (const item &it : items_)
        if (it.type == hole && !chained.contains(it.offset)) dropped += it.length;
    if (word(264) < dropped || word(264) > end_) complain("pad bytes %lu, dropped holes %lu", word(264), dropped);
}

// ---- Trees -----------------------------------------------------------------------------------------------------

std::string checker::record_key(const key_facts &key, const item &record) const
{
    std::string value;
    if (key.parts.empty()) {
        value.assign(reinterpret_cast<const char *>(&record.rrn), 8);
        return value;
    }
    for (const part &each : key.parts) {
        std::string piece;
        if (each.offset < record.second)
            piece = view(record.offset + 32 + each.offset, std::min(each.length, record.second - each.offset));
        piece.resize(each.length, '\0');
        value += piece;
    }
    value.resize(key.width, '\0');
    return value;
}

int checker::compare(const key_facts &key, std::string_view a, std::string_view b) const
{
    if (!key.parts.empty()) return memcmp(a.data(), b.data(), key.length);
    uint64_t x = 0, y = 0;
    memcpy(&x, a.data(), 8);
    memcpy(&y, b.data(), 8);
    return x < y ? -1 : x > y ? 1 : 0;
}

// One node's own fields; false when its entries cannot be looked at.
bool checker::node(const key_facts &key, uint64_t at, bool is_leaf, uint64_t parent, uint64_t left, uint64_t right)
{
    const item *it = find(at);
    if (it == nullptr || it->type != (is_leaf ? leaf : branch)) {
        complain("key %lu: at 0x%lx a %s is expected", key.number, at, is_leaf ? "leaf" : "branch");
        return false;
    }
    if (!nodes_used_.insert(at).second) {
        complain("key %lu: node 0x%lx is reached twice", key.number, at);
        return false;
    }
    const uint64_t max = is_leaf ? key.leaf_capacity : key.branch_capacity;
    equal(at + 8, at, "address of a node");
    equal(at + 24, key.entry, "key entry of a node");
    equal(at + 32, key.number, "key number of a node");
    equal(at + 40, parent, "parent of a node");
    equal(at + 48, left, "left neighbour");
    equal(at + 56, right, "right neighbour");
    equal(at + 80, max, "capacity of a node");
    equal(at + 88, max / 2, "half of a node");
    equal(at + 96, is_leaf ? 120 + 8 * max : 0, "stamp array");
    equal(at + 104, is_leaf ? 120 + 16 * max : 120 + 8 * max, "key array");
    equal(at + 112, key.width, "key width of a node");
    const uint64_t ent = word(at + 64);
    if (ent > max || word(at + 72) > ent || (ent == 0 && parent != 0)) {
        complain("node 0x%lx: ent %lu, act %lu", at, ent, word(at + 72));
        return false;
    }
    uint64_t active = 0;
    for (uint64_t i = 0; i < ent; ++i) active += word(at + 120 + 8 * i) != none ? 1 : 0;
    equal(at + 72, active, "active entries");
    return true;
}

void checker::leaf_entries(const key_facts &key, uint64_t at, std::string &previous, std::set<uint64_t> &reached)
{
    const uint64_t tree_tsn = word(key.entry + 152);
    for (uint64_t i = 0; i < word(at + 64) && !full(); ++i) {
        const uint64_t address = word(at + 120 + 8 * i);
        const std::string value{view(at + 120 + 16 * key.leaf_capacity + i * key.width, key.width)};
        if (word(at + 120 + 8 * key.leaf_capacity + 8 * i) > tree_tsn)
            complain("leaf 0x%lx, entry %lu: stamp above the tree's %lu", at, i, tree_tsn);
        if (!previous.empty()) {
            const int order = compare(key, previous, value);
            if (order > 0) complain("key %lu, leaf 0x%lx, entry %lu: keys out of order", key.number, at, i);
            if (order == 0 && (get<uint8_t>(key.entry + 184) & 3) != 3)
                complain("key %lu, leaf 0x%lx, entry %lu: equal keys without the flags for them", key.number, at, i);
        }
        previous = value;
        if (address == none) continue;
        const item *record = find(address);
        if (record == nullptr || (record->type != live && record->type != relocated)) {
            complain("key %lu, leaf 0x%lx, entry %lu: leads to 0x%lx, which is no record", key.number, at, i, address);
            continue;
        }
        if (!reached.insert(address).second)
            complain("key %lu: two entries lead to the record at 0x%lx", key.number, address);
        if (record_key(key, *record) != value)
            complain("key %lu, leaf 0x%lx, entry %lu: not the key of the record at 0x%lx", key.number, at, i, address);
    }
}

void checker::tree(const key_facts &key)
{
    const uint64_t entry = key.entry, depth = word(entry + 160);
    if (depth == 0 || depth > 64) return complain("key %lu: depth %lu", key.number, depth);
    struct child {
        uint64_t address, parent;
        std::string key; // of the entry that leads to it; empty for the root
    };
    std::vector<child> level{{word(entry + 128), 0, ""}};
    uint64_t branches = 0, branch_entries = 0, entries = 0;
    std::string previous, lowest;
    std::set<uint64_t> reached;
    for (uint64_t d = 0; d < depth; ++d) {
        const bool is_leaf = d == depth - 1;
        std::vector<child> below;
        std::string last_of_left; // highest key of the node to the left
        for (size_t i = 0; i < level.size(); ++i) {
            const uint64_t at = level[i].address;
            if (full() || !node(key, at, is_leaf, level[i].parent, i == 0 ? 0 : level[i - 1].address,
                                i + 1 == level.size() ? 0 : level[i + 1].address))
                return;
            const uint64_t ent = word(at + 64);
            const uint64_t array = at + (is_leaf ? 120 + 16 * key.leaf_capacity : 120 + 8 * key.branch_capacity);
            if (ent > 0 && !level[i].key.empty()) {
                if (compare(key, level[i].key, view(array, key.width)) > 0)
                    complain("key %lu: separator of node 0x%lx is above its first key", key.number, at);
                if (!last_of_left.empty() && compare(key, last_of_left, level[i].key) > 0)
                    complain("key %lu: separator of node 0x%lx is below the last key of its left neighbour", key.number,
                             at);
            }
            if (ent > 0) last_of_left = view(array + (ent - 1) * key.width, key.width);
            for (uint64_t j = 0; j < ent; ++j) {
                const uint64_t tail = nonzero_in(array + j * key.width + key.length, array + (j + 1) * key.width);
                if (tail != none)
                    complain("key %lu, node 0x%lx, entry %lu: key is not padded with zeros", key.number, at, j);
                if (!is_leaf)
                    below.push_back({word(at + 120 + 8 * j), at, std::string{view(array + j * key.width, key.width)}});
            }
            if (is_leaf) {
                if (lowest.empty() && ent > 0) lowest = view(array, key.width);
                leaf_entries(key, at, previous, reached);
                entries += word(at + 72);
            } else {
                ++branches;
                branch_entries += ent;
            }
        }
        if (is_leaf) {
            equal(entry + 136, level.front().address, "first leaf");
            equal(entry + 144, level.back().address, "last leaf");
            equal(entry + 168, level.size(), "leaves");
        } else if (below.empty()) {
            return complain("key %lu: a level without nodes", key.number);
        }
        level = std::move(below);
    }
    equal(entry + 24, entries, "entries of a tree");
    equal(entry + 32, branch_entries, "branch entries");
    equal(entry + 176, branches, "branches");
    if (entries != word(64)) complain("key %lu: %lu entries for %lu records", key.number, entries, word(64));
    for (const item &it : items_)
        if ((it.type == live || it.type == relocated) && !reached.contains(it.offset))
            complain("key %lu: no entry leads to the record at 0x%lx", key.number, it.offset);

    const std::string_view low = view(entry + word(entry + 112), key.width),
                           high = view(entry + word(entry + 120), key.width);
    if (entries > 0) {
        if (low != lowest) complain("key %lu: low key area is not the lowest key", key.number);
        if (high != previous) complain("key %lu: high key area is not the highest key", key.number);
    } else {
        if (low.find_first_not_of('\xff') < key.length) complain("key %lu: low key area of an empty tree", key.number);
        if (high.find_first_not_of('\0') != std::string_view::npos)
            complain("key %lu: high key area of an empty tree", key.number);
    }
}

std::string checker::run()
{
    if (size_ < 4096)
        complain("a file of %lu bytes", size_);
    else if (header()) {
        key_description();
        key_table();
        items();
        if (text_.empty()) counters();
        if (text_.empty() && flat_) flat_slots();
        if (text_.empty() && !flat_) {
            free_blocks();
            free_slots();
            holes();
            for (const key_facts &key : keys_) tree(key);
            for (const item &it : items_)
                if ((it.type == leaf || it.type == branch) && !nodes_used_.contains(it.offset))
                    complain("node 0x%lx belongs to no tree", it.offset);
        }
    }
    return text_;
}

} // namespace

std::string check_file(const std::string &path)
{
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat facts {};
    if (descriptor < 0 || fstat(descriptor, &facts) != 0) return "cannot be opened";
    const auto size = static_cast<size_t>(facts.st_size);
    void *bytes = size == 0 ? nullptr : mmap(nullptr, size, PROT_READ, MAP_PRIVATE, descriptor, 0);
    close(descriptor);
    if (bytes == MAP_FAILED) return "cannot be mapped";
    std::string wrong = checker{static_cast<const uint8_t *>(bytes), size}.run();
    if (bytes != nullptr) munmap(bytes, size);
    return wrong;
}

bool file_is_unclean(const std::string &path)
{
    uint64_t words[2] = {};
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const bool read = pread(descriptor, words, sizeof words, 320) == static_cast<ssize_t>(sizeof words);
    close(descriptor);
    return read && (words[0] != 0 || words[1] != 0);
}
