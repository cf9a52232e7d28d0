#include "native/source.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "moxolefio/moxolefio.hpp"

namespace mox::detail {

std::size_t ByteSource::readAt(std::uint64_t offset, void* buffer, std::size_t count) const {
  if (offset >= size_) return 0;
  const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(count, size_ - offset));
  memcpy(buffer, data_ + offset, n);
  return n;
}

namespace {

[[noreturn]] void throwErrno(const std::string& what, const std::string& name) {
  const int err = errno;
  const Errc code = err == ENOENT || err == ENOTDIR ? Errc::not_found
                    : err == ENOMEM                 ? Errc::no_memory
                                                    : Errc::io;
  throw Error(code, name + ": " + what + ": " + strerror(err));
}

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

class MappedFile : public ByteSource {
 public:
  MappedFile(void* mapping, std::uint64_t size, std::string name, int fd)
      : ByteSource(static_cast<const unsigned char*>(mapping), size, std::move(name)), fd_(fd) {}
  ~MappedFile() override {
    if (size_ > 0) munmap(const_cast<unsigned char*>(data_), size_);
  }
  int descriptor() const override { return fd_.get(); }

 private:
  Descriptor fd_;
};

// Files that cannot be mapped (pipes turned into files by /proc, special
// file systems) are read piece by piece.
class PreadFile : public ByteSource {
 public:
  PreadFile(int fd, std::uint64_t size, std::string name)
      : ByteSource(nullptr, size, std::move(name)), fd_(fd) {}
  int descriptor() const override { return fd_.get(); }
  std::size_t readAt(std::uint64_t offset, void* buffer, std::size_t count) const override {
    if (offset >= size_) return 0;
    std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(count, size_ - offset));
    std::size_t done = 0;
    while (done < want) {
      const ssize_t n = ::pread(fd_.get(), static_cast<char*>(buffer) + done, want - done,
                                static_cast<off_t>(offset + done));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) throwErrno("read", name_);
      if (n == 0) break;
      done += static_cast<std::size_t>(n);
    }
    return done;
  }

 private:
  Descriptor fd_;
};

class MemorySource : public ByteSource {
 public:
  MemorySource(const void* data, std::size_t size, std::string name = "<memory>")
      : ByteSource(static_cast<const unsigned char*>(data), size, std::move(name)) {}
};

class OwnedSource : public ByteSource {
 public:
  OwnedSource(std::vector<unsigned char> bytes, std::string name)
      : ByteSource(nullptr, bytes.size(), std::move(name)), bytes_(std::move(bytes)) {
    data_ = bytes_.data();
  }

 private:
  std::vector<unsigned char> bytes_;
};

}  // namespace

std::unique_ptr<ByteSource> openFileSource(const std::filesystem::path& path, bool map, bool keepDescriptor) {
  const std::string name = path.string();
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throwErrno("cannot open", name);
  Descriptor guard(fd);
  struct stat info;
  if (fstat(fd, &info) != 0) throwErrno("cannot stat", name);
  if (S_ISDIR(info.st_mode)) throw Error(Errc::io, name + ": is a directory");
  const std::uint64_t size = static_cast<std::uint64_t>(info.st_size);
  if (size == 0) return std::make_unique<MemorySource>(nullptr, 0, name);
  void* mapping = map && S_ISREG(info.st_mode) ? mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0)
                                        : MAP_FAILED;
  if (mapping != MAP_FAILED) {
    const int kept = keepDescriptor ? dup(fd) : -1;
    if (keepDescriptor && kept < 0) {
      munmap(mapping, size);
      throwErrno("cannot open", name);
    }
    return std::make_unique<MappedFile>(mapping, size, name, kept);
  }
  const int kept = dup(fd);
  if (kept < 0) throwErrno("cannot open", name);
  return std::make_unique<PreadFile>(kept, size, name);
}

std::unique_ptr<ByteSource> borrowMemory(const void* data, std::size_t size) {
  return std::make_unique<MemorySource>(data, size);
}

std::unique_ptr<ByteSource> ownBytes(std::vector<unsigned char> bytes, std::string name) {
  return std::make_unique<OwnedSource>(std::move(bytes), std::move(name));
}

}  // namespace mox::detail
