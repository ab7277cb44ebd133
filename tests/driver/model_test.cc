// model_test.cc: random mixes of all operations, compared step by step with the model, on every organization, reopened
// on the way with other settings. A run is a function of its seed; each ends with the checker and complete scans. A
// failing run is shortened and printed. VFS_MODEL_RUNS sets the runs of each shape, VFS_MODEL_SEED the first seed.
#include "checker.h"
#include "model.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <sstream>

namespace {

using namespace host;

// ---- Shapes of files -------------------------------------------------------------------------------------------

struct shape {
    const char *name;
    std::function<file_spec(const std::string &)> spec;
    std::vector<size_t> lengths; // of records, chosen evenly
    int64_t numbers;             // record numbers used
    size_t steps;
    bool reversed = false;
};

key part_key(std::vector<key_part> parts, bool duplicates)
{
    return {std::move(parts), duplicates};
}

file_spec with(file_spec spec, int64_t primary, uint32_t format)
{
    spec.primary = primary;
    spec.format = format;
    if (format == VFS_FORMAT_FIXED) spec.min_length = spec.max_length;
    return spec;
}

file_spec flat_relative(const std::string &path, uint32_t format, int64_t length)
{
    file_spec spec = flat(path, format, length);
    spec.logical = VFS_ORG_RELATIVE;
    return spec;
}

const std::vector<key> one_key{part_key({{0, 4}}, false)};
const std::vector<key> two_keys{part_key({{0, 4}}, false), part_key({{4, 3}}, true)};
const std::vector<key> four_keys{part_key({{0, 4}}, false), part_key({{6, 2}, {12, 3}}, true),
                                 part_key({{8, 1}, {2, 3}}, false), part_key({{16, 10}}, true)};
const std::vector<key> duplicate_primary{part_key({{0, 2}}, true), part_key({{2, 4}}, false)};
const std::vector<key> long_keys{part_key({{0, 1400}}, false), part_key({{1400, 560}}, true)};
const std::vector<key> widest_keys{part_key({{0, 2000}}, true)}; // sixteen entries in a leaf and in a branch

const std::vector<size_t> mixed{0, 1, 7, 20, 27, 40, 60, 100, 300, 2000};
const std::vector<size_t> mixed_and_huge{0, 5, 30, 90, 500, 6000, 40000, 140000};

const shape shapes[] = {
    {"FlatFixed",
     [](const std::string &p) { return flat(p, VFS_FORMAT_FIXED, 60); },
     {60, 60, 60, 60, 60, 61},
     30,
     300},
    {"FlatVariable", [](const std::string &p) { return flat(p, VFS_FORMAT_VARIABLE, 100); }, mixed, 30, 300},
    {"FlatVariableReversed", [](const std::string &p) { return flat(p, VFS_FORMAT_VARIABLE, 100); }, mixed, 30, 250,
     true},
    {"FlatRelativeFixed", [](const std::string &p) { return flat_relative(p, VFS_FORMAT_FIXED, 33); }, {33}, 60, 300},
    {"FlatHuge", [](const std::string &p) { return flat_relative(p, VFS_FORMAT_VARIABLE, 200); }, mixed_and_huge, 20,
     150},
    {"RelativeFixed",
     [](const std::string &p) { return relative(p, VFS_FORMAT_FIXED, 80); },
     {80, 80, 80, 80, 79},
     40,
     300},
    {"RelativeVariable", [](const std::string &p) { return relative(p, VFS_FORMAT_VARIABLE, 100); }, mixed, 40, 300},
    {"RelativeReversed", [](const std::string &p) { return relative(p, VFS_FORMAT_VARIABLE, 100); }, mixed, 25, 250,
     true},
    {"RelativeHuge", [](const std::string &p) { return relative(p, VFS_FORMAT_VARIABLE, 200); }, mixed_and_huge, 30,
     200},
    {"IndexedOneKey", [](const std::string &p) { return indexed(p, one_key, 100); }, mixed, 0, 300},
    {"IndexedTwoKeys", [](const std::string &p) { return indexed(p, two_keys, 100); }, mixed, 0, 400},
    {"IndexedFourKeys", [](const std::string &p) { return indexed(p, four_keys, 100); }, mixed, 0, 400},
    {"IndexedReversed", [](const std::string &p) { return indexed(p, two_keys, 100); }, mixed, 0, 300, true},
    {"IndexedFixed",
     [](const std::string &p) { return with(indexed(p, four_keys, 48), 0, VFS_FORMAT_FIXED); },
     {48},
     0,
     400},
    {"IndexedPrimaryOne", [](const std::string &p) { return with(indexed(p, two_keys, 100), 1, VFS_FORMAT_VARIABLE); },
     mixed, 0, 300},
    {"IndexedDuplicatePrimary", [](const std::string &p) { return indexed(p, duplicate_primary, 100); }, mixed, 0, 300},
    {"IndexedHuge", [](const std::string &p) { return indexed(p, four_keys, 200); }, mixed_and_huge, 0, 200},
    {"IndexedDeep",
     [](const std::string &p) { return indexed(p, long_keys, 1960); },
     {1960, 1970, 1400, 1},
     1000,
     1000},
    {"IndexedDeepest", [](const std::string &p) { return indexed(p, widest_keys, 2000); }, {2000, 2000, 2}, 1000, 1200},
};

struct setting {
    std::vector<std::pair<const char *, const char *>> values = {};
    uint32_t flags = O_RDWR;
    bool shared = false, reinitializes = true;
};

const setting settings[] = {
    {},
    {.values = {{"VFS_LOCK", "0"}}, .reinitializes = false},
    {.values = {{"VFS_LOCK", "0"}, {"VFS_IO_MMAP", "0"}, {"VFS_DATA_COUNT", "1"}}, .reinitializes = false},
    {.values = {{"VFS_LOCK", "3"}}, .shared = true},
    {.values = {{"VFS_LOCK", "4"}}, .shared = true},
    {.values = {{"VFS_LOCK", "4"}, {"VFS_DATA_COUNT", "2"}, {"VFS_IO_HASH", "0"}}, .shared = true},
    {.values = {{"VFS_DATA_COUNT", "1"}, {"VFS_DATA_SIZE", "4"}}},
    {.values = {{"VFS_DATA_COUNT", "16"}, {"VFS_IO_HASH", "1"}}},
    {.values = {{"VFS_IO_CACHE", "0"}, {"VFS_IO_HASH", "0"}}},
    {.values = {{"VFS_IO_AIO", "0"}, {"VFS_DATA_READAHEAD", "0"}, {"VFS_DATA_WRITEBEHIND", "0"}}},
    {.values = {{"VFS_IO_THREAD", "1"}}},
    {.values = {{"VFS_IO_DIO", "1"}}},
    {.values = {{"VFS_CACHE_SIZE", "4M"}}},
    {.values = {{"VFS_SYNC", "1"}, {"VFS_LOCK", "4"}}, .shared = true},
    {.flags = O_RDONLY, .reinitializes = false},
    {.values = {{"VFS_LOCK", "0"}}, .flags = O_RDONLY, .reinitializes = false},
    {.values = {{"VFS_LOCK", "4"}}, .flags = O_RDONLY, .shared = true, .reinitializes = false},
};

// ---- Making steps ----------------------------------------------------------------------------------------------

class maker {
public:
    maker(const shape &form, uint64_t seed) : shape_(form), spec_(form.spec("")), random_(seed) {}

    std::vector<step> steps()
    {
        std::vector<step> all;
        // Phases that grow, shrink and mix, so that trees fill, empty and reuse their space.
        for (size_t i = 0; i < shape_.steps; ++i) {
            if (i % 60 == 0) phase_ = pick(4);
            all.push_back(one());
        }
        return all;
    }

private:
    size_t pick(size_t below) { return random_() % below; }
    bool indexed_file() const { return spec_.logical == VFS_ORG_INDEXED; }

    std::string record()
    {
        const size_t length = shape_.lengths[pick(shape_.lengths.size())];
        std::string bytes(length, '\0');
        const size_t tint = pick(26);
        for (size_t i = 0; i < length; ++i) bytes[i] = static_cast<char>('a' + (tint + i / 7) % 26);
        if (indexed_file()) color_keys(bytes);
        return bytes;
    }

    // Key values from small sets: about a hundred for unique keys, a handful for the others. The bytes that differ
    // stand at either end of the part.
    void color_keys(std::string &bytes)
    {
        for (const key &each : spec_.keys) {
            const size_t values = each.duplicates ? 5 : shape_.numbers > 0 ? static_cast<size_t>(shape_.numbers) : 120;
            size_t value = pick(values);
            for (const key_part &part : each.parts) {
                const auto from = static_cast<size_t>(part.offset), count = static_cast<size_t>(part.length);
                for (size_t i = 0; i < count; ++i) {
                    const bool differs = i < 2 || i + 1 == count;
                    if (from + i < bytes.size()) bytes[from + i] = static_cast<char>(differs ? 'a' + value % 11 : 'm');
                    if (differs) value /= 11;
                }
            }
            if (each.duplicates && pick(8) == 0 && static_cast<size_t>(each.parts[0].offset) < bytes.size())
                bytes[static_cast<size_t>(each.parts[0].offset)] = pick(2) == 0 ? '\0' : '\xff';
        }
    }

    std::string key_text(size_t k)
    {
        std::string bytes = record();
        return spec_.keys[k].of(bytes);
    }

    place target(bool relations)
    {
        const auto relation = static_cast<int32_t>(relations ? pick(5) : size_t{VFS_EQUAL});
        if (indexed_file()) {
            const size_t k = pick(spec_.keys.size());
            std::string value = key_text(k);
            if (relations && pick(3) == 0) value.resize(pick(value.size() + 1));
            if (!relations && pick(8) == 0) return by_record(static_cast<int64_t>(k));
            return by_key(value, static_cast<int64_t>(k), relation);
        }
        const auto number = static_cast<int64_t>(pick(static_cast<size_t>(shape_.numbers)));
        if (pick(4) == 0) return by_key(numbered("%06ld", number), 0, relation);
        return by_rrn(number, relation);
    }

    int64_t key_number() { return indexed_file() ? static_cast<int64_t>(pick(spec_.keys.size())) : 0; }

    place write_place()
    {
        if (indexed_file()) return pick(4) == 0 ? end() : by_record(key_number());
        const size_t choice = pick(4);
        return choice < 2 ? end() : target(false);
    }

    step one()
    {
        static const int weights[4][8] = {
            // read, write, rewrite, erase, start, position, flush, reopen
            {40, 25, 12, 10, 9, 2, 1, 1},
            {20, 60, 8, 2, 6, 1, 1, 1},
            {25, 6, 8, 50, 8, 1, 1, 1},
            {55, 6, 20, 6, 10, 1, 1, 1},
        };
        int roll = static_cast<int>(pick(100));
        size_t which = 0;
        while (which < 7 && roll >= weights[phase_][which]) roll -= weights[phase_][which++];
        step made;
        switch (which) {
        case 0: made.where = read_place(); break;
        case 1: made = {.which = operation::write, .where = write_place(), .record = record()}; break;
        case 2:
            made = {.which = operation::rewrite, .where = pick(2) == 0 ? current() : target(false), .record = record()};
            break;
        case 3:
            made = {.which = operation::erase, .where = pick(3) == 0 ? current() : target(false), .record = {}};
            break;
        case 4: made = {.which = operation::start, .where = start_place(), .record = {}}; break;
        case 5:
            made = {.which = operation::position, .where = pick(4) == 0 ? first() : target(false), .record = {}};
            break;
        case 6: made.what = action::flush; break;
        default: made = {.what = action::reopen, .where = {}, .record = {}, .settings = pick(std::size(settings))};
        }
        return made;
    }

    place read_place()
    {
        const size_t choice = pick(20);
        if (choice < 8) return next();
        if (choice < 12) return prev();
        if (choice < 13) return first(key_number());
        if (choice < 14) return last(key_number());
        if (choice < 16) return current();
        return target(false);
    }

    place start_place()
    {
        const size_t choice = pick(12);
        if (choice == 0) return first(key_number());
        if (choice == 1) return last(key_number());
        if (choice == 2) return end();
        return target(true);
    }

    const shape &shape_;
    file_spec spec_;
    std::mt19937_64 random_;
    size_t phase_ = 0;
};

// ---- Running ---------------------------------------------------------------------------------------------------

std::string text_of(const step &which)
{
    std::ostringstream out;
    if (which.what == action::flush) return "flush";
    if (which.what == action::reopen) {
        out << "reopen with settings " << which.settings;
        return out.str();
    }
    out << name_of(which.which) << " mode " << which.where.mode << " relation " << which.where.relation << " number "
        << which.where.number;
    const auto show = [&](const char *label, const std::string &bytes) {
        out << label << "[" << bytes.size() << "] ";
        for (const char c : bytes.substr(0, 30))
            isprint(static_cast<unsigned char>(c)) ? out << c : out << "\\x" << std::hex << (c & 0xff) << std::dec;
    };
    if (which.where.key) show(" key", *which.where.key);
    if (!which.record.empty()) show(" record", which.record);
    return out.str();
}

class run {
public:
    run(const shape &form, const std::string &path, const std::function<std::string()> &printed)
        : shape_(form), printed_(printed), spec_(form.spec(path))
    {
        if (form.reversed) spec_.options = VFS_OPT_REVERSED;
        unlink(path.c_str());
    }

    // "" when the driver did as the model says in every step.
    std::string perform(const std::vector<step> &steps)
    {
        printed_();
        file_spec first_spec = spec_.with_flags(O_RDWR | O_CREAT);
        if (!file_.open(first_spec)) return "open: errno " + std::to_string(file_.error());
        model_ = std::make_unique<model>(first_spec);
        file_.area = *std::max_element(shape_.lengths.begin(), shape_.lengths.end()) + 8;
        for (size_t i = 0; i < steps.size(); ++i) {
            std::string wrong = perform(steps[i]);
            if (wrong.empty()) continue;
            return "step " + std::to_string(i) + ", " + text_of(steps[i]) + ": " + wrong;
        }
        return finish();
    }

private:
    std::string perform(const step &which)
    {
        if (which.what == action::reopen) return reopen(settings[which.settings]);
        if (which.what == action::flush) return file_.flush() == 0 ? "" : "flush failed";
        const std::optional<expectation> expected = model_->apply(which);
        if (!expected) return "";
        const outcome got = file_.run(which.which, which.where, which.record);
        return compare(*expected, got);
    }

    std::string compare(const expectation &expected, const outcome &got)
    {
        std::ostringstream out;
        if (got.value != expected.value || (expected.error != 0 && got.error != expected.error) ||
            (expected.value == 0 && expected.bytes && got.error != 0))
            out << "expected value " << expected.value << " errno " << expected.error;
        else if (expected.bytes && got.bytes != *expected.bytes)
            out << "expected bytes " << expected.bytes->substr(0, 24);
        else if (expected.rrn && got.rrn != *expected.rrn)
            out << "expected rrn " << *expected.rrn;
        else if (expected.duplicate && got.duplicate != *expected.duplicate)
            out << "expected duplicate " << *expected.duplicate;
        else if (expected.at_end && file_.at_end() != *expected.at_end)
            out << "expected at_end " << *expected.at_end;
        else if (file_.info().record_count != static_cast<int64_t>(model_->records()))
            out << "expected " << model_->records() << " records in info";
        else
            return "";
        out << ", got " << got;
        return out.str();
    }

    std::string close_and_check()
    {
        if (const int error = file_.close(); error != 0) return "close: errno " + std::to_string(error);
        if (const std::string text = printed_(); text != "") return "printed: " + text;
        if (file_.closed().record_count != static_cast<int64_t>(model_->records()))
            return "close handed back another record count";
        const std::string wrong = check_file(spec_.path);
        return wrong.empty() ? "" : "checker: " + wrong;
    }

    std::string reopen(const setting &next_setting)
    {
        if (std::string wrong = close_and_check(); !wrong.empty()) return wrong;
        environment_.reset();
        environment_ = std::make_unique<environment>();
        for (const auto &[name, value] : next_setting.values) environment_->set(name, value);
        // Sharers leave the numbers of a relative file alone, and go on with those of an indexed one.
        const bool wanted = next_setting.reinitializes && (!next_setting.shared || spec_.logical == VFS_ORG_INDEXED);
        const bool again = spec_.organization != VFS_ORG_SEQUENTIAL && wanted && model_->records() == 0 &&
                           file_.closed().empty_count > 0;
        const file_spec spec = spec_.with_flags(next_setting.flags);
        if (!file_.open(spec)) return "open: errno " + std::to_string(file_.error()) + " " + printed_();
        const std::string text = printed_();
        if (text != (again ? "Re-initializing file(" + spec.path + ") for faster access!\n" : ""))
            return "open printed: '" + text + "'";
        if (again && !next_setting.shared) model_->initialized_again();
        model_->sharing(next_setting.shared);
        model_->open(spec);
        return "";
    }

    std::string finish()
    {
        if (std::string wrong = reopen({.values = {}, .flags = O_RDONLY, .reinitializes = false}); !wrong.empty())
            return wrong;
        for (size_t k = 0; k < model_->keys(); ++k) {
            std::vector<std::string> all = model_->in_order(k);
            if (shape_.reversed) std::reverse(all.begin(), all.end());
            for (const bool forward : {true, false}) {
                if (model_->records() > 0) {
                    const outcome edge = file_.start(forward != shape_.reversed ? first(static_cast<int64_t>(k))
                                                                                : last(static_cast<int64_t>(k)));
                    if (edge.value < 0) return "start of the last scan failed";
                }
                if (file_.rest(forward) != all)
                    return "the last scan of key " + std::to_string(k) + (forward ? " forward" : " backward") +
                           " differs";
                std::reverse(all.begin(), all.end());
            }
        }
        return close_and_check();
    }

    const shape &shape_;
    std::function<std::string()> printed_;
    file_spec spec_;
    file file_;
    std::unique_ptr<model> model_;
    std::unique_ptr<environment> environment_ = std::make_unique<environment>();
};

class Model : public DriverTest, public testing::WithParamInterface<shape> {
protected:
    std::string attempt(const std::vector<step> &steps)
    {
        run one{GetParam(), path(), [this] { return printed(); }};
        return one.perform(steps);
    }

    // Takes steps out as long as the rest still fails.
    std::vector<step> shorten(std::vector<step> steps)
    {
        size_t attempts = 400;
        for (size_t chunk = std::max<size_t>(steps.size() / 2, 1); chunk > 0; chunk /= 2)
            for (size_t at = 0; at < steps.size() && attempts > 0; --attempts) {
                std::vector<step> fewer = steps;
                const auto from = fewer.begin() + static_cast<std::ptrdiff_t>(at);
                fewer.erase(from, from + static_cast<std::ptrdiff_t>(std::min(chunk, steps.size() - at)));
                if (attempt(fewer).empty())
                    at += chunk;
                else
                    steps = std::move(fewer);
            }
        return steps;
    }
};

TEST_P(Model, DriverDoesAsTheModelSays)
{
    const watchdog guard{220};
    const size_t runs = number_from("VFS_MODEL_RUNS", 3), first_seed = number_from("VFS_MODEL_SEED", 1);
    for (size_t seed = first_seed; seed < first_seed + runs; ++seed) {
        std::vector<step> steps = maker{GetParam(), seed}.steps();
        if (const std::string wrong = attempt(steps); !wrong.empty()) {
            const std::vector<step> few = shorten(steps);
            std::string script;
            for (const step &each : few) script += "\n    " + text_of(each);
            FAIL() << "seed " << seed << ": " << wrong << "\n  shortened to " << few.size()
                   << " steps: " << attempt(few) << script;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Shapes, Model, testing::ValuesIn(shapes), [](const auto &each) { return each.param.name; });

} // namespace
