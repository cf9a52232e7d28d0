// Putting a new file in place so that the path holds the complete old
// file or the complete new one at every moment: the bytes go to a
// temporary file in the same folder, which is flushed, renamed over the
// path, and the folder flushed after it.
#ifndef MOXOLEFIO_NATIVE_EDIT_ATOMIC_WRITE_H_
#define MOXOLEFIO_NATIVE_EDIT_ATOMIC_WRITE_H_

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "native/edit/serializer.h"

namespace mox::detail {

// A file written front to back with pwrite, in large pieces; pieces of
// zeros are left as holes, so sparse streams stay sparse.
class FileSink : public Sink {
 public:
  FileSink(int fd, std::string name);
  void write(const void* data, std::size_t count) override;
  void zeros(std::uint64_t count) override;
  void copyFrom(int fd, std::uint64_t offset, std::uint64_t count) override;
  void skip(std::uint64_t count) override;
  // Writes what is buffered and gives the file its full length.
  void finish();

 private:
  void flush();
  unsigned char* buffer();
  void put(const unsigned char* data, std::size_t count);
  void startWriteback();

  int fd_;
  std::string name_;
  std::unique_ptr<unsigned char[]> buffer_;  // made on first use, left unfilled
  std::size_t used_ = 0;
  std::uint64_t offset_ = 0;  // of the buffer's first byte
  std::uint64_t handedOver_ = 0;  // bytes before this are on their way to the disk
  bool hole_at_end_ = false;
};

// Writes `writer`'s file at `target` as described above.  Throws
// Error(io) with the target in the message; on a failure before the
// rename the target is untouched and the temporary file removed.
// `placed` runs right after the rename, with the path renamed over (links
// followed), before the folder is flushed: a failure to flush still
// leaves the new file in place.
// `confirm`, when given, is asked once the new file is flushed, before
// the rename: false drops the temporary file and leaves the target as it
// was (the result is then false).
bool writeAtomically(const std::filesystem::path& target, FileWriter& writer,
                     const std::function<void(const std::filesystem::path&)>& placed = nullptr,
                     const std::function<bool()>& confirm = nullptr);

// Makes the scratch file the file at `target`, in the same steps: the
// rest of `writer`'s file (see Serializer's `overScratch`) is written into
// it, it is flushed, given a temporary name in the folder and renamed over
// the path; `placed` runs while the scratch is handed over (see
// Scratch::handOver).  False, with nothing changed but bytes past the
// scratch file's pages, when the file cannot be given a name; throws as
// writeAtomically does.
bool makeScratchTheFile(const std::filesystem::path& target, FileWriter& writer, Scratch& scratch,
                        const std::function<void(const std::filesystem::path&)>& placed);

}  // namespace mox::detail

#endif  // MOXOLEFIO_NATIVE_EDIT_ATOMIC_WRITE_H_
