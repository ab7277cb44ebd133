// See resolve.h. A name selects a module by a word and a dash in front of it, by a server's path, or by the variables
// that its assignment name stands for; otherwise the file's first bytes tell.
#include "driver/resolve.h"

#include "driver/configuration.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <string_view>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>
#include <wordexp.h>

namespace {

// What a user may write before a dash, or a host as a file's type. A word that is in this table is never the beginning
// of a file name, so it holds none that people give to files.
struct module_row {
    const char *type_word;
    const char *module;
    const char *library; // null: no library serves it
};

constexpr module_row modules[] = {
    {"lsq", "lsq", "lsq"},    {"psx", "psx", "psx"},       {"rsd", "rsd", "rsd"},       {"stdio", "stdio", nullptr},
    {"kfm", "kfm", "kfm"},    {"wbn", "wbn", "wbn"},       {"rvx", "rvx", "rvx"},       {"rdq", "rdq", "rdq"},
    {"brix", "brix", "brix"}, {"olup", "olup", "olup"},    {"vfspsx", "psx", "psx"},    {"vfslsq", "lsq", "lsq"},
    {"vfsrsd", "rsd", "rsd"}, {"vfskfm", "kfm", "kfm"},    {"vfswbn", "wbn", "wbn"},    {"vfsrvx", "rvx", "rvx"},
    {"vfsrdq", "rdq", "rdq"}, {"vfsbrix", "brix", "brix"}, {"vfsolup", "olup", "olup"}, {"vfsstdio", "stdio", nullptr},
    {"lnsq", "lsq", "lsq"},   {"rlsq", "rsd", "rsd"},      {"ixkf", "kfm", "kfm"},      {nullptr, nullptr, nullptr},
};
static_assert(sizeof modules / sizeof *modules == 24);

constexpr char server_variable[] = "KELP_TK_RVX_SERVER";
constexpr std::string_view rvx_path = "/.:/kelp/rvx/", rdq_path = "/.:/rdq/";

struct resolution {
    char name[PATH_MAX]; // empty: none yet
    const char *module;  // null: none
    const char *library;
};

bool equal(const char *a, const char *b)
{
    return a != nullptr && b != nullptr && std::strcmp(a, b) == 0;
}

// Whether `word` begins with `start`, in any case of letters.
bool begins_with(std::string_view word, std::string_view start)
{
    return word.size() >= start.size() && strncasecmp(word.data(), start.data(), start.size()) == 0;
}

// The first row whose type word the word begins with. One that is in no row selects nothing.
bool select_module(resolution *found, std::string_view word)
{
    for (const module_row *row = modules; row->type_word != nullptr; ++row) {
        if (!begins_with(word, row->type_word)) continue;
        found->module = row->module;
        found->library = row->library;
        return true;
    }
    return false;
}

// Length of the type word before the first dash of a name; 0 when the name has none. "sales-2024.dat" has none.
size_t prefix_length(std::string_view text)
{
    const size_t dash = text.find('-');
    if (dash == std::string_view::npos || dash + 1 == text.size()) return 0;
    const std::string_view word = text.substr(0, dash);
    for (const module_row *row = modules; row->type_word != nullptr; ++row)
        if (word.size() == std::strlen(row->type_word) && begins_with(word, row->type_word)) return dash;
    return 0;
}

const char *server_of(std::string_view text)
{
    const char *server = std::getenv(server_variable);
    if (server != nullptr && *server != '\0' && text.starts_with(server)) return "rvx";
    if (text.starts_with(rvx_path)) return "rvx";
    return text.starts_with(rdq_path) ? "rdq" : nullptr;
}

int take_name(resolution *found, std::string_view name)
{
    if (name.size() >= sizeof found->name) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::memcpy(found->name, name.data(), name.size());
    found->name[name.size()] = '\0';
    return 0;
}

// As a shell would, without running commands; a name that comes out as anything but one word stays as it is.
int take_expanded(resolution *found, std::string_view name)
{
    const bool expands = name.starts_with('~') || name.find('$') != std::string_view::npos;
    if (take_name(found, name) == -1) return -1;
    if (!expands) return 0;
    wordexp_t words{};
    const int result = wordexp(found->name, &words, WRDE_NOCMD);
    int taken = 0;
    if (result == 0 && words.we_wordc == 1) taken = take_name(found, words.we_wordv[0]);
    if (result == 0 || result == WRDE_NOSPACE) wordfree(&words);
    return taken;
}

// The name and the module in `text`: 0, or -1 when the name is too long. A text without module leaves none selected.
int classify_name(resolution *found, std::string_view text)
{
    found->module = found->library = nullptr;
    const size_t prefix = prefix_length(text);
    if (prefix != 0) {
        (void)select_module(found, text.substr(0, prefix));
        return take_expanded(found, text.substr(prefix + 1));
    }
    const char *server = server_of(text);
    if (server != nullptr) (void)select_module(found, server);
    return take_expanded(found, text);
}

// The variables that the assignment name stands for, until one of them names a module. The last one that is set gives
// the name.
int assignment_lookup(resolution *found, const char *assignment_name)
{
    if (assignment_name == nullptr) return 0;
    char variable[PATH_MAX];
    for (const char *prefix : {"", "dd_", "DD_"}) {
        const int length = std::snprintf(variable, sizeof variable, "%s%s", prefix, assignment_name);
        if (length < 0 || static_cast<size_t>(length) >= sizeof variable) return 0;
        if (*prefix == 'D')
            for (char *at = variable; *at != '\0'; ++at)
                *at = static_cast<char>(std::toupper(static_cast<unsigned char>(*at)));
        const char *value = std::getenv(variable);
        if (value == nullptr || *value == '\0') continue;
        if (classify_name(found, value) == -1) return -1;
        if (found->module != nullptr) return 0;
    }
    return 0;
}

// A descriptor of the file that the process has anyway, or -1: closing one of our own would drop the locks that the
// process has on the file.
int descriptor_at_hand(const struct stat &wanted)
{
    DIR *folder = opendir("/proc/self/fd");
    if (folder == nullptr) return -1;
    int found = -1;
    while (const dirent *entry = readdir(folder)) {
        char *end = nullptr;
        const auto descriptor = static_cast<int>(std::strtol(entry->d_name, &end, 10));
        struct stat facts;
        if (end == entry->d_name || fstat(descriptor, &facts) == -1) continue;
        const bool readable = (fcntl(descriptor, F_GETFL) & O_ACCMODE) != O_WRONLY;
        if (facts.st_dev == wanted.st_dev && facts.st_ino == wanted.st_ino && readable) found = descriptor;
    }
    closedir(folder);
    return found;
}

// One aligned page, so that a descriptor for direct transfers serves as well.
ssize_t read_head(const char *path, const struct stat &facts, char *head, size_t bytes)
{
    alignas(4096) char page[4096];
    const int at_hand = descriptor_at_hand(facts);
    const int descriptor = at_hand != -1 ? at_hand : open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (descriptor == -1) return -1;
    const ssize_t got = pread(descriptor, page, sizeof page, 0);
    if (at_hand == -1) close(descriptor);
    const size_t count = got < 0 ? 0 : static_cast<size_t>(got) < bytes ? static_cast<size_t>(got) : bytes;
    std::memcpy(head, page, count);
    return static_cast<ssize_t>(count);
}

// The module that a regular file's path or first bytes show; null when it has none.
const char *classify_file(const char *path, const struct stat &facts)
{
    const std::string_view text = path;
    if (text.size() > 14 && text.starts_with(rvx_path)) return "rvx";
    if (text.size() > 9 && text.starts_with(rdq_path)) return "rdq";
    char head[28] = {};
    if (read_head(path, facts, head, sizeof head) <= 0) return nullptr;
    if (std::memcmp(head + 24, "vfs", 4) == 0) return "psx";
    return std::memcmp(head + 8, "KFM", 3) == 0 ? "kfm" : "rsd";
}

// What the name and the environment say goes on with what is at the name. `disagrees`: the file is of another kind than
// was asked for.
struct routing {
    bool routes; // the answer is another driver's
    bool disagrees;
};

int choose_for_missing(resolution *found)
{
    const bool forced = equal(found->module, "psx") || equal(found->module, "kfm");
    if (equal(found->module, "brix") || (forced && !selected_module_kept())) (void)select_module(found, "kfm");
    return 0;
}

int choose_by_file(resolution *found, routing *way, const struct stat &facts)
{
    if (!S_ISREG(facts.st_mode) || !way->routes) return 0;
    const char *contents = classify_file(found->name, facts);
    if (contents == nullptr) {
        (void)select_module(found, "kfm");
        way->disagrees = true;
    } else if (!equal(contents, found->module)) {
        way->disagrees = !equal(found->module, "brix");
        (void)select_module(found, contents);
    }
    return 0;
}

int choose_unselected(resolution *found, routing *way, const char *type_word, const char *assignment_name)
{
    struct stat facts;
    if (!way->routes) return 0;
    if (stat(found->name, &facts) == 0) {
        const char *contents = S_ISREG(facts.st_mode) ? classify_file(found->name, facts) : "stdio";
        if (contents != nullptr) (void)select_module(found, contents);
    } else if (assignment_lookup(found, assignment_name) == -1) {
        return -1;
    }
    if (found->module == nullptr && type_word != nullptr) (void)select_module(found, type_word);
    return 0;
}

// A short name becomes one of the server's.
int choose_server_path(resolution *found)
{
    const std::string_view name = found->name;
    if (name.size() >= 14 && name.starts_with(rvx_path)) return 0;
    const char *server = std::getenv(server_variable);
    if (server == nullptr || *server == '\0') {
        std::fprintf(stderr,
                     "RVX shortname usage requires setting:\n`export KELP_TK_RVX_SERVER=/.:/kelp/rvx/<server>`\n");
        errno = EINVAL;
        return -1;
    }
    if (name.starts_with(server)) return 0;
    char whole[PATH_MAX];
    const int length = std::snprintf(whole, sizeof whole, "%s/%s", server, found->name);
    if (length < 0 || static_cast<size_t>(length) >= sizeof whole) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return take_name(found, whole);
}

int choose_module(resolution *found, routing *way, const char *type_word, const char *assignment_name)
{
    if (found->module == nullptr) return choose_unselected(found, way, type_word, assignment_name);
    if (equal(found->module, "rvx")) return choose_server_path(found);
    if (equal(found->module, "rdq")) return 0;
    if (equal(found->module, "wbn")) { // its library serves both
        found->module = "kfm";
        return 0;
    }
    struct stat facts;
    if (stat(found->name, &facts) == 0) return choose_by_file(found, way, facts);
    return errno == ENOENT ? choose_for_missing(found) : -1;
}

const vfs_driver *out_of_range(void *library)
{
    if (library != nullptr) dlclose(library);
    errno = ERANGE;
    return nullptr;
}

const vfs_driver *no_symbol(void *library, const char *symbol, const char *text)
{
    std::fprintf(stderr, "dlsym(%s) = %s\n", symbol, text != nullptr ? text : "");
    return out_of_range(library);
}

// The descriptor of a sibling. Its library stays loaded: the descriptor is in it.
const vfs_driver *load_driver(const resolution &found)
{
    if (found.module == nullptr || found.library == nullptr) return out_of_range(nullptr);
    char file[64];
    std::snprintf(file, sizeof file, "%s%s%s%s", "libv", "fs_", found.library, "_64r.so");
    dlerror();
    void *library = dlopen(file, RTLD_NOW);
    if (library == nullptr) {
        std::fprintf(stderr, "dlopen(%s) = %s\n", file, dlerror());
        return out_of_range(nullptr);
    }
    if (dlsym(library, "vfs_api") != nullptr) return no_symbol(library, "vfs_api", nullptr); // speaks another language
    dlerror();
    void *symbol = dlsym(library, "vfs");
    if (symbol == nullptr) return no_symbol(library, "vfs", dlerror());
    const vfs_driver *driver = reinterpret_cast<const vfs_driver *(*)()>(symbol)();
    if (driver == nullptr || std::memcmp(driver->name, "vfs_", 4) != 0) return out_of_range(library);
    return driver;
}

} // namespace

const vfs_driver *resolve_name(const vfs_driver &self, const char *type_word, const char *assignment_name,
                               const char *name, const char **resolved_out)
{
    static thread_local char answered[PATH_MAX]; // where `name` may point as well
    resolution found;
    routing way{.routes = std::memcmp(self.name, "vfs_gen", 8) == 0, .disagrees = false};
    found.name[0] = '\0';
    found.module = found.library = nullptr;
    errno = 0;
    if (name != nullptr && classify_name(&found, name) == -1) return nullptr;
    if (found.module == nullptr && assignment_lookup(&found, assignment_name) == -1) return nullptr;
    if (found.name[0] == '\0') {
        errno = EINVAL;
        return nullptr;
    }
    if (choose_module(&found, &way, type_word, assignment_name) == -1) return nullptr;
    std::memcpy(answered, found.name, std::strlen(found.name) + 1);
    if (resolved_out != nullptr) *resolved_out = answered;
    const vfs_driver *answer = way.routes ? load_driver(found) : &self;
    if (answer != nullptr) errno = way.disagrees ? EBADF : 0;
    return answer;
}
