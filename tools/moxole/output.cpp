// Writing to standard output and to files, with failures reported.
#include <errno.h>
#include <stdio.h>
#include <unistd.h>

#include "tools/moxole/commands.h"
#include "tools/moxole/report.h"

namespace moxole {

int finishOutput(int status) {
  if (fflush(stdout) != 0 || ferror(stdout)) {
    int error = errno;
    return fail(kExitIo, "standard output", errorText(error));
  }
  return status;
}

bool writeAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace moxole
