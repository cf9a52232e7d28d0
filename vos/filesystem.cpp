// Directories, paths and file status: each function is the platform call
// of the same name with the arguments and the result passed straight on.
#include <dirent.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/time.h>
#include <unistd.h>

#include <stdio.h>

#include "moxvos.h"

extern "C" {

MOXVOS_API DIR* moxvos_opendir(const char* path, void*) {
  return opendir(path);
}

MOXVOS_API struct dirent* moxvos_readdir(DIR* dir, void*) {
  return readdir(dir);
}

MOXVOS_API struct dirent* moxvos_readdir_r(DIR* dir, struct dirent*,
                                           void* ctx) {
  return moxvos_readdir(dir, ctx);
}

MOXVOS_API int moxvos_closedir(DIR* dir, void*) { return closedir(dir); }

MOXVOS_API char* moxvos_getcwd(char* buffer, uint64_t size, void*) {
  return getcwd(buffer, size);
}

MOXVOS_API int moxvos_chdir(const char* path, void*) { return chdir(path); }

MOXVOS_API int moxvos_rmdir(const char* path, void*) { return rmdir(path); }

MOXVOS_API int moxvos_rename(const char* oldPath, const char* newPath,
                             void*) {
  return rename(oldPath, newPath);
}

MOXVOS_API int moxvos_unlink(const char* path, void*) { return unlink(path); }

MOXVOS_API int moxvos_chmod(const char* path, int mode, void*) {
  return chmod(path, mode);
}

MOXVOS_API int moxvos_umask(int mask, void*) { return umask(mask); }

MOXVOS_API int moxvos_access(const char* path, int mode, void*) {
  return access(path, mode);
}

MOXVOS_API int moxvos_utimes(const char* path,
                             const struct timeval times[2]) {
  return utimes(path, times);
}

MOXVOS_API int moxvos_stat(const char* path, struct stat* record, void*) {
  return stat(path, record);
}

MOXVOS_API int moxvos_fstat(int fd, struct stat* record) {
  return fstat(fd, record);
}

MOXVOS_API int moxvos_fstat64(int fd, struct stat64* record) {
  return fstat64(fd, record);
}

MOXVOS_API int moxvos_statfs(const char* path, struct statfs* record) {
  return statfs(path, record);
}

MOXVOS_API int64_t moxvos_filesize(int fd) {
  struct stat record;
  if (moxvos_fstat(fd, &record) != 0) return -1;
  return record.st_size;
}

MOXVOS_API int64_t moxvos_filesize64(int fd) { return moxvos_filesize(fd); }

}  // extern "C"
