#include "native/run_map.h"

namespace mox::detail {

RunMap::RunMap(std::vector<Run> runs, unsigned unitShift) : runs_(std::move(runs)), shift_(unitShift) {
  starts_.reserve(runs_.size() + 1);
  std::uint64_t at = 0;
  for (const Run& run : runs_) {
    starts_.push_back(at);
    at += run.count << shift_;
  }
  starts_.push_back(at);
}

}  // namespace mox::detail
