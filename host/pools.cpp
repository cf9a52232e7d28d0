// PoolServices: a services record whose pools are arenas.
//
// A pool hands out memory by bumping through chunks and gives it all back
// in destroyPool.  Chunks start small and double, so that the thousands of
// pools a large document makes (one per directory entry) cost little more
// than what each entry really stores.
#include <stdlib.h>
#include <string.h>

#include "host/moxhost.h"

namespace moxhost {

namespace {

constexpr size_t kAlign = 16;
constexpr size_t kFirstChunk = 256;
constexpr size_t kLargestChunk = 64 * 1024;
constexpr unsigned char kScribble = 0xA5;

size_t alignUp(size_t n) { return (n + kAlign - 1) & ~(kAlign - 1); }

}  // namespace

struct PoolServices::Pool {
  HostMemory memory;  // first: the library sees only this
  PoolServices* owner;
  struct Chunk {
    Chunk* next;
    size_t size;
  };
  Chunk* chunks = nullptr;
  char* cursor = nullptr;
  size_t left = 0;
  size_t nextChunk = kFirstChunk;

  void* take(int size);
  void releaseAll();
};

struct PoolThunks {
  using Pool = PoolServices::Pool;
  static Pool* pool(HostMemory* self) { return reinterpret_cast<Pool*>(self); }
  static void* unused(HostMemory*) { return nullptr; }
  static void* allocate(HostMemory* self, int size) {
    ++pool(self)->owner->poolAllocateCalls_;
    return pool(self)->take(size);
  }
  static void release(HostMemory* self, void*) { ++pool(self)->owner->poolFrees_; }
  static void* reallocate(HostMemory* self, void*, int) {
    // Pools cannot grow a block in place and do not remember sizes; the
    // library never asks, so a call is only counted as a misuse.
    ++pool(self)->owner->poolFrees_;
    return nullptr;
  }
  static void* allocateArray(HostMemory* self, int elementSize, int count) {
    ++pool(self)->owner->poolArrayCalls_;
    int64_t bytes = static_cast<int64_t>(elementSize) * count;
    if (elementSize < 0 || count < 0 || bytes > 0x7fffffff) return nullptr;
    return pool(self)->take(static_cast<int>(bytes));
  }
  static void* heapAllocate(HostMemory* self, int size) {
    return reinterpret_cast<PoolServices::Face*>(self)->owner->heap_.allocate(size);
  }
  static void heapRelease(HostMemory* self, void* block) {
    reinterpret_cast<PoolServices::Face*>(self)->owner->heap_.release(block);
  }
  static void* heapReallocate(HostMemory* self, void* block, int size) {
    return reinterpret_cast<PoolServices::Face*>(self)->owner->heap_.reallocate(block, size);
  }
  static void* heapArray(HostMemory* self, int elementSize, int count) {
    return reinterpret_cast<PoolServices::Face*>(self)->owner->heap_.allocateArray(
        elementSize, count);
  }
  static HostMemory* create(tag_TPVAPIServices* self, int initialSize, int flags,
                            int* status) {
    return reinterpret_cast<PoolServices::Face*>(self)->owner->createPool(
        initialSize, flags, status);
  }
  static void destroy(tag_TPVAPIServices* self, HostMemory* pool) {
    reinterpret_cast<PoolServices::Face*>(self)->owner->destroyPool(pool);
  }
};

void* PoolServices::Pool::take(int size) {
  if (size < 0) return nullptr;
  if (owner->plan_.nextFails()) return nullptr;
  size_t need = alignUp(size == 0 ? 1 : static_cast<size_t>(size));
  if (need > left) {
    size_t chunkSize = need > nextChunk ? need : nextChunk;
    if (nextChunk < kLargestChunk) nextChunk *= 2;
    size_t header = alignUp(sizeof(Chunk));
    char* raw = static_cast<char*>(malloc(header + chunkSize));
    if (raw == nullptr) return nullptr;
    Chunk* chunk = reinterpret_cast<Chunk*>(raw);
    chunk->next = chunks;
    chunk->size = header + chunkSize;
    chunks = chunk;
    owner->poolBytes_ += static_cast<int64_t>(chunk->size);
    if (owner->poolBytes_ > owner->peakPoolBytes_) {
      owner->peakPoolBytes_ = owner->poolBytes_;
    }
    cursor = raw + header;
    left = chunkSize;
  }
  void* block = cursor;
  cursor += need;
  left -= need;
  if (owner->scribble_) memset(block, kScribble, static_cast<size_t>(size));
  return block;
}

void PoolServices::Pool::releaseAll() {
  while (chunks != nullptr) {
    Chunk* next = chunks->next;
    owner->poolBytes_ -= static_cast<int64_t>(chunks->size);
    free(chunks);
    chunks = next;
  }
}

PoolServices::PoolServices() {
  heap_.useFaultPlan(&plan_);
  face_.services.memory.unused = PoolThunks::unused;
  face_.services.memory.allocate = PoolThunks::heapAllocate;
  face_.services.memory.free = PoolThunks::heapRelease;
  face_.services.memory.reallocate = PoolThunks::heapReallocate;
  face_.services.memory.allocateArray = PoolThunks::heapArray;
  face_.services.createPool = PoolThunks::create;
  face_.services.destroyPool = PoolThunks::destroy;
  face_.owner = this;
}

PoolServices::~PoolServices() = default;

HostMemory* PoolServices::createPool(int initialSize, int flags, int* status) {
  lastInitialSize_ = initialSize;
  lastFlags_ = flags;
  if (plan_.nextFails()) {
    if (status != nullptr) *status = 2;
    return nullptr;
  }
  Pool* pool = new Pool;
  pool->memory.unused = PoolThunks::unused;
  pool->memory.allocate = PoolThunks::allocate;
  pool->memory.free = PoolThunks::release;
  pool->memory.reallocate = PoolThunks::reallocate;
  pool->memory.allocateArray = PoolThunks::allocateArray;
  pool->owner = this;
  ++livePools_;
  ++poolsCreated_;
  if (status != nullptr) *status = 0;
  return &pool->memory;
}

void PoolServices::destroyPool(HostMemory* memory) {
  if (memory == nullptr) return;
  Pool* pool = reinterpret_cast<Pool*>(memory);
  pool->releaseAll();
  delete pool;
  --livePools_;
  ++poolsDestroyed_;
}

}  // namespace moxhost
