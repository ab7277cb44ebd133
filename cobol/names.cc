// From the name in the program to a path, as the runtime maps it for its own files.
#include "bridge.h"

#include <cctype>
#include <cstdlib>

namespace {

std::string_view without_trailing_blanks(std::string_view text)
{
    while (!text.empty() && (text.back() == ' ' || text.back() == '\0')) text.remove_suffix(1);
    return text;
}

bool mapping_is_on()
{
    const cob_global *global = cob_get_global_ptr();
    return global == nullptr || global->cob_current_module == nullptr ||
           global->cob_current_module->flag_filename_mapping != 0;
}

bool is_set(const char *variable)
{
    const char *value = getenv(variable);
    if (value == nullptr) return false;
    const std::string_view text = value;
    return text == "1" || text == "true" || text == "TRUE" || text == "yes" || text == "YES" || text == "on";
}

// The value of DD_x, dd_x or x, the first that has one.
const char *assigned(std::string_view component)
{
    const bool mangles = is_set("COB_ENV_MANGLE");
    std::string variable{component};
    for (char &each : variable)
        if (each == '.' || (mangles && isalnum(static_cast<unsigned char>(each)) == 0)) each = '_';
    for (const char *prefix : {"DD_", "dd_", ""}) {
        const char *value = getenv((prefix + variable).c_str());
        if (value != nullptr && *value != '\0') return value;
    }
    return nullptr;
}

} // namespace

std::string name_in_program(const control_block &fcd)
{
    std::string_view name = fcd.name();
    // The control block keeps its name after an OPEN that failed, whatever the item says by then.
    if (running.file != nullptr) {
        const cob_field *assign = running.file->assign;
        name = assign != nullptr ? std::string_view{reinterpret_cast<const char *>(assign->data), assign->size}
                                 : std::string_view{running.file->select_name};
    }
    return std::string{without_trailing_blanks(name)};
}

std::optional<std::string> path_of_name(std::string_view name)
{
    name = without_trailing_blanks(name);
    if (name.empty()) return std::nullopt;
    if (!mapping_is_on()) return std::string{name};
    const size_t slash = name.find('/');
    std::string_view component = name.substr(0, slash);
    const std::string_view rest = slash == std::string_view::npos ? std::string_view{} : name.substr(slash);
    if (!component.empty() && component.front() == '$') component.remove_prefix(1);
    std::string path{component};
    const bool looked_up = !component.empty() && component.front() != '.' && component.front() != '-' &&
                           isdigit(static_cast<unsigned char>(component.front())) == 0;
    if (looked_up) {
        if (const char *value = assigned(component); value != nullptr) path = value;
    }
    path += rest;
    const char *directory = getenv("COB_FILE_PATH");
    if (directory != nullptr && *directory != '\0' && !path.starts_with('/'))
        path = std::string{directory} + "/" + path;
    return path;
}
