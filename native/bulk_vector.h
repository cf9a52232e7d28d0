// Large working arrays whose pages are mapped in one call.  A scan of a
// big file (check() of 100000 entries) fills megabytes of fresh arrays;
// touched page by page, each page costs a fault, and in a virtual machine
// a fault can cost microseconds: mapping them populated costs one call.
#ifndef MOXOLEFIO_NATIVE_BULK_VECTOR_H_
#define MOXOLEFIO_NATIVE_BULK_VECTOR_H_

#include <sys/mman.h>

#include <cstddef>
#include <memory>
#include <new>
#include <vector>

namespace mox::detail {

template <typename T>
struct BulkAllocator {
  using value_type = T;
  // Below this, the heap's own pages are as good.
  static constexpr std::size_t kMapAtLeast = 256 * 1024;

  BulkAllocator() = default;
  template <typename U>
  BulkAllocator(const BulkAllocator<U>&) {}

  T* allocate(std::size_t n) {
    const std::size_t bytes = n * sizeof(T);
    if (bytes < kMapAtLeast) return std::allocator<T>().allocate(n);
    void* at = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (at == MAP_FAILED) throw std::bad_alloc();
    return static_cast<T*>(at);
  }
  void deallocate(T* p, std::size_t n) {
    const std::size_t bytes = n * sizeof(T);
    if (bytes < kMapAtLeast) return std::allocator<T>().deallocate(p, n);
    munmap(p, bytes);
  }
  template <typename U>
  bool operator==(const BulkAllocator<U>&) const { return true; }
  template <typename U>
  bool operator!=(const BulkAllocator<U>&) const { return false; }
};

template <typename T>
using BulkVector = std::vector<T, BulkAllocator<T>>;

}  // namespace mox::detail

#endif  // MOXOLEFIO_NATIVE_BULK_VECTOR_H_
