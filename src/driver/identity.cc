// The library run as a program: it says what it is and ends. May use libc only; no file is touched.
//
// The loader starts the program at vfs_main instead of at the C library's start code. The C library itself is
// initialised by then, but nobody has called us: the stack pointer is as the kernel left it (16-byte aligned, no
// return address), and returning is impossible.
#include <cstdio>
#include <unistd.h>

extern "C" {

// A shared library names no interpreter of its own; without one the kernel would run it with nothing relocated.
#if defined(__x86_64__)
#define VFS_LOADER "/lib64/ld-linux-x86-64.so.2"
#elif defined(__aarch64__)
#define VFS_LOADER "/lib/ld-linux-aarch64.so.1"
#endif
#if defined(VFS_LOADER)
[[gnu::section(".interp"), gnu::used, gnu::retain]] static const char interpreter[] = VFS_LOADER;
#endif

#if defined(__x86_64__)
#define VFS_ENTRY [[gnu::force_align_arg_pointer]]
#else
#define VFS_ENTRY
#endif

VFS_ENTRY [[noreturn]] void vfs_main();
}

namespace {

constexpr const char *identification[] = {
    "@(#) vfs_psx file driver: sequential, relative and indexed files",
    "@(#) Version: 01.01.0000.0000",
    "@(#) Built: " __DATE__,
    "@(#) No warranty of any kind, as far as the law permits",
    nullptr,
};

} // namespace

void vfs_main()
{
    for (const char *const *line = identification; *line != nullptr && **line != '\0'; ++line)
        std::fprintf(stderr, "\t%s\n", *line);
    std::fputc('\n', stderr);
    std::fflush(nullptr);
    _exit(0);
}
