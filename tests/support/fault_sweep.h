// Fault sweeps over the host kit: a job run once undisturbed, then once
// for each allocation or host call of one kind that it made, with that
// one failing.  Which checks hold after a failure is the job's business;
// the sweep only decides what fails when.
#ifndef MOXOLEFIO_TESTS_SUPPORT_FAULT_SWEEP_H_
#define MOXOLEFIO_TESTS_SUPPORT_FAULT_SWEEP_H_

#include <stdint.h>

#include <functional>

#include "host/moxhost.h"

namespace moxtest {

enum class Fault {  // in the order of faultName's table
  kAllocation,  // the n-th allocation attempt is refused
  kEmptyRead,   // the n-th host read returns nothing
  kShortRead,   // the n-th host read returns part of what was asked
  kSeek,        // the n-th host seek fails
  kSeeksFrom,   // every host seek from the n-th on fails
  kWrite,       // the n-th host write fails
};

const char* faultName(Fault fault);

// Arms `fault` at its n-th occurrence from now; 0 disarms it.
void arm(Fault fault, int64_t n, moxhost::HostIo& io, moxhost::FaultPlan& plan);

// How often the kind of call `fault` hits was made: host calls since `io`
// was made, allocation attempts since `plan` was last armed.
int64_t occurrences(Fault fault, const moxhost::HostIo& io, const moxhost::FaultPlan& plan);

// Runs job(0) (nothing fails), then job(n) for n = 1 .. the occurrences
// job(0) returned; with `thin`, only n = 1..8, every thin-th after that
// and the last two.  Returns the occurrences of the undisturbed run.
int64_t sweep(const std::function<int64_t(int64_t n)>& job, int64_t thin = 1);

}  // namespace moxtest

#endif  // MOXOLEFIO_TESTS_SUPPORT_FAULT_SWEEP_H_
