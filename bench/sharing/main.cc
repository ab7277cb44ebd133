// vfs_bench_sharing: what it costs that several processes use one file at once, for the driver, SQLite and LMDB, in one
// run and interleaved. Owns the arguments, the processes and the clock; must not know the stores' inside.
#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <vector>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "../program.h"
#include "store.h"

namespace {

namespace fs = std::filesystem;

constexpr const store *stores[] = {&vfs_store, &sqlite_store, &lmdb_store};
constexpr std::array process_counts{1U, 2U, 4U};

struct options {
    unsigned rounds = 3;
    uint64_t records = 100'000;
    uint64_t operations = 20'000;
    uint64_t seed = 1;
    std::string lock = "4";
    std::vector<std::string> engines;
    std::vector<std::string> jobs;
    std::vector<unsigned> processes;
    std::string directory = fs::temp_directory_path();
    std::string json;
};

enum class job { read, update, insert };
constexpr std::array jobs{job::read, job::update, job::insert};

const char *name_of(job which)
{
    return which == job::read ? "read" : which == job::update ? "update" : "insert";
}

template <typename Value> bool chosen(const std::vector<Value> &wanted, const Value &value)
{
    return wanted.empty() || std::find(wanted.begin(), wanted.end(), value) != wanted.end();
}

// What process p of n inserts in its i-th step: a number of its own, anywhere among those that are there.
uint64_t inserted_number(const options &wanted, unsigned measured, unsigned processes, unsigned process, uint64_t step)
{
    const uint64_t index = measured * process_counts.back() * wanted.operations + step * processes + process;
    // An odd factor takes each number below a power of two to another one.
    return index * UINT64_C(0x9e3779b97f4a7c15) % (all_numbers / 2) * 2 + 1;
}

struct measured_work {
    const options &wanted;
    job which;
    unsigned processes, measured; // measured: the place among process_counts
};

// The records that a process reads or updates, one after the other.
class record_choice {
public:
    record_choice(const options &wanted, unsigned process) : random_(wanted.seed + process), records_(wanted.records) {}
    uint64_t next() { return random_() % records_; }

private:
    std::mt19937_64 random_;
    uint64_t records_;
};

// Calls visit(job, measured, processes) for all that a round measures, in its order.
template <typename Visit> void each_measurement(const options &wanted, const Visit &visit)
{
    for (const job which : jobs)
        for (unsigned measured = 0; measured < process_counts.size(); ++measured)
            if (chosen(wanted.jobs, std::string(name_of(which))) && chosen(wanted.processes, process_counts[measured]))
                visit(which, measured, process_counts[measured]);
}

void work(const store &engine, connection *file, const measured_work &of, unsigned process)
{
    record_choice choice(of.wanted, process);
    record bytes;
    for (uint64_t i = 0; i < of.wanted.operations; ++i) {
        const uint64_t number = loaded_number(choice.next(), of.wanted.records);
        switch (of.which) {
        case job::read: {
            char key[key_bytes];
            make_key(number, key);
            if (!engine.get(file, key, bytes)) throw store_error("a record is missing");
            break;
        }
        case job::update: engine.update(file, number); break;
        case job::insert:
            make_record(inserted_number(of.wanted, of.measured, of.processes, process, i), 0, bytes);
            engine.insert(file, bytes);
            break;
        }
    }
}

class pipe_ends {
public:
    pipe_ends()
    {
        if (pipe(ends_) == -1) throw store_error(std::string("pipe: ") + strerror(errno));
    }
    ~pipe_ends()
    {
        close(ends_[0]);
        close_writer();
    }
    pipe_ends(const pipe_ends &) = delete;
    pipe_ends &operator=(const pipe_ends &) = delete;
    void put() const
    {
        const char byte = 0;
        if (write(ends_[1], &byte, 1) != 1) throw store_error("a pipe broke");
    }
    void take() const
    {
        char byte;
        if (read(ends_[0], &byte, 1) != 1) throw store_error("a pipe broke");
    }

    // Once every process has closed its writer, `take` fails instead of waiting for nobody.
    void close_writer()
    {
        if (ends_[1] != -1) close(ends_[1]);
        ends_[1] = -1;
    }

private:
    int ends_[2];
};

[[noreturn]] void be_child(const char *name, const std::function<void()> &body)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    try {
        body();
    } catch (const std::exception &error) {
        fmt::print(stderr, "vfs_bench_sharing: {}: {}\n", name, error.what());
        _exit(1);
    }
    _exit(0);
}

pid_t start_child(const char *name, const std::function<void()> &body)
{
    fflush(stdout);
    const pid_t id = fork();
    if (id == -1) throw store_error(std::string("fork: ") + strerror(errno));
    if (id == 0) be_child(name, body);
    return id;
}

void wait_for(const char *name, pid_t id)
{
    int status = 0;
    while (waitpid(id, &status, 0) == -1 && errno == EINTR) {}
    if (status != 0) throw store_error(std::string(name) + " failed");
}

// Seconds from the moment when all have the file open until the last one has closed it.
double measure(const store &engine, const std::string &path, const measured_work &of)
{
    pipe_ends ready, go;
    std::vector<pid_t> children;
    for (unsigned p = 0; p < of.processes; ++p)
        children.push_back(start_child(engine.name, [&, p] {
            connection *file = engine.open(path);
            ready.put();
            ready.close_writer();
            go.take();
            work(engine, file, of, p);
            engine.close(file);
        }));
    ready.close_writer();
    for (unsigned p = 0; p < of.processes; ++p) ready.take();
    const auto begin = std::chrono::steady_clock::now();
    for (unsigned p = 0; p < of.processes; ++p) go.put();
    for (const pid_t id : children) wait_for(engine.name, id);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// What the file has to hold after a round: numbers in ascending order, each with its generation.
std::vector<std::pair<uint64_t, uint64_t>> expected_records(const options &wanted)
{
    std::vector<std::pair<uint64_t, uint64_t>> expected(wanted.records);
    for (uint64_t i = 0; i < wanted.records; ++i) expected[i].first = loaded_number(i, wanted.records);
    each_measurement(wanted, [&](job which, unsigned measured, unsigned processes) {
        for (unsigned p = 0; p < processes; ++p) {
            record_choice choice(wanted, p);
            for (uint64_t i = 0; i < wanted.operations; ++i)
                if (which == job::update)
                    ++expected[choice.next()].second;
                else if (which == job::insert)
                    expected.emplace_back(inserted_number(wanted, measured, processes, p, i), 0);
        }
    });
    std::sort(expected.begin(), expected.end());
    return expected;
}

// Every record is there, once and whole, no other one is, and no update was lost.
void verify(const store &engine, const std::string &path, const options &wanted)
{
    const auto all = expected_records(wanted);
    size_t met = 0;
    record expected;
    connection *file = engine.open(path);
    engine.visit(file, [&](const record &bytes) {
        if (met == all.size()) throw store_error(fmt::format("more than the {} records written", all.size()));
        const auto [number, updates] = all[met++];
        make_record(number, updates % generations, expected);
        if (bytes != expected) throw store_error(fmt::format("record {} is missing, or not as last written", number));
    });
    if (met != all.size()) throw store_error(fmt::format("{} records instead of {}", met, all.size()));
    engine.close(file);
}

// Samples of thousand operations per second.
using samples = std::map<std::tuple<const store *, job, unsigned>, std::vector<double>>;

std::vector<const store *> chosen_stores(const options &wanted)
{
    std::vector<const store *> all;
    for (const store *engine : stores)
        if (chosen(wanted.engines, std::string(engine->name))) all.push_back(engine);
    return all;
}

void run_round(const std::string &directory, const options &wanted, unsigned number, samples &all)
{
    const std::vector<const store *> engines = chosen_stores(wanted);
    std::map<const store *, std::string> paths;
    for (const store *engine : engines) {
        const fs::path place = fs::path(directory) / engine->name;
        fs::create_directory(place);
        paths[engine] = (place / "data").string();
        wait_for(engine->name, start_child(engine->name, [&] { engine->load(paths[engine], wanted.records); }));
    }
    each_measurement(wanted, [&](job which, unsigned measured, unsigned processes) {
        for (size_t i = 0; i < engines.size(); ++i) {
            const store &engine = *engines[(i + number) % engines.size()];
            stop_when_interrupted();
            sync(); // nothing of an earlier job is left to be written
            const double seconds = measure(engine, paths[&engine], {wanted, which, processes, measured});
            const double operations = static_cast<double>(wanted.operations) * processes;
            all[{&engine, which, processes}].push_back(operations / seconds / 1000);
        }
    });
    for (const store *engine : engines) {
        wait_for(engine->name, start_child(engine->name, [&] { verify(*engine, paths[engine], wanted); }));
        fs::remove_all(fs::path(directory) / engine->name);
    }
}

std::string report(const options &wanted, const samples &all)
{
    const std::vector<const store *> engines = chosen_stores(wanted);
    std::string text =
        fmt::format("{} records of {} bytes with a key of {}; {} operations in each process; median of "
                    "{} round(s); VFS_LOCK={}\n",
                    wanted.records, record_bytes, key_bytes, wanted.operations, wanted.rounds, wanted.lock);
    for (const store *engine : engines) text += fmt::format("  {:<8} {}\n", engine->title, engine->configuration);
    const bool compared = engines.size() > 1 && engines.front() == &vfs_store;
    text += fmt::format("\nThousand operations per second, all processes together{}\n{:<20}",
                        compared ? "; above 1 the driver is faster" : "", "");
    for (const store *engine : engines) text += fmt::format("{:>10}", engine->title);
    text += compared ? fmt::format("{:>18}\n", "driver / peer") : "\n";
    each_measurement(wanted, [&](job which, unsigned, unsigned processes) {
        text += fmt::format("{:<20}",
                            fmt::format("{}, {} process{}", name_of(which), processes, processes == 1 ? "" : "es"));
        double peer = 0;
        for (const store *engine : engines) {
            const double value = median(all.at({engine, which, processes}));
            text += fmt::format("{:>10.1f}", value);
            if (engine != &vfs_store) peer = std::max(peer, value);
        }
        if (compared) text += fmt::format("{:>18.2f}", median(all.at({&vfs_store, which, processes})) / peer);
        text += '\n';
    });
    return text;
}

void write_json(const options &wanted, const samples &all)
{
    nlohmann::ordered_json out;
    out["records"] = wanted.records;
    out["operations"] = wanted.operations;
    out["rounds"] = wanted.rounds;
    out["seed"] = wanted.seed;
    out["VFS_LOCK"] = wanted.lock;
    for (const auto &[what, values] : all) {
        const auto &[engine, which, processes] = what;
        out["thousand_per_second"][name_of(which)][std::to_string(processes)][engine->name] = values;
    }
    std::ofstream file{wanted.json};
    file << out.dump(2) << '\n';
    file.close();
    if (!file) throw store_error(wanted.json + " could not be written");
}

int run(const options &wanted)
{
    setenv("VFS_LOCK", wanted.lock.c_str(), 1);
    samples all;
    {
        const scratch_directory scratch{wanted.directory, "vfs_bench_sharing"};
        for (unsigned number = 0; number < wanted.rounds; ++number) run_round(scratch.path(), wanted, number, all);
    }
    fmt::print("{}", report(wanted, all));
    if (!wanted.json.empty()) write_json(wanted, all);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app{"Measures sharing one file between processes: the driver beside SQLite and LMDB.",
                 "vfs_bench_sharing"};
    options wanted;
    app.add_option("--rounds", wanted.rounds, "Rounds; medians are reported")
        ->check(CLI::Range(1U, 1000U))
        ->capture_default_str();
    app.add_option("--records", wanted.records, "Records in the file before the jobs")
        ->check(CLI::Range(uint64_t{1}, uint64_t{10'000'000}))
        ->capture_default_str();
    app.add_option("--operations", wanted.operations, "Operations of each process")
        ->check(CLI::Range(uint64_t{1}, uint64_t{10'000'000}))
        ->capture_default_str();
    app.add_option("--lock", wanted.lock, "VFS_LOCK of the driver's processes")
        ->check(CLI::IsMember({"3", "4"}))
        ->capture_default_str();
    app.add_option("--engines", wanted.engines, "Engines to measure, with commas; all by default")
        ->delimiter(',')
        ->check(CLI::IsMember({"vfs", "sqlite", "lmdb"}));
    app.add_option("--jobs", wanted.jobs, "Jobs to measure, with commas; all by default")
        ->delimiter(',')
        ->check(CLI::IsMember({"read", "update", "insert"}));
    app.add_option("--processes", wanted.processes, "Numbers of processes, with commas; all by default")
        ->delimiter(',')
        ->check(CLI::IsMember({1U, 2U, 4U}));
    app.add_option("--seed", wanted.seed, "Seed of the random orders")->capture_default_str();
    app.add_option("--directory", wanted.directory, "Where the files are made, and removed afterwards")
        ->check(CLI::ExistingDirectory)
        ->capture_default_str();
    app.add_option("--json", wanted.json, "File to write every sample to as well");
    CLI11_PARSE(app, argc, argv);
    return run_program("vfs_bench_sharing", [&] { return run(wanted); });
}
