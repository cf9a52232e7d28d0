// MoxTable: the one growable array of the library, over a HostMemory.
//
// Every table that grows while a document is read or written lives in one
// of these: the FAT's sector table, the mini FAT and the directory as they
// are loaded, the index list of an object list, the children of a storage
// tree node, and the writer's entry list and FAT.  What differs between
// them is only how a larger block is asked for, and that is fixed by what
// hosts have always seen, so it is chosen per table:
//
//   kCopy        a new block (slot 1) at least twice the size, the old
//                contents copied, the rest zero-filled, the old block
//                freed (slot 2).  The loader's tables and the writer's.
//   kReallocate  the block reallocated (slot 3) to exactly what is needed,
//                nothing cleared: one call per element, as the object list
//                has always grown.
//   kPool        a new array (slot 4) `step` elements larger, the contents
//                copied; the old array stays in the pool, which goes whole.
//
// Elements are plain values.  Failures are results, never exceptions; a
// failed growth leaves the table as it was.
#ifndef MOXOLEFIO_INTERFACE_HOST_TABLE_H_
#define MOXOLEFIO_INTERFACE_HOST_TABLE_H_

#include <stdint.h>
#include <string.h>

#include <type_traits>

#include "interface/mox_memory.h"

enum class MoxGrowth { kCopy, kReallocate, kPool };

template <typename T>
class MoxTable {
  static_assert(std::is_trivially_copyable<T>::value, "elements are moved with memcpy");

 public:
  // A table without a block.  `limit` caps the capacity kCopy doubles to
  // (negative: none); `step` is kPool's growth.
  MoxTable(HostMemory* memory, MoxGrowth growth, int64_t limit = -1, int64_t step = 0)
      : memory_(memory), growth_(growth), limit_(limit), step_(step) {}
  // Frees the block unless it was released; a pool's is left to the pool.
  ~MoxTable() {
    if (growth_ != MoxGrowth::kPool) moxFree(memory_, items_);
  }
  MoxTable(const MoxTable&) = delete;
  MoxTable& operator=(const MoxTable&) = delete;

  T* data() const { return items_; }
  int64_t size() const { return size_; }
  int64_t capacity() const { return capacity_; }
  T& operator[](int64_t i) { return items_[i]; }
  const T& operator[](int64_t i) const { return items_[i]; }

  // Asks for a first block of exactly `capacity` elements, zero-filled,
  // even when that is none at all: some hosts are owed that request.
  bool allocate(int64_t capacity) {
    T* block = static_cast<T*>(moxAllocate(memory_, capacity, sizeof(T)));
    if (block == nullptr) return false;
    if (capacity > 0) memset(static_cast<void*>(block), 0, sizeof(T) * capacity);
    moxFree(memory_, items_);
    items_ = block;
    capacity_ = capacity;
    return true;
  }

  // Room for at least `needed` elements.
  bool reserve(int64_t needed) {
    if (needed <= capacity_) return true;
    if (needed < 0) return false;
    switch (growth_) {
      case MoxGrowth::kCopy: return growByCopy(needed);
      case MoxGrowth::kReallocate: return growByReallocate(needed);
      case MoxGrowth::kPool: return growInPool(needed);
    }
    return false;
  }

  bool append(const T& value) {
    if (!reserve(size_ + 1)) return false;
    items_[size_++] = value;
    return true;
  }

  // `count` copies of `fill`, replacing the contents.
  bool assign(int64_t count, const T& fill) {
    if (count < 0 || !reserve(count)) return false;
    for (int64_t i = 0; i < count; ++i) items_[i] = fill;
    size_ = count;
    return true;
  }

  // Hands the block to the caller, who frees it; the table is empty after.
  T* release() {
    T* block = items_;
    items_ = nullptr;
    size_ = capacity_ = 0;
    return block;
  }

 private:
  bool growByCopy(int64_t needed) {
    int64_t grown = capacity_ * 2;
    if (grown < needed) grown = needed;
    if (limit_ >= 0 && grown > limit_) grown = limit_ < needed ? needed : limit_;
    T* block = static_cast<T*>(moxAllocate(memory_, grown, sizeof(T)));
    if (block == nullptr) return false;
    if (capacity_ > 0) memcpy(static_cast<void*>(block), items_, sizeof(T) * capacity_);
    memset(static_cast<void*>(block + capacity_), 0, sizeof(T) * (grown - capacity_));
    moxFree(memory_, items_);
    items_ = block;
    capacity_ = grown;
    return true;
  }

  bool growByReallocate(int64_t needed) {
    void* block = memory_->reallocate(memory_, items_, moxHostSize(needed, sizeof(T)));
    if (block == nullptr) return false;
    items_ = static_cast<T*>(block);
    capacity_ = needed;
    return true;
  }

  bool growInPool(int64_t needed) {
    int64_t grown = capacity_ + step_;
    if (grown < needed) grown = needed;
    if (grown > 0x7fffffff) return false;
    void* block =
        memory_->allocateArray(memory_, static_cast<int>(sizeof(T)), static_cast<int>(grown));
    if (block == nullptr) return false;
    if (size_ > 0) memcpy(block, items_, sizeof(T) * size_);
    items_ = static_cast<T*>(block);
    capacity_ = grown;
    return true;
  }

  HostMemory* memory_;
  MoxGrowth growth_;
  int64_t limit_;
  int64_t step_;
  T* items_ = nullptr;
  int64_t size_ = 0;
  int64_t capacity_ = 0;
};

// The process heap (malloc, free, realloc) in the shape of a HostMemory,
// for the writer's own tables, which hosts have never been asked for.
HostMemory* moxProcessHeap();

#endif  // MOXOLEFIO_INTERFACE_HOST_TABLE_H_
