// MoxGrowArray: a growable array of plain values that reports failure.
//
// The writer's document keeps two arrays on the process heap: the list of
// its entries and the FAT it builds at close.  std::vector would do, except
// that it reports a failed allocation by throwing, and the library is built
// without exceptions; here every growth returns false instead and leaves
// the array as it was.  Only for trivially copyable values, which are moved
// with realloc.
#ifndef MOXOLEFIO_WRITER_GROW_ARRAY_H_
#define MOXOLEFIO_WRITER_GROW_ARRAY_H_

#include <stdint.h>
#include <stdlib.h>

#include <type_traits>

template <typename T>
class MoxGrowArray {
  static_assert(std::is_trivially_copyable<T>::value,
                "elements are moved with realloc");

 public:
  MoxGrowArray() = default;
  ~MoxGrowArray() { free(pItems); }

  MoxGrowArray(const MoxGrowArray&) = delete;
  MoxGrowArray& operator=(const MoxGrowArray&) = delete;

  int64_t size() const { return lSize; }
  int64_t capacity() const { return lCapacity; }
  T* data() { return pItems; }
  T& operator[](int64_t i) { return pItems[i]; }
  const T& operator[](int64_t i) const { return pItems[i]; }

  // Makes room for `extra` more elements without changing the contents, so
  // that the appends that follow cannot fail.  Grows at least by half the
  // current capacity to keep a long run of appends linear.
  bool reserveMore(int64_t extra) {
    if (extra < 0 || lSize > kMaxElements - extra) return false;
    int64_t need = lSize + extra;
    if (need <= lCapacity) return true;
    int64_t grown = lCapacity + lCapacity / 2;
    if (grown < kMinCapacity) grown = kMinCapacity;
    return reallocateTo(need > grown || grown > kMaxElements ? need : grown);
  }

  // Appends one element; false (and no change) when memory runs out.
  bool append(const T& value) {
    if (!reserveMore(1)) return false;
    pItems[lSize++] = value;
    return true;
  }

  // Replaces the contents by `count` copies of fill; false (and no change)
  // when memory runs out.
  bool assign(int64_t count, const T& fill) {
    if (count < 0 || count > kMaxElements) return false;
    if (count > lCapacity && !reallocateTo(count)) return false;
    for (int64_t i = 0; i < count; ++i) pItems[i] = fill;
    lSize = count;
    return true;
  }

 private:
  static constexpr int64_t kMinCapacity = 16;
  static constexpr int64_t kMaxElements =
      static_cast<int64_t>(SIZE_MAX / 2 / sizeof(T));

  bool reallocateTo(int64_t capacity) {
    void* grown = realloc(pItems, static_cast<size_t>(capacity) * sizeof(T));
    if (grown == nullptr) return false;
    pItems = static_cast<T*>(grown);
    lCapacity = capacity;
    return true;
  }

  T* pItems = nullptr;
  int64_t lSize = 0;
  int64_t lCapacity = 0;
};

#endif  // MOXOLEFIO_WRITER_GROW_ARRAY_H_
