// A driver that can be loaded, and no more: SIBLING_NAME is what it says it is, SIBLING_SYMBOL how it says so.
#include "vfs.h"

extern "C" __attribute__((visibility("default"))) const vfs_driver *SIBLING_SYMBOL(void)
{
    static const vfs_driver driver = [] {
        vfs_driver made{};
        __builtin_memcpy(made.name, SIBLING_NAME, sizeof SIBLING_NAME);
        made.stamp = VFS_STAMP;
        made.size = sizeof made;
        return made;
    }();
    return &driver;
}
