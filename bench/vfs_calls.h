// What the benchmarks' adapters of the driver share: the file of the records of record.h, opened and written by key. May
// include <vfs.h> only.
#ifndef BENCH_VFS_CALLS_H
#define BENCH_VFS_CALLS_H

#include "record.h"

#include <string>

#include <fcntl.h>

#include <vfs.h>

inline const vfs_ops &ops()
{
    return vfs()->ops;
}

// Null with errno.
inline vfs_file *open_indexed(const std::string &path, uint32_t access, int flags)
{
    // One key of one part: the first bytes of the record.
    struct one_key {
        vfs_key_desc head;
        vfs_key_desc_entry entry;
        vfs_key_part part;
    };
    const one_key keys{
        .head = {.total_size = sizeof(one_key), .count = 1, .max_extent = key_bytes, .primary_key = 0, .flags = 0},
        .entry = {.length = key_bytes,
                  .part_count = 1,
                  .part_list = offsetof(one_key, part),
                  .flags = VFS_KEY_PRIMARY,
                  .unused = {}},
        .part = {.offset = 0, .length = key_bytes, .unused = 0}};
    vfs_open_block block{};
    block.path = path.c_str();
    block.max_record_length = record_bytes;
    block.keys = &keys.head;
    block.organization = block.logical_organization = VFS_ORG_INDEXED;
    block.record_format = VFS_FORMAT_VARIABLE;
    block.access_mode = access;
    block.open_flags = static_cast<uint32_t>(flags);
    return ops().open(&block);
}

// False with errno.
inline bool write_by_key(vfs_file *handle, const record &bytes)
{
    vfs_record written{.length = record_bytes, .bytes = const_cast<char *>(bytes.data())}; // only read
    return ops().write(handle, &written, nullptr, nullptr, nullptr, VFS_POS_KEY, static_cast<const void *>(nullptr),
                       int64_t{0}, int64_t{0}) != -1;
}

#endif
