#include "interface/mox_memory.h"

#include <limits.h>
#include <stdlib.h>

#include "interface/host_table.h"

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

namespace {

void* heapAllocate(HostMemory*, int size) {
  return size < 0 ? nullptr : malloc(static_cast<size_t>(size));
}
void heapFree(HostMemory*, void* block) { free(block); }
void* heapReallocate(HostMemory*, void* block, int size) {
  return size < 0 ? nullptr : realloc(block, static_cast<size_t>(size));
}
void* heapAllocateArray(HostMemory* self, int elementSize, int count) {
  return heapAllocate(self, moxHostSize(elementSize, count));
}

}  // namespace

HostMemory* moxProcessHeap() {
  // Read-only after its constant initialisation: nothing writes through
  // the pointer handed out, so the library keeps no mutable global.
  static const HostMemory kHeap = {nullptr, heapAllocate, heapFree, heapReallocate,
                                   heapAllocateArray};
  return const_cast<HostMemory*>(&kHeap);
}
