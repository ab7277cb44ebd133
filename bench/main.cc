// vfs_bench: measures the driver beside other stores and beside plain reading and writing of the same bytes, in one run
// and interleaved. Owns the arguments, the scratch directory and the order of things.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <random>
#include <set>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "child.h"
#include "jobs.h"
#include "program.h"
#include "report.h"

namespace {

namespace fs = std::filesystem;

constexpr const engine *engines[] = {&plain_engine, &vfs_engine, &bdb_engine, &lmdb_engine};

struct options {
    unsigned rounds = 5;
    uint64_t records = 1'000'000;
    uint64_t operations = 200'000;
    uint64_t seed = 1;
    uint64_t bdb_cache_mebibytes = 64;
    std::vector<std::string> engines;
    std::vector<std::string> jobs;
    std::string directory = fs::temp_directory_path();
    std::string json;
};

template <typename Table> std::vector<std::string> names_of(const Table &table)
{
    std::vector<std::string> names;
    for (const auto &row : table) {
        if constexpr (std::is_pointer_v<std::decay_t<decltype(row)>>)
            names.emplace_back(row->name);
        else
            names.emplace_back(row.name);
    }
    return names;
}

bool chosen(const std::vector<std::string> &names, const char *name)
{
    return names.empty() || std::find(names.begin(), names.end(), name) != names.end();
}

std::vector<uint32_t> shuffled(uint64_t records, uint64_t seed)
{
    std::vector<uint32_t> order(records);
    std::iota(order.begin(), order.end(), 0U);
    std::mt19937_64 random(seed);
    // Not std::shuffle: its result differs between libraries.
    for (uint64_t i = records; i > 1; --i) std::swap(order[i - 1], order[random() % i]);
    return order;
}

// All files of an engine at their largest; rewriting in one transaction may double one of them.
void warn_about_space(const options &wanted, size_t engine_count)
{
    const uint64_t needed = wanted.records * record_bytes * 7 * engine_count;
    if (fs::space(wanted.directory).available < needed)
        fmt::print(stderr, "vfs_bench: warning: {} has less than {} MiB free\n", wanted.directory, needed >> 20);
    struct statfs system {};
    constexpr long tmpfs = 0x01021994;
    if (statfs(wanted.directory.c_str(), &system) == 0 && system.f_type == tmpfs)
        fmt::print(stderr, "vfs_bench: note: {} is in memory, so that syncs cost nothing\n", wanted.directory);
}

uint64_t allocated_bytes(const std::string &directory)
{
    uint64_t total = 0;
    for (const fs::directory_entry &entry : fs::directory_iterator(directory)) {
        struct stat facts {};
        if (stat(entry.path().c_str(), &facts) == 0) total += static_cast<uint64_t>(facts.st_blocks) * 512;
    }
    return total;
}

// One round: every job, and within a job every engine, the first one changing from round to round.
class round_of_jobs {
public:
    round_of_jobs(const std::string &directory, const plan &work, results &all)
        : directory_(directory), work_(work), all_(all)
    {
    }

    void run(unsigned number)
    {
        number_ = number;
        for (const job *row : all_.jobs)
            for (size_t i = 0; i < all_.engines.size(); ++i) {
                const engine &store = *all_.engines[(i + number) % all_.engines.size()];
                stop_when_interrupted();
                if (isatty(STDERR_FILENO))
                    fmt::print(stderr, "\r\033[Kround {}: {}, {}", number + 1, row->title, store.title);
                one(*row, store);
            }
        if (isatty(STDERR_FILENO)) fmt::print(stderr, "\r\033[K");
        for (const engine *store : all_.engines)
            for (const data_file file : {data_file::ascending, data_file::shuffled})
                fs::remove_all(place(*store, file));
        loaded_.clear();
    }

private:
    [[nodiscard]] std::string place(const engine &store, data_file file) const
    {
        return directory_ + "/" + store.name + (file == data_file::ascending ? "-ascending" : "-shuffled");
    }

    void one(const job &row, const engine &store)
    {
        const std::string where = place(store, row.file);
        if (!is_load(row.use) && !loaded_.contains(where)) measure(load_of(row.file), store, where);
        all_.samples[{&row, &store}].push_back(measure(row, store, where));
        all_.file_bytes[{&row, &store}] = allocated_bytes(where);
    }

    measurement measure(const job &row, const engine &store, const std::string &where)
    {
        if (is_load(row.use)) {
            fs::create_directory(where);
            loaded_.insert(where);
        }
        const std::string path = where + "/data";
        sync(); // nothing of an earlier job is left to be written
        const measurement done =
            run_in_child(fmt::format("{}:{}", store.name, row.name), [&] { return row.run(store, path, work_); });
        const tally expected = row.expected(work_);
        if (done.met != expected)
            throw engine_error(fmt::format("{}, {}: met {} records with sum {}, expected {} with sum {}", store.title,
                                           row.title, done.met.count, done.met.sum, expected.count, expected.sum));
        if (is_update(row.use))
            run_in_child(fmt::format("verify {}", store.name), [&] {
                verify(store, path, work_, row.use == purpose::random_rewrite, number_ == 0);
                return tally{};
            });
        return done;
    }

    const std::string &directory_;
    const plan &work_;
    results &all_;
    unsigned number_ = 0;
    std::set<std::string> loaded_; // the files that this round has made
};

void declare(CLI::App &app, options &wanted)
{
    app.add_option("--rounds", wanted.rounds, "Rounds; medians are reported")
        ->check(CLI::Range(1U, 1000U))
        ->capture_default_str();
    app.add_option("--records", wanted.records, "Records in each file")
        ->check(CLI::Range(uint64_t{1}, uint64_t{UINT32_MAX}))
        ->capture_default_str();
    app.add_option("--operations", wanted.operations, "Records that the random jobs read or rewrite")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option("--engines", wanted.engines, "Engines to measure, with commas; all by default")
        ->delimiter(',')
        ->check(CLI::IsMember(names_of(engines)));
    app.add_option("--jobs", wanted.jobs, "Jobs to measure, with commas; all by default")
        ->delimiter(',')
        ->check(CLI::IsMember(names_of(all_jobs())));
    app.add_option("--seed", wanted.seed, "Seed of the random orders")->capture_default_str();
    app.add_option("--bdb-cache", wanted.bdb_cache_mebibytes, "Cache of Berkeley DB in MiB")
        ->check(CLI::Range(1, 1 << 20))
        ->capture_default_str();
    app.add_option("--directory", wanted.directory, "Where the files are made, and removed afterwards")
        ->check(CLI::ExistingDirectory)
        ->capture_default_str();
    app.add_option("--json", wanted.json, "File to write the results to as well");
}

int run(const options &wanted)
{
    results all;
    all.rounds = wanted.rounds;
    all.seed = wanted.seed;
    for (const engine *store : engines)
        if (chosen(wanted.engines, store->name)) all.engines.push_back(store);
    for (const job &row : all_jobs())
        if (chosen(wanted.jobs, row.name)) all.jobs.push_back(&row);
    const plan work{.settings = {.records = wanted.records, .bdb_cache_bytes = wanted.bdb_cache_mebibytes << 20},
                    .operations = std::min(wanted.operations, wanted.records),
                    .load_order = shuffled(wanted.records, wanted.seed),
                    .access_order = shuffled(wanted.records, wanted.seed + 1)};
    all.work = &work;
    warn_about_space(wanted, all.engines.size());
    fmt::print("{}", heading(all, wanted.directory));
    fflush(stdout); // before any child inherits it
    const scratch_directory scratch{wanted.directory, "vfs_bench"};
    round_of_jobs rounds{scratch.path(), work, all};
    for (unsigned number = 0; number < wanted.rounds; ++number) rounds.run(number);
    fmt::print("{}", tables(all));
    if (!wanted.json.empty()) {
        std::ofstream out{wanted.json};
        out << json(all);
        out.close();
        if (!out) throw engine_error(wanted.json + " could not be written");
    }
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app{"Measures the driver beside Berkeley DB, LMDB and plain reading and writing.", "vfs_bench"};
    options wanted;
    declare(app, wanted);
    CLI11_PARSE(app, argc, argv);
    return run_program("vfs_bench", [&] { return run(wanted); });
}
