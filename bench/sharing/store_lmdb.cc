// LMDB: one unnamed database in one file, a transaction for each operation, no sync but at the end. May include <lmdb.h>
// only.
#include "store.h"

#include <memory>

#include <lmdb.h>

namespace {

struct lmdb_connection : connection {
    MDB_env *env = nullptr;
    MDB_dbi dbi = 0;
};

lmdb_connection &of(connection *file)
{
    return *static_cast<lmdb_connection *>(file);
}

void check(int error, const char *operation)
{
    if (error != 0) throw store_error(std::string(operation) + ": " + mdb_strerror(error));
}

MDB_val bytes_in(const char *bytes, size_t length)
{
    return {.mv_size = length, .mv_data = const_cast<char *>(bytes)}; // only read
}

class transaction {
public:
    transaction(lmdb_connection &file, unsigned flags)
    {
        check(mdb_txn_begin(file.env, nullptr, flags, &txn_), "begin");
    }
    ~transaction()
    {
        if (txn_ != nullptr) mdb_txn_abort(txn_);
    }
    transaction(const transaction &) = delete;
    transaction &operator=(const transaction &) = delete;
    void commit()
    {
        MDB_txn *const ended = txn_;
        txn_ = nullptr;
        check(mdb_txn_commit(ended), "mdb_txn_commit");
    }
    MDB_txn *get() const { return txn_; }

private:
    MDB_txn *txn_ = nullptr;
};

void put(const transaction &within, MDB_dbi dbi, const record &bytes, unsigned flags)
{
    MDB_val key = bytes_in(bytes.data(), key_bytes);
    MDB_val data = bytes_in(bytes.data() + key_bytes, data_bytes);
    check(mdb_put(within.get(), dbi, &key, &data, flags), "mdb_put");
}

bool find(const transaction &within, MDB_dbi dbi, const char *key, record &bytes)
{
    MDB_val wanted = bytes_in(key, key_bytes);
    MDB_val data{};
    const int error = mdb_get(within.get(), dbi, &wanted, &data);
    if (error == MDB_NOTFOUND) return false;
    check(error, "mdb_get");
    if (data.mv_size != data_bytes) return false;
    memcpy(bytes.data(), key, key_bytes);
    memcpy(bytes.data() + key_bytes, data.mv_data, data_bytes);
    return true;
}

connection *lmdb_open(const std::string &path)
{
    auto file = std::make_unique<lmdb_connection>();
    check(mdb_env_create(&file->env), "mdb_env_create");
    check(mdb_env_set_mapsize(file->env, size_t{1} << 34), "mdb_env_set_mapsize");
    check(mdb_env_open(file->env, path.c_str(), MDB_NOSUBDIR | MDB_NOSYNC, 0666), "mdb_env_open");
    transaction first(*file, 0);
    check(mdb_dbi_open(first.get(), nullptr, 0, &file->dbi), "mdb_dbi_open");
    first.commit();
    return file.release();
}

void lmdb_close(connection *opaque)
{
    const std::unique_ptr<lmdb_connection> file{&of(opaque)};
    check(mdb_env_sync(file->env, 1), "mdb_env_sync");
    mdb_env_close(file->env);
}

void lmdb_load(const std::string &path, uint64_t records)
{
    connection *opaque = lmdb_open(path);
    lmdb_connection &file = of(opaque);
    transaction all(file, 0);
    record bytes;
    for (uint64_t i = 0; i < records; ++i) {
        make_record(loaded_number(i, records), 0, bytes);
        put(all, file.dbi, bytes, MDB_APPEND);
    }
    all.commit();
    lmdb_close(opaque);
}

bool lmdb_get(connection *opaque, const char *key, record &bytes)
{
    const transaction reading(of(opaque), MDB_RDONLY);
    return find(reading, of(opaque).dbi, key, bytes);
}

void lmdb_insert(connection *opaque, const record &bytes)
{
    transaction writing(of(opaque), 0);
    put(writing, of(opaque).dbi, bytes, MDB_NOOVERWRITE);
    writing.commit();
}

void lmdb_update(connection *opaque, uint64_t number)
{
    transaction writing(of(opaque), 0);
    char key[key_bytes];
    make_key(number, key);
    record bytes;
    if (!find(writing, of(opaque).dbi, key, bytes)) throw store_error("mdb_get: a record is missing");
    make_record(number, next_generation(bytes), bytes);
    put(writing, of(opaque).dbi, bytes, 0);
    writing.commit();
}

void lmdb_visit(connection *opaque, const std::function<void(const record &)> &see)
{
    const transaction reading(of(opaque), MDB_RDONLY);
    MDB_cursor *cursor = nullptr;
    check(mdb_cursor_open(reading.get(), of(opaque).dbi, &cursor), "mdb_cursor_open");
    const std::unique_ptr<MDB_cursor, decltype(&mdb_cursor_close)> owned(cursor, mdb_cursor_close);
    record bytes;
    for (;;) {
        MDB_val key{}, data{};
        const int error = mdb_cursor_get(cursor, &key, &data, MDB_NEXT);
        if (error == MDB_NOTFOUND) return;
        check(error, "mdb_cursor_get");
        if (key.mv_size != key_bytes || data.mv_size != data_bytes) throw store_error("a record has another length");
        memcpy(bytes.data(), key.mv_data, key_bytes);
        memcpy(bytes.data() + key_bytes, data.mv_data, data_bytes);
        see(bytes);
    }
}

} // namespace

const store lmdb_store{.name = "lmdb",
                       .title = "LMDB",
                       .configuration = "a transaction for each operation, MDB_NOSYNC, mdb_env_sync at the end",
                       .load = lmdb_load,
                       .open = lmdb_open,
                       .get = lmdb_get,
                       .insert = lmdb_insert,
                       .update = lmdb_update,
                       .visit = lmdb_visit,
                       .close = lmdb_close};
