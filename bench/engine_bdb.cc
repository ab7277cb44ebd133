// Berkeley DB: one B-tree in one file, without environment, log or transactions. The key is the record's first 16
// bytes, the data the other 84. May include <db.h> only.
#include "engine.h"

#include <memory>

#include <db.h>

namespace {

struct bdb_session : session {
    DB *db = nullptr;
    DBC *cursor = nullptr; // of a scan
    purpose use{};
    uint32_t step = DB_NEXT;
};

bdb_session &of(session *file)
{
    return *static_cast<bdb_session *>(file);
}

void check(int error, const char *operation)
{
    if (error != 0) throw engine_error(std::string(operation) + ": " + db_strerror(error));
}

DBT bytes_in(const char *bytes, size_t length)
{
    DBT range{};
    range.data = const_cast<char *>(bytes); // only read
    range.size = static_cast<uint32_t>(length);
    return range;
}

// The engine copies straight into the caller's record.
DBT area_for(char *bytes, size_t length)
{
    DBT range{};
    range.data = bytes;
    range.ulen = static_cast<uint32_t>(length);
    range.flags = DB_DBT_USERMEM;
    return range;
}

std::string bdb_configuration(const engine_settings &settings)
{
    return "DB_BTREE, DB_CREATE, default page size, no environment, key 16 + data 84 bytes, cache of " +
           std::to_string(settings.bdb_cache_bytes >> 20) + " MiB, DB->sync before DB->close; scans by cursor";
}

session *bdb_open(const std::string &path, purpose use, const engine_settings &settings)
{
    auto file = std::make_unique<bdb_session>();
    file->use = use;
    check(db_create(&file->db, nullptr, 0), "db_create");
    check(file->db->set_cachesize(file->db, static_cast<uint32_t>(settings.bdb_cache_bytes >> 30),
                                  static_cast<uint32_t>(settings.bdb_cache_bytes & ((1U << 30) - 1)), 1),
          "set_cachesize");
    const uint32_t flags = is_load(use) ? DB_CREATE : use == purpose::random_rewrite ? 0 : DB_RDONLY;
    check(file->db->open(file->db, nullptr, path.c_str(), nullptr, DB_BTREE, flags, 0666), "open");
    return file.release();
}

void bdb_put(session *opaque, const record &bytes)
{
    DBT key = bytes_in(bytes.data(), key_bytes);
    DBT data = bytes_in(bytes.data() + key_bytes, data_bytes);
    DB *db = of(opaque).db;
    check(db->put(db, nullptr, &key, &data, DB_NOOVERWRITE), "put");
}

bool bdb_get(session *opaque, const char *key, record &bytes)
{
    DBT wanted = bytes_in(key, key_bytes);
    DBT data = area_for(bytes.data() + key_bytes, data_bytes);
    DB *db = of(opaque).db;
    const int error = db->get(db, nullptr, &wanted, &data, 0);
    if (error == DB_NOTFOUND) return false;
    check(error, "get");
    memcpy(bytes.data(), key, key_bytes);
    return data.size == data_bytes;
}

void bdb_rewrite(session *opaque, const record &bytes)
{
    DBT key = bytes_in(bytes.data(), key_bytes);
    DBT data = bytes_in(bytes.data() + key_bytes, data_bytes);
    DB *db = of(opaque).db;
    check(db->put(db, nullptr, &key, &data, 0), "put");
}

// A fresh cursor's DB_NEXT gives the first record, its DB_PREV the last.
void bdb_scan_from_end(session *opaque, direction way)
{
    bdb_session &file = of(opaque);
    file.step = way == direction::forward ? DB_NEXT : DB_PREV;
    check(file.db->cursor(file.db, nullptr, &file.cursor, 0), "cursor");
}

bool bdb_scan_next(session *opaque, record &bytes)
{
    bdb_session &file = of(opaque);
    DBT key = area_for(bytes.data(), key_bytes);
    DBT data = area_for(bytes.data() + key_bytes, data_bytes);
    const int error = file.cursor->get(file.cursor, &key, &data, file.step);
    if (error == DB_NOTFOUND) return false;
    check(error, "cursor get");
    if (key.size != key_bytes || data.size != data_bytes) throw engine_error("cursor get: a record of another length");
    return true;
}

void bdb_close(session *opaque)
{
    const std::unique_ptr<bdb_session> file{&of(opaque)};
    if (file->cursor != nullptr) check(file->cursor->close(file->cursor), "cursor close");
    if (is_update(file->use)) check(file->db->sync(file->db, 0), "sync");
    check(file->db->close(file->db, 0), "close");
}

} // namespace

const engine bdb_engine{.name = "bdb",
                        .title = "Berkeley DB",
                        .configuration = bdb_configuration,
                        .open = bdb_open,
                        .put = bdb_put,
                        .get = bdb_get,
                        .rewrite = bdb_rewrite,
                        .scan_from_end = bdb_scan_from_end,
                        .scan_next = bdb_scan_next,
                        .close = bdb_close};
