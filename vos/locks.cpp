// Advisory write locks held through a _MoxvosFlock.  Only non-waiting write
// locks exist; a length of 0 stands for the file's present size.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "moxvos.h"
#include "vos/refusal.h"

namespace {

// Fills the lock description and makes one F_SETLK request on it.
int setLock(_MoxvosFlock* lock, short type, int whence, int64_t start,
            int64_t length) {
  if (length == 0) length = moxvos_lseek(lock->iFd, 0, SEEK_END);
  lock->flLock.l_type = type;
  lock->flLock.l_whence = static_cast<short>(whence);
  lock->flLock.l_start = start;
  lock->flLock.l_len = length;
  return fcntl(lock->iFd, F_SETLK, &lock->flLock);
}

}  // namespace

extern "C" {

MOXVOS_API int moxvos_flock_init(_MoxvosFlock* lock, int flags,
                                 const char* path, void* ctx) {
  if (lock == nullptr) return moxvosRefuse();
  memset(&lock->flLock, 0, sizeof lock->flLock);
  lock->iFd = -1;
  lock->pszPath = nullptr;
  if (path == nullptr) return 0;
  lock->iFd = moxvos_open(path, flags, ctx);
  lock->pszPath = strdup(path);
  return lock->iFd != -1 ? 0 : -1;
}

MOXVOS_API int moxvos_flock_trywrlock(_MoxvosFlock* lock, int whence,
                                      int64_t start, int64_t length, void*) {
  if (lock == nullptr) return moxvosRefuse();
  int result = setLock(lock, F_WRLCK, whence, start, length);
  if (result == -1 && (errno == EACCES || errno == EAGAIN)) errno = EBUSY;
  return result;
}

MOXVOS_API int moxvos_flock_unlock(_MoxvosFlock* lock, int whence,
                                   int64_t start, int64_t length, void*) {
  if (lock == nullptr) return moxvosRefuse();
  return setLock(lock, F_UNLCK, whence, start, length);
}

MOXVOS_API int moxvos_flock_free(_MoxvosFlock* lock, void* ctx) {
  if (lock == nullptr) return moxvosRefuse();
  if (lock->iFd != -1) {
    moxvos_flock_unlock(lock, SEEK_SET, 0, 0, ctx);
    moxvos_close(lock->iFd);
    lock->iFd = -1;
  }
  moxvos_free(lock->pszPath);
  lock->pszPath = nullptr;
  return 0;
}

}  // extern "C"
