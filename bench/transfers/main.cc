// vfs_bench_transfers: how near each of the driver's engines comes to the disk. A sequential file is loaded and scanned
// with nothing of it in the page cache, and fio moves the same bytes with the same block size and queue depth, in one
// run. Owns the arguments and the clock; calls the driver as a host.
#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <vfs.h>

#include "../child.h"
#include "../program.h"

namespace {

namespace fs = std::filesystem;

// A way to move blocks: the settings that choose it, and how fio is told to do the same.
struct way {
    const char *name;
    std::vector<std::pair<const char *, const char *>> settings;
    const char *fio_engine;
    bool direct, queued; // queued: as many blocks on their way as the driver has buffers
    bool maps = false;   // for files without locks, and only to read
};

const way ways[] = {
    {"unset", {}, "psync", false, false},
    {"positioned", {{"VFS_IO_AIO", "0"}}, "psync", false, false},
    {"queue", {{"VFS_IO_AIO", "1"}}, "libaio", false, true},
    {"threads", {{"VFS_IO_THREAD", "1"}}, "psync", false, false},
    {"mapping", {{"VFS_LOCK", "0"}}, "mmap", false, false, true},
    {"direct", {{"VFS_IO_DIO", "1"}, {"VFS_IO_AIO", "0"}}, "psync", true, false},
    {"direct queue", {{"VFS_IO_DIO", "1"}}, "libaio", true, true},
    {"direct threads", {{"VFS_IO_DIO", "1"}, {"VFS_IO_AIO", "0"}, {"VFS_IO_THREAD", "1"}}, "libaio", true, true},
};

struct options {
    unsigned rounds = 3;
    uint64_t mebibytes = 2048;
    uint64_t record_bytes = 4000;
    uint64_t block_kibibytes = 1024;
    unsigned buffers = 8;
    std::vector<std::string> ways;
    std::string directory = fs::temp_directory_path();
    std::string json;

    [[nodiscard]] uint64_t records() const { return (mebibytes << 20) / record_bytes; }
};

[[noreturn]] void fail(const std::string &what)
{
    throw engine_error(what + ": " + strerror(errno));
}

void apply(const way &how, const options &wanted)
{
    setenv("VFS_DATA_SIZE", std::to_string(wanted.block_kibibytes).c_str(), 1);
    setenv("VFS_DATA_COUNT", std::to_string(wanted.buffers).c_str(), 1);
    for (const auto &[name, value] : how.settings) setenv(name, value, 1);
}

vfs_file *open_sequential(const std::string &path, const options &wanted, int flags)
{
    vfs_open_block block{};
    block.path = path.c_str();
    block.min_record_length = block.max_record_length = static_cast<int64_t>(wanted.record_bytes);
    block.organization = block.logical_organization = VFS_ORG_SEQUENTIAL;
    block.record_format = VFS_FORMAT_FIXED;
    block.access_mode = VFS_ACCESS_SEQUENTIAL;
    block.open_flags = static_cast<uint32_t>(flags);
    vfs_file *handle = vfs()->ops.open(&block);
    if (handle == nullptr) fail("open");
    return handle;
}

// Record n: its number, over and over, so that no block is like another and none is empty.
void fill(std::vector<uint64_t> &words, uint64_t number)
{
    std::fill(words.begin(), words.end(), (number + 1) * UINT64_C(0x9e3779b97f4a7c15));
}

tally load(const std::string &path, const options &wanted)
{
    vfs_file *handle = open_sequential(path, wanted, O_RDWR | O_CREAT | O_TRUNC);
    std::vector<uint64_t> words(wanted.record_bytes / sizeof(uint64_t) + 1);
    vfs_record record{.length = wanted.record_bytes, .bytes = words.data()};
    tally met;
    for (; met.count < wanted.records(); ++met.count) {
        fill(words, met.count);
        if (vfs()->ops.write(handle, &record, nullptr, nullptr, nullptr, VFS_POS_END) == -1) fail("write");
        met.sum += words.front();
    }
    if (vfs()->ops.close(handle, nullptr) == -1) fail("close"); // which syncs
    return met;
}

tally scan(const std::string &path, const options &wanted)
{
    vfs_file *handle = open_sequential(path, wanted, O_RDONLY);
    std::vector<uint64_t> words(wanted.record_bytes / sizeof(uint64_t) + 1);
    vfs_record record{.length = wanted.record_bytes, .bytes = words.data()};
    tally met;
    for (;; ++met.count) {
        const int64_t got = vfs()->ops.read(handle, &record, nullptr, nullptr, nullptr, VFS_POS_NEXT);
        if (got == -1) fail("read");
        if (got == 0) break;
        met.sum += words.front();
    }
    if (vfs()->ops.close(handle, nullptr) == -1) fail("close");
    return met;
}

// Nothing of the file is in the page cache afterwards.
void forget(const std::string &path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd == -1) fail(path);
    const int failed = fdatasync(fd) == -1 ? errno : posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    close(fd);
    if (failed != 0) throw engine_error(path + " cannot be dropped from the page cache: " + strerror(failed));
}

// Seconds that fio says it took, with the sync at the end of a load.
double run_fio(const std::string &path, const way &how, const options &wanted, const char *direction)
{
    const std::string command = fmt::format(
        "fio --name={0} --rw={0} --filename='{1}' --size={2} --bs={3}k --ioengine={4} --iodepth={5} --direct={6:d} "
        "--end_fsync=1 --invalidate=0 --output-format=json",
        direction, path, wanted.mebibytes << 20, wanted.block_kibibytes, how.fio_engine,
        how.queued ? wanted.buffers : 1, how.direct);
    FILE *pipe = popen(command.c_str(), "re");
    if (pipe == nullptr) fail("fio");
    std::string text;
    std::array<char, 4096> piece;
    for (size_t got = 0; (got = fread(piece.data(), 1, piece.size(), pipe)) > 0;) text.append(piece.data(), got);
    if (pclose(pipe) != 0) throw engine_error("fio failed; is it installed (script/setup bench)? " + command);
    const nlohmann::json job = nlohmann::json::parse(text.substr(text.find('{'))).at("jobs").at(0);
    return job.at(direction).at("runtime").get<double>() / 1000;
}

struct row {
    const way *how;
    std::map<std::string, std::vector<double>> seconds; // of "load", "fio write", "scan", "fio read"
};

double driver_seconds(const way &how, const options &wanted, const char *name,
                      tally (*work)(const std::string &, const options &), const std::string &path,
                      const tally &expected)
{
    const measurement done = run_in_child(name, [&] {
        apply(how, wanted);
        return work(path, wanted);
    });
    if (done.met != expected)
        throw engine_error(
            fmt::format("{}: met {} records instead of {}, or others", how.name, done.met.count, expected.count));
    return done.seconds;
}

tally expected_tally(const options &wanted)
{
    tally all;
    for (; all.count < wanted.records(); ++all.count) all.sum += (all.count + 1) * UINT64_C(0x9e3779b97f4a7c15);
    return all;
}

// The driver and fio take turns in being first.
void measure(row &into, const options &wanted, const std::string &directory, bool fio_first)
{
    const way &how = *into.how;
    const std::string path = directory + "/data", other = directory + "/fio";
    const tally expected = expected_tally(wanted);
    const auto by_fio = [&](const char *direction, const std::string &file) {
        sync();
        if (fs::exists(file)) forget(file);
        into.seconds[std::string("fio ") + direction].push_back(run_fio(file, how, wanted, direction));
    };
    const auto by_driver = [&](const char *name, auto work) {
        sync();
        if (fs::exists(path)) forget(path);
        into.seconds[name].push_back(driver_seconds(how, wanted, name, work, path, expected));
    };
    if (!how.maps && fio_first) by_fio("write", other);
    by_driver("load", load);
    if (!how.maps && !fio_first) by_fio("write", other);
    fs::remove(other);
    if (fio_first) by_fio("read", path);
    by_driver("scan", scan);
    if (!fio_first) by_fio("read", path);
    fs::remove(path);
}

std::string report(const options &wanted, const std::vector<row> &rows)
{
    std::string text =
        fmt::format("{} records of {} bytes, {} MiB; blocks of {} KiB, {} buffers; medians of {} round(s)\n"
                    "MiB per second, the sync of a load included; fio: same block size, as many blocks under way as "
                    "buffers (queues)\n\n"
                    "{:<16}{:>10}{:>10}{:>8}{:>10}{:>10}{:>8}\n",
                    wanted.records(), wanted.record_bytes, wanted.mebibytes, wanted.block_kibibytes, wanted.buffers,
                    wanted.rounds, "", "load", "fio", "ratio", "scan", "fio", "ratio");
    double best_fio[2] = {}, best_driver[2] = {};
    for (const row &one : rows) {
        text += fmt::format("{:<16}", one.how->name);
        int side = 0;
        for (const auto &[mine, peer] : {std::pair{"load", "fio write"}, std::pair{"scan", "fio read"}}) {
            const auto rate = [&](const char *what) {
                const auto found = one.seconds.find(what);
                return found == one.seconds.end() ? 0 : static_cast<double>(wanted.mebibytes) / median(found->second);
            };
            const double driver = rate(mine), fio = rate(peer);
            if (fio == 0)
                text += fmt::format("{:>10}{:>10}{:>8}", "-", "-", "-");
            else
                text += fmt::format("{:>10.0f}{:>10.0f}{:>8.2f}", driver, fio, driver / fio);
            if (fio != 0) {
                best_driver[side] = std::max(best_driver[side], driver);
                best_fio[side] = std::max(best_fio[side], fio);
            }
            ++side;
        }
        text += '\n';
    }
    return text + fmt::format("{:<16}{:>10.0f}{:>10.0f}{:>8.2f}{:>10.0f}{:>10.0f}{:>8.2f}\n", "the best",
                              best_driver[0], best_fio[0], best_driver[0] / best_fio[0], best_driver[1], best_fio[1],
                              best_driver[1] / best_fio[1]);
}

void write_json(const options &wanted, const std::vector<row> &rows)
{
    nlohmann::ordered_json out;
    out["mebibytes"] = wanted.mebibytes;
    out["record_bytes"] = wanted.record_bytes;
    out["block_kibibytes"] = wanted.block_kibibytes;
    out["buffers"] = wanted.buffers;
    for (const row &one : rows) out["seconds"][one.how->name] = one.seconds;
    std::ofstream file{wanted.json};
    file << out.dump(2) << '\n';
    file.close();
    if (!file) throw engine_error(wanted.json + " could not be written");
}

int run(const options &wanted)
{
    std::vector<row> rows;
    for (const way &how : ways)
        if (wanted.ways.empty() || std::find(wanted.ways.begin(), wanted.ways.end(), how.name) != wanted.ways.end())
            rows.push_back({&how, {}});
    {
        const scratch_directory scratch{wanted.directory, "vfs_bench_transfers"};
        for (unsigned number = 0; number < wanted.rounds; ++number)
            for (row &one : rows) {
                stop_when_interrupted();
                measure(one, wanted, scratch.path(), number % 2 == 1);
            }
    }
    fmt::print("{}", report(wanted, rows));
    if (!wanted.json.empty()) write_json(wanted, rows);
    return 0;
}

void declare(CLI::App &app, options &wanted)
{
    app.add_option("--rounds", wanted.rounds, "Rounds; medians are reported")
        ->check(CLI::Range(1U, 1000U))
        ->capture_default_str();
    app.add_option("--size", wanted.mebibytes, "MiB of records in the file")
        ->check(CLI::Range(1, 1 << 24))
        ->capture_default_str();
    app.add_option("--record", wanted.record_bytes, "Bytes of a record")
        ->check(CLI::Range(8, 1 << 20))
        ->capture_default_str();
    app.add_option("--block", wanted.block_kibibytes, "KiB of a block, a power of two")
        ->check(CLI::Range(4, 1 << 20))
        ->check([](const std::string &text) {
            return std::has_single_bit(std::stoul(text)) ? std::string{} : "not a power of two: " + text;
        })
        ->capture_default_str();
    app.add_option("--buffers", wanted.buffers, "Data buffers of the driver, and fio's queue depth")
        ->check(CLI::Range(1, 1024))
        ->capture_default_str();
    std::vector<std::string> names;
    for (const way &how : ways) names.emplace_back(how.name);
    app.add_option("--ways", wanted.ways, "Ways to move blocks, with commas; all by default")
        ->delimiter(',')
        ->check(CLI::IsMember(names));
    app.add_option("--directory", wanted.directory, "Where the files are made, and removed afterwards")
        ->check(CLI::ExistingDirectory)
        ->capture_default_str();
    app.add_option("--json", wanted.json, "File to write every sample to as well");
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app{"Measures how near each of the driver's engines comes to the disk, beside fio.",
                 "vfs_bench_transfers"};
    options wanted;
    declare(app, wanted);
    CLI11_PARSE(app, argc, argv);
    return run_program("vfs_bench_transfers", [&] { return run(wanted); });
}
