// Pools from the host's services record.
//
// Every pool the library makes is asked for in the same way (initial size
// 4096, flags 0) and is released whole; the host decides what the size and
// flags mean.  The status the host may report is not examined: a null pool
// already says everything the library acts on.
#ifndef MOXOLEFIO_INTERFACE_MOX_POOL_H_
#define MOXOLEFIO_INTERFACE_MOX_POOL_H_

#include "moxolefio.h"

// A new pool, or null when services is null or the host has none to give.
HostMemory* moxCreatePool(tag_TPVAPIServices* services);

// Releases pool with everything taken from it and clears the pointer; a
// null pool is ignored.
void moxDestroyPool(tag_TPVAPIServices* services, HostMemory*& pool);

#endif  // MOXOLEFIO_INTERFACE_MOX_POOL_H_
