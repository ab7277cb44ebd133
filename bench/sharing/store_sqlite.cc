// SQLite: one table without row ids, write-ahead log, prepared statements, no sync for each transaction. May include
// <sqlite3.h> only.
#include "store.h"

#include <array>
#include <memory>

#include <sqlite3.h>

namespace {

enum statement { begin, commit, select, insert, update, select_all, statement_count };

struct sqlite_connection : connection {
    sqlite3 *db = nullptr;
    std::array<sqlite3_stmt *, statement_count> statements{};
};

sqlite_connection &of(connection *file)
{
    return *static_cast<sqlite_connection *>(file);
}

[[noreturn]] void fail(sqlite_connection &file, const char *operation)
{
    throw store_error(std::string(operation) + ": " + sqlite3_errmsg(file.db));
}

void run(sqlite_connection &file, const char *sql)
{
    if (sqlite3_exec(file.db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail(file, sql);
}

// Executes a statement with the key and the data bound, as far as it has such places.
int step(sqlite_connection &file, statement which, const char *key, const char *data)
{
    sqlite3_stmt *const prepared = file.statements[which];
    if (key != nullptr) sqlite3_bind_blob(prepared, 1, key, key_bytes, SQLITE_STATIC);
    if (data != nullptr) sqlite3_bind_blob(prepared, 2, data, data_bytes, SQLITE_STATIC);
    const int result = sqlite3_step(prepared);
    if (result != SQLITE_DONE && result != SQLITE_ROW) fail(file, sqlite3_sql(prepared));
    return result;
}

void change(sqlite_connection &file, statement which, const char *key, const char *data)
{
    step(file, which, key, data);
    sqlite3_reset(file.statements[which]);
}

bool find(sqlite_connection &file, const char *key, record &bytes)
{
    sqlite3_stmt *const prepared = file.statements[select];
    const bool found = step(file, select, key, nullptr) == SQLITE_ROW &&
                       sqlite3_column_bytes(prepared, 0) == static_cast<int>(data_bytes);
    if (found) {
        memcpy(bytes.data(), key, key_bytes);
        memcpy(bytes.data() + key_bytes, sqlite3_column_blob(prepared, 0), data_bytes);
    }
    sqlite3_reset(prepared);
    return found;
}

connection *sqlite_open(const std::string &path)
{
    static constexpr const char *texts[statement_count] = {"BEGIN IMMEDIATE",
                                                           "COMMIT",
                                                           "SELECT data FROM records WHERE key = ?1",
                                                           "INSERT INTO records VALUES (?1, ?2)",
                                                           "UPDATE records SET data = ?2 WHERE key = ?1",
                                                           "SELECT key, data FROM records ORDER BY key"};
    auto file = std::make_unique<sqlite_connection>();
    if (sqlite3_open(path.c_str(), &file->db) != SQLITE_OK) fail(*file, "sqlite3_open");
    sqlite3_busy_timeout(file->db, 60'000);
    run(*file, "PRAGMA journal_mode = WAL");
    run(*file, "PRAGMA synchronous = NORMAL");
    run(*file, "CREATE TABLE IF NOT EXISTS records (key BLOB PRIMARY KEY, data BLOB NOT NULL) WITHOUT ROWID");
    for (size_t i = 0; i < statement_count; ++i)
        if (sqlite3_prepare_v2(file->db, texts[i], -1, &file->statements[i], nullptr) != SQLITE_OK)
            fail(*file, texts[i]);
    return file.release();
}

void sqlite_close(connection *opaque)
{
    const std::unique_ptr<sqlite_connection> file{&of(opaque)};
    for (sqlite3_stmt *prepared : file->statements) sqlite3_finalize(prepared);
    if (sqlite3_close(file->db) != SQLITE_OK) fail(*file, "sqlite3_close"); // the last one empties the log and syncs
}

void sqlite_load(const std::string &path, uint64_t records)
{
    connection *opaque = sqlite_open(path);
    sqlite_connection &file = of(opaque);
    change(file, begin, nullptr, nullptr);
    record bytes;
    for (uint64_t i = 0; i < records; ++i) {
        make_record(loaded_number(i, records), 0, bytes);
        change(file, insert, bytes.data(), bytes.data() + key_bytes);
    }
    change(file, commit, nullptr, nullptr);
    sqlite_close(opaque);
}

bool sqlite_get(connection *opaque, const char *key, record &bytes)
{
    return find(of(opaque), key, bytes);
}

void sqlite_insert(connection *opaque, const record &bytes)
{
    change(of(opaque), insert, bytes.data(), bytes.data() + key_bytes);
}

void sqlite_update(connection *opaque, uint64_t number)
{
    sqlite_connection &file = of(opaque);
    char key[key_bytes];
    make_key(number, key);
    record bytes;
    change(file, begin, nullptr, nullptr);
    if (!find(file, key, bytes)) throw store_error("SELECT: a record is missing");
    make_record(number, next_generation(bytes), bytes);
    change(file, update, bytes.data(), bytes.data() + key_bytes);
    change(file, commit, nullptr, nullptr);
}

void sqlite_visit(connection *opaque, const std::function<void(const record &)> &see)
{
    sqlite3_stmt *const prepared = of(opaque).statements[select_all];
    record bytes;
    while (step(of(opaque), select_all, nullptr, nullptr) == SQLITE_ROW) {
        if (sqlite3_column_bytes(prepared, 0) != static_cast<int>(key_bytes) ||
            sqlite3_column_bytes(prepared, 1) != static_cast<int>(data_bytes))
            throw store_error("a record has another length");
        memcpy(bytes.data(), sqlite3_column_blob(prepared, 0), key_bytes);
        memcpy(bytes.data() + key_bytes, sqlite3_column_blob(prepared, 1), data_bytes);
        see(bytes);
    }
    sqlite3_reset(prepared);
}

} // namespace

const store sqlite_store{.name = "sqlite",
                         .title = "SQLite",
                         .configuration = "WITHOUT ROWID table, WAL, synchronous = NORMAL, prepared statements",
                         .load = sqlite_load,
                         .open = sqlite_open,
                         .get = sqlite_get,
                         .insert = sqlite_insert,
                         .update = sqlite_update,
                         .visit = sqlite_visit,
                         .close = sqlite_close};
