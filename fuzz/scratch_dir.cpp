#include "fuzz/scratch_dir.h"

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

namespace moxfuzz {

namespace {

std::string* made = nullptr;

void removeTree(const std::string& path) {
  struct stat record;
  if (lstat(path.c_str(), &record) != 0) return;
  if (S_ISDIR(record.st_mode)) {
    chmod(path.c_str(), 0700);
    emptyDir(path);
    rmdir(path.c_str());
  } else {
    unlink(path.c_str());
  }
}

void removeAtExit() {
  if (made == nullptr) return;
  removeTree(*made);
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
  atexit(removeAtExit);
  return *made;
}

void emptyDir(const std::string& dir) {
  chmod(dir.c_str(), 0700);
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return;
  std::vector<std::string> names;
  while (struct dirent* e = readdir(d)) {
    if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
  }
  closedir(d);
  for (const std::string& name : names) removeTree(dir + "/" + name);
}

int openDescriptors() {
  DIR* d = opendir("/proc/self/fd");
  if (d == nullptr) return -1;
  int count = 0;
  while (struct dirent* e = readdir(d)) {
    if (e->d_name[0] != '.') ++count;
  }
  closedir(d);
  return count - 1;  // the listing's own descriptor
}

}  // namespace moxfuzz
