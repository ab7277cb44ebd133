// The bodies of the jobs and what each must have met at its end.
#include "jobs.h"

namespace {

tally load(const engine &store, const std::string &path, const plan &work, purpose use)
{
    tally met;
    record bytes;
    session *file = store.open(path, use, work.settings);
    for (uint64_t i = 0; i < work.settings.records; ++i) {
        make_record(use == purpose::load_ascending ? i : work.load_order[i], 0, bytes);
        store.put(file, bytes);
        ++met.count;
        met.sum += summed(bytes);
    }
    store.close(file);
    return met;
}

tally load_ascending(const engine &store, const std::string &path, const plan &work)
{
    return load(store, path, work, purpose::load_ascending);
}

tally load_shuffled(const engine &store, const std::string &path, const plan &work)
{
    return load(store, path, work, purpose::load_shuffled);
}

tally scan(const engine &store, const std::string &path, const plan &work, direction way)
{
    tally met;
    record bytes;
    session *file = store.open(path, purpose::scan, work.settings);
    store.scan_from_end(file, way);
    while (store.scan_next(file, bytes)) {
        ++met.count;
        met.sum += summed(bytes);
    }
    store.close(file);
    return met;
}

tally scan_forward(const engine &store, const std::string &path, const plan &work)
{
    return scan(store, path, work, direction::forward);
}

tally scan_backward(const engine &store, const std::string &path, const plan &work)
{
    return scan(store, path, work, direction::backward);
}

void get_or_throw(const engine &store, session *file, uint64_t number, record &bytes)
{
    char key[key_bytes];
    make_key(number, key);
    if (!store.get(file, key, bytes)) throw engine_error("record " + std::to_string(number) + " is not there");
}

tally random_read(const engine &store, const std::string &path, const plan &work)
{
    tally met;
    record bytes;
    session *file = store.open(path, purpose::random_read, work.settings);
    for (uint64_t i = 0; i < work.operations; ++i) {
        get_or_throw(store, file, work.access_order[i], bytes);
        ++met.count;
        met.sum += summed(bytes);
    }
    store.close(file);
    return met;
}

tally random_rewrite(const engine &store, const std::string &path, const plan &work)
{
    tally met;
    record bytes;
    session *file = store.open(path, purpose::random_rewrite, work.settings);
    for (uint64_t i = 0; i < work.operations; ++i) {
        const uint64_t number = work.access_order[i];
        get_or_throw(store, file, number, bytes);
        ++met.count;
        met.sum += summed(bytes);
        make_record(number, 1, bytes);
        store.rewrite(file, bytes);
    }
    store.close(file);
    return met;
}

tally expect_all(const plan &work)
{
    tally expected;
    record bytes;
    for (uint64_t number = 0; number < work.settings.records; ++number) {
        make_record(number, 0, bytes);
        ++expected.count;
        expected.sum += summed(bytes);
    }
    return expected;
}

tally expect_accessed(const plan &work)
{
    tally expected;
    record bytes;
    for (uint64_t i = 0; i < work.operations; ++i) {
        make_record(work.access_order[i], 0, bytes);
        ++expected.count;
        expected.sum += summed(bytes);
    }
    return expected;
}

constexpr job jobs[] = {
    {"load-ascending", "load, ascending", data_file::ascending, purpose::load_ascending, load_ascending, expect_all},
    {"scan-forward", "scan forward", data_file::ascending, purpose::scan, scan_forward, expect_all},
    {"scan-backward", "scan backward", data_file::ascending, purpose::scan, scan_backward, expect_all},
    {"random-read", "random read", data_file::ascending, purpose::random_read, random_read, expect_accessed},
    {"random-rewrite", "random read + rewrite", data_file::ascending, purpose::random_rewrite, random_rewrite,
     expect_accessed},
    {"load-random", "load, random", data_file::shuffled, purpose::load_shuffled, load_shuffled, expect_all},
    {"scan-random", "scan forward after that", data_file::shuffled, purpose::scan, scan_forward, expect_all},
};

void verify_way(const engine &store, const std::string &path, const plan &work, const std::vector<uint8_t> &generations,
                direction way)
{
    const uint64_t records = work.settings.records;
    record bytes;
    record wanted;
    uint64_t seen = 0;
    session *file = store.open(path, purpose::scan, work.settings);
    store.scan_from_end(file, way);
    for (; store.scan_next(file, bytes); ++seen) {
        const uint64_t number = way == direction::forward ? seen : records - 1 - seen;
        if (seen == records) throw engine_error("verification: more records than were loaded");
        make_record(number, generations[number], wanted);
        if (bytes != wanted) throw engine_error("verification: record " + std::to_string(number) + " differs");
    }
    store.close(file);
    if (seen != records) throw engine_error("verification: only " + std::to_string(seen) + " records");
}

} // namespace

std::span<const job> all_jobs()
{
    return jobs;
}

const job &load_of(data_file file)
{
    for (const job &row : jobs)
        if (row.file == file && is_load(row.use)) return row;
    throw engine_error("no job loads this file");
}

void verify(const engine &store, const std::string &path, const plan &work, bool rewritten, bool both_ways)
{
    std::vector<uint8_t> generations(work.settings.records, 0);
    for (uint64_t i = 0; rewritten && i < work.operations; ++i) generations[work.access_order[i]] = 1;
    verify_way(store, path, work, generations, direction::forward);
    if (both_ways) verify_way(store, path, work, generations, direction::backward);
}
