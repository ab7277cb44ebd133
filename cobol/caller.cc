// Who calls: a program that was compiled without the handler keeps its files with the runtime, also where its SORT meets
// the bridge's functions because they were loaded for another program's sake. Read from the tables that the program was
// loaded with (System V ABI, dynamic section).
#include "bridge.h"

#include <cstring>
#include <span>

#include <link.h>

namespace {

struct search {
    uintptr_t address;
    bool bound = false;           // linked with the bridge, or calls its handler
    bool opens_by_itself = false; // calls the runtime's own OPEN
};

bool contains(const dl_phdr_info &object, uintptr_t address)
{
    for (const ElfW(Phdr) & part : std::span{object.dlpi_phdr, object.dlpi_phnum})
        if (part.p_type == PT_LOAD && address - (object.dlpi_addr + part.p_vaddr) < part.p_memsz) return true;
    return false;
}

// Undefined symbols are in no bucket of the hash table that all objects have: they are the symbols in front of the first
// one that is.
void look_at(const dl_phdr_info &object, search *wanted)
{
    const ElfW(Dyn) *dynamic = nullptr;
    for (const ElfW(Phdr) & part : std::span{object.dlpi_phdr, object.dlpi_phnum})
        if (part.p_type == PT_DYNAMIC) dynamic = reinterpret_cast<const ElfW(Dyn) *>(object.dlpi_addr + part.p_vaddr);
    const char *strings = nullptr;
    const ElfW(Sym) *symbols = nullptr;
    const uint32_t *hash = nullptr; // buckets, the first symbol that is in one, ...
    for (const ElfW(Dyn) *entry = dynamic; entry != nullptr && entry->d_tag != DT_NULL; ++entry) {
        if (entry->d_tag == DT_STRTAB) strings = reinterpret_cast<const char *>(entry->d_un.d_ptr);
        if (entry->d_tag == DT_SYMTAB) symbols = reinterpret_cast<const ElfW(Sym) *>(entry->d_un.d_ptr);
        if (entry->d_tag == DT_GNU_HASH) hash = reinterpret_cast<const uint32_t *>(entry->d_un.d_ptr);
    }
    if (strings == nullptr || symbols == nullptr || hash == nullptr) return;
    for (const ElfW(Dyn) *entry = dynamic; entry->d_tag != DT_NULL; ++entry)
        if (entry->d_tag == DT_NEEDED && strstr(strings + entry->d_un.d_val, "libvfs_extfh.so") != nullptr)
            wanted->bound = true;
    for (const ElfW(Sym) & symbol : std::span{symbols, hash[1]}) {
        const char *name = strings + symbol.st_name;
        if (strcmp(name, "vfs_extfh") == 0) wanted->bound = true;
        if (strcmp(name, "cob_open") == 0) wanted->opens_by_itself = true;
    }
}

} // namespace

bool keeps_files_with_runtime(const void *code)
{
    search caller{.address = reinterpret_cast<uintptr_t>(code)};
    dl_iterate_phdr(
        [](dl_phdr_info *object, size_t, void *context) {
            auto *wanted = static_cast<search *>(context);
            if (!contains(*object, wanted->address)) return 0;
            look_at(*object, wanted);
            return 1;
        },
        &caller);
    return caller.opens_by_itself && !caller.bound;
}
