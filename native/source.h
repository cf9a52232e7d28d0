// Where a file's bytes come from: a read-only mapping, the caller's
// memory, bytes the file owns, or a descriptor read with pread where a
// mapping is impossible.  Every source is safe to read from several
// threads at once.
#ifndef MOXOLEFIO_NATIVE_SOURCE_H_
#define MOXOLEFIO_NATIVE_SOURCE_H_

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace mox::detail {

class ByteSource {
 public:
  virtual ~ByteSource() = default;
  std::uint64_t size() const { return size_; }
  // The whole content when it is addressable (mapped or in memory), else null.
  const unsigned char* data() const { return data_; }
  // Copies up to `count` bytes from `offset`; fewer only at the end.
  // Throws Error(io) when the bytes cannot be read.
  virtual std::size_t readAt(std::uint64_t offset, void* buffer, std::size_t count) const;
  // For messages: the file's path, or "<memory>".
  const std::string& name() const { return name_; }
  // An open descriptor of the file, for copies the kernel makes, or -1.
  virtual int descriptor() const { return -1; }

 protected:
  ByteSource(const unsigned char* data, std::uint64_t size, std::string name)
      : data_(data), size_(size), name_(std::move(name)) {}
  const unsigned char* data_;
  std::uint64_t size_;
  std::string name_;
};

// Maps the file when `map` is set and it can be mapped; else reads it with
// pread.  A mapped file keeps its descriptor only when `keepDescriptor`
// is set (files opened for editing, whose commits copy from it).
std::unique_ptr<ByteSource> openFileSource(const std::filesystem::path& path, bool map = true,
                                           bool keepDescriptor = false);
std::unique_ptr<ByteSource> borrowMemory(const void* data, std::size_t size);
std::unique_ptr<ByteSource> ownBytes(std::vector<unsigned char> bytes, std::string name);

}  // namespace mox::detail

#endif  // MOXOLEFIO_NATIVE_SOURCE_H_
