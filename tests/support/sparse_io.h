// An I/O object over a file that exists only in parts: runs of bytes at
// given offsets, zeros everywhere else up to a stated size.  Lets tests
// open documents of several GiB without holding them.
#ifndef MOXOLEFIO_TESTS_SUPPORT_SPARSE_IO_H_
#define MOXOLEFIO_TESTS_SUPPORT_SPARSE_IO_H_

#include <string.h>

#include <algorithm>
#include <map>
#include <vector>

#include "host/moxhost.h"

class SparseIo : public moxhost::HostIo {
 public:
  SparseIo(std::map<int64_t, std::vector<uint8_t>> runs, int64_t size)
      : runs_(std::move(runs)), size_(size) {}

  int64_t size() const override { return size_; }
  bool writeAt(int64_t, const void*, int) override { return false; }
  int readAt(int64_t position, void* buffer, int count) override {
    int64_t end = std::min<int64_t>(position + count, size_);
    if (end <= position) return 0;
    char* out = static_cast<char*>(buffer);
    memset(out, 0, static_cast<size_t>(end - position));
    auto it = runs_.upper_bound(position);
    if (it != runs_.begin()) --it;
    for (; it != runs_.end() && it->first < end; ++it) {
      int64_t from = std::max(position, it->first);
      int64_t to = std::min<int64_t>(end, it->first + static_cast<int64_t>(it->second.size()));
      if (from < to) {
        memcpy(out + (from - position), it->second.data() + (from - it->first),
               static_cast<size_t>(to - from));
      }
    }
    return static_cast<int>(end - position);
  }

 private:
  std::map<int64_t, std::vector<uint8_t>> runs_;
  int64_t size_;
};

#endif  // MOXOLEFIO_TESTS_SUPPORT_SPARSE_IO_H_
