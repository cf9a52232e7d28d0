#include "interface/mox_memory.h"

#include <limits.h>

int moxHostSize(int64_t count, int64_t size) {
  const int64_t kLimit = 0x7fffffff;
  if (count < -kLimit || count > kLimit || size < -kLimit || size > kLimit) {
    return INT_MIN;
  }
  int64_t bytes = count * size;  // both within 31 bits: cannot overflow
  if (bytes < -kLimit || bytes > kLimit) return INT_MIN;
  return static_cast<int>(bytes);
}

void* moxAllocate(HostMemory* memory, int64_t count, int64_t size) {
  return memory->allocate(memory, moxHostSize(count, size));
}

void moxFree(HostMemory* memory, void* block) {
  if (block != nullptr) memory->free(memory, block);
}
