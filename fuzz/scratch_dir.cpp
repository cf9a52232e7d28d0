#include "fuzz/scratch_dir.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <vector>

namespace moxfuzz {

namespace {

std::string* made = nullptr;

// Inputs leave directories without permissions; those are opened up
// first, which std::filesystem::remove_all would not do.
void removeTree(const std::string& path) {
  struct stat record;
  if (lstat(path.c_str(), &record) != 0) return;
  if (S_ISDIR(record.st_mode)) {
    emptyDir(path);
    rmdir(path.c_str());
  } else {
    unlink(path.c_str());
  }
}

}  // namespace

const std::string& scratchDir(const char* tag) {
  if (made != nullptr) return *made;
  const char* base = getenv("TMPDIR");
  if (base == nullptr || base[0] != '/') base = "/tmp";
  char pattern[4096];
  snprintf(pattern, sizeof pattern, "%s/moxfuzz-%s-%d-XXXXXX", base, tag, static_cast<int>(getpid()));
  if (mkdtemp(pattern) == nullptr) {
    perror("moxfuzz: cannot make a scratch directory");
    abort();
  }
  made = new std::string(pattern);
  atexit([] { removeTree(*made); });
  return *made;
}

void emptyDir(const std::string& dir) {
  chmod(dir.c_str(), 0700);
  std::error_code error;
  std::vector<std::string> paths;
  for (const auto& e : std::filesystem::directory_iterator(dir, error)) paths.push_back(e.path());
  for (const std::string& path : paths) removeTree(path);
}

int openDescriptors() {
  std::error_code error;
  std::filesystem::directory_iterator fds("/proc/self/fd", error);
  if (error) return -1;
  return static_cast<int>(std::distance(fds, std::filesystem::directory_iterator())) - 1;  // the listing's own
}

}  // namespace moxfuzz
