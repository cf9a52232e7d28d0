// HostIo and its two backends: bytes in memory and a file descriptor.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "host/moxhost.h"

namespace moxhost {

namespace {

HostIo* self(_ZqTPIOobj* io) { return static_cast<HostIo*>(io->pPrivate); }
int ioOpen(_ZqTPIOobj* io) { return self(io)->doOpen(); }
int ioRead(_ZqTPIOobj* io, void* buffer, int count) {
  return self(io)->doRead(buffer, count);
}
int ioWrite(_ZqTPIOobj* io, const void* buffer, int count) {
  return self(io)->doWrite(buffer, count);
}
int ioSeek(_ZqTPIOobj* io, int64_t offset, int whence) {
  return self(io)->doSeek(offset, whence);
}
int64_t ioTell(_ZqTPIOobj* io) { return self(io)->doTell(); }
int ioClose(_ZqTPIOobj* io) { return self(io)->doClose(); }
int ioError(_ZqTPIOobj*) { return 0; }

}  // namespace

HostIo::HostIo() {
  memset(&face_, 0, sizeof face_);
  face_.io.pPrivate = this;
  face_.io.open = ioOpen;
  face_.io.read = ioRead;
  face_.io.write = ioWrite;
  face_.io.seek = ioSeek;
  face_.io.tell = ioTell;
  face_.io.close = ioClose;
  face_.io.error = ioError;
}

HostIo::~HostIo() = default;

void HostIo::setWritable(bool on) { face_.io.write = on ? ioWrite : nullptr; }

void HostIo::note(IoCall::Kind kind, int64_t position, int64_t count, int64_t result) {
  if (recording_) calls_.push_back(IoCall{kind, position, count, result});
}

int HostIo::doOpen() {
  ++openCalls_;
  int result = (!failOpen_ && openBackend()) ? 1 : 0;
  if (result) position_ = 0;
  note(IoCall::kOpen, 0, 0, result);
  return result;
}

int HostIo::doRead(void* buffer, int count) {
  ++readCallsTotal_;
  ++reads_;
  int64_t at = position_;
  int result = 0;
  if (count > 0) {
    int wanted = count;
    if (shortReadAt_ > 0 && reads_ == shortReadAt_) {
      wanted = std::min(count, shortReadBytes_);
    }
    result = wanted > 0 ? readAt(position_, buffer, wanted) : 0;
    if (result < 0) result = 0;
    position_ += result;
  }
  note(IoCall::kRead, at, count, result);
  return result;
}

int HostIo::doWrite(const void* buffer, int count) {
  ++writeCallsTotal_;
  ++writes_;
  int64_t at = position_;
  int result = 1;
  if (failWriteAt_ > 0 && writes_ == failWriteAt_) {
    result = 0;
  } else if (count < 0) {
    result = 0;
  } else if (count > 0) {
    result = writeAt(position_, buffer, count) ? 1 : 0;
    if (result) position_ += count;
  }
  note(IoCall::kWrite, at, count, result);
  return result;
}

int HostIo::doSeek(int64_t offset, int whence) {
  ++seekCallsTotal_;
  ++seeks_;
  int64_t target = -1;
  if (whence == 0) target = offset;
  if (whence == 1) target = position_ + offset;
  if (whence == 2) target = size() + offset;
  bool injected = failSeekAt_ > 0 &&
                  (seekSticky_ ? seeks_ >= failSeekAt_ : seeks_ == failSeekAt_);
  int result = (!injected && target >= 0) ? 1 : 0;
  if (result) position_ = target;
  note(IoCall::kSeek, offset, whence, result);
  return result;
}

int64_t HostIo::doTell() {
  note(IoCall::kTell, position_, 0, position_);
  return position_;
}

int HostIo::doClose() {
  ++closeCalls_;
  closeBackend();
  note(IoCall::kClose, position_, 0, 1);
  return 1;
}

int MemoryIo::readAt(int64_t position, void* buffer, int count) {
  // bytes_.size(), not the virtual size(): the reader calls this once per
  // 64-byte piece of a mini stream.
  int64_t have = static_cast<int64_t>(bytes_.size()) - position;
  if (have <= 0) return 0;
  int n = static_cast<int>(std::min<int64_t>(have, count));
  memcpy(buffer, bytes_.data() + position, static_cast<size_t>(n));
  return n;
}

bool MemoryIo::writeAt(int64_t position, const void* buffer, int count) {
  const unsigned char* from = static_cast<const unsigned char*>(buffer);
  // Appending is the common case (a writer going front to back): growing
  // by the copy itself touches each byte once, not zeros first and then
  // the data.
  if (static_cast<size_t>(position) == bytes_.size()) {
    bytes_.insert(bytes_.end(), from, from + count);
    return true;
  }
  size_t end = static_cast<size_t>(position) + static_cast<size_t>(count);
  if (end > bytes_.size()) bytes_.resize(end);
  memcpy(bytes_.data() + position, from, static_cast<size_t>(count));
  return true;
}

FileIo::FileIo(std::string path, Mode mode) : path_(std::move(path)), mode_(mode) {}

FileIo::~FileIo() {
  if (fd_ >= 0) close(fd_);
}

namespace {

constexpr int kReadWindow = 32 * 1024;

}  // namespace

bool FileIo::openBackend() {
  if (fd_ >= 0) return true;
  dropWindow();
  int flags = O_RDONLY;
  if (mode_ == kCreate) flags = O_RDWR | O_CREAT | O_TRUNC;
  if (mode_ == kReadWrite) flags = O_RDWR;
  fd_ = ::open(path_.c_str(), flags | O_CLOEXEC, 0644);
  openError_ = fd_ < 0 ? errno : 0;
  return fd_ >= 0;
}

void FileIo::closeBackend() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
  dropWindow();
}

int64_t FileIo::size() const {
  struct stat st;
  if (fd_ < 0 || fstat(fd_, &st) != 0) return 0;
  return st.st_size;
}

// pread until `count` bytes, the end of the file or an error.
int FileIo::readFile(int64_t position, void* buffer, int count) {
  int done = 0;
  while (done < count) {
    ssize_t n = pread(fd_, static_cast<char*>(buffer) + done,
                      static_cast<size_t>(count - done), position + done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<int>(n);
  }
  return done;
}

int FileIo::readAt(int64_t position, void* buffer, int count) {
  if (fd_ < 0) return 0;
  if (count >= kReadWindow) return readFile(position, buffer, count);
  const bool inWindow = position >= windowStart_ &&
                        position + count <= windowStart_ + windowLength_;
  if (!inWindow) {
    window_.resize(kReadWindow);
    windowStart_ = position;
    windowLength_ = readFile(position, window_.data(), kReadWindow);
  }
  const int64_t have = windowStart_ + windowLength_ - position;
  const int n = static_cast<int>(have < count ? have : count);
  if (n <= 0) return 0;
  memcpy(buffer, window_.data() + (position - windowStart_), static_cast<size_t>(n));
  return n;
}

bool FileIo::writeAt(int64_t position, const void* buffer, int count) {
  if (fd_ < 0) return false;
  dropWindow();
  int done = 0;
  while (done < count) {
    ssize_t n = pwrite(fd_, static_cast<const char*>(buffer) + done,
                       static_cast<size_t>(count - done), position + done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<int>(n);
  }
  return true;
}

bool readFile(const std::string& path, std::vector<uint8_t>* bytes) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bytes->clear();
  char buffer[65536];
  for (;;) {
    ssize_t n = read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      close(fd);
      return false;
    }
    if (n == 0) break;
    bytes->insert(bytes->end(), buffer, buffer + n);
  }
  close(fd);
  return true;
}

}  // namespace moxhost
