// Memory for blocks. A cache that has grown takes it in slabs of a huge page each (madvise(2), MADV_HUGEPAGE): the first
// touch of a page costs more than reading 4096 bytes from the page cache, and a slab needs one where its blocks would need
// hundreds. The first blocks come one by one, so that many small files do not take a slab each.
#include "cache/internal.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <sys/mman.h>
#include <unistd.h>

struct area_slab {
    area_slab *next;
    std::byte *memory; // owned: slab_bytes
    uint64_t used;     // bytes handed out, from the front
};

// A block of a slab that no buffer has: its first bytes lead to the next one.
struct spare_area {
    spare_area *next;
};

namespace {

constexpr uint64_t slab_bytes = uint64_t{2} << 20;
#ifdef __has_feature // clang
#if __has_feature(address_sanitizer)
#define __SANITIZE_ADDRESS__ 1
#endif
#endif
#ifdef __SANITIZE_ADDRESS__
constexpr bool has_slabs = false; // each block has its own bounds
#else
constexpr bool has_slabs = true;
#endif

uint64_t page_size()
{
    static const auto size = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    return size;
}

// Blocks are powers of two: what is no whole number of pages, or half a slab and more, gains nothing.
bool takes_slabs(const vfs_cache *cache)
{
    return has_slabs && cache->block_size < slab_bytes && cache->block_size % page_size() == 0 &&
           slab_bytes % cache->block_size == 0 && cache->count * cache->block_size >= slab_bytes;
}

area_slab *slab_new(vfs_cache *cache)
{
    auto *slab = static_cast<area_slab *>(std::malloc(sizeof(area_slab)));
    if (slab == nullptr) return nullptr;
    void *memory = nullptr;
    if (posix_memalign(&memory, slab_bytes, slab_bytes) != 0) {
        std::free(slab);
        return nullptr;
    }
    (void)madvise(memory, slab_bytes, MADV_HUGEPAGE);
    *slab = {cache->slabs, static_cast<std::byte *>(memory), 0};
    return cache->slabs = slab;
}

// Null when there is no memory for a slab.
std::byte *take_from_slab(vfs_cache *cache)
{
    if (cache->spare_areas != nullptr) {
        spare_area *area = cache->spare_areas;
        cache->spare_areas = area->next;
        return reinterpret_cast<std::byte *>(area);
    }
    area_slab *slab = cache->slabs;
    if (slab == nullptr || slab->used == slab_bytes) slab = slab_new(cache);
    if (slab == nullptr) return nullptr;
    std::byte *area = slab->memory + slab->used;
    slab->used += cache->block_size;
    return area;
}

} // namespace

// The warning of a failed allocation, once a cache: `what` and where to look when memory is limited.
void warn_allocation(vfs_cache *cache, const char *what, int error, const char *advice)
{
    if ((cache->state & cache_warned) != 0) return;
    cache->state |= cache_warned;
    if (error == ENOMEM) {
        fprintf(stderr, "Error allocating I/O %s: %d Not enough space\nContinuing with reduced performance. %s\n", what,
                error, advice);
        return;
    }
    fprintf(stderr, "Error allocating I/O %s: %d %s\nContinuing with reduced performance.\n", what, error,
            strerror(error));
}

std::byte *area_alloc(vfs_cache *cache, uint64_t bytes)
{
    const uint64_t whole = (bytes + page_size() - 1) / page_size() * page_size();
    void *area = nullptr;
    const int error = posix_memalign(&area, page_size(), whole);
    if (error != 0) {
        warn_allocation(cache, "Area", error, "`ulimit -d`");
        return nullptr;
    }
    std::memset(area, 0, whole);
    return static_cast<std::byte *>(area);
}

std::byte *block_area_take(vfs_buffer *buffer)
{
    vfs_cache *cache = buffer->cache;
    buffer->area = takes_slabs(cache) ? take_from_slab(cache) : nullptr;
    buffer->area_in_slab = buffer->area != nullptr;
    if (buffer->area_in_slab)
        std::memset(buffer->area, 0, buffer->size);
    else
        buffer->area = area_alloc(cache, buffer->size);
    return buffer->area;
}

void block_area_give(vfs_buffer *buffer)
{
    if (buffer->area_in_slab) {
        vfs_cache *cache = buffer->cache;
        cache->spare_areas = new (buffer->area) spare_area{cache->spare_areas};
    } else {
        std::free(buffer->area);
    }
    buffer->area = nullptr;
}

void slabs_free(vfs_cache *cache)
{
    cache->spare_areas = nullptr;
    while (area_slab *slab = cache->slabs) {
        cache->slabs = slab->next;
        std::free(slab->memory);
        std::free(slab);
    }
}
