/*
 * moxvos - the portable OS layer exported by libmoxolefio.so.
 *
 * Plain C functions named moxvos_* that give a host (and its other plug-ins)
 * one set of entry points for file, directory, status, memory, record-lock,
 * temporary-file, directory-creation, dynamic-loading and process services.
 * On Linux each is a thin layer over the POSIX call of the same name; unless
 * a comment below says otherwise a function returns the platform's result
 * unchanged and, on failure, leaves the platform's errno.  Nothing is
 * printed, retried or buffered, and the layer keeps no state of its own.
 *
 * Conventions
 *   - Files are plain descriptors (int), also for the functions named after
 *     buffered streams (moxvos_fopen, moxvos_fread, ...).  Descriptors opened
 *     by the layer are moved to 256 or above whenever the process can have
 *     such a descriptor, so they stay clear of select() sets and of the low
 *     numbers a host uses itself.
 *   - Files created through moxvos_open (and so through moxvos_open64,
 *     moxvos_fopen, moxvos_fopen64 and moxvos_flock_init) get the
 *     permission bits 0644, subject to the process's umask.
 *   - The context argument (ctx): the path and directory functions take one
 *     trailing pointer.  It is reserved: the layer never looks at it and it
 *     has no meaning for hosts today.  Pass null.
 *   - Byte counts, element counts and allocation sizes are unsigned 64-bit;
 *     offsets are signed 64-bit; descriptors, flags, modes and whence values
 *     are ints.
 *   - The 64-bit seek family (moxvos_lseek64, moxvos_fseek64,
 *     moxvos_ftell64) carries the full 64-bit offset, exactly like
 *     moxvos_lseek: a position of 3 GiB seeks and tells as 3 GiB.
 *   - Null pointers the platform would follow (paths, status records,
 *     buffers of a transfer with bytes in it, DIR handles, lock objects)
 *     never reach it: the function fails as the platform fails (-1, or
 *     null) with errno EFAULT (EBADF for a null DIR).  A transfer of more
 *     bytes than INT64_MAX fails with EINVAL.
 *
 * The header is valid C and C++; layouts assume LP64 Linux.  struct stat64
 * is the platform's own (C++ compilers and C hosts built with _GNU_SOURCE or
 * _LARGEFILE64_SOURCE see its definition); other C hosts get only an
 * incomplete declaration and can still use every other function.
 */
#ifndef MOXVOS_H
#define MOXVOS_H

#include <stdint.h>
#include <sys/types.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/time.h>
#include <dirent.h>
#include <fcntl.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(MOXOLEFIO_BUILDING)
#define MOXVOS_API __attribute__((visibility("default")))
#else
#define MOXVOS_API
#endif

struct stat64; /* complete only where the platform defines it */

/* The largest size moxvos_malloc, moxvos_calloc, moxvos_realloc and
 * moxvos_Saferealloc pass to the allocator: 2^31 - 1. */
#define MOXVOS_MAX_ALLOCATION 2147483647ULL

/* ------------------------------------------------------------------------ */
/* Directories, paths and file status: straight pass-throughs.              */

MOXVOS_API DIR* moxvos_opendir(const char* path, void* ctx);
MOXVOS_API struct dirent* moxvos_readdir(DIR* dir, void* ctx);
/* The same as moxvos_readdir(dir, ctx); entry is never written and the
 * function is no safer than moxvos_readdir. */
MOXVOS_API struct dirent* moxvos_readdir_r(DIR* dir, struct dirent* entry,
                                           void* ctx);
MOXVOS_API int moxvos_closedir(DIR* dir, void* ctx);
/* A null buffer fails (EINVAL): the layer never allocates a name. */
MOXVOS_API char* moxvos_getcwd(char* buffer, uint64_t size, void* ctx);
MOXVOS_API int moxvos_chdir(const char* path, void* ctx);
MOXVOS_API int moxvos_rmdir(const char* path, void* ctx);
MOXVOS_API int moxvos_rename(const char* oldPath, const char* newPath,
                             void* ctx);
MOXVOS_API int moxvos_unlink(const char* path, void* ctx);
MOXVOS_API int moxvos_chmod(const char* path, int mode, void* ctx);
/* Sets the umask; returns the previous one. */
MOXVOS_API int moxvos_umask(int mask, void* ctx);
MOXVOS_API int moxvos_access(const char* path, int mode, void* ctx);
MOXVOS_API int moxvos_utimes(const char* path, const struct timeval times[2]);
MOXVOS_API int moxvos_stat(const char* path, struct stat* record, void* ctx);
MOXVOS_API int moxvos_fstat(int fd, struct stat* record);
MOXVOS_API int moxvos_fstat64(int fd, struct stat64* record);
MOXVOS_API int moxvos_statfs(const char* path, struct statfs* record);
/* The size of the open file fd (from fstat), or -1 when fstat fails.
 * moxvos_filesize64 is the same function. */
MOXVOS_API int64_t moxvos_filesize(int fd);
MOXVOS_API int64_t moxvos_filesize64(int fd);

/* ------------------------------------------------------------------------ */
/* Descriptors.                                                             */

/* open(path, flags, 0644): the third argument is the context, not a mode.
 * A descriptor below 256 is moved to the lowest free one of 256 or more
 * (fcntl F_DUPFD); when that is impossible the low descriptor is returned.
 * Result: descriptor or -1.  moxvos_open64 does the same with open64. */
MOXVOS_API int moxvos_open(const char* path, int flags, void* ctx);
MOXVOS_API int moxvos_open64(const char* path, int flags, void* ctx);

/* Opens through moxvos_open with flags chosen by the first character of
 * mode; a '+' anywhere switches to reading and writing, every other
 * character ('b', 't', ...) is ignored:
 *     'r'  O_RDONLY                      '+': O_RDWR
 *     'w'  O_WRONLY|O_CREAT|O_TRUNC      '+': O_RDWR|O_CREAT|O_TRUNC
 *     'a'  O_WRONLY|O_CREAT|O_APPEND     '+': O_RDWR|O_CREAT|O_APPEND
 *     anything else (also an empty or null mode): O_RDONLY
 * Result: the descriptor or -1, widened to 64 bits.  moxvos_fopen64 opens
 * through moxvos_open64. */
MOXVOS_API int64_t moxvos_fopen(const char* path, const char* mode, void* ctx);
MOXVOS_API int64_t moxvos_fopen64(const char* path, const char* mode,
                                  void* ctx);
MOXVOS_API int moxvos_close(int fd);
MOXVOS_API int moxvos_fclose(int fd); /* moxvos_close */

/* read / write: bytes transferred or -1. */
MOXVOS_API int64_t moxvos_read(int fd, void* buffer, uint64_t count);
MOXVOS_API int64_t moxvos_write(int fd, const void* buffer, uint64_t count);
/* One moxvos_read / moxvos_write of size * count bytes.  The byte count is
 * taken as a signed 32-bit value, a failure counts as 0 bytes, and the
 * result is the number of whole elements transferred.  A product past 64
 * bits transfers nothing (0, errno EINVAL).  size must not be 0
 * (the transfer of 0 bytes still happens, and 0 is returned). */
MOXVOS_API int64_t moxvos_fread(int fd, void* buffer, uint64_t size,
                                uint64_t count);
MOXVOS_API int64_t moxvos_fwrite(int fd, const void* buffer, uint64_t size,
                                 uint64_t count);

/* lseek: the new offset or -1.  fseek: 0 when the seek gave a
 * non-negative offset, else -1.  ftell: lseek(fd, 0, SEEK_CUR).
 * The 64-bit family behaves identically (full 64-bit offsets). */
MOXVOS_API int64_t moxvos_lseek(int fd, int64_t offset, int whence);
MOXVOS_API int moxvos_fseek(int fd, int64_t offset, int whence);
MOXVOS_API int64_t moxvos_ftell(int fd);
MOXVOS_API int64_t moxvos_lseek64(int fd, int64_t offset, int whence);
MOXVOS_API int moxvos_fseek64(int fd, int64_t offset, int whence);
MOXVOS_API int64_t moxvos_ftell64(int fd);
MOXVOS_API int moxvos_fsync(int fd);
MOXVOS_API int moxvos_ftruncate(int fd, int64_t length);

/* ------------------------------------------------------------------------ */
/* Memory.  Sizes above MOXVOS_MAX_ALLOCATION never reach the allocator.    */

/* malloc(size) for 1..2^31-1; null without a call for 0 or more. */
MOXVOS_API void* moxvos_malloc(uint64_t size);
/* Null without a call when count or size is 0 or either or their product
 * exceeds 2^31-1; otherwise calloc(count, size). */
MOXVOS_API void* moxvos_calloc(uint64_t count, uint64_t size);
/* Above 2^31-1: null, the block is left alone.  Otherwise malloc(size) for
 * a null pointer, realloc(pointer, size) for any other. */
MOXVOS_API void* moxvos_realloc(void* pointer, uint64_t size);
/* Above 2^31-1: the block is released and null returned.  Size 0 with a
 * block: the block is released (once) and null returned.  Otherwise
 * realloc(pointer, size). */
MOXVOS_API void* moxvos_Saferealloc(void* pointer, uint64_t size);
/* malloc(size) with no limit of its own and no extra alignment; null
 * (ENOMEM) without a call past PTRDIFF_MAX, which no allocator can give. */
MOXVOS_API void* moxvos_valloc(uint64_t size);
/* free(pointer); null is ignored. */
MOXVOS_API void moxvos_free(void* pointer);

/* ------------------------------------------------------------------------ */
/* Advisory record locks between processes.                                 */

/* The caller provides the memory.  The address of the object is the
 * address of flLock, which is handed to fcntl. */
typedef struct _MoxvosFlock {
  struct flock flLock; /* type, whence, start and length of the last request */
  char* pszPath;       /* strdup copy of the lock file's name, or null */
  int iFd;             /* the lock file's descriptor, or -1 */
} _MoxvosFlock;

/* Opens path with moxvos_open(path, flags, ctx) and keeps a copy of the
 * name (also when the open fails).  A null path gives an object without a
 * file.  Result: 0, or -1 when the file cannot be opened. */
MOXVOS_API int moxvos_flock_init(_MoxvosFlock* lock, int flags,
                                 const char* path, void* ctx);
/* One non-waiting attempt at a write lock (fcntl F_SETLK).  A length of 0
 * means the file's present size (found by seeking to the end, which leaves
 * the descriptor's offset there); only for an empty file does fcntl get 0.
 * Result: 0 locked, -1 failed; errno EBUSY when another process holds the
 * range. */
MOXVOS_API int moxvos_flock_trywrlock(_MoxvosFlock* lock, int whence,
                                      int64_t start, int64_t length,
                                      void* ctx);
/* The same request with F_UNLCK; errno is the platform's. */
MOXVOS_API int moxvos_flock_unlock(_MoxvosFlock* lock, int whence,
                                   int64_t start, int64_t length, void* ctx);
/* Unlocks the whole present file, closes it and releases the name copy.
 * 0; -1 for a null lock (as for the other lock functions). */
MOXVOS_API int moxvos_flock_free(_MoxvosFlock* lock, void* ctx);

/* ------------------------------------------------------------------------ */
/* Temporary names and directory creation.                                  */

/* Creates an empty file dir/prefixXXXXXX with mkstemp (mode 0600; two
 * attempts) and returns its name, which the caller releases with
 * moxvos_free; the caller also removes the file.  A null dir means "/tmp",
 * a null prefix "".  Null when the name is too long, memory is short or
 * both attempts fail. */
MOXVOS_API char* moxvos_tempnam(const char* dir, const char* prefix,
                                void* ctx);
/* Creates every missing directory along path (at most 4096 bytes of it are
 * used) with mkdir(prefix, mode).  The root is never created, nor the
 * "//host" part of a path that starts with two slashes (such a path needs a
 * further '/' from its fourth character on).  Result: that of the last
 * mkdir called, or -1 when none was needed or path is null, empty or a
 * "//host" without a separator after it. */
MOXVOS_API int moxvos_mkdir(const char* path, int mode, void* ctx);

/* ------------------------------------------------------------------------ */
/* Dynamic loading and its log.                                             */

/* Only while the environment variable MOX_DLL_LOG is set (to anything, the
 * empty string included): appends format, with argument as its one string
 * argument, to "dll_debug.log" in the current directory, opening and closing
 * the file on every call.  Never fails visibly. */
MOXVOS_API void moxvos_dll_log(const char* format, const char* argument);
/* dlopen(name, flags), logging "moxvos_dlopen dll NAME \n" before and, when
 * it fails, "ERROR: moxvos_dlopen dll NAME \n" after.  The platform's error
 * text is left for moxvos_dlerror. */
MOXVOS_API void* moxvos_dlopen(const char* name, int flags);
/* Null for a null name; a null handle is the platform's default scope. */
MOXVOS_API void* moxvos_dlsym(void* handle, const char* name);
MOXVOS_API char* moxvos_dlerror(void);
/* Returns 0 and unloads nothing: loaded libraries stay for the process. */
MOXVOS_API int moxvos_dlclose(void* handle);

/* ------------------------------------------------------------------------ */
/* Process.                                                                 */

MOXVOS_API void moxvos_exit(int status) __attribute__((noreturn));
MOXVOS_API int moxvos_system(const char* command);
/* Always 0, also when the sleep was interrupted. */
MOXVOS_API int moxvos_usleep(uint32_t microseconds);
/* Does nothing. */
MOXVOS_API void moxvos_dummy(void);

#ifdef __cplusplus
}
#endif

#endif /* MOXVOS_H */
