// Settings: defaults, parse rules and limits of every variable, from an environment that the test makes up.
#include "driver/configuration.h"

#include <gtest/gtest.h>
#include <map>
#include <string>

namespace {

std::map<std::string, std::string> environment;
char *lookup(const char *name)
{
    const auto found = environment.find(name);
    return found == environment.end() ? nullptr : found->second.data();
}

open_settings settings_with(std::map<std::string, std::string> variables)
{
    environment = std::move(variables);
    open_settings settings;
    read_settings(&settings, lookup);
    return settings;
}

TEST(Configuration, EmptyEnvironmentGivesDefaults)
{
    const open_settings s = settings_with({});
    EXPECT_FALSE(s.debug || s.direct_io || s.data_size_fixed || s.sync_each_change || s.read_unclean);
    EXPECT_TRUE(s.memory_mapping && s.asynchronous_io && s.caching && s.hashing);
    EXPECT_EQ(s.io_threads, tri_state::undecided);
    EXPECT_EQ(s.data_count, 4u);
    EXPECT_EQ(s.data_size, 131072u);
    EXPECT_EQ(s.readahead, 3u);
    EXPECT_EQ(s.writebehind, 3u);
    EXPECT_EQ(s.lock_choice, '2');
    EXPECT_EQ(s.cache_size, 0u);
}

TEST(Configuration, SwitchesLookAtTheFirstCharacter)
{
    EXPECT_TRUE(settings_with({{"VFS_IO_MMAP", ""}}).memory_mapping);
    EXPECT_FALSE(settings_with({{"VFS_IO_MMAP", "0x"}}).memory_mapping);
    EXPECT_FALSE(settings_with({{"VFS_IO_AIO", "0"}}).asynchronous_io);
    EXPECT_FALSE(settings_with({{"VFS_IO_HASH", "0"}}).hashing);
    EXPECT_FALSE(settings_with({{"VFS_IO_CACHE", "0"}}).caching);
    EXPECT_FALSE(settings_with({{"VFS_IO_DIO", "yes"}}).direct_io);
    EXPECT_TRUE(settings_with({{"VFS_IO_DIO", "1"}}).direct_io);
    EXPECT_EQ(settings_with({{"VFS_IO_THREAD", "1"}}).io_threads, tri_state::on);
    EXPECT_EQ(settings_with({{"VFS_IO_THREAD", "0"}}).io_threads, tri_state::off);
    EXPECT_EQ(settings_with({{"VFS_IO_THREAD", "x"}}).io_threads, tri_state::undecided);
    EXPECT_FALSE(settings_with({{"VFS_DEBUG", ""}}).debug);
    EXPECT_TRUE(settings_with({{"VFS_DEBUG", "0"}}).debug);
    EXPECT_TRUE(settings_with({{"VFS_SYNC", "1"}}).sync_each_change);
    EXPECT_TRUE(settings_with({{"VFS_UNCLEAN", "read"}}).read_unclean);
    EXPECT_FALSE(settings_with({{"VFS_UNCLEAN", "reader"}}).read_unclean);
}

TEST(Configuration, CountsAreBounded)
{
    const struct {
        const char *count, *ahead;
        uint32_t wanted_count, wanted_ahead;
    } rows[] = {
        {"0", "", 1, 0},    {"-3", "", 1, 0},  {"0x10", "", 16, 15}, {"99999999", "", 65536, 65535},
        {"8", "100", 8, 7}, {"8", "-1", 8, 7}, {"8", "0", 8, 0},     {"8", "2 blocks", 8, 2},
    };
    for (const auto &row : rows) {
        const open_settings s = settings_with(
            {{"VFS_DATA_COUNT", row.count}, {"VFS_DATA_READAHEAD", row.ahead}, {"VFS_DATA_WRITEBEHIND", row.ahead}});
        EXPECT_EQ(s.data_count, row.wanted_count) << row.count;
        EXPECT_EQ(s.readahead, row.wanted_ahead) << row.ahead;
        EXPECT_EQ(s.writebehind, row.wanted_ahead) << row.ahead;
    }
}

TEST(Configuration, SizesBecomePowersOfTwoOrCarryASuffix)
{
    const struct {
        const char *text;
        uint64_t bytes;
    } data[] = {
        {"1", 1024},
        {"3", 4096},
        {"64", 65536},
        {"65", 131072},
        {"100", 131072},
        {"1024", 1048576},
        {"0", 1024},
        {"-5", 1024},
        {"0x40000000", uint64_t{1} << 30},
        {"9999999999999", uint64_t{1} << 30},
    };
    for (const auto &row : data) {
        EXPECT_EQ(settings_with({{"VFS_DATA_SIZE", row.text}}).data_size, row.bytes) << row.text;
        EXPECT_TRUE(settings_with({{"VFS_DATA_SIZE", row.text}}).data_size_fixed);
    }
    const struct {
        const char *text;
        uint64_t bytes;
    } budgets[] = {
        {"4096", 4096},
        {"8K", 8192},
        {"512M", 512u << 20},
        {"2g", uint64_t{2} << 30},
        {"-1G", 0},
        {"much", 0},
        {"9223372036854775807G", uint64_t{1} << 46},
    };
    for (const auto &row : budgets)
        EXPECT_EQ(settings_with({{"VFS_CACHE_SIZE", row.text}}).cache_size, row.bytes) << row.text;
}

TEST(Configuration, LockChoiceReplacesSharingLockingAndWaiting)
{
    const struct {
        const char *choice;
        bool read_only;
        uint32_t share, lock, wait;
    } rows[] = {
        {"0", false, 3, 1, 0}, {"1", true, 2, 3, 1},  {"", false, 1, 3, 1},
        {"3x", true, 3, 4, 1}, {"4", false, 3, 5, 1}, {"9", false, 77, 78, 79},
    };
    for (const auto &row : rows) {
        vfs_lock_request request{77, 78, 2, 0, 0, 79, 5, 6};
        apply_lock_choice(settings_with({{"VFS_LOCK", row.choice}}), row.read_only, &request);
        EXPECT_EQ(request.share_mode, row.share) << row.choice;
        EXPECT_EQ(request.lock_mode, row.lock) << row.choice;
        EXPECT_EQ(request.wait_mode, row.wait) << row.choice;
        EXPECT_EQ(request.retry_count, 5u);
        EXPECT_EQ(request.lock_flags, 2u);
    }
}

} // namespace
