// Settings from the environment: which variables there are, their defaults and how each is parsed.
// May use util/ and the host's header; knows nothing of files. Asks the environment only through the function that it
// is given.
#ifndef VFS_DRIVER_CONFIGURATION_H
#define VFS_DRIVER_CONFIGURATION_H

#include "util/settings.h"
#include "vfs.h"

#include <cstdlib>

using environment_lookup = char *(*)(const char *name); // as getenv

// The settings of one open, as the environment stands now.
void read_settings(open_settings *out, environment_lookup lookup = std::getenv);

// Sharing, locking and waiting as VFS_LOCK asks; an unknown choice leaves the request as the host gave it.
void apply_lock_choice(const open_settings &settings, bool read_only, vfs_lock_request *request);

// Read once per process, on first use, and kept.
bool sharing_delays_announced(); // VFS_SHARE
bool selected_module_kept();     // VFS_NO_FORCE_FS: a new file stays with the module that its name selected

#endif
