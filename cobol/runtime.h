// The compiler's header. It defines the names of some members as macros, which would catch ours.
#pragma once

extern "C" {
#include <stdio.h>
// must stand before it
#include <libcob.h>
}

#undef fileHandle
#undef recPtr
#undef fnamePtr
#undef idxNamePtr
#undef kdbPtr
#undef colPtr
#undef fileDef
#undef dfSortPtr
