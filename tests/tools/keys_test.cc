// Key syntax, the block for the driver, and key values.
#include "keys.h"

#include <gtest/gtest.h>

#include "errors.h"
#include "layout.h"

namespace {

key_spec key_of(std::string_view text)
{
    return parse_key(text, nullptr);
}

TEST(Keys, OnePart)
{
    const key_spec key = key_of("0:12");
    ASSERT_EQ(key.parts.size(), 1U);
    EXPECT_EQ(key.parts[0].offset, 0U);
    EXPECT_EQ(key.parts[0].length, 12U);
    EXPECT_FALSE(key.duplicates);
}

TEST(Keys, PartsAreJoinedAndDuplicatesAreMarked)
{
    const key_spec key = key_of("60:4+70:2,dup");
    ASSERT_EQ(key.parts.size(), 2U);
    EXPECT_EQ(key.parts[1].offset, 70U);
    EXPECT_EQ(key.length(), 6U);
    EXPECT_EQ(key.end(), 72U);
    EXPECT_TRUE(key.duplicates);
    EXPECT_EQ(key_text(key), "60:4+70:2,dup");
}

TEST(Keys, WhatIsNoKeyIsRefused)
{
    for (const char *text :
         {"", "5", "5:", ":5", "5:0", "a:b", "1:2+", "1:2,unique", "-1:4", "1:2 ", "0x1:2", "99999999999999999999:1"})
        EXPECT_THROW(key_of(text), tool_error) << text;
}

TEST(Keys, ColumnsOfALayoutNameParts)
{
    const layout columns = parse_layout("Code:9,Organization Name:30,rest:*");
    const key_spec key = parse_key("organization name+code,dup", &columns);
    EXPECT_EQ(key_text(key), "9:30+0:9,dup");
    EXPECT_THROW(parse_key("rest", &columns), tool_error); // it has no fixed width
    EXPECT_THROW(parse_key("other", &columns), tool_error);
}

TEST(Keys, TheDriversBlockSaysTheSame)
{
    const std::vector<key_spec> keys{key_of("0:12"), key_of("12:30,dup"), key_of("60:4+70:2,dup")};
    const key_description description{keys};
    const vfs_key_desc *block = description.get();
    EXPECT_EQ(block->total_size, 40 + 3 * 32 + 4 * 24);
    EXPECT_EQ(block->count, 3);
    EXPECT_EQ(block->max_extent, 30);
    EXPECT_EQ(block->primary_key, 0);
    EXPECT_EQ(block->flags, 1);
    const auto *entries = reinterpret_cast<const vfs_key_desc_entry *>(block + 1);
    EXPECT_EQ(entries[0].flags, VFS_KEY_PRIMARY);
    EXPECT_EQ(entries[1].flags, VFS_KEY_DUPLICATES);
    EXPECT_EQ(entries[2].flags, VFS_KEY_DUPLICATES | VFS_KEY_MULTI_PART);
    EXPECT_EQ(entries[0].part_list, 40 + 3 * 32);
    const std::vector<key_spec> back = keys_of(block);
    ASSERT_EQ(back.size(), keys.size());
    for (size_t k = 0; k < keys.size(); ++k) EXPECT_EQ(key_text(back[k]), key_text(keys[k]));
}

TEST(Keys, ValuesComeFromTheRecordAndEndInZeroBytes)
{
    const key_spec key = key_of("2:3+0:1");
    EXPECT_EQ(key_value(key, "abcdef"), "cdea");
    EXPECT_EQ(key_value(key, "abc"), (std::string{"c\0\0a", 4}));
    EXPECT_EQ(key_value(key, ""), std::string(4, '\0'));
}

TEST(Keys, TypedValuesArePaddedButNeverCut)
{
    EXPECT_EQ(padded_key("ab", 4), "ab  ");
    EXPECT_THROW(padded_key("abcde", 4), tool_error);
    EXPECT_EQ(bytes_of_hex("00fF41"), (std::string{"\0\xFF"
                                                   "A",
                                                   3}));
    EXPECT_THROW(bytes_of_hex("0"), tool_error);
    EXPECT_THROW(bytes_of_hex("0g"), tool_error);
}

TEST(Keys, AreChosenByNumberOrByColumn)
{
    const layout columns = parse_layout("code:9,name:30,rest:*");
    const key_description description{{parse_key("code", &columns), parse_key("name,dup", &columns)}};
    EXPECT_EQ(choose_key("1", description.get(), nullptr).number, 1);
    EXPECT_EQ(choose_key("Name", description.get(), &columns).number, 1);
    EXPECT_TRUE(choose_key("name", description.get(), &columns).spec.duplicates);
    EXPECT_THROW(choose_key("2", description.get(), nullptr), tool_error);
    EXPECT_THROW(choose_key("rest", description.get(), &columns), tool_error);
}

} // namespace
