// Medians over the rounds, and the ratio of the driver to the faster of its peers.
#include "report.h"

#include "program.h"

#include <algorithm>
#include <functional>
#include <optional>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace {

using maybe = std::optional<double>;

template <typename Member>
maybe median_of(const results &all, const job &row, const engine &store, Member measurement::*member)
{
    const auto found = all.samples.find({&row, &store});
    if (found == all.samples.end()) return {};
    std::vector<double> values;
    for (const measurement &sample : found->second) values.push_back(static_cast<double>(sample.*member));
    return median(values);
}

maybe seconds(const results &all, const job &row, const engine &store)
{
    return median_of(all, row, store, &measurement::seconds);
}

double records_of(const results &all, const job &row)
{
    const bool some = row.use == purpose::random_read || row.use == purpose::random_rewrite;
    return static_cast<double>(some ? all.work->operations : all.work->settings.records);
}

// Above 1: the driver is faster. Nothing when the driver or every peer was left out.
maybe ratio(const results &all, const job &row)
{
    const maybe driver = seconds(all, row, vfs_engine);
    maybe peer;
    for (const engine *store : {&bdb_engine, &lmdb_engine})
        if (const maybe time = seconds(all, row, *store)) peer = peer ? std::min(*peer, *time) : time;
    if (!driver || !peer) return {};
    return *peer / *driver;
}

using cell = std::function<std::string(const job &, const engine &)>;

std::string table(const results &all, const std::string &title, const cell &content, bool with_ratio)
{
    std::string text = fmt::format("\n{}\n{:<26}", title, "");
    for (const engine *store : all.engines) text += fmt::format("{:>13}", store->title);
    if (with_ratio) text += fmt::format("{:>20}", "peer / driver");
    text += '\n';
    for (const job *row : all.jobs) {
        std::string line = fmt::format("{:<26}", row->title);
        for (const engine *store : all.engines) line += fmt::format("{:>13}", content(*row, *store));
        if (with_ratio) {
            const maybe value = ratio(all, *row);
            line += fmt::format("{:>20}", value ? fmt::format("{:.2f}", *value) : "-");
        }
        text += line + '\n';
    }
    return text;
}

std::string shown(const char *format, maybe value)
{
    return value ? fmt::format(fmt::runtime(format), *value) : "-";
}

} // namespace

std::string heading(const results &all, const std::string &directory)
{
    std::string text = fmt::format("{} records of {} bytes with a key of {}; random jobs: {} records; median of {} "
                                   "round{}, seed {}, in {}\n",
                                   all.work->settings.records, record_bytes, key_bytes, all.work->operations,
                                   all.rounds, all.rounds == 1 ? "" : "s", all.seed, directory);
    for (const engine *store : all.engines)
        text += fmt::format("  {:<12} {}\n", store->title, store->configuration(all.work->settings));
    return text;
}

std::string tables(const results &all)
{
    std::string text = table(
        all,
        "Seconds, open, close and sync included; peer / driver: the faster of the peers, above 1 the driver is faster",
        [&](const job &row, const engine &store) { return shown("{:.3f}", seconds(all, row, store)); }, true);
    text += table(
        all, "Thousand records per second",
        [&](const job &row, const engine &store) {
            const maybe time = seconds(all, row, store);
            return shown("{:.0f}", time ? maybe{records_of(all, row) / *time / 1000} : maybe{});
        },
        false);
    text += table(
        all,
        "Peak resident memory, MiB (mapped pages of files included; this program's own share is what plain calls show)",
        [&](const job &row, const engine &store) {
            const maybe peak = median_of(all, row, store, &measurement::peak_kilobytes);
            return shown("{:.0f}", peak ? maybe{*peak / 1024} : maybe{});
        },
        false);
    text += table(
        all, "Space that the file takes afterwards, MiB",
        [&](const job &row, const engine &store) {
            const auto found = all.file_bytes.find({&row, &store});
            if (found == all.file_bytes.end()) return std::string("-");
            return fmt::format("{}", found->second >> 20);
        },
        false);
    return text;
}

std::string json(const results &all)
{
    nlohmann::ordered_json out;
    out["records"] = all.work->settings.records;
    out["record_bytes"] = record_bytes;
    out["key_bytes"] = key_bytes;
    out["operations"] = all.work->operations;
    out["rounds"] = all.rounds;
    out["seed"] = all.seed;
    for (const engine *store : all.engines) out["engines"][store->name] = store->configuration(all.work->settings);
    for (const job *row : all.jobs) {
        nlohmann::ordered_json &entry = out["jobs"][row->name];
        entry["records"] = static_cast<uint64_t>(records_of(all, *row));
        if (const maybe value = ratio(all, *row)) entry["peer_by_driver"] = *value;
        for (const engine *store : all.engines) {
            nlohmann::ordered_json &here = entry["engines"][store->name];
            if (const maybe time = seconds(all, *row, *store)) here["median_seconds"] = *time;
            for (const measurement &sample : all.samples.at({row, store})) {
                here["seconds"].push_back(sample.seconds);
                here["cpu_seconds"].push_back(sample.cpu_seconds);
                here["peak_kilobytes"].push_back(sample.peak_kilobytes);
            }
            here["file_bytes"] = all.file_bytes.at({row, store});
        }
    }
    return out.dump(2) + '\n';
}
