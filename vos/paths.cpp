// Temporary file names and creation of whole directory paths.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "moxvos.h"

namespace {

// mkdir never looks at more of a path than this.
constexpr size_t kMaxPathBytes = 4096;

// Where mkdir starts looking for separators: after the root of "/x", after
// the "//host/" of "//host/x"; null for a "//host" with nothing after it.
char* firstComponent(char* path) {
  if (path[0] != '/') return path;
  if (path[1] != '/') return path + 1;
  char* hostEnd = strlen(path) > 3 ? strchr(path + 3, '/') : nullptr;
  return hostEnd == nullptr ? nullptr : hostEnd + 1;
}

}  // namespace

extern "C" {

MOXVOS_API char* moxvos_tempnam(const char* dir, const char* prefix, void*) {
  if (dir == nullptr) dir = "/tmp";
  if (prefix == nullptr) prefix = "";
  const uint64_t bytes = strlen(dir) + strlen(prefix) + 16;
  if (bytes > MOXVOS_MAX_ALLOCATION) return nullptr;
  char* name = static_cast<char*>(moxvos_malloc(bytes));
  if (name == nullptr) return nullptr;
  int fd = -1;
  for (int attempt = 0; attempt < 2 && fd < 0; ++attempt) {
    snprintf(name, bytes, "%s/%sXXXXXX", dir, prefix);
    fd = mkstemp(name);
  }
  if (fd < 0) {
    moxvos_free(name);
    return nullptr;
  }
  close(fd);
  return name;
}

MOXVOS_API int moxvos_mkdir(const char* path, int mode, void* ctx) {
  if (path == nullptr || path[0] == '\0') return -1;
  char buffer[kMaxPathBytes + 1];
  strncpy(buffer, path, kMaxPathBytes);
  buffer[kMaxPathBytes] = '\0';

  char* scan = firstComponent(buffer);
  if (scan == nullptr) return -1;
  int result = -1;
  for (;;) {
    char* slash = strchr(scan, '/');
    if (slash != nullptr) *slash = '\0';
    struct stat record;
    if (moxvos_stat(buffer, &record, ctx) != 0) result = mkdir(buffer, mode);
    if (slash == nullptr) break;
    *slash = '/';
    scan = slash + 1;
  }
  return result;
}

}  // extern "C"
