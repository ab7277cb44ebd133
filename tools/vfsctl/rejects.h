// What a rebuild could not keep, in a side file: one JSON object a line, with the place in the old file, the reason and
// the bytes in hexadecimal. The file appears with its first line.
// Knows the image that the bytes come from; must not know how they were found. Throws tool_error.
#pragma once

#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "format/salvage.h"

class reject_file {
public:
    reject_file(std::string path, file_image &image) : path_(std::move(path)), image_(image) {}
    void add(const rejected_bytes &what);
    void close(); // throws when it may not be whole
    void remove();

    uint64_t count() const { return count_; }
    const std::map<std::string, uint64_t> &by_reason() const { return by_reason_; }
    const std::string &path() const { return path_; }

private:
    struct closer {
        void operator()(std::FILE *file) const { std::fclose(file); }
    };
    [[noreturn]] void fail(int error) const;

    std::string path_;
    file_image &image_;
    std::unique_ptr<std::FILE, closer> file_;
    bool made_ = false;
    uint64_t count_ = 0;
    std::map<std::string, uint64_t> by_reason_;
};
