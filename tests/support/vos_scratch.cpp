#include "support/vos_scratch.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <fstream>
#include <sstream>

namespace moxtest {

CwdGuard::CwdGuard(const std::string& dir) {
  char buffer[4096];
  if (getcwd(buffer, sizeof buffer) != nullptr) previous_ = buffer;
  if (chdir(dir.c_str()) != 0) previous_.clear();
}

CwdGuard::~CwdGuard() {
  if (!previous_.empty() && chdir(previous_.c_str()) != 0) abort();
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

bool writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
  return static_cast<bool>(out);
}

bool exists(const std::string& path) {
  struct stat record;
  return lstat(path.c_str(), &record) == 0;
}

int runInChild(const std::function<int()>& body) {
  pid_t child = fork();
  if (child < 0) return -1;
  if (child == 0) _exit(body());
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace moxtest
