// LMDB: one unnamed database in one file, durable commits, one write transaction for a load or for all rewrites and one
// read transaction otherwise. The key is the record's first 16 bytes, the data the other 84. May include <lmdb.h> only.
#include "engine.h"

#include <memory>

#include <lmdb.h>

namespace {

struct lmdb_session : session {
    MDB_env *env = nullptr;
    MDB_txn *txn = nullptr;
    MDB_cursor *cursor = nullptr; // of a scan
    MDB_dbi dbi = 0;
    purpose use{};
    MDB_cursor_op step = MDB_NEXT;
};

lmdb_session &of(session *file)
{
    return *static_cast<lmdb_session *>(file);
}

void check(int error, const char *operation)
{
    if (error != 0) throw engine_error(std::string(operation) + ": " + mdb_strerror(error));
}

// A rewriting transaction keeps the old pages beside the new ones: ten times the records, and never too small.
size_t map_bytes(const engine_settings &settings)
{
    return static_cast<size_t>(settings.records) * record_bytes * 10 + (64U << 20);
}

std::string lmdb_configuration(const engine_settings &settings)
{
    return "map of " + std::to_string(map_bytes(settings) >> 20) +
           " MiB, default (durable) flags, key 16 + data 84 bytes, one transaction for each job, MDB_APPEND for the "
           "ascending load, mdb_env_sync at the end";
}

session *lmdb_open(const std::string &path, purpose use, const engine_settings &settings)
{
    auto file = std::make_unique<lmdb_session>();
    file->use = use;
    check(mdb_env_create(&file->env), "mdb_env_create");
    check(mdb_env_set_mapsize(file->env, map_bytes(settings)), "mdb_env_set_mapsize");
    const unsigned access = is_update(use) ? 0 : MDB_RDONLY;
    check(mdb_env_open(file->env, path.c_str(), MDB_NOSUBDIR | access, 0666), "mdb_env_open");
    check(mdb_txn_begin(file->env, nullptr, access, &file->txn), "mdb_txn_begin");
    check(mdb_dbi_open(file->txn, nullptr, 0, &file->dbi), "mdb_dbi_open");
    return file.release();
}

MDB_val bytes_in(const char *bytes, size_t length)
{
    return {.mv_size = length, .mv_data = const_cast<char *>(bytes)}; // only read
}

void put(lmdb_session &file, const record &bytes, unsigned flags)
{
    MDB_val key = bytes_in(bytes.data(), key_bytes);
    MDB_val data = bytes_in(bytes.data() + key_bytes, data_bytes);
    check(mdb_put(file.txn, file.dbi, &key, &data, flags), "mdb_put");
}

void lmdb_put(session *opaque, const record &bytes)
{
    lmdb_session &file = of(opaque);
    put(file, bytes, file.use == purpose::load_ascending ? MDB_APPEND : MDB_NOOVERWRITE);
}

bool lmdb_get(session *opaque, const char *key, record &bytes)
{
    lmdb_session &file = of(opaque);
    MDB_val wanted = bytes_in(key, key_bytes);
    MDB_val data{};
    const int error = mdb_get(file.txn, file.dbi, &wanted, &data);
    if (error == MDB_NOTFOUND) return false;
    check(error, "mdb_get");
    if (data.mv_size != data_bytes) return false;
    memcpy(bytes.data(), key, key_bytes);
    memcpy(bytes.data() + key_bytes, data.mv_data, data_bytes);
    return true;
}

void lmdb_rewrite(session *opaque, const record &bytes)
{
    put(of(opaque), bytes, 0);
}

// A fresh cursor's MDB_NEXT gives the first record, its MDB_PREV the last.
void lmdb_scan_from_end(session *opaque, direction way)
{
    lmdb_session &file = of(opaque);
    file.step = way == direction::forward ? MDB_NEXT : MDB_PREV;
    check(mdb_cursor_open(file.txn, file.dbi, &file.cursor), "mdb_cursor_open");
}

bool lmdb_scan_next(session *opaque, record &bytes)
{
    lmdb_session &file = of(opaque);
    MDB_val key{};
    MDB_val data{};
    const int error = mdb_cursor_get(file.cursor, &key, &data, file.step);
    if (error == MDB_NOTFOUND) return false;
    check(error, "mdb_cursor_get");
    if (key.mv_size != key_bytes || data.mv_size != data_bytes)
        throw engine_error("mdb_cursor_get: a record of another length");
    memcpy(bytes.data(), key.mv_data, key_bytes);
    memcpy(bytes.data() + key_bytes, data.mv_data, data_bytes);
    return true;
}

void lmdb_close(session *opaque)
{
    const std::unique_ptr<lmdb_session> file{&of(opaque)};
    if (file->cursor != nullptr) mdb_cursor_close(file->cursor);
    check(mdb_txn_commit(file->txn), "mdb_txn_commit");
    if (is_update(file->use)) check(mdb_env_sync(file->env, 1), "mdb_env_sync");
    mdb_env_close(file->env);
}

} // namespace

const engine lmdb_engine{.name = "lmdb",
                         .title = "LMDB",
                         .configuration = lmdb_configuration,
                         .open = lmdb_open,
                         .put = lmdb_put,
                         .get = lmdb_get,
                         .rewrite = lmdb_rewrite,
                         .scan_from_end = lmdb_scan_from_end,
                         .scan_next = lmdb_scan_next,
                         .close = lmdb_close};
