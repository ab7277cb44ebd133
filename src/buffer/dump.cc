// A cache in text, on standard error: its statistics, and with them its lists, buffer by buffer. Reads everything,
// changes nothing. Other rooms print it with their diagnoses.
#include "buffer/buffer.h"
#include "util/format_text.h"

#include <cstdio>

// The grouping flag of the formats is POSIX, not ISO C.
#pragma GCC diagnostic ignored "-Wformat"

namespace {

struct size_text {
    char text[80];
    explicit size_text(uint64_t bytes) { std::snprintf(text, sizeof text, "%s", format_size(bytes)); }
};

const char *when(bool true_now, const char *word)
{
    return true_now ? word : "";
}

const char *engine_word(const vfs_cache *cache)
{
    if ((cache->engine & engine_mmap) != 0) return "MMAP";
    if ((cache->engine & engine_direct) != 0) return "DIO";
    if ((cache->engine & engine_aio) != 0) return "AIO";
    if ((cache->engine & engine_fifo) != 0) return " IO";
    return cache->block_size != 0 ? "PIO" : "RVX";
}

const char *kind_word(const vfs_cache *cache)
{
    static constexpr const char *kinds[] = {"Data ", "Index", "Meta "};
    return kinds[cache->bufftype];
}

double percent(uint64_t part, uint64_t whole)
{
    if (whole == 0 || part == 0) return 0;
    return static_cast<double>(part) / static_cast<double>(whole) * 100;
}

long long count(uint64_t value)
{
    return static_cast<long long>(value);
}
int number(uint64_t value)
{
    return static_cast<int>(value);
}

void print_statistics(const vfs_cache *cache)
{
    const auto &stats = cache->stats;
    const uint64_t hits = stats.use - cache->miss;
    const bool asynchronous =
        (cache->engine & engine_aio) == 0 && (cache->mode & (cache_synchronous | cache_threads)) == 0;
    const size_text block{cache->block_size}, read{stats.bytes_read}, written{stats.bytes_written};
    std::fprintf(stderr,
                 "%s%s%s %s %s %ld %d:%d-%d @%sB  file: %s\n"
                 "\tuse=%'lld hit=%'d(%.2f%%) miss=%'d(%.2f%%)\n"
                 "\tasync=%'lld random=%'lld stall=%'lld spill=%'lld wait=%'lld prefetch=%'lld abscond=%'lld\n"
                 "\tflush=%'lld invalidate=%'lld cancel=%'lld lock=%'lld retries=%'lld\n"
                 "\textend=%'lld redundant=%'lld readahead=%'d writebehind=%'d errno=%d\n"
                 "\tread=%sB write=%sB\n",
                 when((cache->flags & cache_hash_lookup) != 0, "H"), when((cache->mode & cache_threads) != 0, "T"),
                 when(asynchronous, "A"), engine_word(cache), kind_word(cache), 0L, number(cache->lru_count),
                 number(cache->min), number(cache->max), block.text, cache->name != nullptr ? cache->name : "",
                 count(stats.use), number(hits), percent(hits, stats.use), number(cache->miss),
                 percent(cache->miss, stats.use), count(stats.async), count(stats.random), count(stats.stall),
                 count(stats.spill), count(stats.wait), count(stats.prefetch), count(stats.abscond), count(stats.flush),
                 count(stats.invalidate), count(stats.cancel), count(stats.lock), count(stats.retries),
                 count(stats.extend), count(stats.redundant), number(cache->readahead), number(cache->writebehind),
                 number(cache->first_error), read.text, written.text);
}

struct list_words { // what differs between the lines of the two lists
    const char *format, *write_current;
    const vfs_buffer *head, *tail;
};

void print_buffer(const vfs_cache *cache, const vfs_buffer *buffer, int place, const list_words &list)
{
    const uint8_t state = buffer->state;
    std::fprintf(stderr, list.format, place, static_cast<const void *>(buffer), static_cast<const void *>(buffer->prev),
                 static_cast<const void *>(buffer->next), when(buffer->server != nullptr, "A"),
                 when((buffer->flags2 & buffer_hashed) != 0, "H"), when(buffer->done == 1, "W"),
                 when(buffer->queue != nullptr, "Q"), when(buffer->idled == 1, "I"),
                 when((state & buffer_dirty) != 0, "d"), when((state & buffer_writing) != 0, "w"),
                 when((buffer->rstate & buffer_reading) != 0, "r"), when((state & buffer_new) != 0, "o"),
                 when((state & buffer_ahead_started) != 0, "s"), "", static_cast<long>(buffer->bytes), buffer->offset,
                 buffer->valid_end, buffer->end, static_cast<const void *>(buffer->data), number(buffer->error),
                 when(cache->wcurr == buffer, list.write_current), when(cache->curr == buffer, " Curr"),
                 when(cache->last_found == buffer, " New"), when(cache->hdrb == buffer, " hdrb"),
                 when(list.head == buffer, " Head"), when(list.tail == buffer, " Tail"));
}

void print_list(const vfs_cache *cache, const list_words &list)
{
    int place = 0;
    for (const vfs_buffer *buffer = list.head; buffer != nullptr; buffer = buffer->next)
        print_buffer(cache, buffer, place++, list);
}

void print_counts(const vfs_cache *cache)
{
    if (cache->lru_count == 0 && cache->idle_count == 0 && cache->read_queue.count == 0 &&
        cache->dirty_queue.count == 0 && cache->write_queue.count == 0 && cache->count == 0)
        return;
    std::fprintf(stderr, "\tQueues act %d  idle %d  total %d  Pending read %d  dirty %d  write %d  random %d/%'d\n",
                 number(cache->lru_count), number(cache->idle_count), number(cache->count),
                 number(cache->read_queue.count), number(cache->dirty_queue.count), number(cache->write_queue.count), 0,
                 number(cache->stats.random));
    if (cache->lru_count != 0) std::fprintf(stderr, "  MRU/LRU queue buffers %d\n", number(cache->lru_count));
}

} // namespace

void cache_dump(const vfs_cache *cache, bool with_buffers)
{
    print_statistics(cache);
    if (!with_buffers) return;
    std::fprintf(stderr, "\tfilesize 0x%lx  append 0x%lx\n\tbuffers %d:%d / %d-%d  wc=@%p  c=@%p h=@%p  t=@%p  n=@%p\n",
                 cache->filesize, cache->file->end_of_file, number(cache->lru_count), number(cache->idle_count),
                 number(cache->min), number(cache->max), static_cast<const void *>(cache->wcurr),
                 static_cast<const void *>(cache->curr), static_cast<const void *>(cache->lru_head),
                 static_cast<const void *>(cache->lru_tail), static_cast<const void *>(cache->last_found));
    print_counts(cache);
    print_list(cache, {"  #%2.2d  @%p  p=@%p  n=@%p %s%s%s%s%s%s%s%s%s%s%s  %ld@0x%lx-0x%lx-0x%lx @%p %d "
                       "%s%s%s%s%s%s\n",
                       " WCurr", cache->lru_head, cache->lru_tail});
    if (cache->idle_count == 0) return;
    std::fprintf(stderr, "  Idle queue buffers %d\n", number(cache->idle_count));
    print_list(cache, {"  #%2.2d  @%p  p=%p  n=%p %s%s%s%s%s%s%s%s%s%s%s  %ld@0x%lx-0x%lx-0x%lx @%p %d "
                       "%s%s%s%s%s%s\n",
                       " WCur ", cache->idle_head, cache->idle_tail});
}

void caches_dump(const file_state *file)
{
    for (const vfs_cache *cache : file->caches)
        if (cache != nullptr) cache_dump(cache, true);
}
