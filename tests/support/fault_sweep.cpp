#include "support/fault_sweep.h"

#include <gtest/gtest.h>

namespace moxtest {

const char* faultName(Fault fault) {
  static const char* const kNames[] = {"Allocation", "EmptyRead", "ShortRead", "Seek", "SeeksFrom", "Write"};
  return kNames[static_cast<int>(fault)];
}

void arm(Fault fault, int64_t n, moxhost::HostIo& io, moxhost::FaultPlan& plan) {
  switch (fault) {
    case Fault::kAllocation: plan.failAt(n); break;
    case Fault::kEmptyRead: io.shortReadAt(n, 0); break;
    case Fault::kShortRead: io.shortReadAt(n, 37); break;
    case Fault::kSeek: io.failSeekAt(n); break;
    case Fault::kSeeksFrom: io.failSeeksFrom(n); break;
    case Fault::kWrite: io.failWriteAt(n); break;
  }
}

int64_t occurrences(Fault fault, const moxhost::HostIo& io, const moxhost::FaultPlan& plan) {
  switch (fault) {
    case Fault::kAllocation: return plan.attempts();
    case Fault::kEmptyRead:
    case Fault::kShortRead: return io.readCalls();
    case Fault::kSeek:
    case Fault::kSeeksFrom: return io.seekCalls();
    case Fault::kWrite: return io.writeCalls();
  }
  return 0;
}

int64_t sweep(const std::function<int64_t(int64_t n)>& job, int64_t thin) {
  int64_t total = 0;
  {
    SCOPED_TRACE("undisturbed");
    total = job(0);
  }
  for (int64_t n = 1; n <= total; ++n) {
    if (n > 8 && n + 1 < total && (n - 8) % thin != 0) continue;
    SCOPED_TRACE(testing::Message() << "failing occurrence " << n << " of " << total);
    job(n);
    if (testing::Test::HasFatalFailure()) break;
  }
  return total;
}

}  // namespace moxtest
