// The control block of a call, and the description of keys that it points to. All numbers in them are big-endian and
// unaligned. Knows the layout; must not know verbs.
#pragma once

#include "runtime.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

static_assert(sizeof(FCD3) == 216 && offsetof(FCD3, fileStatus) == 0 && offsetof(FCD3, fcdVer) == 4 &&
              offsetof(FCD3, fileOrg) == 5 && offsetof(FCD3, accessFlags) == 6 && offsetof(FCD3, openMode) == 7 &&
              offsetof(FCD3, recordMode) == 8 && offsetof(FCD3, otherFlags) == 21 && offsetof(FCD3, lockMode) == 28);
static_assert(offsetof(FCD3, fnameLen) == 54 && offsetof(FCD3, refKey) == 60 && offsetof(FCD3, effKeyLen) == 66 &&
              offsetof(FCD3, opt) == 84 && offsetof(FCD3, curRecLen) == 88 && offsetof(FCD3, minRecLen) == 92 &&
              offsetof(FCD3, maxRecLen) == 96 && offsetof(FCD3, relKey) == 144);
static_assert(offsetof(FCD3, _fileHandle) == 152 && offsetof(FCD3, _recPtr) == 160 &&
              offsetof(FCD3, _fnamePtr) == 168 && offsetof(FCD3, _kdbPtr) == 184);

inline uint64_t big_endian(const void *at, size_t width)
{
    uint64_t value = 0;
    for (size_t i = 0; i < width; ++i) value = value << 8 | static_cast<const unsigned char *>(at)[i];
    return value;
}

inline void put_big_endian(void *at, size_t width, uint64_t value)
{
    for (size_t i = width; i-- > 0; value >>= 8)
        static_cast<unsigned char *>(at)[i] = static_cast<unsigned char>(value);
}

enum class open_mode : uint8_t { input, output, io, extend };
enum class organization : uint8_t { sequential, relative, indexed };
enum class access : uint8_t { sequential, random, dynamic };

struct key_part {
    size_t offset, length;
};

struct key_shape {
    std::vector<key_part> parts;
    size_t length = 0;
    bool duplicates = false;
    bool sparse = false; // records whose value is all `suppressed` are not found by it
    char suppressed = 0;

    // The value that a record gives this key: its parts end to end.
    void take(const char *record, std::string *value) const
    {
        value->clear();
        for (const key_part &part : parts) value->append(record + part.offset, part.length);
    }
    bool suppresses(std::string_view value) const
    {
        return sparse && value.find_first_not_of(suppressed) == std::string_view::npos;
    }
};

class control_block {
public:
    explicit control_block(FCD3 *fcd) : fcd_(fcd) {}

    bool known_version() const { return fcd_->fcdVer == FCD_VER_64Bit; }
    // Sequential, relative and indexed; everything else is the runtime's.
    bool is_record_file() const
    {
        return fcd_->fileOrg >= ORG_SEQ && fcd_->fileOrg <= ORG_RELATIVE && (fcd_->otherFlags & OTH_LINE_ADVANCE) == 0;
    }
    organization kind() const
    {
        if (fcd_->fileOrg == ORG_SEQ) return organization::sequential;
        return fcd_->fileOrg == ORG_RELATIVE ? organization::relative : organization::indexed;
    }
    access access_mode() const
    {
        const int flags = fcd_->accessFlags & 0x7f;
        if (kind() == organization::sequential || flags == ACCESS_SEQ) return access::sequential;
        return flags == ACCESS_RANDOM ? access::random : access::dynamic;
    }
    bool optional() const { return (fcd_->otherFlags & OTH_OPTIONAL) != 0; }
    uint8_t lock_mode() const { return fcd_->lockMode; }
    bool fixed() const { return fcd_->recordMode == REC_MODE_FIXED; }
    size_t minimum() const { return big_endian(fcd_->minRecLen, 4); }
    size_t maximum() const { return big_endian(fcd_->maxRecLen, 4); }
    uint32_t options() const { return static_cast<uint32_t>(big_endian(fcd_->opt, 4)); }
    size_t key_of_reference() const { return big_endian(fcd_->refKey, 2); }
    size_t key_length() const { return big_endian(fcd_->effKeyLen, 2); }
    uint64_t relative_key() const { return big_endian(fcd_->relKey + 4, 4); }
    size_t record_length() const { return big_endian(fcd_->curRecLen, 4); }
    char *record() const { return reinterpret_cast<char *>(fcd_->_recPtr.ptr_name); }
    std::string_view name() const
    {
        const char *text = fcd_->_fnamePtr.ptr_name;
        return text == nullptr ? std::string_view{} : std::string_view{text, big_endian(fcd_->fnameLen, 2)};
    }
    void *handle() const { return fcd_->_fileHandle.ptr_name; }
    std::vector<key_shape> keys() const;

    void set_handle(void *handle) { fcd_->_fileHandle.ptr_name = handle; }
    void set_open_mode(uint8_t mode) { fcd_->openMode = mode; }
    void set_record_length(size_t length) { put_big_endian(fcd_->curRecLen, 4, length); }
    void set_relative_key(uint64_t number) { put_big_endian(fcd_->relKey, 8, number); }
    void set_status(char first, char second)
    {
        fcd_->fileStatus[0] = static_cast<unsigned char>(first);
        fcd_->fileStatus[1] = static_cast<unsigned char>(second);
    }
    FCD3 *raw() const { return fcd_; }

private:
    FCD3 *fcd_;
};

inline std::vector<key_shape> control_block::keys() const
{
    std::vector<key_shape> found;
    const auto *block = reinterpret_cast<const unsigned char *>(fcd_->_kdbPtr.ptr_name);
    if (block == nullptr) return found;
    const size_t count = big_endian(block + 6, 2);
    for (size_t k = 0; k < count; ++k) {
        const unsigned char *entry = block + 14 + 16 * k;
        const unsigned char *part = block + big_endian(entry + 2, 2);
        key_shape &key = found.emplace_back();
        key.duplicates = (entry[4] & 0x40) != 0;
        key.sparse = (entry[4] & 0x02) != 0;
        key.suppressed = static_cast<char>(entry[6]);
        for (size_t n = big_endian(entry, 2); n-- > 0; part += 10) {
            key.parts.push_back({big_endian(part + 2, 4), big_endian(part + 6, 4)});
            key.length += key.parts.back().length;
        }
    }
    return found;
}
