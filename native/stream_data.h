// A stream's bytes behind a mox::Stream: read from the file as stored, or
// (in a file being edited) held by the editor.  Positions belong to the
// Stream, so one StreamData serves any number of readers at once.
#ifndef MOXOLEFIO_NATIVE_STREAM_DATA_H_
#define MOXOLEFIO_NATIVE_STREAM_DATA_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "native/image.h"

namespace mox::detail {

class StreamData {
 public:
  virtual ~StreamData() = default;
  virtual std::uint64_t size() const = 0;
  // Copies up to `count` bytes from `offset`, fewer only at the end.
  virtual std::size_t readAt(std::uint64_t offset, void* buffer, std::size_t count) const = 0;
  virtual bool writable() const { return false; }
  virtual void writeAt(std::uint64_t offset, const void* data, std::size_t count);
  virtual void resize(std::uint64_t size);
};

// A chain's runs with the offset each starts at, so that a position finds
// its run by binary search instead of a walk.
class RunMap {
 public:
  RunMap() = default;
  RunMap(std::vector<Run> runs, unsigned unitShift);
  // Copies bytes [offset, offset + count) of the chain; `base` receives
  // each contiguous piece as (position in the underlying space, buffer,
  // length).  The caller keeps the range inside the runs.
  template <typename Base>
  void copy(std::uint64_t offset, unsigned char* out, std::size_t count, Base&& base) const;
  std::uint64_t bytes() const { return starts_.empty() ? 0 : starts_.back(); }

 private:
  std::vector<Run> runs_;
  std::vector<std::uint64_t> starts_;  // byte offset of each run, then the total
  unsigned shift_ = 9;
};

template <typename Base>
void RunMap::copy(std::uint64_t offset, unsigned char* out, std::size_t count, Base&& base) const {
  // The run holding `offset`: the last one starting at or before it.
  std::size_t i = static_cast<std::size_t>(
      std::upper_bound(starts_.begin(), starts_.end() - 1, offset) - starts_.begin() - 1);
  while (count > 0) {
    const std::uint64_t within = offset - starts_[i];
    const std::uint64_t left = starts_[i + 1] - offset;
    const std::size_t piece = static_cast<std::size_t>(left < count ? left : count);
    base((runs_[i].first << shift_) + within, out, piece);
    out += piece;
    offset += piece;
    count -= piece;
    ++i;
  }
}

// The stream of directory entry `id` as stored; `path` names it in errors.
// Throws Error(damaged) when its chain cannot give all its bytes.
std::shared_ptr<StreamData> openStoredStream(std::shared_ptr<const Image> image, std::uint32_t id,
                                             const std::string& path);

}  // namespace mox::detail

#endif  // MOXOLEFIO_NATIVE_STREAM_DATA_H_
