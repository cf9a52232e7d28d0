// The file operations a commit makes (and the scratch file's creation),
// behind one small interface so that tests can make any of them fail (or
// stop the process) at a chosen call.
// Every call has the meaning and the error reporting (-1 and errno) of
// the POSIX function it is named after.
#ifndef MOXOLEFIO_NATIVE_EDIT_FILE_OPS_H_
#define MOXOLEFIO_NATIVE_EDIT_FILE_OPS_H_

#include <sys/types.h>

#include <cstddef>

namespace mox::detail {

class FileOps {
 public:
  virtual ~FileOps() = default;
  virtual int open(const char* path, int flags, mode_t mode);
  virtual ssize_t pwrite(int fd, const void* data, std::size_t count, off_t offset);
  virtual ssize_t copy_file_range(int in, off_t* inOffset, int out, off_t* outOffset, std::size_t count);
  virtual int ftruncate(int fd, off_t size);
  virtual int fsync(int fd);
  virtual int rename(const char* from, const char* to);
  virtual int linkat(int fromDir, const char* from, int toDir, const char* to, int flags);
  virtual int close(int fd);
  virtual int unlink(const char* path);
  virtual int mkostemp(char* pattern, int flags);
};

// The operations in force: the system's unless a test replaced them.
FileOps& fileOps();
// Replaces the operations (null: the system's again).  Not thread-safe;
// for tests only.
void setFileOps(FileOps* ops);

}  // namespace mox::detail

#endif  // MOXOLEFIO_NATIVE_EDIT_FILE_OPS_H_
