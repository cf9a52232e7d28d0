// A read-only I/O object over someone else's bytes, cut to a length and
// with single bytes replaced: thousands of damaged variants of one file
// without copying it.
#ifndef MOXOLEFIO_TESTS_SUPPORT_VIEW_IO_H_
#define MOXOLEFIO_TESTS_SUPPORT_VIEW_IO_H_

#include <string.h>

#include <algorithm>
#include <map>
#include <vector>

#include "host/moxhost.h"

class ViewIo : public moxhost::HostIo {
 public:
  ViewIo(const std::vector<uint8_t>& bytes, int64_t length)
      : bytes_(bytes), length_(std::min<int64_t>(length, static_cast<int64_t>(bytes.size()))) {}

  void replace(int64_t offset, uint8_t value) { patches_[offset] = value; }

  int64_t size() const override { return length_; }
  bool writeAt(int64_t, const void*, int) override { return false; }
  int readAt(int64_t position, void* buffer, int count) override {
    int64_t end = std::min<int64_t>(position + count, length_);
    if (end <= position) return 0;
    memcpy(buffer, bytes_.data() + position, static_cast<size_t>(end - position));
    for (auto it = patches_.lower_bound(position); it != patches_.end() && it->first < end; ++it) {
      static_cast<uint8_t*>(buffer)[it->first - position] = it->second;
    }
    return static_cast<int>(end - position);
  }

 private:
  const std::vector<uint8_t>& bytes_;
  int64_t length_;
  std::map<int64_t, uint8_t> patches_;
};

#endif  // MOXOLEFIO_TESTS_SUPPORT_VIEW_IO_H_
