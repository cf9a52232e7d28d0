// Directories, paths and file status: each function is the platform call
// of the same name with the arguments and the result passed straight on,
// once null pointers, which the platform may follow, are refused.
#include <dirent.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/time.h>
#include <unistd.h>

#include <stdio.h>

#include "moxvos.h"
#include "vos/refusal.h"

extern "C" {

MOXVOS_API DIR* moxvos_opendir(const char* path, void*) {
  if (path == nullptr) return moxvosRefuseNull<DIR>();
  return opendir(path);
}

MOXVOS_API struct dirent* moxvos_readdir(DIR* dir, void*) {
  if (dir == nullptr) return moxvosRefuseNull<struct dirent>(EBADF);
  return readdir(dir);
}

MOXVOS_API struct dirent* moxvos_readdir_r(DIR* dir, struct dirent*,
                                           void* ctx) {
  return moxvos_readdir(dir, ctx);
}

MOXVOS_API int moxvos_closedir(DIR* dir, void*) {
  if (dir == nullptr) return moxvosRefuse(EBADF);
  return closedir(dir);
}

// Without a buffer the platform would allocate one for the caller to free,
// which is not this layer's contract: no buffer, no name.
MOXVOS_API char* moxvos_getcwd(char* buffer, uint64_t size, void*) {
  if (buffer == nullptr) return moxvosRefuseNull<char>(EINVAL);
  return getcwd(buffer, size);
}

MOXVOS_API int moxvos_chdir(const char* path, void*) {
  return path == nullptr ? moxvosRefuse() : chdir(path);
}

MOXVOS_API int moxvos_rmdir(const char* path, void*) {
  return path == nullptr ? moxvosRefuse() : rmdir(path);
}

MOXVOS_API int moxvos_rename(const char* oldPath, const char* newPath,
                             void*) {
  if (oldPath == nullptr || newPath == nullptr) return moxvosRefuse();
  return rename(oldPath, newPath);
}

MOXVOS_API int moxvos_unlink(const char* path, void*) {
  return path == nullptr ? moxvosRefuse() : unlink(path);
}

MOXVOS_API int moxvos_chmod(const char* path, int mode, void*) {
  return path == nullptr ? moxvosRefuse() : chmod(path, mode);
}

MOXVOS_API int moxvos_umask(int mask, void*) { return umask(mask); }

MOXVOS_API int moxvos_access(const char* path, int mode, void*) {
  return path == nullptr ? moxvosRefuse() : access(path, mode);
}

// Null times stand for "now", as for the platform.
MOXVOS_API int moxvos_utimes(const char* path,
                             const struct timeval times[2]) {
  return path == nullptr ? moxvosRefuse() : utimes(path, times);
}

MOXVOS_API int moxvos_stat(const char* path, struct stat* record, void*) {
  if (path == nullptr || record == nullptr) return moxvosRefuse();
  return stat(path, record);
}

MOXVOS_API int moxvos_fstat(int fd, struct stat* record) {
  return record == nullptr ? moxvosRefuse() : fstat(fd, record);
}

MOXVOS_API int moxvos_fstat64(int fd, struct stat64* record) {
  return record == nullptr ? moxvosRefuse() : fstat64(fd, record);
}

MOXVOS_API int moxvos_statfs(const char* path, struct statfs* record) {
  if (path == nullptr || record == nullptr) return moxvosRefuse();
  return statfs(path, record);
}

MOXVOS_API int64_t moxvos_filesize(int fd) {
  struct stat record;
  if (moxvos_fstat(fd, &record) != 0) return -1;
  return record.st_size;
}

MOXVOS_API int64_t moxvos_filesize64(int fd) { return moxvos_filesize(fd); }

}  // extern "C"
