// A read-only I/O object over borrowed bytes, with runs of other bytes laid
// over them at given offsets and zeros past them, up to a stated size.
// Thousands of damaged variants of one file without copying it, and
// documents of several GiB that exist only in parts.
#ifndef MOXOLEFIO_TESTS_SUPPORT_PATCHED_IO_H_
#define MOXOLEFIO_TESTS_SUPPORT_PATCHED_IO_H_

#include <string.h>

#include <algorithm>
#include <map>
#include <vector>

#include "host/moxhost.h"

class PatchedIo : public moxhost::HostIo {
 public:
  using Runs = std::map<int64_t, std::vector<uint8_t>>;
  // `base` must outlive the object; a temporary would leave it dangling.
  PatchedIo(const std::vector<uint8_t>& base, int64_t size) : base_(base), size_(size) {}
  PatchedIo(std::vector<uint8_t>&&, int64_t) = delete;
  PatchedIo(Runs runs, int64_t size) : PatchedIo(noBytes(), size) { runs_ = std::move(runs); }

  void replace(int64_t offset, uint8_t value) { runs_[offset] = {value}; }

  int64_t size() const override { return size_; }
  bool writeAt(int64_t, const void*, int) override { return false; }
  int readAt(int64_t position, void* buffer, int count) override {
    const int64_t end = std::min<int64_t>(position + count, size_);
    if (end <= position) return 0;
    uint8_t* out = static_cast<uint8_t*>(buffer);
    memset(out, 0, static_cast<size_t>(end - position));
    lay(out, position, end, 0, base_);
    // Runs do not overlap, so only the last one starting before `position`
    // can reach into the range.
    auto it = runs_.upper_bound(position);
    if (it != runs_.begin()) --it;
    for (; it != runs_.end() && it->first < end; ++it) lay(out, position, end, it->first, it->second);
    return static_cast<int>(end - position);
  }

 private:
  static const std::vector<uint8_t>& noBytes() {
    static const std::vector<uint8_t> none;
    return none;
  }
  // Copies the part of `run` (at file offset `at`) inside [position, end).
  static void lay(uint8_t* out, int64_t position, int64_t end, int64_t at, const std::vector<uint8_t>& run) {
    const int64_t from = std::max(position, at), to = std::min<int64_t>(end, at + static_cast<int64_t>(run.size()));
    if (from < to) memcpy(out + (from - position), run.data() + (from - at), static_cast<size_t>(to - from));
  }

  const std::vector<uint8_t>& base_;
  int64_t size_;
  Runs runs_;
};

#endif  // MOXOLEFIO_TESTS_SUPPORT_PATCHED_IO_H_
