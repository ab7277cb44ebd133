/* For sources of several programs of which the first has no files: there the compiler does not declare the handler.
 *   cobc ... -A "-include vfs_extfh_proto.h" */
#ifndef VFS_EXTFH_PROTO_H
#define VFS_EXTFH_PROTO_H

#include <stddef.h>
#include <stdio.h>

#include <libcob.h>

extern int vfs_extfh(unsigned char *opcode, FCD3 *fcd);

#endif
