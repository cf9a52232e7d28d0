// Descriptors: opening above 255, the fopen mode table, element-counted
// transfers and seeking.  Files are plain descriptors; nothing is buffered.
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <string.h>
#include <unistd.h>

#include "moxvos.h"
#include "vos/refusal.h"

namespace {

// The permission bits of every file the layer creates (before the umask).
constexpr mode_t kCreateMode = 0644;
// Descriptors the layer hands out start here when the process allows it.
constexpr int kLowestDescriptor = 256;

// Moves a freshly opened descriptor to kLowestDescriptor or above; keeps the
// low one when it cannot be moved (for instance under a small RLIMIT_NOFILE).
int raiseDescriptor(int fd) {
  if (fd < 0) return -1;
  if (fd >= kLowestDescriptor) return fd;
  int high = fcntl(fd, F_DUPFD, kLowestDescriptor);
  if (high < 0) return fd;
  close(fd);
  return high;
}

int flagsForMode(const char* mode) {
  if (mode == nullptr) return O_RDONLY;
  const bool update = strchr(mode, '+') != nullptr;
  switch (mode[0]) {
    case 'r':
      return update ? O_RDWR : O_RDONLY;
    case 'w':
      return (update ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC;
    case 'a':
      return (update ? O_RDWR : O_WRONLY) | O_CREAT | O_APPEND;
    default:
      return O_RDONLY;
  }
}

// A transfer the platform could not take as asked: a null buffer for some
// bytes, or more bytes than a signed count can hold.  errno says which,
// as the platform itself would.
bool refusedTransfer(const void* buffer, uint64_t count) {
  const bool tooMany = count > static_cast<uint64_t>(INT64_MAX);
  const bool nowhere = buffer == nullptr && count > 0;
  if (tooMany || nowhere) moxvosRefuse(tooMany ? EINVAL : EFAULT);
  return tooMany || nowhere;
}

// size * count bytes, or false when that overflows.
bool transferBytes(uint64_t size, uint64_t count, uint64_t* bytes) {
  return !__builtin_mul_overflow(size, count, bytes);
}

// Whole elements in a transfer whose byte count is read as a signed 32-bit
// value; failures (negative counts) are no bytes at all.
int64_t wholeElements(int64_t bytes, uint64_t size) {
  int32_t count = static_cast<int32_t>(bytes);
  if (count < 0) count = 0;
  if (size == 0) return 0;
  return static_cast<int64_t>(static_cast<uint64_t>(count) / size);
}

}  // namespace

extern "C" {

MOXVOS_API int moxvos_open(const char* path, int flags, void*) {
  if (path == nullptr) return moxvosRefuse();
  return raiseDescriptor(open(path, flags, kCreateMode));
}

MOXVOS_API int moxvos_open64(const char* path, int flags, void*) {
  if (path == nullptr) return moxvosRefuse();
  return raiseDescriptor(open64(path, flags, kCreateMode));
}

MOXVOS_API int64_t moxvos_fopen(const char* path, const char* mode,
                                void* ctx) {
  return moxvos_open(path, flagsForMode(mode), ctx);
}

MOXVOS_API int64_t moxvos_fopen64(const char* path, const char* mode,
                                  void* ctx) {
  return moxvos_open64(path, flagsForMode(mode), ctx);
}

MOXVOS_API int moxvos_close(int fd) { return close(fd); }

MOXVOS_API int moxvos_fclose(int fd) { return moxvos_close(fd); }

MOXVOS_API int64_t moxvos_read(int fd, void* buffer, uint64_t count) {
  if (refusedTransfer(buffer, count)) return -1;
  return read(fd, buffer, count);
}

MOXVOS_API int64_t moxvos_write(int fd, const void* buffer, uint64_t count) {
  if (refusedTransfer(buffer, count)) return -1;
  return write(fd, buffer, count);
}

MOXVOS_API int64_t moxvos_fread(int fd, void* buffer, uint64_t size,
                                uint64_t count) {
  uint64_t bytes = 0;
  if (!transferBytes(size, count, &bytes)) {
    moxvosRefuse(EINVAL);
    return 0;  // no whole elements
  }
  return wholeElements(moxvos_read(fd, buffer, bytes), size);
}

MOXVOS_API int64_t moxvos_fwrite(int fd, const void* buffer, uint64_t size,
                                 uint64_t count) {
  uint64_t bytes = 0;
  if (!transferBytes(size, count, &bytes)) {
    moxvosRefuse(EINVAL);
    return 0;  // no whole elements
  }
  return wholeElements(moxvos_write(fd, buffer, bytes), size);
}

MOXVOS_API int64_t moxvos_lseek(int fd, int64_t offset, int whence) {
  return lseek(fd, offset, whence);
}

MOXVOS_API int moxvos_fseek(int fd, int64_t offset, int whence) {
  return moxvos_lseek(fd, offset, whence) < 0 ? -1 : 0;
}

MOXVOS_API int64_t moxvos_ftell(int fd) {
  return moxvos_lseek(fd, 0, SEEK_CUR);
}

MOXVOS_API int64_t moxvos_lseek64(int fd, int64_t offset, int whence) {
  return lseek64(fd, offset, whence);
}

MOXVOS_API int moxvos_fseek64(int fd, int64_t offset, int whence) {
  return moxvos_lseek64(fd, offset, whence) < 0 ? -1 : 0;
}

MOXVOS_API int64_t moxvos_ftell64(int fd) {
  return moxvos_lseek64(fd, 0, SEEK_CUR);
}

MOXVOS_API int moxvos_fsync(int fd) { return fsync(fd); }

MOXVOS_API int moxvos_ftruncate(int fd, int64_t length) {
  return ftruncate(fd, length);
}

}  // extern "C"
