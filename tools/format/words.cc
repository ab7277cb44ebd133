// See words.h.
#include "format/words.h"

#include "format/frames.h"
#include "store/format.h"

#include <array>
#include <cstdlib>
#include <fstream>
#include <string>

uint64_t boot_word_now()
{
    std::ifstream file{"/proc/sys/kernel/random/boot_id"};
    std::string text;
    std::getline(file, text);
    std::array<std::byte, 8> bytes{};
    size_t count = 0;
    for (size_t at = 0; at + 1 < text.size() && count < bytes.size(); ++at) {
        if (text[at] == '-') continue;
        bytes[count++] = static_cast<std::byte>(std::strtoul(text.substr(at++, 2).c_str(), nullptr, 16));
    }
    const uint64_t word = load_u64(bytes.data());
    return count < bytes.size() || word == 0 ? 1 : word;
}

session read_session(file_image &image)
{
    session found;
    found.state_word = image.word(header_state_word.offset);
    found.boot_word = image.word(header_boot_word.offset);
    const bool other = found.boot_word != 0 && found.boot_word != boot_word_now();
    if (found.state_word == state_clean) {
        found.state = other                  ? session_state::other_boot
                      : found.boot_word != 0 ? session_state::finished_changes
                                             : session_state::closed;
    } else if (found.state_word == state_unflushed) {
        found.state = session_state::unflushed;
    } else {
        found.redo = read_redo(image, found.state_word);
        found.state = !found.redo.fault.empty() ? session_state::bad_redo
                      : other                   ? session_state::other_boot
                                                : session_state::pending_redo;
    }
    return found;
}

items_behind find_behind(file_image &image, uint64_t end, const session &words)
{
    items_behind found;
    frame item;
    const auto take = [&] {
        if (found.items == 0) found.first = item.offset;
        ++found.items;
        found.records += item.is_record() ? 1 : 0;
    };
    switch (words.state) {
    case session_state::closed: // an item right at the end was appended by a program that never told
        for (uint64_t at = end; frame_holds(image, at, image.size(), &item); at += item.length) {
            if (found.items == 0 && (item.type == item_deleted || item.type == item_hole)) break;
            take();
        }
        break;
    case session_state::finished_changes:
    case session_state::pending_redo: break; // of an operation that was not finished
    case session_state::other_boot:
    case session_state::unflushed:
    case session_state::bad_redo: // blocks reach the file in any order
        for (uint64_t at = end; at < image.size(); at = item.offset + item.length) {
            const uint64_t skip = redo_bytes(image, at);
            if (skip != 0) {
                item = {.offset = at, .length = (skip + 7) / 8 * 8};
                continue;
            }
            if (!frame_holds(image, at, image.size(), &item) &&
                next_frame(image, at + 8, image.size(), &item) >= image.size())
                break;
            take();
        }
        break;
    }
    return found;
}
