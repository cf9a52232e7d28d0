// A chain's sectors as runs, with the byte offset each run starts at, so
// that a position finds its run by binary search instead of a walk.
#ifndef MOXOLEFIO_NATIVE_RUN_MAP_H_
#define MOXOLEFIO_NATIVE_RUN_MAP_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace mox::detail {

// Consecutive sectors first .. first + count - 1 of a chain.
struct Run {
  std::uint64_t first;
  std::uint64_t count;
};

class RunMap {
 public:
  RunMap() = default;
  RunMap(std::vector<Run> runs, unsigned unitShift);
  // Copies bytes [offset, offset + count) of the chain; `base` receives
  // each contiguous piece as (position in the underlying space, buffer,
  // length).  The caller keeps the range inside the runs.
  template <typename Base>
  void copy(std::uint64_t offset, unsigned char* out, std::size_t count, Base&& base) const;
  // Calls `piece(position in the underlying space, length)` for each
  // contiguous piece of bytes [offset, offset + count), in order.
  template <typename Piece>
  void each(std::uint64_t offset, std::uint64_t count, Piece&& piece) const;
  std::uint64_t bytes() const { return starts_.empty() ? 0 : starts_.back(); }

 private:
  std::vector<Run> runs_;
  std::vector<std::uint64_t> starts_;  // byte offset of each run, then the total
  unsigned shift_ = 9;
};

template <typename Piece>
void RunMap::each(std::uint64_t offset, std::uint64_t count, Piece&& piece) const {
  // The run holding `offset`: the last one starting at or before it.
  std::size_t i = static_cast<std::size_t>(
      std::upper_bound(starts_.begin(), starts_.end() - 1, offset) - starts_.begin() - 1);
  while (count > 0) {
    const std::uint64_t within = offset - starts_[i];
    const std::uint64_t left = starts_[i + 1] - offset;
    const std::uint64_t n = left < count ? left : count;
    piece((runs_[i].first << shift_) + within, n);
    offset += n;
    count -= n;
    ++i;
  }
}

template <typename Base>
void RunMap::copy(std::uint64_t offset, unsigned char* out, std::size_t count, Base&& base) const {
  each(offset, count, [&](std::uint64_t at, std::uint64_t n) {
    base(at, out, static_cast<std::size_t>(n));
    out += n;
  });
}

}  // namespace mox::detail

#endif  // MOXOLEFIO_NATIVE_RUN_MAP_H_
