// Helpers for the OS-layer tests: a private scratch directory, guards that
// restore process-wide settings, and a forked child that reports back.
#ifndef MOXOLEFIO_TESTS_SUPPORT_VOS_SCRATCH_H_
#define MOXOLEFIO_TESTS_SUPPORT_VOS_SCRATCH_H_

#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

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
  explicit UmaskGuard(mode_t mask) : previous_(umask(mask)) {}
  ~UmaskGuard() { umask(previous_); }

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

// Runs body in a forked child and returns the plain value it produced,
// carried back through a pipe; `failed` when the child did not report.
template <typename T>
T resultOfChild(const std::function<T()>& body, T failed = T()) {
  int channel[2];
  if (pipe(channel) != 0) return failed;
  const int code = runInChild([&] {
    const T value = body();
    return write(channel[1], &value, sizeof value) == static_cast<ssize_t>(sizeof value) ? 0 : 1;
  });
  close(channel[1]);
  T value = failed;
  if (code != 0 || read(channel[0], &value, sizeof value) != static_cast<ssize_t>(sizeof value)) {
    value = failed;
  }
  close(channel[0]);
  return value;
}

}  // namespace moxtest

#endif  // MOXOLEFIO_TESTS_SUPPORT_VOS_SCRATCH_H_
