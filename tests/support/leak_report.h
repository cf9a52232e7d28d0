// Describes what a test left behind in a PoolServices: live pools, heap
// blocks still allocated, and single frees that pools never expect.
#ifndef MOXOLEFIO_TESTS_SUPPORT_LEAK_REPORT_H_
#define MOXOLEFIO_TESTS_SUPPORT_LEAK_REPORT_H_

#include <string>

#include "host/moxhost.h"

namespace moxtest {

// Empty when nothing is left; otherwise a line naming every kind of
// leftover, so that a failing EXPECT_EQ(leakReport(s), "") says what leaked.
std::string leakReport(moxhost::PoolServices& services);

}  // namespace moxtest

#endif  // MOXOLEFIO_TESTS_SUPPORT_LEAK_REPORT_H_
