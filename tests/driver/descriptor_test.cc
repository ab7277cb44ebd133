// descriptor_test.cc: what the library publishes, and the operations that need no records: access, rename, unlink,
// info, flush, error_text, the null handle, and the identification printed when the library is run as a program.
#include "checker.h"
#include "host.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

using namespace host;

using Descriptor = DriverTest;

TEST_F(Descriptor, HasTheFixedLayoutAndIsAlwaysTheSame)
{
    const vfs_driver *d = driver();
    EXPECT_EQ(memcmp(d->name, "vfs_psx", 8), 0);
    EXPECT_EQ(d->stamp, VFS_STAMP);
    EXPECT_EQ(d->size, 200u);
    EXPECT_EQ(d->host_count_1, 3u);
    EXPECT_EQ(d->host_count_2, 3u);
    EXPECT_EQ(d->flags, 0x2eu);
    EXPECT_EQ(d->reserved, 0u);
    void *const *slots = reinterpret_cast<void *const *>(&d->ops);
    for (size_t i = 0; i < 20; ++i) EXPECT_EQ(slots[i] == nullptr, i == 3) << "slot " << i;
    EXPECT_NE(d->shared->fetch_ahead, nullptr);
    EXPECT_NE(d->shared->get_for_write, nullptr);
    EXPECT_NE(d->shared->write_block, nullptr);
    EXPECT_EQ(d->shared->end, nullptr);
}

TEST_F(Descriptor, LibraryRunAsProgramPrintsItsIdentification)
{
    const std::string out = path("out");
    const std::string command = std::string{VFS_LIBRARY} + " 2> " + out;
    const int status = system(command.c_str());
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    const std::string text = slurp(out);
    EXPECT_EQ(text.find("\t@(#)"), 0u) << text;
    EXPECT_NE(text.find("\t@(#) Version: 01.01.0000.0000\n"), std::string::npos) << text;
    EXPECT_TRUE(text.ends_with("\n\n")) << text;
}

TEST_F(Descriptor, NullHandleIsRefusedWithoutHarm)
{
    vfs_open_block block;
    const auto refused = [](int64_t result) { return result == -1 && errno == EBADF; };
    EXPECT_TRUE(refused(ops().info(nullptr, &block)));
    EXPECT_TRUE(refused(ops().unlock_all(nullptr)));
    EXPECT_TRUE(refused(ops().at_end(nullptr)));
    EXPECT_EQ(ops().flush(nullptr), 0);
    EXPECT_EQ(ops().close(nullptr, nullptr), 0);
    const vfs_record_operation slots[] = {ops().read,  ops().write,    ops().rewrite, ops().delete_record,
                                          ops().start, ops().position, ops().lock,    ops().unlock};
    vfs_record record{};
    for (const vfs_record_operation slot : slots)
        EXPECT_TRUE(refused(slot(nullptr, &record, nullptr, nullptr, nullptr, VFS_POS_NEXT)));
}

TEST_F(Descriptor, AccessRenameUnlinkAnswerAsTheSystemDoes)
{
    EXPECT_EQ(ops().access(path("none").c_str()), 0);
    spill(path("a"), "x");
    EXPECT_EQ(ops().access(path("a").c_str()), 1);
    EXPECT_EQ(ops().access(path("a/b").c_str()), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(ops().rename(path("a").c_str(), path("b").c_str()), 0);
    EXPECT_EQ(ops().access(path("a").c_str()), 0);
    EXPECT_EQ(ops().unlink(path("b").c_str()), 0);
    EXPECT_EQ(ops().unlink(path("b").c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(ops().rename(path("b").c_str(), path("c").c_str()), -1);
}

TEST_F(Descriptor, ErrorTextKeepsTheTextInTheHandle)
{
    int code = 0;
    EXPECT_STREQ(ops().error_text(nullptr, ENOENT, &code, 1), strerror(ENOENT));
    EXPECT_EQ(code, ENOENT);
    EXPECT_EQ(ops().error_text(nullptr, EAGAIN, &code, 0), nullptr);
    EXPECT_EQ(code, EAGAIN);
    EXPECT_STREQ(ops().error_text(nullptr, 99999, nullptr, 1), "Unknown error 99999");

    file f{flat(path(), VFS_FORMAT_VARIABLE, 10)};
    const char *text = ops().error_text(f.handle(), ESPIPE, &code, 1);
    EXPECT_STREQ(text, strerror(ESPIPE));
    code = 0;
    EXPECT_EQ(ops().error_text(f.handle(), ESPIPE, &code, 1), text);
    EXPECT_EQ(code, ESPIPE);
    EXPECT_EQ(ops().error_text(f.handle(), EIO, &code, 0), nullptr);
    EXPECT_EQ(code, EIO);
    EXPECT_STREQ(ops().error_text(f.handle(), 99999, nullptr, 1), "Unknown error 99999");
}

TEST_F(Descriptor, InfoAndCloseHandBackTheHandlesBlock)
{
    file_spec spec = indexed(path(), {{.parts = {{0, 4}}}}, 50);
    file f{spec};
    ASSERT_TRUE(f.ok());
    vfs_open_block block = f.info();
    EXPECT_EQ(block.stamp, VFS_STAMP);
    EXPECT_EQ(block.options, 0u);
    EXPECT_EQ(block.driver, driver());
    EXPECT_EQ(block.handle, f.handle());
    EXPECT_STREQ(block.logical_name, "");
    EXPECT_EQ(spec.path, block.path);
    EXPECT_EQ(block.record_count, 0);
    ASSERT_NE(block.keys, nullptr);
    EXPECT_EQ(block.keys->count, 1);

    for (const char *text : {"aaaa1", "bbbb2", "cccc3"}) f.write(text, by_record());
    EXPECT_EQ(f.erase(by_key("bbbb")).value, 0);
    block = f.info();
    EXPECT_EQ(block.record_count, 2);
    EXPECT_EQ(block.empty_count, 1);
    EXPECT_EQ(f.close(), 0);
    EXPECT_EQ(f.closed().record_count, 2);
    EXPECT_EQ(f.closed().options, 0u);
    EXPECT_GT(f.closed().bytes_transferred, 0);
    // What close hands back belongs to the host again.
    EXPECT_EQ(spec.path, f.closed().path);
    EXPECT_EQ(check_file(path()), "");
}

TEST_F(Descriptor, WithoutKeysTheDefaultDescriptionIsShown)
{
    file f{relative(path(), VFS_FORMAT_FIXED, 20)};
    const vfs_open_block block = f.info();
    ASSERT_NE(block.keys, nullptr);
    EXPECT_EQ(block.keys->total_size, 96);
    EXPECT_EQ(block.keys->count, 1);
    const auto *row = reinterpret_cast<const vfs_key_desc_entry *>(block.keys + 1);
    EXPECT_EQ(row->length, 8);
    EXPECT_EQ(row->part_list, 72);
}

TEST_F(Descriptor, AStoredErrorEndsEveryOperationAndClosesWithIt)
{
    // A file that is made anew under a shared handle gives that handle a stored error.
    variables.set("VFS_LOCK", "4");
    file_spec spec = relative(path(), VFS_FORMAT_VARIABLE, 20);
    file f{spec};
    EXPECT_EQ(f.write("one").value, 3);
    const uint64_t word = peek(path(), 208);
    poke(path(), 208, word + 8);
    const outcome refused = f.read(first());
    EXPECT_TRUE(refused.failed(ESTALE)) << refused;
    poke(path(), 208, word);
    EXPECT_TRUE(f.read(first()).failed(ESTALE));
    EXPECT_TRUE(f.write("two").failed(ESTALE));
    vfs_open_block block;
    EXPECT_EQ(ops().info(f.handle(), &block), -1);
    EXPECT_EQ(errno, ESTALE);
    EXPECT_EQ(ops().unlock_all(f.handle()), -1);
    EXPECT_EQ(errno, ESTALE);
    EXPECT_EQ(ops().flush(f.handle()), -1);
    EXPECT_EQ(f.close(), ESTALE);
}

} // namespace
