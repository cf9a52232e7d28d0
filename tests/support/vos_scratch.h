// Helpers for the OS-layer tests: a private scratch directory, guards that
// restore process-wide settings, and a forked child that reports back.
#ifndef MOXOLEFIO_TESTS_SUPPORT_VOS_SCRATCH_H_
#define MOXOLEFIO_TESTS_SUPPORT_VOS_SCRATCH_H_

#include <sys/types.h>

#include <functional>
#include <string>

#include "host/scratch_dir.h"

namespace moxtest {

using ScratchDir = moxhost::ScratchDir;

// Changes the working directory for the guard's life.
class CwdGuard {
 public:
  explicit CwdGuard(const std::string& dir);
  ~CwdGuard();

 private:
  std::string previous_;
};

// Sets the umask for the guard's life.
class UmaskGuard {
 public:
  explicit UmaskGuard(mode_t mask);
  ~UmaskGuard();

 private:
  mode_t previous_;
};

// Whole contents of a file; empty when it cannot be read.
std::string readFile(const std::string& path);
// Writes bytes to a new or truncated file; false on failure.
bool writeFile(const std::string& path, const std::string& bytes);
bool exists(const std::string& path);

// Runs body in a forked child and returns its exit code (body's result),
// or 128 + signal number when the child was killed.  The child leaves with
// _exit, so no test machinery runs twice.
int runInChild(const std::function<int()>& body);

}  // namespace moxtest

#endif  // MOXOLEFIO_TESTS_SUPPORT_VOS_SCRATCH_H_
