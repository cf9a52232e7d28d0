// CountingMemory and FaultPlan: the host kit's malloc-backed HostMemory.
#include <stdlib.h>
#include <string.h>

#include "host/moxhost.h"

namespace moxhost {

namespace {

// Every block carries its size in front so that frees and reallocations
// keep the byte count exact.
constexpr size_t kHeader = 16;

// New memory is filled with a pattern, never zeros: the library must clear
// what it relies on, and a missing clear then shows up in tests.
constexpr unsigned char kScribble = 0xA5;

size_t blockSize(void* block) {
  size_t size;
  memcpy(&size, static_cast<char*>(block) - kHeader, sizeof size);
  return size;
}

}  // namespace

bool FaultPlan::nextFails() {
  ++attempts_;
  if (failAt_ <= 0) return false;
  bool fail = sticky_ ? attempts_ >= failAt_ : attempts_ == failAt_;
  if (fail) fired_ = true;
  return fail;
}

struct CountingMemoryThunks {
  static CountingMemory* owner(HostMemory* self) {
    return reinterpret_cast<CountingMemory::Face*>(self)->owner;
  }
  static void* unused(HostMemory*) { return nullptr; }
  static void* allocate(HostMemory* self, int size) {
    return owner(self)->allocate(size);
  }
  static void release(HostMemory* self, void* block) {
    owner(self)->release(block);
  }
  static void* reallocate(HostMemory* self, void* block, int size) {
    return owner(self)->reallocate(block, size);
  }
  static void* allocateArray(HostMemory* self, int elementSize, int count) {
    return owner(self)->allocateArray(elementSize, count);
  }
};

CountingMemory::CountingMemory() : plan_(&ownPlan_) {
  face_.memory.unused = CountingMemoryThunks::unused;
  face_.memory.allocate = CountingMemoryThunks::allocate;
  face_.memory.free = CountingMemoryThunks::release;
  face_.memory.reallocate = CountingMemoryThunks::reallocate;
  face_.memory.allocateArray = CountingMemoryThunks::allocateArray;
  face_.owner = this;
}

CountingMemory::~CountingMemory() = default;

void* CountingMemory::allocate(int size) {
  lastRequest_ = size;
  if (size < 0) return nullptr;
  if (plan_->nextFails()) return nullptr;
  if (limit_ > 0 && liveBytes_ + size > limit_) return nullptr;
  char* raw = static_cast<char*>(malloc(kHeader + static_cast<size_t>(size)));
  if (raw == nullptr) return nullptr;
  size_t stored = static_cast<size_t>(size);
  memcpy(raw, &stored, sizeof stored);
  if (scribble_) memset(raw + kHeader, kScribble, stored);
  ++liveBlocks_;
  ++allocations_;
  liveBytes_ += size;
  if (liveBytes_ > peakBytes_) peakBytes_ = liveBytes_;
  return raw + kHeader;
}

void CountingMemory::release(void* block) {
  if (block == nullptr) return;
  --liveBlocks_;
  liveBytes_ -= static_cast<int64_t>(blockSize(block));
  free(static_cast<char*>(block) - kHeader);
}

void* CountingMemory::reallocate(void* block, int size) {
  if (block == nullptr) return allocate(size);
  lastRequest_ = size;
  if (size < 0) return nullptr;
  if (plan_->nextFails()) return nullptr;
  size_t old = blockSize(block);
  if (limit_ > 0 && liveBytes_ - static_cast<int64_t>(old) + size > limit_) return nullptr;
  char* raw = static_cast<char*>(
      realloc(static_cast<char*>(block) - kHeader, kHeader + static_cast<size_t>(size)));
  if (raw == nullptr) return nullptr;
  size_t stored = static_cast<size_t>(size);
  memcpy(raw, &stored, sizeof stored);
  if (stored > old && scribble_) memset(raw + kHeader + old, kScribble, stored - old);
  liveBytes_ += static_cast<int64_t>(stored) - static_cast<int64_t>(old);
  if (liveBytes_ > peakBytes_) peakBytes_ = liveBytes_;
  ++allocations_;
  return raw + kHeader;
}

void* CountingMemory::allocateArray(int elementSize, int count) {
  int64_t bytes = static_cast<int64_t>(elementSize) * count;
  if (elementSize < 0 || count < 0 || bytes > 0x7fffffff) {
    lastRequest_ = -1;
    return nullptr;
  }
  return allocate(static_cast<int>(bytes));
}

}  // namespace moxhost
