// A file that gets its name only when it is whole: until then it has another one in the same folder, and is removed when
// the work does not come to its end. Throws tool_error.
#pragma once

#include <string>

enum class replacing { no, yes };

class new_file {
public:
    explicit new_file(std::string path); // of the file to be; nothing is made yet
    ~new_file();                         // removes what was not published
    new_file(const new_file &) = delete;
    new_file &operator=(const new_file &) = delete;

    const std::string &path() const { return temporary_; } // where it is written
    // Owner, permissions and extended attributes (access lists among them) of another file.
    void take_attributes_of(const std::string &other) const;
    // Puts it on the disk, then under its name, then the name on the disk. Without `replacing` an existing file is left
    // alone and it is an error.
    void publish(replacing replace);

private:
    std::string path_, temporary_;
};

void refuse_existing(const std::string &path, const char *command);
