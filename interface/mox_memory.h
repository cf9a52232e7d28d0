// Allocation through the host's memory interface.
//
// Hosts take sizes as signed 32-bit ints.  Byte counts are computed here in
// 64 bits; whenever the result leaves -0x7fffffff..0x7fffffff the host is
// handed INT32_MIN, which every conforming allocator answers with null, so
// an absurd table size in a hostile header fails cleanly instead of
// wrapping into a small allocation.
#ifndef MOXOLEFIO_INTERFACE_MOX_MEMORY_H_
#define MOXOLEFIO_INTERFACE_MOX_MEMORY_H_

#include <stdint.h>

#include "moxolefio.h"

// count * size as the host's 32-bit size, or INT32_MIN on overflow.
int moxHostSize(int64_t count, int64_t size);

// Allocates count * size bytes from memory (slot 1); null on failure.
void* moxAllocate(HostMemory* memory, int64_t count, int64_t size);

// Frees a block from memory (slot 2); null blocks are ignored.
void moxFree(HostMemory* memory, void* block);

#endif  // MOXOLEFIO_INTERFACE_MOX_MEMORY_H_
