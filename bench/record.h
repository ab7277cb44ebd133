// The records of every benchmark: record n has the key n as 16 decimal digits and 84 bytes that depend on n and on how
// often it was rewritten. Calls nothing; must not know the engines or the jobs.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <span>

inline constexpr size_t key_bytes = 16;
inline constexpr size_t record_bytes = 100;
inline constexpr size_t data_bytes = record_bytes - key_bytes;
inline constexpr size_t summed_byte = 60; // the byte that scans add up; differs from record to record

using record = std::array<char, record_bytes>;

inline void make_key(uint64_t number, char *key)
{
    for (size_t place = key_bytes; place-- > 0; number /= 10) key[place] = static_cast<char>('0' + number % 10);
}

// Generation 0 is what a load writes, generation 1 what a rewrite leaves.
inline void make_record(uint64_t number, uint64_t generation, record &out)
{
    static constexpr auto letters = [] {
        std::array<char, data_bytes + 64> made{};
        for (size_t i = 0; i < made.size(); ++i) made[i] = static_cast<char>('A' + (i * i + 3 * i) % 53);
        return made;
    }();
    make_key(number, out.data());
    const uint64_t mixed = (number + 1) * UINT64_C(0x9e3779b97f4a7c15);
    memcpy(out.data() + key_bytes, letters.data() + (mixed >> 58), data_bytes);
    memcpy(out.data() + key_bytes, &mixed, sizeof mixed); // the place in the table alone repeats every few records
    out[summed_byte - 1] = static_cast<char>('0' + generation);
    out[summed_byte] = static_cast<char>(mixed >> 40 & 0x7f);
}

inline uint64_t summed(const record &bytes)
{
    return static_cast<unsigned char>(bytes[summed_byte]);
}

inline uint64_t number_of(const record &bytes)
{
    uint64_t number = 0;
    for (size_t place = 0; place < key_bytes; ++place) number = number * 10 + static_cast<uint64_t>(bytes[place] - '0');
    return number;
}
