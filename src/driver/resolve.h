// Which driver serves a file, and what its real name is: the first operation that a host asks for. This driver and the
// routing driver share it. May use the settings and util/; knows files by their names and first bytes only.
#ifndef VFS_DRIVER_RESOLVE_H
#define VFS_DRIVER_RESOLVE_H

#include "vfs.h"

// `self` answers for itself, except the routing driver ("vfs_gen"), which answers with the descriptor of the library of
// the module that serves the file. Null with errno when nobody does. The answer depends on the arguments, the
// environment and the file alone. The resolved name is good until the calling thread resolves again.
const vfs_driver *resolve_name(const vfs_driver &self, const char *type_word, const char *assignment_name,
                               const char *name, const char **resolved_out);

#endif
