/* vfs.h - the interface between a host and the file driver libvfs_psx_64r.so.
 *
 * A host loads the library, calls vfs() once and reaches everything else through the table of operations in
 * the descriptor that it returns. This header is valid C11 and C++20 and needs nothing but the C library.
 *
 * Conventions. Operations return 0 or a non-negative length on success, and -1 with errno set on failure;
 * `open` and `resolve` return a pointer, or null with errno set. Lengths and offsets are bytes. "None" is the
 * value with every bit set (VFS_NONE). A handle is used by one thread at a time; different handles may be
 * used by different threads. What a pointer leads to belongs to whoever allocated it, unless stated.
 *
 * errno values with one meaning everywhere: ESPIPE end of file or no such record; EADDRINUSE duplicate key or
 * record number; EEXIST out of sequence under sequential access; EINVAL bad mode, key, header or argument;
 * ERANGE bad key number or record length; EOVERFLOW record number too long for the relative key; EROFS against
 * the open mode; EAGAIN lock refused; EDEADLK deadlock; ENOLCK lock table full; ETXTBSY exclusive open refused;
 * ENOEXEC damaged file, or one that was not closed; EFBIG metadata region or file too large; EBADF null handle
 * or a kind of file that is not served; ESTALE the file was made anew, or changed by a second unlocked writer.
 */
#ifndef VFS_H
#define VFS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#define VFS_ASSERT static_assert
#else
#define VFS_ASSERT _Static_assert
#endif

#define VFS_STAMP 0x20210520u /* interface stamp of descriptor, handle, open block and file header */
#define VFS_NONE UINT64_MAX   /* "none" for offsets, record numbers, cursor items and stamps */

struct vfs_file;  /* an open file; opaque to the host */
struct vfs_cache; /* a block cache of an open file; opaque to the host */

/* ---- Keys ------------------------------------------------------------------------------------------------ */

/* Key description: one contiguous block of `total_size` bytes. `count` entries follow the header at once; the
 * parts of key k lie at `part_list` bytes from the start of the block. */
struct vfs_key_desc {
    int64_t total_size;  /* bytes of the whole block */
    int64_t count;       /* number of keys */
    int64_t max_extent;  /* length of the longest key */
    int64_t primary_key; /* number of the primary key, from 0 */
    int64_t flags;       /* bit 0: some key allows duplicates */
};

enum { VFS_KEY_PRIMARY = 1, VFS_KEY_DUPLICATES = 2, VFS_KEY_MULTI_PART = 4 };

struct vfs_key_desc_entry {
    int64_t length;     /* bytes of the key: the sum of its parts */
    int64_t part_count; /* number of parts */
    int64_t part_list;  /* offset of this key's parts from the start of the block */
    uint8_t flags;      /* VFS_KEY_... */
    uint8_t unused[7];
};

struct vfs_key_part {
    int64_t offset; /* of the part in the record */
    int64_t length; /* bytes */
    int64_t unused;
};

/* ---- Locks ----------------------------------------------------------------------------------------------- */

enum { VFS_SHARE_DEFAULT = 0, VFS_SHARE_NONE = 1, VFS_SHARE_READ = 2, VFS_SHARE_ALL = 3 };
enum { VFS_LOCK_NONE = 1, VFS_LOCK_FILE = 3, VFS_LOCK_AUTO = 4, VFS_LOCK_RECORD = 5 };
enum { VFS_LOCK_SEVERAL = 0x02 };                 /* lock_flags: a handle may hold several record locks */
enum { VFS_KIND_NO_LOCK = 1, VFS_KIND_SKIP = 2 }; /* request_kind: take no record lock; step over locked records */
enum { VFS_WAIT_NEVER = 0, VFS_WAIT_KERNEL = 1, VFS_WAIT_RETRY = 2 }; /* wait_mode */

struct vfs_lock_request {
    uint32_t share_mode;   /* VFS_SHARE_...; read at open */
    uint32_t lock_mode;    /* VFS_LOCK_...; read at open */
    uint32_t lock_flags;   /* VFS_LOCK_SEVERAL; read at open */
    uint32_t hold;         /* non-zero keeps the record lock after read, write and rewrite */
    uint32_t request_kind; /* VFS_KIND_..., or 0 to lock normally */
    uint32_t wait_mode;    /* VFS_WAIT_... */
    uint64_t retry_count;  /* retries after the first one, with VFS_WAIT_RETRY */
    uint64_t sleep;        /* seconds between retries */
};

/* ---- Opening --------------------------------------------------------------------------------------------- */

#define VFS_OPT_REVERSED (UINT64_C(1) << 0)   /* read from the last record backwards */
#define VFS_OPT_NO_PREREAD (UINT64_C(1) << 4) /* do not read ahead at open */
#define VFS_OPT_NO_IO (UINT64_C(1) << 61)     /* open for info and locks only */
#define VFS_OPT_STREAM (UINT64_C(1) << 62)    /* one-way stream (refused by this driver) */
#define VFS_OPT_SOCKET (UINT64_C(1) << 63)    /* treat as a socket (refused by this driver) */

enum { VFS_ORG_SEQUENTIAL = 1, VFS_ORG_RELATIVE = 2, VFS_ORG_INDEXED = 3 };
enum { VFS_ACCESS_SEQUENTIAL = 1, VFS_ACCESS_RANDOM = 2, VFS_ACCESS_DYNAMIC = 3 };
enum { VFS_FORMAT_VARIABLE = 1, VFS_FORMAT_FIXED = 3 }; /* every value but 3 means variable length */

struct vfs_driver;

/* What the host asks of `open`, and what `info` and `close` hand back. Strings and blocks that it points to are
 * copied by open; the copies handed back by info point to the handle's own copies and live until close. */
struct vfs_open_block {
    uint64_t stamp;                               /* host word; VFS_STAMP in copies handed back */
    int64_t block_size;                           /* block size the host asks for */
    int64_t min_record_length;                    /* bytes */
    int64_t max_record_length;                    /* bytes */
    uint64_t options;                             /* VFS_OPT_...; 0 in copies handed back */
    uint64_t host_word_40;                        /* not used by the driver */
    int64_t record_count;                         /* records in the file */
    int64_t empty_count;                          /* deleted records not yet reused */
    int64_t node_count;                           /* moved records */
    uint64_t host_word_72;                        /* not used by the driver */
    int64_t bytes_transferred;                    /* set at close: bytes read plus bytes written */
    const char *logical_name;                     /* name of the file in the program, or null */
    const struct vfs_driver *driver;              /* in copies: this driver */
    const char *path;                             /* path of the file; required */
    struct vfs_file *handle;                      /* in copies: the handle */
    const struct vfs_driver *driver_out;          /* written by open, in the host's block too */
    const struct vfs_lock_request *lock_defaults; /* sharing and locking, or null */
    const struct vfs_key_desc *keys;              /* keys of an indexed file, or null */
    uint32_t open_flags;                          /* O_RDONLY, O_WRONLY, O_RDWR, O_CREAT, O_EXCL, O_TRUNC, O_APPEND */
    uint32_t organization;                        /* physical: VFS_ORG_... */
    uint32_t logical_organization;                /* VFS_ORG_...; keys count only with VFS_ORG_INDEXED */
    uint32_t access_mode;                         /* VFS_ACCESS_... */
    uint32_t record_format;                       /* VFS_FORMAT_... */
    uint32_t host_word_164;                       /* not used by the driver */
};

/* ---- Record operations ----------------------------------------------------------------------------------- */

struct vfs_record {
    uint64_t length; /* bytes of the record, or of the caller's area */
    void *bytes;     /* the record area */
};

/* Filled after an operation when the host passes one; bytes not named are left alone. */
struct vfs_status {
    uint64_t unused_0;
    const void *key;        /* indexed files: key of the record, in a buffer of the handle */
    uint64_t record_offset; /* where the record lies */
    uint64_t rrn;           /* its relative record number, from 0 */
    uint32_t duplicate;     /* 1: the key of reference has a duplicate */
    uint32_t unused_36;
};

enum {                      /* position modes, passed to the record operations */
       VFS_POS_NEXT = 0,    /* no further argument */
       VFS_POS_PREV = 1,    /* no further argument */
       VFS_POS_FIRST = 2,   /* read, start: int64_t key number */
       VFS_POS_LAST = 3,    /* read, start: int64_t key number */
       VFS_POS_END = 4,     /* no further argument */
       VFS_POS_CURRENT = 5, /* no further argument */
       VFS_POS_RRN = 6,     /* [start: int32_t relation,] int64_t rrn */
       VFS_POS_KEY = 7,     /* [start: int32_t relation,] const void *key or null, int64_t length, int64_t number */
       VFS_POS_OFFSET = 8,  /* start only: int64_t record offset */
       VFS_POS_BEFORE_FIRST = 9, /* state */
       VFS_POS_AFTER_LAST = 10,  /* state */
       VFS_POS_UNDEFINED = 13    /* state: left by a failed operation */
};

enum { VFS_LESS = 0, VFS_LESS_EQUAL = 1, VFS_EQUAL = 2, VFS_GREATER_EQUAL = 3, VFS_GREATER = 4 };

enum { /* operation codes, in vfs_request */
       VFS_OP_NONE = 0,
       VFS_OP_START = 1,
       VFS_OP_READ = 2,
       VFS_OP_WRITE = 3,
       VFS_OP_REWRITE = 4,
       VFS_OP_DELETE = 5,
       VFS_OP_POSITION = 6,
       VFS_OP_UNLOCK = 7,
       VFS_OP_UNLOCK_ALL = 8,
       VFS_OP_CLOSE = 9
};

/* One piece of a gather transfer. A null address skips bytes when reading and writes zeros when writing. */
struct vfs_segment {
    uint64_t length;
    void *address;
};

/* The request block: the argument of the three shared cache entries. The record operations build their own. */
struct vfs_request {
    uint64_t stored_length;     /* bytes that the record occupies in the file */
    uint64_t data_length;       /* bytes of record data */
    uint8_t record_state;       /* item type of the record's header */
    uint8_t operation;          /* VFS_OP_... */
    uint8_t previous_operation; /* VFS_OP_... */
    uint8_t mode;               /* VFS_POS_... */
    uint8_t previous_mode;      /* VFS_POS_... */
    uint8_t relation;           /* VFS_LESS ... VFS_GREATER */
    uint8_t flags;              /* VFS_FLAG_... */
    uint8_t flags2;             /* VFS_FLAG2_... */
    uint64_t record_offset;
    uint64_t data_offset;
    uint64_t rrn;
    uint64_t key_number;
    uint64_t key_length;
    uint64_t node;          /* index cursor: address of the leaf */
    uint64_t item;          /* index cursor: entry in the leaf */
    uint64_t stamp;         /* index cursor: sequence stamp */
    void *key;              /* key buffer */
    void *record;           /* the caller's record bytes */
    uint64_t record_length; /* the caller's record length */
    uint64_t segment_count; /* pieces of a gather transfer */
    struct vfs_segment *segments;
};

enum {
    VFS_FLAG_STATUS = 0x80,     /* the caller passed a status block */
    VFS_FLAG_AT_END = 0x40,     /* no record in this direction, or key not found */
    VFS_FLAG_CURRENT = 0x20,    /* moving sequentially while the data cache holds a current buffer */
    VFS_FLAG_SEQUENTIAL = 0x10, /* moving sequentially */
    VFS_FLAG_DUPLICATE = 0x04,  /* the key of reference of the record has a duplicate */
    VFS_FLAG_BROWSE = 0x02,     /* a browse of the index is in progress */
    VFS_FLAG2_NO_KEY_CHANGE = 0x01,
    VFS_FLAG2_REREAD = 0x02
};

/* A record operation: handle, record, a word that is not read, status or null, lock request or null (then the
 * file's own settings hold), position mode, and the further arguments that the mode names above. Integers among
 * them are int64_t but for `relation`, which is int32_t. */
typedef int64_t (*vfs_record_operation)(struct vfs_file *file, struct vfs_record *record, void *unused,
                                        struct vfs_status *status, const struct vfs_lock_request *lock, int32_t mode,
                                        ...);

/* ---- The descriptor -------------------------------------------------------------------------------------- */

struct vfs_ops {
    /* 0: which driver serves a file name. `resolved_out` (may be null) receives the resolved name, valid until
     * the next call of the same thread. EINVAL: no name. */
    const struct vfs_driver *(*resolve)(const char *type_word, const char *assignment_name, const char *name,
                                        const char **resolved_out);
    int (*access)(const char *path); /* 1: 1 exists, 0 does not (ENOENT), -1 any other failure */
    int (*rename)(const char *old_path, const char *new_path); /* 2 */
    void *slot_3;                                              /* empty */
    int (*unlink)(const char *path);                           /* 4 */
    /* 5: opens or creates a file; null with errno on failure, and then nothing is left open. */
    struct vfs_file *(*open)(struct vfs_open_block *block);
    int (*info)(struct vfs_file *file, struct vfs_open_block *out); /* 6: the handle's open block as it stands */
    int (*flush)(struct vfs_file *file); /* 7: everything changed so far is on the disk; null handle: 0 */
    /* 8: flushes, unlocks and frees the handle in every case; -1 with the first error met. `out` may be null. */
    int (*close)(struct vfs_file *file, struct vfs_open_block *out);
    int (*at_end)(struct vfs_file *file);     /* 9: 1 when the last read met the end; needs a handle */
    vfs_record_operation read;                /* 10: length of the record; 0 with errno ESPIPE at the end */
    vfs_record_operation write;               /* 11: length of the record */
    vfs_record_operation rewrite;             /* 12: length of the record */
    vfs_record_operation delete_record;       /* 13: 0 */
    vfs_record_operation start;               /* 14: length of the record found; 0 at the end */
    vfs_record_operation position;            /* 15: 0 when the position can be reached */
    vfs_record_operation lock;                /* 16: 0 */
    vfs_record_operation unlock;              /* 17: 0 */
    int (*unlock_all)(struct vfs_file *file); /* 18: releases every record lock of the handle */
    /* 19: text for an error number, or null when want_text is 0. With a handle the text lives in the handle
     * until close, without one until the thread's next call. `code_out` may be null. */
    const char *(*error_text)(struct vfs_file *file, int error, int *code_out, int want_text);
};

/* Three entry points of the block caches; each returns 0, or -1 with errno. */
struct vfs_shared_entries {
    int (*fetch_ahead)(struct vfs_cache *cache, struct vfs_request *request);
    int (*get_for_write)(struct vfs_cache *cache, struct vfs_request *request);
    int (*write_block)(struct vfs_cache *cache, struct vfs_request *request);
    void *end; /* null */
};

struct vfs_driver {
    char name[8];   /* "vfs_psx" */
    uint32_t stamp; /* VFS_STAMP */
    uint32_t size;  /* bytes of this record: 200 */
    struct vfs_shared_entries *shared;
    uint32_t host_count_1; /* 3 */
    uint32_t host_count_2; /* 3 */
    uint32_t flags;        /* 0x2e */
    uint32_t reserved;     /* 0 */
    struct vfs_ops ops;
};

/* The library's only exported function: always the same descriptor, valid while the library is loaded. */
const struct vfs_driver *vfs(void);

/* ---- Layouts that cross the interface -------------------------------------------------------------------- */

#define VFS_AT(type, member, offset) VFS_ASSERT(offsetof(struct type, member) == (offset), #type "." #member)

VFS_ASSERT(sizeof(struct vfs_key_desc) == 40, "vfs_key_desc");
VFS_AT(vfs_key_desc, count, 8);
VFS_AT(vfs_key_desc, max_extent, 16);
VFS_AT(vfs_key_desc, primary_key, 24);
VFS_AT(vfs_key_desc, flags, 32);
VFS_ASSERT(sizeof(struct vfs_key_desc_entry) == 32, "vfs_key_desc_entry");
VFS_AT(vfs_key_desc_entry, part_count, 8);
VFS_AT(vfs_key_desc_entry, part_list, 16);
VFS_AT(vfs_key_desc_entry, flags, 24);
VFS_ASSERT(sizeof(struct vfs_key_part) == 24, "vfs_key_part");
VFS_AT(vfs_key_part, length, 8);
VFS_ASSERT(sizeof(struct vfs_lock_request) == 40, "vfs_lock_request");
VFS_AT(vfs_lock_request, lock_mode, 4);
VFS_AT(vfs_lock_request, lock_flags, 8);
VFS_AT(vfs_lock_request, hold, 12);
VFS_AT(vfs_lock_request, request_kind, 16);
VFS_AT(vfs_lock_request, wait_mode, 20);
VFS_AT(vfs_lock_request, retry_count, 24);
VFS_AT(vfs_lock_request, sleep, 32);
VFS_ASSERT(sizeof(struct vfs_open_block) == 168, "vfs_open_block");
VFS_AT(vfs_open_block, block_size, 8);
VFS_AT(vfs_open_block, min_record_length, 16);
VFS_AT(vfs_open_block, max_record_length, 24);
VFS_AT(vfs_open_block, options, 32);
VFS_AT(vfs_open_block, record_count, 48);
VFS_AT(vfs_open_block, empty_count, 56);
VFS_AT(vfs_open_block, node_count, 64);
VFS_AT(vfs_open_block, bytes_transferred, 80);
VFS_AT(vfs_open_block, logical_name, 88);
VFS_AT(vfs_open_block, driver, 96);
VFS_AT(vfs_open_block, path, 104);
VFS_AT(vfs_open_block, handle, 112);
VFS_AT(vfs_open_block, driver_out, 120);
VFS_AT(vfs_open_block, lock_defaults, 128);
VFS_AT(vfs_open_block, keys, 136);
VFS_AT(vfs_open_block, open_flags, 144);
VFS_AT(vfs_open_block, organization, 148);
VFS_AT(vfs_open_block, logical_organization, 152);
VFS_AT(vfs_open_block, access_mode, 156);
VFS_AT(vfs_open_block, record_format, 160);
VFS_ASSERT(sizeof(struct vfs_record) == 16, "vfs_record");
VFS_AT(vfs_record, bytes, 8);
VFS_ASSERT(sizeof(struct vfs_status) == 40, "vfs_status");
VFS_AT(vfs_status, key, 8);
VFS_AT(vfs_status, record_offset, 16);
VFS_AT(vfs_status, rrn, 24);
VFS_AT(vfs_status, duplicate, 32);
VFS_ASSERT(sizeof(struct vfs_request) == 128, "vfs_request");
VFS_AT(vfs_request, data_length, 8);
VFS_AT(vfs_request, record_state, 16);
VFS_AT(vfs_request, operation, 17);
VFS_AT(vfs_request, previous_operation, 18);
VFS_AT(vfs_request, mode, 19);
VFS_AT(vfs_request, previous_mode, 20);
VFS_AT(vfs_request, relation, 21);
VFS_AT(vfs_request, flags, 22);
VFS_AT(vfs_request, flags2, 23);
VFS_AT(vfs_request, record_offset, 24);
VFS_AT(vfs_request, data_offset, 32);
VFS_AT(vfs_request, rrn, 40);
VFS_AT(vfs_request, key_number, 48);
VFS_AT(vfs_request, key_length, 56);
VFS_AT(vfs_request, node, 64);
VFS_AT(vfs_request, item, 72);
VFS_AT(vfs_request, stamp, 80);
VFS_AT(vfs_request, key, 88);
VFS_AT(vfs_request, record, 96);
VFS_AT(vfs_request, record_length, 104);
VFS_AT(vfs_request, segment_count, 112);
VFS_AT(vfs_request, segments, 120);
VFS_ASSERT(sizeof(struct vfs_segment) == 16, "vfs_segment");
VFS_ASSERT(sizeof(struct vfs_ops) == 160, "vfs_ops");
VFS_ASSERT(sizeof(struct vfs_shared_entries) == 32, "vfs_shared_entries");
VFS_ASSERT(sizeof(struct vfs_driver) == 200, "vfs_driver");
VFS_AT(vfs_driver, stamp, 8);
VFS_AT(vfs_driver, size, 12);
VFS_AT(vfs_driver, shared, 16);
VFS_AT(vfs_driver, host_count_1, 24);
VFS_AT(vfs_driver, host_count_2, 28);
VFS_AT(vfs_driver, flags, 32);
VFS_AT(vfs_driver, reserved, 36);
VFS_AT(vfs_driver, ops, 40);

#undef VFS_AT

#ifdef __cplusplus
}
#endif

#endif
