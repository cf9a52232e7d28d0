#include "native/edit/atomic_write.h"

#include <errno.h>
#include <stdio.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "moxolefio/moxolefio.hpp"
#include "native/edit/file_ops.h"

namespace mox::detail {

namespace {

constexpr std::size_t kPieceSize = 1 << 20;
// How much written data may wait in the page cache before the disk is
// asked to start on it.
constexpr std::uint64_t kWritebackStep = 16 << 20;

[[noreturn]] void failed(const std::string& name, const std::string& what, int err) {
  throw Error(err == ENOMEM ? Errc::no_memory : Errc::io, name + ": " + what + ": " + strerror(err));
}

bool allZero(const unsigned char* p, std::size_t n) {
  return n == 0 || (p[0] == 0 && memcmp(p, p + 1, n - 1) == 0);
}

}  // namespace

FileSink::FileSink(int fd, std::string name) : fd_(fd), name_(std::move(name)) {}

unsigned char* FileSink::buffer() {
  // Not zeroed: a commit that copies file to file touches few of its pages.
  if (!buffer_) buffer_.reset(new unsigned char[kPieceSize]);
  return buffer_.get();
}

void FileSink::put(const unsigned char* data, std::size_t count) {
  if (allZero(data, count)) {
    offset_ += count;
    hole_at_end_ = true;
    return;
  }
  hole_at_end_ = false;
  FileOps& ops = fileOps();
  while (count > 0) {
    const ssize_t n = ops.pwrite(fd_, data, count, static_cast<off_t>(offset_));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) failed(name_, "write", errno);
    if (n == 0) failed(name_, "write", ENOSPC);
    data += n;
    offset_ += static_cast<std::uint64_t>(n);
    count -= static_cast<std::size_t>(n);
  }
  startWriteback();
}

void FileSink::startWriteback() {
  // Left to itself the kernel writes a new file out only at the fsync, so
  // that producing the bytes and the disk's work would follow each other.
  // Asking for it as the file grows lets them overlap; it is advice only
  // (the fsync still decides), so a failure is of no consequence.
  if (offset_ - handedOver_ < kWritebackStep) return;
  (void)::sync_file_range(fd_, static_cast<off_t>(handedOver_), static_cast<off_t>(offset_ - handedOver_),
                          SYNC_FILE_RANGE_WRITE);
  handedOver_ = offset_;
}

void FileSink::flush() {
  if (used_ == 0) return;
  put(buffer_.get(), used_);
  used_ = 0;
}

void FileSink::write(const void* data, std::size_t count) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  while (count > 0) {
    if (used_ == 0 && count >= kPieceSize) {
      // Large pieces skip the buffer.
      const std::size_t n = count - count % kPieceSize;
      for (std::size_t done = 0; done < n; done += kPieceSize) put(bytes + done, kPieceSize);
      bytes += n;
      count -= n;
      continue;
    }
    const std::size_t n = std::min(count, kPieceSize - used_);
    memcpy(buffer() + used_, bytes, n);
    used_ += n;
    bytes += n;
    count -= n;
    if (used_ == kPieceSize) flush();
  }
}

void FileSink::zeros(std::uint64_t count) {
  while (count > 0) {
    if (used_ == 0 && count >= kPieceSize) {
      const std::uint64_t n = count - count % kPieceSize;
      offset_ += n;
      hole_at_end_ = true;
      count -= n;
      continue;
    }
    const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(count, kPieceSize - used_));
    memset(buffer() + used_, 0, n);
    used_ += n;
    count -= n;
    if (used_ == kPieceSize) flush();
  }
}

void FileSink::skip(std::uint64_t count) {
  flush();
  offset_ += count;
  hole_at_end_ = true;
}

void FileSink::copyFrom(int fd, std::uint64_t offset, std::uint64_t count) {
  flush();
  FileOps& ops = fileOps();
  while (count > 0) {
    off_t in = static_cast<off_t>(offset), out = static_cast<off_t>(offset_);
    const auto piece = static_cast<std::size_t>(std::min<std::uint64_t>(count, kWritebackStep));
    const ssize_t n = ops.copy_file_range(fd, &in, fd_, &out, piece);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP)) {
      // No copying between these files in the kernel: through memory.
      Sink::copyFrom(fd, offset, count);
      return;
    }
    if (n < 0) failed(name_, "write", errno);
    if (n == 0) {
      zeros(count);  // past the scratch file's end: never written
      return;
    }
    hole_at_end_ = false;
    offset += static_cast<std::uint64_t>(n);
    offset_ += static_cast<std::uint64_t>(n);
    count -= static_cast<std::uint64_t>(n);
    startWriteback();
  }
}

void FileSink::finish() {
  flush();
  if (hole_at_end_ && fileOps().ftruncate(fd_, static_cast<off_t>(offset_)) != 0) {
    failed(name_, "cannot set the file's size", errno);
  }
}

namespace {

// Where a new file goes and what it looks like: a link is followed (the
// file it names is the one replaced), and the new file gets the old one's
// permissions, or those a new file would get.
struct Destination {
  std::filesystem::path target;
  std::filesystem::path folder;
  std::string name;
  bool exists = false;
  mode_t mode = 0666;
};

mode_t currentUmask() {
  // umask() cannot be read without being set, which races with other
  // threads; the kernel reports it here.
  FILE* status = fopen("/proc/self/status", "re");
  unsigned mask = 022;
  if (status != nullptr) {
    char line[256];
    while (fgets(line, sizeof line, status) != nullptr) {
      if (sscanf(line, "Umask: %o", &mask) == 1) break;
    }
    fclose(status);
  }
  return static_cast<mode_t>(mask);
}

Destination destinationOf(const std::filesystem::path& requested) {
  Destination d;
  d.target = requested;
  std::error_code ec;
  if (std::filesystem::is_symlink(d.target, ec)) {
    const std::filesystem::path resolved = std::filesystem::canonical(d.target, ec);
    if (!ec) d.target = resolved;
  }
  d.name = d.target.string();
  d.folder = d.target.parent_path();
  if (d.folder.empty()) d.folder = ".";
  struct stat existing;
  d.exists = ::stat(d.target.c_str(), &existing) == 0;
  d.mode = d.exists ? (existing.st_mode & 07777) : 0666;
  return d;
}

std::string temporaryName(const Destination& d) {
  static std::atomic<unsigned> counter{0};
  return (d.folder / ("." + d.target.filename().string() + ".moxtmp-" + std::to_string(getpid()) + "-" +
                      std::to_string(counter++)))
      .string();
}

void flushFolder(const Destination& d) {
  // The rename is only durable once the folder is.
  FileOps& ops = fileOps();
  const int dir = ops.open(d.folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
  if (dir < 0) failed(d.name, "cannot open the folder to flush it", errno);
  const int synced = ops.fsync(dir);
  const int err = errno;
  ops.close(dir);
  if (synced != 0) failed(d.name, "the new file is in place but its folder cannot be flushed", err);
}

void renameOver(const Destination& d, const std::string& temporary) {
  if (fileOps().rename(temporary.c_str(), d.target.c_str()) != 0) {
    failed(d.name, "cannot put the new file in place", errno);
  }
}

}  // namespace

bool writeAtomically(const std::filesystem::path& requested, FileWriter& writer,
                     const std::function<void(const std::filesystem::path&)>& placed,
                     const std::function<bool()>& confirm) {
  FileOps& ops = fileOps();
  const Destination d = destinationOf(requested);
  std::string temporary;
  int fd = -1;
  for (int attempt = 0; fd < 0; ++attempt) {
    temporary = temporaryName(d);
    fd = ops.open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, d.mode);
    if (fd < 0 && (errno != EEXIST || attempt > 100)) {
      failed(d.name, "cannot create a temporary file in " + d.folder.string(), errno);
    }
  }
  // Keep the original's permissions exactly (the umask may have cut them).
  if (d.exists) (void)::fchmod(fd, d.mode);
  try {
    FileSink sink(fd, d.name);
    writer.write(sink);
    sink.finish();
    if (ops.fsync(fd) != 0) failed(d.name, "cannot flush the new file", errno);
    const int closing = ops.close(fd);
    fd = -1;
    if (closing != 0) failed(d.name, "cannot close the new file", errno);
    if (confirm && !confirm()) {
      ops.unlink(temporary.c_str());
      return false;
    }
    renameOver(d, temporary);
  } catch (...) {
    if (fd >= 0) ops.close(fd);
    ops.unlink(temporary.c_str());
    throw;
  }
  if (placed) placed(d.target);
  flushFolder(d);
  return true;
}

bool makeScratchTheFile(const std::filesystem::path& requested, FileWriter& writer, Scratch& scratch,
                        const std::function<void(const std::filesystem::path&)>& placed) {
  FileOps& ops = fileOps();
  const Destination d = destinationOf(requested);
  const int fd = scratch.descriptor();
  FileSink sink(fd, d.name);
  writer.write(sink);
  sink.finish();
  // Bytes a failed attempt left past the end go.
  if (ops.ftruncate(fd, static_cast<off_t>(writer.fileSize())) != 0) {
    failed(d.name, "cannot set the file's size", errno);
  }
  if (::fchmod(fd, d.exists ? d.mode : (d.mode & ~currentUmask())) != 0) {
    failed(d.name, "cannot set the new file's permissions", errno);
  }
  if (ops.fsync(fd) != 0) failed(d.name, "cannot flush the new file", errno);
  // An unnamed file gets its name through its descriptor's entry in /proc.
  const std::string self = "/proc/self/fd/" + std::to_string(fd);
  std::string temporary;
  for (int attempt = 0;; ++attempt) {
    temporary = temporaryName(d);
    if (ops.linkat(AT_FDCWD, self.c_str(), AT_FDCWD, temporary.c_str(), AT_SYMLINK_FOLLOW) == 0) break;
    if (errno == EEXIST && attempt < 100) continue;
    // No /proc, or a file system that cannot do it: the caller copies.
    // A file that had a name once cannot get one again (ENOENT).
    if (errno == ENOENT || errno == EPERM || errno == EXDEV || errno == EOPNOTSUPP || errno == ENOSYS) {
      scratch.refuseName();
      return false;
    }
    failed(d.name, "cannot give the new file a name in " + d.folder.string(), errno);
  }
  try {
    renameOver(d, temporary);
  } catch (...) {
    ops.unlink(temporary.c_str());
    throw;
  }
  ops.close(scratch.handOver());
  try {
    if (placed) placed(d.target);
  } catch (...) {
    scratch.resume();
    throw;
  }
  scratch.resume();
  flushFolder(d);
  return true;
}

}  // namespace mox::detail
