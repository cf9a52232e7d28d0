// mox::Error and the FILETIME conversions: the small pieces every part of
// the native interface uses.
#include "moxolefio/moxolefio.hpp"

namespace mox {

Error::Error(Errc code, const std::string& message) : std::runtime_error(message), code_(code) {}

namespace {
// FILETIME counts 100 ns ticks from 1601-01-01; the Unix epoch is
// 11644473600 seconds later.
constexpr std::int64_t kTicksPerSecond = 10'000'000;
constexpr std::int64_t kEpochOffsetTicks = 11'644'473'600LL * kTicksPerSecond;
}  // namespace

std::chrono::system_clock::time_point to_time_point(std::uint64_t filetime) {
  const std::int64_t ticks = static_cast<std::int64_t>(filetime) - kEpochOffsetTicks;
  const auto since_epoch = std::chrono::duration<std::int64_t, std::ratio<1, kTicksPerSecond>>(
      filetime > static_cast<std::uint64_t>(INT64_MAX) ? INT64_MAX - kEpochOffsetTicks : ticks);
  return std::chrono::system_clock::time_point(
      std::chrono::duration_cast<std::chrono::system_clock::duration>(since_epoch));
}

std::uint64_t to_filetime(std::chrono::system_clock::time_point time) {
  const auto ticks = std::chrono::duration_cast<
                         std::chrono::duration<std::int64_t, std::ratio<1, kTicksPerSecond>>>(
                         time.time_since_epoch())
                         .count();
  const std::int64_t filetime = ticks + kEpochOffsetTicks;
  return filetime < 0 ? 0 : static_cast<std::uint64_t>(filetime);
}

}  // namespace mox
