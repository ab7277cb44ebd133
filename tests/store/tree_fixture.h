// A handle over a scratch file with trees of one key description, without open and the record operations: what tests
// of the trees need. Also the walk that compares a whole tree with the entries it should have.
#ifndef TESTS_STORE_TREE_FIXTURE_H
#define TESTS_STORE_TREE_FIXTURE_H

#include "store/header.h"
#include "store/node.h"
#include "store/tree.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

using entry_list = std::vector<std::pair<std::string, uint64_t>>; // keys in order, with record offsets

// Record numbers as text that sorts like them.
inline std::string rrn_key(uint64_t number)
{
    std::string text(8, '\0');
    for (size_t i = 8; i-- > 0; number >>= 8) text[i] = static_cast<char>(number & 0xFF);
    return text;
}
inline uint64_t rrn_of(const std::string &text)
{
    uint64_t number = 0;
    for (const char c : text) number = number << 8 | static_cast<unsigned char>(c);
    return number;
}

class tree_file {
public:
    // One byte key of this length; length 0: a relative file.
    explicit tree_file(uint64_t key_length, bool duplicates = false)
        : length(key_length == 0 ? 8 : key_length), relative(key_length == 0)
    {
        char name[] = "/tmp/tree_test_XXXXXX";
        handle.fd = mkstemp(name);
        path = name;
        handle.path = path.c_str();
        handle.logical_name = "";
        handle.kind_flags = kind_regular;
        handle.settings.hashing = true;
        handle.physical_organization = 3;
        handle.logical_organization = relative ? 2 : 3;
        handle.record_format = VFS_FORMAT_FIXED;
        handle.access_mode = VFS_ACCESS_DYNAMIC;
        handle.maximum_record = handle.minimum_record = 100;
        handle.lock_defaults.lock_mode = VFS_LOCK_NONE;
        handle.meta.hdrb = nullptr;
        describe(duplicates);
        const uint64_t bytes = round_up(length, 8) + 264;
        for (auto *buffer : {&position_key, &request_key_buffer}) buffer->assign(bytes, std::byte{0});
        handle.position.key = position_key.data();
        handle.position.side = position_side::before_first;
        handle.position.node = handle.position.item = handle.position.stamp = handle.position.record_offset = none;
        cache_reset(&handle.data, &handle, cache_data);
        cache_reset(&handle.meta, &handle, cache_meta);
        handle.meta.rfd = handle.meta.wfd = handle.fd;
        handle.meta.flags |= cache_zero_fill;
        handle.open_flags = O_RDWR | O_CREAT | O_TRUNC;
        handle.session_marked = true; // no session words in these files
        EXPECT_EQ(header_open(&handle), 0) << std::strerror(errno);
    }
    ~tree_file()
    {
        contexts_close(&handle);
        cache_close(&handle.meta);
        cache_header_free(&handle.meta);
        close(handle.fd);
        unlink(path.c_str());
    }
    tree_file(const tree_file &) = delete;
    tree_file &operator=(const tree_file &) = delete;

    vfs_request request()
    {
        vfs_request made{};
        made.key = request_key_buffer.data();
        made.node = made.item = made.stamp = none;
        return made;
    }
    void put_key(vfs_request *into, const std::string &key) const
    {
        if (relative)
            into->rrn = rrn_of(key);
        else
            std::memcpy(into->key, key.data(), length);
    }
    int insert(const std::string &key, uint64_t offset, uint8_t flags = 0)
    {
        vfs_request r = request();
        r.flags = flags;
        r.record_offset = offset;
        put_key(&r, key);
        return relative ? rrn_insert(&handle, &r) : tree_insert_key(&handle, &r);
    }
    int remove(const std::string &key, uint64_t offset)
    {
        vfs_request r = request();
        r.record_offset = offset;
        put_key(&r, key);
        return relative ? rrn_delete(&handle, &r) : tree_delete_key(&handle, &r);
    }
    // The offset found; none when the search finds nothing.
    uint64_t find(const std::string &key, uint8_t relation)
    {
        vfs_request r = request();
        r.relation = relation;
        put_key(&r, key);
        const int result = relative ? rrn_locate(&handle, &r) : key_locate(&handle, &r);
        EXPECT_NE(result, -1) << std::strerror(errno);
        return result == 0 ? r.record_offset : none;
    }
    // Steps without moving the position; none at the end.
    uint64_t peek(bool forward, vfs_request *out = nullptr, uint8_t flags = 0)
    {
        vfs_request r = request();
        r.flags = flags;
        const int result = forward ? tree_read_next(&handle, &r) : tree_read_prev(&handle, &r);
        EXPECT_NE(result, -1) << std::strerror(errno);
        if (out != nullptr) *out = r;
        return result == 0 ? r.record_offset : none;
    }
    void stand_on(const vfs_request &r)
    {
        file_position &position = handle.position;
        position.side = position_side::entry;
        position.identified = true;
        position.key_number = r.key_number;
        position.node = r.node;
        position.item = r.item;
        position.stamp = r.stamp;
        position.record_offset = r.record_offset;
        position.rrn = r.rrn;
        if (!relative) std::memcpy(position.key, r.key, round_up(length, 8));
    }
    void stand_at(const std::string &key, uint64_t offset)
    {
        vfs_request r = request();
        r.record_offset = offset;
        put_key(&r, key);
        ASSERT_EQ(tree_seek_record(&handle, &r), 0);
        stand_on(r);
    }
    index_tree tree()
    {
        index_tree made{};
        EXPECT_EQ(tree_open(&handle, 0, &made), 0);
        return made;
    }
    // Everything into the file and out of the caches, as when another process has changed something.
    void forget_cache()
    {
        ASSERT_EQ(changes_write_out(&handle), 0);
        contexts_discard(&handle);
    }

    // Walks the tree from its root; "" when it is sound and holds exactly these entries.
    std::string differs(const entry_list &wanted)
    {
        const index_tree t = tree();
        walk state{.levels = std::vector<std::vector<uint64_t>>(t.get(key_entry_depth)), .found = {}, .error = ""};
        node_walk(t, t.get(key_entry_root), 0, t.get(key_entry_depth), &state);
        if (!state.error.empty()) return state.error;
        if (state.found != wanted) return "other entries: " + std::to_string(state.found.size());
        uint64_t branches = 0, branch_entries = 0;
        for (size_t level = 0; level < state.levels.size(); ++level) {
            const auto &nodes = state.levels[level];
            const bool leaves = level + 1 == state.levels.size();
            for (size_t i = 0; i < nodes.size(); ++i) {
                const vfs_buffer *node = node_fetch(t, nodes[i]);
                if (node_get(node, node_left) != (i == 0 ? 0 : nodes[i - 1])) return "left link";
                if (node_get(node, node_right) != (i + 1 == nodes.size() ? 0 : nodes[i + 1])) return "right link";
                if (!leaves) branch_entries += node_entries(node);
            }
            if (!leaves) branches += nodes.size();
        }
        if (t.get(key_entry_entries) != wanted.size()) return "entries";
        if (t.get(key_entry_leaves) != state.levels.back().size()) return "leaves";
        if (t.get(key_entry_first_leaf) != state.levels.back().front()) return "first leaf";
        if (t.get(key_entry_last_leaf) != state.levels.back().back()) return "last leaf";
        if (t.get(key_entry_branches) != branches) return "branches";
        if (t.get(key_entry_branch_entries) != branch_entries) return "branch entries";
        const std::string low = key_at(t.low()), high = key_at(t.high());
        if (low != (wanted.empty() ? std::string(length, '\xFF') : wanted.front().first)) return "low key";
        if (high != (wanted.empty() ? std::string(length, '\0') : wanted.back().first)) return "high key";
        return "";
    }
    std::vector<uint64_t> leaf_sizes()
    {
        const index_tree t = tree();
        std::vector<uint64_t> sizes;
        for (uint64_t at = t.get(key_entry_first_leaf); at != 0;) {
            const vfs_buffer *leaf = node_fetch(t, at);
            sizes.push_back(node_entries(leaf));
            at = node_get(leaf, node_right);
        }
        return sizes;
    }

    vfs_file handle{};
    const uint64_t length;
    const bool relative;
    std::string path;

private:
    std::string key_at(const std::byte *bytes) const
    {
        return relative ? rrn_key(load_u64(bytes)) : std::string(reinterpret_cast<const char *>(bytes), length);
    }
    struct walk {
        std::vector<std::vector<uint64_t>> levels;
        entry_list found;
        std::string error;
    };
    void node_walk(const index_tree &t, uint64_t address, uint64_t parent, uint64_t level, walk *state)
    {
        if (!state->error.empty()) return;
        const pinned_buffer node(node_fetch(t, address));
        if (!node) {
            state->error = "node cannot be fetched";
            return;
        }
        if (node_get(node.get(), node_parent) != parent) state->error = "parent field";
        if (is_leaf(node.get()) != (level == 1)) state->error = "level";
        if (node_get(node.get(), node_act) != node_entries(node.get())) state->error = "act";
        if (node_entries(node.get()) == 0 && parent != 0) state->error = "empty node";
        state->levels[state->levels.size() - level].push_back(address);
        for (uint64_t i = 0; i < node_entries(node.get()) && state->error.empty(); ++i) {
            const std::byte *key = key_place(node.get(), i);
            if (i != 0 && search_key_of(t, key).compare(key_place(node.get(), i - 1)) < 0) state->error = "order";
            if (level == 1) {
                state->found.emplace_back(key_at(key), entry_address(node.get(), i));
                continue;
            }
            const uint64_t child = entry_address(node.get(), i);
            const vfs_buffer *below = node_fetch(t, child);
            if (below == nullptr || std::memcmp(key_place(below, 0), key, t.width) != 0) state->error = "separator";
            node_walk(t, child, address, level - 1, state);
        }
    }
    void describe(bool duplicates)
    {
        struct description {
            vfs_key_desc head;
            vfs_key_desc_entry entry;
            vfs_key_part part;
        };
        keys = std::make_unique<description_bytes>();
        auto *made = new (keys->bytes) description{};
        made->head = {.total_size = sizeof(description),
                      .count = 1,
                      .max_extent = static_cast<int64_t>(length),
                      .primary_key = 0,
                      .flags = duplicates ? 1 : 0};
        made->entry.length = static_cast<int64_t>(length);
        made->entry.part_count = 1;
        made->entry.part_list = offsetof(description, part);
        made->entry.flags = duplicates ? VFS_KEY_DUPLICATES : 0;
        made->part.length = static_cast<int64_t>(length);
        handle.keys = &made->head;
        handle.key_count = 1;
    }
    struct description_bytes {
        alignas(8) std::byte bytes[sizeof(vfs_key_desc) + sizeof(vfs_key_desc_entry) + sizeof(vfs_key_part)];
    };
    std::unique_ptr<description_bytes> keys;
    std::vector<std::byte> position_key, request_key_buffer;
};

// A key of `length` bytes that sorts like `number`.
inline std::string key_number(uint64_t number, uint64_t length)
{
    char digits[24];
    std::snprintf(digits, sizeof digits, "%08llu", static_cast<unsigned long long>(number));
    std::string key(digits);
    key.resize(length, '.');
    return key;
}
#endif
