#include "support/leak_report.h"

namespace moxtest {

std::string leakReport(moxhost::PoolServices& services) {
  std::string report;
  auto note = [&report](const char* what, int64_t count) {
    if (count == 0) return;
    if (!report.empty()) report += ", ";
    report += std::to_string(count) + " " + what;
  };
  note("live pools", services.livePools());
  note("live heap blocks", services.heap().liveBlocks());
  note("single frees in pools", services.poolFrees());
  return report;
}

}  // namespace moxtest
