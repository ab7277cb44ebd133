// Records in the order of a key, in bounded memory: what does not fit is sorted in pieces on temporary files, which are
// merged at the end. Equal keys keep the order in which they came.
// (External merge sort: Knuth, The Art of Computer Programming, volume 3, section 5.4.)
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct sorted_record {
    std::string key;
    std::string bytes;
    uint64_t source = 0; // two words that come back with the record
    uint64_t line = 0;
};

class record_sorter {
public:
    explicit record_sorter(size_t memory = size_t{256} << 20) : memory_(memory) {}

    void add(std::string_view key, std::string_view bytes, uint64_t source, uint64_t line);
    void finish();                    // once, behind the last add
    bool next(sorted_record &record); // false at the end

private:
    struct entry { // its bytes stand in text_: the key, then the record
        size_t at;
        uint32_t key_length;
        uint32_t length;
        uint64_t source, line;
    };
    struct run { // a sorted piece, and its next record
        struct closer {
            void operator()(std::FILE *stream) const { std::fclose(stream); }
        };
        std::unique_ptr<std::FILE, closer> file;
        sorted_record front;

        bool read();
    };

    std::string_view key_of(const entry &e) const { return std::string_view{text_}.substr(e.at, e.key_length); }
    void sort_memory();
    void spill();
    bool comes_later(size_t left, size_t right) const;

    size_t memory_;
    std::string text_;
    std::vector<entry> entries_;
    size_t next_entry_ = 0;
    std::vector<run> runs_;
    std::vector<size_t> heap_; // runs that are not at their end, the one with the lowest key in front
};
