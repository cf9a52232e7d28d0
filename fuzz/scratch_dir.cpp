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
  atexit([] {
    emptyDir(*made);
    rmdir(made->c_str());
  });
  return *made;
}

// Inputs leave directories without permissions; those are opened up
// first, which std::filesystem::remove_all would not do.
void emptyDir(const std::string& dir) {
  namespace fs = std::filesystem;
  chmod(dir.c_str(), 0700);
  std::error_code error;
  const std::vector<fs::directory_entry> entries(fs::directory_iterator(dir, error), fs::directory_iterator());
  for (const fs::directory_entry& e : entries) {
    if (e.symlink_status(error).type() == fs::file_type::directory) emptyDir(e.path());
    fs::remove(e.path(), error);
  }
}

int openDescriptors() {
  std::error_code error;
  std::filesystem::directory_iterator fds("/proc/self/fd", error);
  if (error) return -1;
  return static_cast<int>(std::distance(fds, std::filesystem::directory_iterator())) - 1;  // the listing's own
}

}  // namespace moxfuzz
