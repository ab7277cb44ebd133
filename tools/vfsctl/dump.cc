// vfsctl dump: all records as text that other stores read, or what the file is made of.
#include <memory>

#include <fcntl.h>

#include "commands.h"
#include "db_text.h"
#include "driver.h"
#include "errors.h"
#include "keys.h"
#include "output.h"
#include "progress.h"
#include "structure.h"

namespace {

struct dump_options {
    std::string file;
    bool print = false, items = false, trees = false;
};

// Files with keys are a btree of primary keys and records. Relative records have numbers, which stock tools read from
// bytevalue; sequential ones follow each other.
db_text_header header_of(const vfs_open_block &block, const dump_options &options)
{
    return {.form = options.print ? db_text_form::print : db_text_form::bytevalue,
            .type = block.logical_organization == VFS_ORG_INDEXED ? "btree" : "recno",
            .database = {},
            .keys = block.logical_organization != VFS_ORG_SEQUENTIAL};
}

int dump(const dump_options &options)
{
    if (options.items || options.trees) {
        options.items ? print_items(options.file) : print_tree_nodes(options.file);
        return exit_good;
    }
    watch_for_interruption();
    record_file file{{.path = options.file, .flags = O_RDONLY, .sequential = true}};
    const vfs_open_block block = file.info();
    const bool indexed = block.logical_organization == VFS_ORG_INDEXED;
    const key_spec primary = indexed ? keys_of(block.keys).front() : key_spec{};
    const db_text_header header = header_of(block, options);
    put_out(db_text_head(header, primary.duplicates));
    progress bar{"reading", static_cast<uint64_t>(std::max<int64_t>(block.record_count, 0))};
    for (auto record = file.read(VFS_POS_FIRST); record; record = file.read(VFS_POS_NEXT)) {
        if (interrupted()) throw interruption(options.file + ": interrupted; the dump has no end");
        if (header.keys)
            put_out(db_text_line(indexed ? key_value(primary, *record) : std::to_string(file.rrn() + 1), header.form) +
                    "\n");
        put_out(db_text_line(*record, header.form) + "\n");
        bar.step();
    }
    put_out(db_text_end);
    file.close();
    return exit_good;
}

} // namespace

command_body declare_dump(CLI::App &command)
{
    auto options = std::make_shared<dump_options>();
    command.add_option("file", options->file, "The file")->required();
    auto *print =
        command.add_flag("-p,--print", options->print, "Printable characters as they are, the others in hexadecimal");
    auto *items = command.add_flag("--items", options->items, "Show the items of the file instead, a line for each");
    command.add_flag("--trees", options->trees, "Show the nodes of its trees instead, with their entries")
        ->excludes(items)
        ->excludes(print);
    items->excludes(print);
    return [options] { return dump(*options); };
}
