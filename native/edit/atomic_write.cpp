#include "native/edit/atomic_write.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

#include "moxolefio/moxolefio.hpp"
#include "native/edit/file_ops.h"

namespace mox::detail {

namespace {

constexpr std::size_t kPieceSize = 1 << 20;

[[noreturn]] void failed(const std::string& name, const std::string& what, int err) {
  throw Error(err == ENOMEM ? Errc::no_memory : Errc::io, name + ": " + what + ": " + strerror(err));
}

bool allZero(const unsigned char* p, std::size_t n) {
  return n == 0 || (p[0] == 0 && memcmp(p, p + 1, n - 1) == 0);
}

}  // namespace

FileSink::FileSink(int fd, std::string name) : fd_(fd), name_(std::move(name)), buffer_(kPieceSize) {}

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
}

void FileSink::flush() {
  put(buffer_.data(), used_);
  used_ = 0;
}

void FileSink::write(const void* data, std::size_t count) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  while (count > 0) {
    if (used_ == 0 && count >= buffer_.size()) {
      // Large pieces skip the buffer.
      const std::size_t n = count - count % buffer_.size();
      for (std::size_t done = 0; done < n; done += buffer_.size()) put(bytes + done, buffer_.size());
      bytes += n;
      count -= n;
      continue;
    }
    const std::size_t n = std::min(count, buffer_.size() - used_);
    memcpy(buffer_.data() + used_, bytes, n);
    used_ += n;
    bytes += n;
    count -= n;
    if (used_ == buffer_.size()) flush();
  }
}

void FileSink::zeros(std::uint64_t count) {
  while (count > 0) {
    if (used_ == 0 && count >= buffer_.size()) {
      const std::uint64_t n = count - count % buffer_.size();
      offset_ += n;
      hole_at_end_ = true;
      count -= n;
      continue;
    }
    const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(count, buffer_.size() - used_));
    memset(buffer_.data() + used_, 0, n);
    used_ += n;
    count -= n;
    if (used_ == buffer_.size()) flush();
  }
}

void FileSink::copyFrom(int fd, std::uint64_t offset, std::uint64_t count) {
  flush();
  FileOps& ops = fileOps();
  while (count > 0) {
    off_t in = static_cast<off_t>(offset), out = static_cast<off_t>(offset_);
    const ssize_t n = ops.copy_file_range(fd, &in, fd_, &out, static_cast<std::size_t>(count));
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
  }
}

void FileSink::finish() {
  flush();
  if (hole_at_end_ && fileOps().ftruncate(fd_, static_cast<off_t>(offset_)) != 0) {
    failed(name_, "cannot set the file's size", errno);
  }
}

bool writeAtomically(const std::filesystem::path& requested, FileWriter& writer,
                     const std::function<void(const std::filesystem::path&)>& placed,
                     const std::function<bool()>& confirm) {
  static std::atomic<unsigned> counter{0};
  FileOps& ops = fileOps();
  // A link is followed: the file it names is the one replaced.
  std::filesystem::path target = requested;
  std::error_code ec;
  if (std::filesystem::is_symlink(target, ec)) {
    const std::filesystem::path resolved = std::filesystem::canonical(target, ec);
    if (!ec) target = resolved;
  }
  const std::string name = target.string();
  std::filesystem::path folder = target.parent_path();
  if (folder.empty()) folder = ".";
  struct stat existing;
  const bool exists = ::stat(target.c_str(), &existing) == 0;
  const mode_t mode = exists ? (existing.st_mode & 07777) : 0666;

  std::string temporary;
  int fd = -1;
  for (int attempt = 0; fd < 0; ++attempt) {
    temporary = (folder / ("." + target.filename().string() + ".moxtmp-" + std::to_string(getpid()) + "-" +
                           std::to_string(counter++)))
                    .string();
    fd = ops.open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd < 0 && (errno != EEXIST || attempt > 100)) {
      failed(name, "cannot create a temporary file in " + folder.string(), errno);
    }
  }
  // Keep the original's permissions exactly (the umask may have cut them).
  if (exists) (void)::fchmod(fd, mode);
  try {
    FileSink sink(fd, name);
    writer.write(sink);
    sink.finish();
    if (ops.fsync(fd) != 0) failed(name, "cannot flush the new file", errno);
    const int closing = ops.close(fd);
    fd = -1;
    if (closing != 0) failed(name, "cannot close the new file", errno);
    if (confirm && !confirm()) {
      ops.unlink(temporary.c_str());
      return false;
    }
    if (ops.rename(temporary.c_str(), target.c_str()) != 0) failed(name, "cannot put the new file in place", errno);
  } catch (...) {
    if (fd >= 0) ops.close(fd);
    ops.unlink(temporary.c_str());
    throw;
  }
  if (placed) placed(target);
  // The rename is only durable once the folder is.
  const int dir = ops.open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
  if (dir < 0) failed(name, "cannot open the folder to flush it", errno);
  const int synced = ops.fsync(dir);
  const int err = errno;
  ops.close(dir);
  if (synced != 0) failed(name, "the new file is in place but its folder cannot be flushed", err);
  return true;
}

}  // namespace mox::detail
