#include "native/edit/file_ops.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

namespace mox::detail {

int FileOps::open(const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); }
ssize_t FileOps::pwrite(int fd, const void* data, std::size_t count, off_t offset) {
  return ::pwrite(fd, data, count, offset);
}
ssize_t FileOps::copy_file_range(int in, off_t* inOffset, int out, off_t* outOffset, std::size_t count) {
  return ::copy_file_range(in, inOffset, out, outOffset, count, 0);
}
int FileOps::ftruncate(int fd, off_t size) { return ::ftruncate(fd, size); }
int FileOps::fsync(int fd) { return ::fsync(fd); }
int FileOps::rename(const char* from, const char* to) { return ::rename(from, to); }
int FileOps::linkat(int fromDir, const char* from, int toDir, const char* to, int flags) {
  return ::linkat(fromDir, from, toDir, to, flags);
}
int FileOps::close(int fd) { return ::close(fd); }
int FileOps::unlink(const char* path) { return ::unlink(path); }
int FileOps::mkostemp(char* pattern, int flags) { return ::mkostemp(pattern, flags); }

namespace {
FileOps systemOps;
FileOps* current = &systemOps;
}  // namespace

FileOps& fileOps() { return *current; }
void setFileOps(FileOps* ops) { current = ops != nullptr ? ops : &systemOps; }

}  // namespace mox::detail
